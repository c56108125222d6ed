// AFC: the device's media file system, and house-arrest connections that turn
// into AFC rooted at one app's container.
#include <libimobiledevice/service.h>
#include <plist/plist.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "device/device_internal.h"

// libimobiledevice 1.3.0's service_receive leaves *received as it was when a
// read fails, and its AFC reader adds that count again after every failed
// read: a reply cut short after a header that claims more than was sent then
// counts heap memory as received data, gigabytes of it for a header that
// claims 2^62 bytes, and spins for minutes. This one, found first by the
// library's own calls, says 0 for a failed read; the reader then stops at the
// bytes that really came.
extern "C" service_error_t service_receive(service_client_t client, char *data, uint32_t size, uint32_t *received) {
    if (received != nullptr) *received = 0;
    return service_receive_with_timeout(client, data, size, received, 30000);
}

int vendResult(plist_t reply) {
    plist_t error = reply != nullptr ? plist_dict_get_item(reply, "Error") : nullptr;
    plist_t status = reply != nullptr ? plist_dict_get_item(reply, "Status") : nullptr;
    char *text = nullptr;
    int result = LIBIUSB_SUCCESS;
    if (error != nullptr && plist_get_node_type(error) == PLIST_STRING) {
        plist_get_string_val(error, &text);
        result = mapHouseArrestReply(text);
    } else if (status == nullptr || plist_get_node_type(status) != PLIST_STRING) {
        result = LIBIUSB_ERROR_OTHER;
    } else {
        plist_get_string_val(status, &text);
        if (text == nullptr || strcmp(text, "Complete") != 0) result = LIBIUSB_ERROR_OTHER;
    }
    free(text);
    return result;
}

namespace {

// Largest piece sent or asked for in one AFC request; longer reads and writes
// are split so no single packet grows without bound.
constexpr uint32_t kMaxTransfer = 1u << 20;

int afcResult(afc_error_t result) { return mapNativeError(NativeSource::Afc, result); }

void forgetPosition(libiusb_afc *afc, uint64_t file_handle) {
    std::lock_guard<std::mutex> guard(afc->positions_lock);
    auto found = afc->open_files.find(file_handle);
    if (found != afc->open_files.end()) found->second.position = kPositionUnknown;
}

// Puts the device's file pointer at offset, unless it is known to be there.
int seekTo(libiusb_afc *afc, afc_client_t client, uint64_t file_handle, uint64_t device_handle, uint64_t offset) {
    {
        std::lock_guard<std::mutex> guard(afc->positions_lock);
        auto found = afc->open_files.find(file_handle);
        if (found != afc->open_files.end() && found->second.position == offset) return LIBIUSB_SUCCESS;
        afc->seeks_sent++;
    }
    if (offset > static_cast<uint64_t>(INT64_MAX)) return LIBIUSB_ERROR_INVALID_PARAM;
    int result = afcResult(afc_file_seek(client, device_handle, static_cast<int64_t>(offset), SEEK_SET));
    std::lock_guard<std::mutex> guard(afc->positions_lock);
    auto found = afc->open_files.find(file_handle);
    if (found != afc->open_files.end()) found->second.position = result == 0 ? offset : kPositionUnknown;
    return result;
}

void settlePosition(libiusb_afc *afc, uint64_t file_handle, uint64_t position, bool wrote) {
    std::lock_guard<std::mutex> guard(afc->positions_lock);
    auto found = afc->open_files.find(file_handle);
    if (found == afc->open_files.end()) return;
    // In append mode the device put the bytes at the end, wherever that is.
    found->second.position = (wrote && found->second.appends) ? kPositionUnknown : position;
}

// Frees the connection's clients; the handles opened on it stay known, to be
// opened again on the next connection.
void freeClients(libiusb_afc *afc) {
    // The AFC client of a house-arrest connection borrows the house-arrest
    // service, so it goes first.
    if (afc->client != nullptr) afc_client_free(afc->client);
    if (afc->house_arrest != nullptr) house_arrest_client_free(afc->house_arrest);
    afc->client = nullptr;
    afc->house_arrest = nullptr;
}

void freeConnection(libiusb_afc *afc) {
    freeClients(afc);
    std::lock_guard<std::mutex> guard(afc->positions_lock);
    afc->open_files.clear();
}

int startHouseArrest(libiusb_afc *afc) {
    lockdownd_service_descriptor_t service = nullptr;
    idevice_t device = nullptr;
    int result = startDeviceService(afc->owner, HOUSE_ARREST_SERVICE_NAME, &service, &device);
    if (result == 0) {
        result = mapNativeError(NativeSource::HouseArrest, house_arrest_client_new(device, service, &afc->house_arrest));
    }
    if (service != nullptr) lockdownd_service_descriptor_free(service);
    return result;
}

// Asks house-arrest for the app's documents and turns the connection into
// AFC rooted there. On failure the service is in no state to be asked again,
// so both clients are freed.
int vendDocuments(libiusb_afc *afc, const char *bundle_id) {
    int result =
        mapNativeError(NativeSource::HouseArrest, house_arrest_send_command(afc->house_arrest, "VendDocuments", bundle_id));
    plist_t reply = nullptr;
    if (result == 0) {
        result = mapNativeError(NativeSource::HouseArrest, house_arrest_get_result(afc->house_arrest, &reply));
    }
    if (result == 0) result = vendResult(reply);
    if (reply != nullptr) plist_free(reply);
    if (result == 0) {
        result = mapNativeError(NativeSource::Afc, afc_client_new_from_house_arrest_client(afc->house_arrest, &afc->client));
    }
    if (result != 0) freeClients(afc);
    return result;
}

// A new connection in place of a lost one: the same service and, for an app's
// connection, the same app. connection_lock is held exclusively.
int openConnectionAgain(libiusb_afc *afc) {
    freeClients(afc);
    int result;
    if (afc->kind == AfcKind::Media) {
        result = startAfcClient(afc->owner, &afc->client);
    } else {
        result = startHouseArrest(afc);
        if (result == 0 && afc->kind == AfcKind::HouseArrestApp) result = vendDocuments(afc, afc->bundle_id.c_str());
    }
    if (result != 0) {
        freeClients(afc);
        return result;
    }
    afc->generation++;
    afc->lost = false;
    return LIBIUSB_SUCCESS;
}

int reopenIfLost(libiusb_afc *afc) {
    if (!afc->lost) return LIBIUSB_SUCCESS;
    std::unique_lock<std::shared_mutex> exclusive(afc->connection_lock);
    if (!afc->lost) return LIBIUSB_SUCCESS;  // another thread got there first
    return openConnectionAgain(afc);
}

// Runs one request on the connection. A connection a request found lost
// before is opened again first (the device still being attached); the request
// that finds it lost fails, and is not sent twice: it may have been carried
// out before the connection went.
template <typename Request>
int onConnection(libiusb_afc *afc, Request request) {
    if (afc == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    int reopened = reopenIfLost(afc);
    if (reopened != 0) return reopened;
    std::shared_lock<std::shared_mutex> shared(afc->connection_lock);
    // Only connections that have an AFC client can serve file requests; a
    // house-arrest handle gets one once an app is opened.
    if (afc->client == nullptr) return afc->lost ? LIBIUSB_ERROR_CONNECTION_LOST : LIBIUSB_ERROR_INVALID_PARAM;
    int result = request(afc->client);
    if (result == LIBIUSB_ERROR_CONNECTION_LOST) afc->lost = true;
    return result;
}

// An open mode that reopens a file as it stands: what was written through
// the handle before must not be truncated away.
int modeToReopen(int mode) {
    if (mode == LIBIUSB_AFC_WRONLY || mode == LIBIUSB_AFC_WR) return LIBIUSB_AFC_RW;
    return mode;
}

// The device's own handle for one of ours on the current connection, the
// file opened again when it was opened on an earlier one. 0, or the error.
int deviceHandleOf(libiusb_afc *afc, afc_client_t client, uint64_t file_handle, uint64_t *device_handle) {
    std::lock_guard<std::mutex> guard(afc->positions_lock);
    auto found = afc->open_files.find(file_handle);
    if (found == afc->open_files.end()) return LIBIUSB_ERROR_INVALID_PARAM;
    libiusb_afc::OpenFile &record = found->second;
    if (record.generation != afc->generation) {
        uint64_t opened = 0;
        int result = afcResult(afc_file_open(client, record.path.c_str(),
                                             static_cast<afc_file_mode_t>(modeToReopen(record.mode)), &opened));
        if (result != 0) return result;
        if (opened == 0) return LIBIUSB_ERROR_OTHER;
        record.device_handle = opened;
        record.generation = afc->generation;
        record.position = record.appends ? kPositionUnknown : 0;
    }
    *device_handle = record.device_handle;
    return LIBIUSB_SUCCESS;
}

// True when path is a folder with anything in it besides "." and "..".
bool holdsEntries(afc_client_t client, const char *path) {
    char **entries = nullptr;
    if (afc_read_directory(client, path, &entries) != AFC_E_SUCCESS || entries == nullptr) {
        if (entries != nullptr) afc_dictionary_free(entries);
        return false;
    }
    bool found = false;
    for (char **entry = entries; *entry != nullptr; entry++) {
        if (strcmp(*entry, ".") != 0 && strcmp(*entry, "..") != 0) found = true;
    }
    afc_dictionary_free(entries);
    return found;
}

int64_t parseSigned(const char *text) { return text == nullptr ? 0 : strtoll(text, nullptr, 10); }

// A size past the largest file offset ("-1" reads as one too) would make the
// kernel refuse the whole record; it stands for "too big to say", and reads
// go on until the device's data ends.
uint64_t parseSize(const char *text) {
    uint64_t size = text == nullptr ? 0 : strtoull(text, nullptr, 10);
    return std::min<uint64_t>(size, INT64_MAX);
}

// The device's handle for `file_handle` on the current connection, its file
// pointer at `offset`: where every transfer starts.
int placeAt(libiusb_afc *afc, afc_client_t client, uint64_t file_handle, uint64_t offset, uint64_t *device_handle) {
    int result = deviceHandleOf(afc, client, file_handle, device_handle);
    return result != 0 ? result : seekTo(afc, client, file_handle, *device_handle, offset);
}

} // namespace

int startAfcClient(libiusb_device_handle *handle, afc_client_t *client) {
    lockdownd_service_descriptor_t service = nullptr;
    idevice_t device = nullptr;
    int result = startDeviceService(handle, AFC_SERVICE_NAME, &service, &device);
    if (result == 0) result = afcResult(afc_client_new(device, service, client));
    if (service != nullptr) lockdownd_service_descriptor_free(service);
    return result;
}

int libiusb_afc_init(libiusb_device_handle *handle, libiusb_afc **out) {
    if (handle == nullptr || out == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    *out = nullptr;
    afc_client_t client = nullptr;
    int result = startAfcClient(handle, &client);
    if (result != 0) return result;
    libiusb_afc *afc = new libiusb_afc;
    afc->kind = AfcKind::Media;
    afc->owner = handle;
    afc->client = client;
    *out = afc;
    return LIBIUSB_SUCCESS;
}

int libiusb_afc_exit(libiusb_afc *afc) {
    if (afc == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    std::unique_lock<std::shared_mutex> exclusive(afc->connection_lock);
    freeConnection(afc);
    exclusive.unlock();
    delete afc;
    return LIBIUSB_SUCCESS;
}

int libiusb_afc_file_open(libiusb_afc *afc, const char *path, int mode, uint64_t *file_handle) {
    if (path == nullptr || file_handle == nullptr || mode < LIBIUSB_AFC_RDONLY || mode > LIBIUSB_AFC_RDAPPEND) {
        return LIBIUSB_ERROR_INVALID_PARAM;
    }
    *file_handle = 0;
    uint64_t opened = 0;
    uint64_t generation = 0;
    int result = onConnection(afc, [&](afc_client_t client) -> int {
        generation = afc->generation;
        return afcResult(afc_file_open(client, path, static_cast<afc_file_mode_t>(mode), &opened));
    });
    if (result != 0) return result;
    if (opened == 0) return LIBIUSB_ERROR_OTHER;
    libiusb_afc::OpenFile record;
    record.device_handle = opened;
    record.generation = generation;
    record.path = path;
    record.mode = mode;
    record.appends = mode == LIBIUSB_AFC_APPEND || mode == LIBIUSB_AFC_RDAPPEND;
    // Where an append-mode handle starts reading is the device's business;
    // seek before the first transfer.
    record.position = record.appends ? kPositionUnknown : 0;
    std::lock_guard<std::mutex> guard(afc->positions_lock);
    *file_handle = ++afc->last_file_handle;
    afc->open_files[*file_handle] = record;
    return LIBIUSB_SUCCESS;
}

int libiusb_afc_file_read(libiusb_afc *afc, uint64_t file_handle, char *buf, uint32_t length, uint64_t offset,
                          uint32_t *bytes_read) {
    if (bytes_read != nullptr) *bytes_read = 0;
    if (afc == nullptr || file_handle == 0 || (buf == nullptr && length > 0)) return LIBIUSB_ERROR_INVALID_PARAM;
    if (length == 0) return LIBIUSB_SUCCESS;
    std::lock_guard<std::mutex> transfer(afc->transfer_lock);
    uint32_t total = 0;
    int result = onConnection(afc, [&](afc_client_t client) -> int {
        uint64_t device_handle = 0;
        int done = placeAt(afc, client, file_handle, offset, &device_handle);
        if (done != 0) return done;
        while (total < length) {
            uint32_t wanted = std::min(length - total, kMaxTransfer);
            uint32_t got = 0;
            done = afcResult(afc_file_read(client, device_handle, buf + total, wanted, &got));
            if (done != 0) return done;
            total += std::min(got, wanted);
            if (got < wanted) {
                // A short piece is the end of the file, or what came of a
                // reply cut short: libimobiledevice hands over both alike.
                // The device's file pointer, asked after it, tells which.
                uint64_t position = 0;
                done = afcResult(afc_file_tell(client, device_handle, &position));
                if (done == 0 && position != offset + total) done = LIBIUSB_ERROR_IO;
                return done;
            }
        }
        return LIBIUSB_SUCCESS;
    });
    if (result != 0) {
        forgetPosition(afc, file_handle);
        return result;
    }
    settlePosition(afc, file_handle, offset + total, false);
    if (bytes_read != nullptr) *bytes_read = total;
    return LIBIUSB_SUCCESS;
}

int libiusb_afc_file_write(libiusb_afc *afc, uint64_t file_handle, const char *buf, uint32_t length,
                           uint64_t offset, uint32_t *bytes_written) {
    if (bytes_written != nullptr) *bytes_written = 0;
    if (afc == nullptr || file_handle == 0 || (buf == nullptr && length > 0)) return LIBIUSB_ERROR_INVALID_PARAM;
    if (length == 0) return LIBIUSB_SUCCESS;
    std::lock_guard<std::mutex> transfer(afc->transfer_lock);
    uint32_t total = 0;
    int result = onConnection(afc, [&](afc_client_t client) -> int {
        uint64_t device_handle = 0;
        int done = placeAt(afc, client, file_handle, offset, &device_handle);
        if (done != 0) return done;
        while (total < length) {
            uint32_t piece = std::min(length - total, kMaxTransfer);
            uint32_t sent = 0;
            done = afcResult(afc_file_write(client, device_handle, buf + total, piece, &sent));
            if (done != 0) return done;
            if (sent > piece) sent = piece;
            total += sent;
            if (sent < piece) break;
        }
        return LIBIUSB_SUCCESS;
    });
    // After a failure the count libimobiledevice reports cannot be trusted,
    // nor can the device's file pointer.
    if (result != 0) {
        forgetPosition(afc, file_handle);
        if (bytes_written != nullptr) *bytes_written = total;
        return result;
    }
    settlePosition(afc, file_handle, offset + total, true);
    if (bytes_written != nullptr) *bytes_written = total;
    return LIBIUSB_SUCCESS;
}

int libiusb_afc_file_close(libiusb_afc *afc, uint64_t file_handle) {
    if (afc == nullptr || file_handle == 0) return LIBIUSB_ERROR_INVALID_PARAM;
    libiusb_afc::OpenFile record;
    {
        std::lock_guard<std::mutex> guard(afc->positions_lock);
        auto found = afc->open_files.find(file_handle);
        if (found == afc->open_files.end()) return LIBIUSB_ERROR_INVALID_PARAM;
        record = found->second;
        afc->open_files.erase(found);
    }
    // A handle of a connection that is gone was closed with it.
    std::shared_lock<std::shared_mutex> shared(afc->connection_lock);
    if (afc->lost || afc->client == nullptr || record.generation != afc->generation) return LIBIUSB_SUCCESS;
    int result = afcResult(afc_file_close(afc->client, record.device_handle));
    if (result == LIBIUSB_ERROR_CONNECTION_LOST) afc->lost = true;
    return result;
}

int libiusb_afc_file_truncate(libiusb_afc *afc, uint64_t file_handle, uint64_t size) {
    if (afc == nullptr || file_handle == 0) return LIBIUSB_ERROR_INVALID_PARAM;
    // Like ftruncate, the file pointer stays where it was.
    int result = onConnection(afc, [&](afc_client_t client) -> int {
        uint64_t device_handle = 0;
        int done = deviceHandleOf(afc, client, file_handle, &device_handle);
        return done != 0 ? done : afcResult(afc_file_truncate(client, device_handle, size));
    });
    if (result != 0) forgetPosition(afc, file_handle);
    return result;
}

int libiusb_afc_truncate(libiusb_afc *afc, const char *path, uint64_t size) {
    if (path == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    return onConnection(afc, [&](afc_client_t client) { return afcResult(afc_truncate(client, path, size)); });
}

void parseFileInfoPairs(const char *const *pairs, libiusb_file_info *info) {
    if (pairs == nullptr || info == nullptr) return;
    for (int i = 0; pairs[i] != nullptr && pairs[i + 1] != nullptr; i += 2) {
        const char *key = pairs[i];
        const char *value = pairs[i + 1];
        if (strcmp(key, "st_ifmt") == 0) {
            if (strcmp(value, "S_IFDIR") == 0) info->file_type = LIBIUSB_FILE_TYPE_FOLDER;
            else if (strcmp(value, "S_IFREG") == 0) info->file_type = LIBIUSB_FILE_TYPE_REGULAR;
            else if (strcmp(value, "S_IFLNK") == 0) info->file_type = LIBIUSB_FILE_TYPE_LINK;
            else info->file_type = LIBIUSB_FILE_TYPE_OTHER;
        } else if (strcmp(key, "st_size") == 0) {
            info->size = parseSize(value);
        } else if (strcmp(key, "st_birthtime") == 0) {
            info->birth_time = parseSigned(value);
        } else if (strcmp(key, "st_mtime") == 0) {
            info->modify_time = parseSigned(value);
        }
    }
}

int libiusb_afc_file_get_info(libiusb_afc *afc, const char *path, libiusb_file_info *info) {
    if (info != nullptr) memset(info, 0, sizeof(*info));
    if (path == nullptr || info == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    char **pairs = nullptr;
    int result = onConnection(afc, [&](afc_client_t client) { return afcResult(afc_get_file_info(client, path, &pairs)); });
    if (result != 0) {
        if (pairs != nullptr) afc_dictionary_free(pairs);
        return result;
    }
    if (pairs == nullptr) return LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND;
    parseFileInfoPairs(pairs, info);
    afc_dictionary_free(pairs);
    return LIBIUSB_SUCCESS;
}

int libiusb_afc_file_read_directory(libiusb_afc *afc, const char *path, char ***list, uint32_t *count) {
    if (list != nullptr) *list = nullptr;
    if (count != nullptr) *count = 0;
    if (path == nullptr || (list == nullptr && count == nullptr)) return LIBIUSB_ERROR_INVALID_PARAM;
    char **entries = nullptr;
    int result =
        onConnection(afc, [&](afc_client_t client) { return afcResult(afc_read_directory(client, path, &entries)); });
    if (result != 0) {
        if (entries != nullptr) afc_dictionary_free(entries);
        return result;
    }
    if (entries == nullptr) {
        // An empty answer still hands the caller a list it can walk and free.
        entries = static_cast<char **>(calloc(1, sizeof(char *)));
        if (entries == nullptr) return LIBIUSB_ERROR_NO_MEM;
    }
    uint32_t length = 0;
    while (entries[length] != nullptr) length++;
    if (count != nullptr) *count = length;
    // afc_read_directory allocates with malloc, which is what
    // libiusb_misc_free_strings_array releases.
    if (list != nullptr) {
        *list = entries;
    } else {
        afc_dictionary_free(entries);
    }
    return LIBIUSB_SUCCESS;
}

int libiusb_afc_file_remove(libiusb_afc *afc, const char *path) {
    if (path == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    return onConnection(afc, [&](afc_client_t client) -> int {
        afc_error_t removed = afc_remove_path(client, path);
        if (removed == AFC_E_DIR_NOT_EMPTY && !holdsEntries(client, path)) {
            // libimobiledevice turns every reasonless refusal of a removal
            // into "directory not empty" (that is how phones answer for a
            // folder with contents); anything else it hides is not that.
            return static_cast<int>(LIBIUSB_ERROR_OTHER);
        }
        return afcResult(removed);
    });
}

int libiusb_afc_make_directory(libiusb_afc *afc, const char *path) {
    if (path == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    return onConnection(afc, [&](afc_client_t client) { return afcResult(afc_make_directory(client, path)); });
}

int libiusb_afc_rename(libiusb_afc *afc, const char *from, const char *to) {
    if (from == nullptr || to == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    return onConnection(afc, [&](afc_client_t client) { return afcResult(afc_rename_path(client, from, to)); });
}

int libiusb_afc_set_modify_time(libiusb_afc *afc, const char *path, int64_t modify_time_ns) {
    if (path == nullptr || modify_time_ns < 0) return LIBIUSB_ERROR_INVALID_PARAM;
    return onConnection(afc, [&](afc_client_t client) -> int {
        return afcResult(afc_set_file_time(client, path, static_cast<uint64_t>(modify_time_ns)));
    });
}

int libiusb_housearrest_init(libiusb_device_handle *handle, libiusb_afc **out) {
    if (handle == nullptr || out == nullptr) return LIBIUSB_ERROR_INVALID_PARAM;
    *out = nullptr;
    libiusb_afc *afc = new libiusb_afc;
    afc->kind = AfcKind::HouseArrestNoApp;
    afc->owner = handle;
    int result = startHouseArrest(afc);
    if (result != 0) {
        freeConnection(afc);
        delete afc;
        return result;
    }
    *out = afc;
    return LIBIUSB_SUCCESS;
}

int libiusb_housearrest_openapp(libiusb_afc *house_arrest, const char *bundle_id) {
    if (house_arrest == nullptr || bundle_id == nullptr || house_arrest->kind == AfcKind::Media) {
        return LIBIUSB_ERROR_INVALID_PARAM;
    }
    std::unique_lock<std::shared_mutex> exclusive(house_arrest->connection_lock);
    if (house_arrest->kind == AfcKind::HouseArrestApp) {
        if (house_arrest->bundle_id == bundle_id) {
            if (!house_arrest->lost) return LIBIUSB_SUCCESS;
            // The same app on a new connection: its open files follow.
            freeClients(house_arrest);
        } else {
            // The connection already speaks AFC for another app: start afresh.
            freeConnection(house_arrest);
        }
        house_arrest->kind = AfcKind::HouseArrestNoApp;
        house_arrest->bundle_id.clear();
    }
    if (house_arrest->house_arrest == nullptr || house_arrest->lost) {
        freeClients(house_arrest);
        int result = startHouseArrest(house_arrest);
        if (result != 0) return result;
        house_arrest->lost = false;
    }
    int result = vendDocuments(house_arrest, bundle_id);
    if (result != 0) return result;
    house_arrest->kind = AfcKind::HouseArrestApp;
    house_arrest->bundle_id = bundle_id;
    house_arrest->generation++;
    return LIBIUSB_SUCCESS;
}

int libiusb_housearrest_exit(libiusb_afc *house_arrest) { return libiusb_afc_exit(house_arrest); }
