#include "tarnifs/listing.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <unordered_set>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/connections.h"
#include "tarnifs/info_queries.h"
#include "tarnifs/media.h"
#include "tarnifs/names.h"
#include "tarnifs/notify.h"
#include "util/log.h"

namespace {

constexpr char kStorageRoot[] = "/general_storage";

void emit(void *buffer, fuse_fill_dir_t filler, const char *name) {
    if (filler != nullptr) filler(buffer, name, nullptr, 0, static_cast<enum fuse_fill_dir_flags>(0));
}
// Two device names that differ only in Unicode form meet in one record; the
// folder shows it once. (A device listing only runs on an empty folder, so a
// record already linked was linked by this very listing.)
bool listedAlready(_KTL_OBJECT *child, const char *caller, const std::string &childPath) {
    if (child->sibling.next == &child->sibling) return false;
    QNLog(3, "%s %s is listed once: another device name has the same form", caller, childPath.c_str());
    return true;
}

// A folder this file system makes itself: named, a folder, stamped now, and
// linked at the tail of its parent.
_KTL_OBJECT *makeFixedFolder(_KTL_OBJECT *parent, const char *path) {
    _KTL_OBJECT *folder = GetObjectWithFileName(path);
    time_t now = time(nullptr);
    folder->mode = KTL_MODE_FOLDER;
    folder->birth_time = now;
    folder->modify_time = now;
    folder->access_time = now;
    LinkChildObject(parent, folder);
    return folder;
}

void fillFromDevice(_KTL_OBJECT *object, const libiusb_file_info &info) {
    object->size = info.size;
    object->birth_time = info.birth_time / 1000000000;
    object->modify_time = info.modify_time / 1000000000;
    object->access_time = object->modify_time;
}

bool isDotOrDotDot(const char *name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// The names of a device listing whose information is asked, in device order
// (only names a path can address), copied into `queries` with their folder,
// and the device's list freed: one buffer of names costs a third of a list of
// separately allocated ones, and a listing of a million holds it throughout.
void entriesToAsk(char ***entries, const std::string &folder, InfoQueries *queries) {
    queries->folder = folder;
    size_t bytes = 0;
    size_t count = 0;
    for (char **entry = *entries; entry != nullptr && *entry != nullptr; ++entry) {
        if (!IsListableDeviceName(*entry)) continue;
        bytes += strlen(*entry) + 1;
        ++count;
    }
    // Reserved whole, so that the pointers into it stay good.
    queries->name_text.reserve(bytes);
    queries->names.reserve(count);
    for (char **entry = *entries; entry != nullptr && *entry != nullptr; ++entry) {
        if (!IsListableDeviceName(*entry)) {
            if (!isDotOrDotDot(*entry))
                QNLog(3, "%s a name in %s is not shown: no path can address it", "entriesToAsk", folder.c_str());
            continue;
        }
        queries->names.push_back(queries->name_text.data() + queries->name_text.size());
        queries->name_text.append(*entry, strlen(*entry) + 1);
    }
    libiusb_misc_free_strings_array(*entries);
    *entries = nullptr;
}

// Runs `sql` and tells whether its first row's first column is non-zero.
// When the database is missing or the statement does not prepare, the line
// names the media database, as it always has.
bool firstColumnIsSet(_CONTEXT *ctx, sqlite3 *db, const char *sql) {
    sqlite3_stmt *statement = nullptr;
    int result = SQLITE_MISUSE;
    if (db != nullptr) result = sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
    if (db == nullptr || result != SQLITE_OK) {
        QNLog(3, "%s for meidadb : %p, ret : %d errormsg(%s)", "tarnifs_readdir", static_cast<void *>(ctx->media_db),
              result, sqlite3_errmsg(ctx->media_db));
        if (statement != nullptr) sqlite3_finalize(statement);
        return false;
    }
    bool set = sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_int64(statement, 0) != 0;
    sqlite3_finalize(statement);
    return set;
}

void listRoot(_KTL_OBJECT *root, void *buffer, fuse_fill_dir_t filler) {
    time_t now = time(nullptr);
    root->mode = KTL_MODE_FOLDER;
    root->birth_time = now;
    root->modify_time = now;
    root->access_time = now;
    for (const char *area : {"/Media", "/Apps", "/Storage"}) makeFixedFolder(root, area);
    for (const char *name : {"Media", "Apps", "Storage"}) emit(buffer, filler, name);
}

void listMediaRoot(_CONTEXT *ctx, _KTL_OBJECT *media, void *buffer, fuse_fill_dir_t filler) {
    // The databases are fetched once, at the first listing of /Media;
    // without them the three kind folders are all there is.
    if (ctx->media_db == nullptr && ctx->photo_db == nullptr) DownloadDBandOpen(ctx);
    for (const char *kind : {"/Media/Music", "/Media/Movies", "/Media/Photo"}) makeFixedFolder(media, kind);
    if (firstColumnIsSet(ctx, ctx->media_db,
                         "select media_kind from item_extra where (media_kind like 4 or media_kind like 6) limit 1")) {
        makeFixedFolder(media, "/Media/Podcast");
        emit(buffer, filler, "Podcast");
    }
    if (firstColumnIsSet(ctx, ctx->record_db, "select count(Z_PK) from ZRECORDING where ZPATH is not NULL")) {
        makeFixedFolder(media, "/Media/Voice Memos");
        emit(buffer, filler, "Voice Memos");
    }
    for (const char *name : {"Music", "Movies", "Photo"}) emit(buffer, filler, name);
}

int endHouseArrest(libiusb_afc *client) {
    // The device layer releases the connection whatever the exit reports, so
    // a failed exit is logged and never repeated on a freed handle.
    int result = libiusb_housearrest_exit(client);
    if (result != 0) QNLog(3, "%s libiusb_housearrest_exit failed. error : %d", "enumApps", result);
    return result;
}

// An app's display name as a folder name: a "/" in it would make a path
// into a folder below, so it is shown as ":" (as the media views show one);
// "", "." and ".." would stand for a folder itself, so the app's bundle id
// names its folder instead (or "App" when that will not do either).
std::string appFolderNameOf(const char *displayName, const char *bundleId) {
    std::string name(displayName);
    for (char &c : name)
        if (c == '/') c = ':';
    auto usable = [](const std::string &candidate) {
        return !candidate.empty() && candidate != "." && candidate != ".." && candidate.size() <= NAME_MAX - 8;
    };
    if (usable(name)) return name;
    std::string fallback = bundleId != nullptr ? bundleId : "";
    for (char &c : fallback)
        if (c == '/') c = ':';
    return usable(fallback) ? fallback : "App";
}

int listAppFolders(_CONTEXT *ctx, _KTL_OBJECT *apps, void *buffer, fuse_fill_dir_t filler) {
    sendPipeMsg("-neon");
    libiusb_app_node *list = nullptr;
    // The installation proxy start-up opened is opened again when it was
    // closed to make room under the device's service limit, or lost with a
    // dropped connection.
    int result = 0;
    for (int attempt = 0; attempt < 2; attempt++) {
        if (ctx->instproxy_handle == nullptr) result = StartInstproxy(ctx, &ctx->instproxy_handle);
        if (result == 0) result = libiusb_instproxy_getAppId(ctx->instproxy_handle, &list);
        if (result != LIBIUSB_ERROR_CONNECTION_LOST) break;
        if (ctx->instproxy_handle != nullptr) libiusb_instproxy_exit(ctx->instproxy_handle);
        ctx->instproxy_handle = nullptr;
    }
    if (result != 0) {
        QNLog(3, "%s libiusb_instproxy_getAppId failed. error : %d", "enumApps", result);
        sendPipeMsg("-neoff");
        libiusb_free_app_list(list);
        return result;
    }
    if (list == nullptr) {
        QNLog(3, "%s applist is NULL!", "enumApps");
        sendPipeMsg("-neoff");
        return 0;
    }
    for (libiusb_app_node *app = list; app != nullptr; app = app->next) {
        char *name = new (std::nothrow) char[512]();
        if (name == nullptr) {
            QNLog(3, "%s Low memory!", "enumApps");
            break;
        }
        const char *displayName = app->display_name != nullptr ? app->display_name : "";
        // The buffer must stay zero past the name; an over-long name cannot be converted.
        if (strlen(displayName) >= 512 || getUTF8MACName(displayName, name) != 0) {
            QNLog(3, "%s getUTF8MACName failed. target App Name : %s", "enumApps", displayName);
            delete[] name;
            break;
        }
        std::string folderName = appFolderNameOf(name, app->bundle_id);
        std::string candidate = "/Apps/" + folderName;
        for (int counter = 2; FindObject(candidate.c_str()) != nullptr && counter < 1000; ++counter)
            candidate = "/Apps/" + folderName + " (" + std::to_string(counter) + ")";

        _KTL_OBJECT *folder = GetObjectWithFileName(candidate.c_str());
        time_t now = time(nullptr);
        folder->mode = KTL_MODE_FOLDER;
        folder->type = KTL_TYPE_DEVICE_FOLDER;
        folder->birth_time = now;
        folder->modify_time = now;
        folder->access_time = now;
        folder->size = 0;
        if (Extras(folder).app_id == nullptr && app->bundle_id != nullptr) EditExtras(folder).app_id = CopyString(app->bundle_id);
        LinkChildObject(apps, folder);
        emit(buffer, filler, folder->file_name);
        delete[] name;
    }
    sendPipeMsg("-neoff");
    libiusb_free_app_list(list);
    return 0;
}

int listAppDocuments(_CONTEXT *ctx, const char *path, _KTL_OBJECT *folder, void *buffer, fuse_fill_dir_t filler) {
    if (strstr(path, "/Apps") == nullptr || Extras(folder).app_id == nullptr) return 0;

    libiusb_afc *client = nullptr;
    int result = StartHouseArrest(ctx, &client);
    if (result != 0) {
        QNLog(3, "%s libiusb_housearrest_init failed. error : %d", "enumApps", result);
        return result;
    }
    std::string sandbox = AppSandboxPath(path);
    bool busy = false;
    char **entries = nullptr;
    uint32_t count = 0;
    // A sandbox that cannot be opened or read lists as an empty folder.
    result = libiusb_housearrest_openapp(client, Extras(folder).app_id);
    if (result != 0) {
        QNLog(3, "%s libiusb_housearrest_openapp failed. error : %d", "enumApps", result);
    } else if ((result = libiusb_afc_file_read_directory(client, sandbox.c_str(), nullptr, &count)) != 0) {
        QNLog(3, "%s libiusb_afc_file_read_directory failed. from(%s). ret : %d", "enumApps", sandbox.c_str(), result);
    } else {
        if (count > kBusyListingEntries) {
            sendPipeMsg("-neon");
            busy = true;
        }
        result = libiusb_afc_file_read_directory(client, sandbox.c_str(), &entries, nullptr);
        if (result != 0) {
            QNLog(3, "%s libiusb_afc_file_read_directory failed. error : %d", "enumApps", result);
        } else {
            InfoQueries queries;
            entriesToAsk(&entries, sandbox, &queries);
            const std::vector<const char *> &names = queries.names;
            queries.connection = client;
            // A stream of its own into the app, for this listing only.
            if (names.size() > kStreamedListingEntries) {
                int opened = libiusb_afc_info_stream_open_app(ctx->device_handle, Extras(folder).app_id, &queries.stream);
                if (opened != 0) QNLog(3, "%s libiusb_afc_info_stream_open_app failed. error : %d", "enumApps", opened);
            }
            for (size_t index = 0; index < names.size(); ++index) {
                const char *name = names[index];
                EntryInfo answer = infoOf(queries, index);
                const libiusb_file_info &info = answer.info;
                if (answer.result != 0) {
                    QNLog(3, "%s libiusb_afc_file_get_info failed. error : %d", "enumApps", answer.result);
                    continue;
                }
                std::string childPath = ChildPath(path, name);
                _KTL_OBJECT *child = GetObjectWithFileName(childPath.c_str());
                if (listedAlready(child, "enumApps", childPath)) continue;
                bool isFolder = info.file_type == LIBIUSB_FILE_TYPE_FOLDER;
                child->mode = isFolder ? KTL_MODE_FOLDER : KTL_MODE_FILE;
                child->type = isFolder ? KTL_TYPE_DEVICE_FOLDER : KTL_TYPE_DEVICE_FILE;
                fillFromDevice(child, info);
                if (Extras(child).app_id == nullptr) EditExtras(child).app_id = CopyString(Extras(folder).app_id);
                LinkChildObject(folder, child);
                emit(buffer, filler, name);
            }
            finishInfoQueries(queries);
            libiusb_afc_info_stream_close(queries.stream);
        }
    }
    libiusb_misc_free_strings_array(entries);
    result = endHouseArrest(client);
    if (busy) sendPipeMsg("-neoff");
    return result;
}

bool anythingOpenBelow(_KTL_OBJECT *record) {
    if (Extras(record).open_count > 0 || Extras(record).file_handle != 0) return true;
    for (_KTL_LIST_ENTRY *link = record->child_list.next; link != &record->child_list; link = link->next)
        if (anythingOpenBelow(ObjectFromSibling(link))) return true;
    return false;
}

// A name the device no longer has: its record (and everything below it) is
// forgotten, and the kernel asked to forget it too. What is open stays until
// its handles are closed.
void forgetGoneEntry(_CONTEXT *ctx, _KTL_OBJECT *child, const std::string &childPath) {
    if (anythingOpenBelow(child)) return;
    QNLog(3, "%s %s is gone from the device", "refreshListedFolder", childPath.c_str());
    InvalidateKernelView(childPath.c_str());
    if (child->mode == KTL_MODE_FOLDER) DeleteChildObject(child, childPath.c_str());
    if (child->mode == KTL_MODE_FILE) ctx->device_info.free_capacity += child->size;
    DeleteObject(child, childPath.c_str());
}

// A folder listed before is asked for its names once more (one device
// request): apps and the phone's owner change their files while it is
// mounted. Names it gained get records, with their information asked one by
// one; names it lost are forgotten. When nothing changed, that one request is
// all it costs. A folder the device cannot list now keeps what was known.
void refreshListedFolder(_CONTEXT *ctx, const char *path, _KTL_OBJECT *folder) {
    bool inStorage = strcmp(path, "/Storage") == 0 || strncmp(path, "/Storage/", 9) == 0;
    bool inApp = strncmp(path, "/Apps/", 6) == 0 && Extras(folder).app_id != nullptr;
    if ((!inStorage && !inApp) || folder->mode != KTL_MODE_FOLDER) return;
    libiusb_afc *connection = inStorage ? ctx->afc_handle : Extras(folder).hhandle;
    libiusb_afc *ownClient = nullptr;
    if (connection == nullptr && inApp && ctx->device_handle != nullptr) {
        if (StartHouseArrest(ctx, &ownClient) != 0) return;
        if (libiusb_housearrest_openapp(ownClient, Extras(folder).app_id) != 0) {
            endHouseArrest(ownClient);
            return;
        }
        connection = ownClient;
    }
    if (connection == nullptr) return;
    std::string devicePath = inStorage ? StorageDevicePath(path) : AppSandboxPath(path);
    char **entries = nullptr;
    int result = libiusb_afc_file_read_directory(connection, devicePath.c_str(), &entries, nullptr);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_read_directory failed. path(%s), ret : %d", "refreshListedFolder",
              devicePath.c_str(), result);
    } else {
        std::unordered_set<_KTL_OBJECT *> children, present;
        for (_KTL_LIST_ENTRY *link = folder->child_list.next; link != &folder->child_list; link = link->next)
            children.insert(ObjectFromSibling(link));
        std::vector<const char *> gained;
        for (char **entry = entries; entry != nullptr && *entry != nullptr; ++entry) {
            if (!IsListableDeviceName(*entry)) continue;
            _KTL_OBJECT *known = FindObject(ChildPath(path, *entry).c_str());
            if (known != nullptr && children.count(known) != 0)
                present.insert(known);
            else
                gained.push_back(*entry);
        }
        std::vector<_KTL_OBJECT *> gone;
        for (_KTL_OBJECT *child : children)
            if (present.count(child) == 0 && child->file_name != nullptr) gone.push_back(child);
        for (_KTL_OBJECT *child : gone) forgetGoneEntry(ctx, child, ChildPath(path, child->file_name));
        for (const char *name : gained) {
            libiusb_file_info info;
            memset(&info, 0, sizeof(info));
            std::string childDevicePath = devicePath + "/" + name;
            if (libiusb_afc_file_get_info(connection, childDevicePath.c_str(), &info) != 0) continue;
            std::string childPath = ChildPath(path, name);
            _KTL_OBJECT *child = GetObjectWithFileName(childPath.c_str());
            if (child->sibling.next != &child->sibling) continue;  // the other spelling of a name just linked
            bool isFolder = info.file_type == LIBIUSB_FILE_TYPE_FOLDER;
            child->mode = isFolder ? KTL_MODE_FOLDER : KTL_MODE_FILE;
            if (inApp) {
                child->type = isFolder ? KTL_TYPE_DEVICE_FOLDER : KTL_TYPE_DEVICE_FILE;
                if (Extras(child).app_id == nullptr) EditExtras(child).app_id = CopyString(Extras(folder).app_id);
            }
            fillFromDevice(child, info);
            LinkChildObject(folder, child);
            QNLog(3, "%s %s is new on the device", "refreshListedFolder", childPath.c_str());
        }
    }
    libiusb_misc_free_strings_array(entries);
    if (ownClient != nullptr) endHouseArrest(ownClient);
}

// Only a Storage listing stops half-way (at an entry whose information
// cannot be read), leaving the entries before it linked.
bool mayBeHalfListed(const char *path) { return strncmp(path, "/Storage", 8) == 0; }

} // namespace

bool IsListableDeviceName(const char *name) {
    // "." and ".." are the folder and its parent; any other name beginning
    // with "." is an ordinary name here (.git, .env), hidden only by viewers.
    if (name == nullptr || name[0] == '\0' || isDotOrDotDot(name)) return false;
    // "a/b" would be taken for the entry b of a folder a, on the device and
    // here alike; a name longer than NAME_MAX cannot be looked up, and one
    // past FUSE's limit fails the whole listing in the kernel.
    return strchr(name, '/') == nullptr && strlen(name) <= NAME_MAX;
}

namespace {
// The part of a volume path from `from` on, each component spelled as the
// device spells it: a record keeps the device's own name, and a path may
// reach it through the other Unicode form ("café" composed or decomposed).
// Two device files whose names differ only so are one record, and its size
// and bytes must come from the same one. Components no record stands for
// (a name being made) stay as given.
std::string deviceSpelling(const char *path, size_t from) {
    std::string volume(path);
    std::string out;
    size_t start = from;
    while (start < volume.size()) {
        size_t slash = volume.find('/', start + 1);
        if (slash == std::string::npos) slash = volume.size();
        std::string component = volume.substr(start + 1, slash - start - 1);
        // Only names beyond ASCII have two forms.
        bool ascii = std::all_of(component.begin(), component.end(), [](char c) { return (c & 0x80) == 0; });
        const _KTL_OBJECT *record = ascii ? nullptr : FindObject(volume.substr(0, slash).c_str());
        if (record != nullptr && record->file_name != nullptr) component = record->file_name;
        out += "/" + component;
        start = slash;
    }
    return out;
}
} // namespace

bool LastNameTooLong(const char *path) {
    const char *slash = strrchr(path, '/');
    return strlen(slash != nullptr ? slash + 1 : path) > NAME_MAX;
}

std::string StorageDevicePath(const char *path) {
    if (path[8] != '/') return std::string(kStorageRoot) + (path + 8);  // "/Storage" itself
    return std::string(kStorageRoot) + deviceSpelling(path, 8);
}

std::string AppSandboxPath(const char *path) {
    std::string rest = strlen(path) > 6 ? std::string(path + 6) : std::string();
    size_t slash = rest.find('/');
    return "/Documents" + (slash == std::string::npos ? std::string() : deviceSpelling(path, 6 + slash));
}

std::string AppFolderName(const char *path) {
    std::string rest = strlen(path) > 6 ? std::string(path + 6) : std::string();
    return rest.substr(0, rest.find('/')).substr(0, 511);
}

std::string ParentFolderOf(const char *path) {
    const char *slash = strrchr(path, '/');
    if (slash == nullptr || slash == path) return "/";
    return std::string(path, static_cast<size_t>(slash - path));
}

int enumStorage(_CONTEXT *ctx, const char *path, void *buffer, fuse_fill_dir_t filler, off_t) {
    _KTL_OBJECT *folder = GetObject(path);
    libiusb_file_info info;
    memset(&info, 0, sizeof(info));
    int result = libiusb_afc_file_get_info(ctx->afc_handle, kStorageRoot, &info);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_get_info failed ret : %d", "enumStorage", result);
        // A device that never had a storage folder gets an empty one.
        result = libiusb_afc_make_directory(ctx->afc_handle, kStorageRoot);
        if (result != 0) QNLog(3, "%s libiusb_afc_make_directory error. ret : %d", "enumStorage", result);
        return result;
    }
    std::string devicePath = StorageDevicePath(path);
    uint32_t count = 0;
    result = libiusb_afc_file_read_directory(ctx->afc_handle, devicePath.c_str(), nullptr, &count);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_read_directory failed. path(%s), ret : %d", "enumStorage", devicePath.c_str(),
              result);
        return result;
    }
    bool busy = count > kBusyListingEntries;
    if (busy) sendPipeMsg("-neon");
    char **entries = nullptr;
    result = libiusb_afc_file_read_directory(ctx->afc_handle, devicePath.c_str(), &entries, nullptr);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_read_directory failed. path(%s), ret : %d", "enumStorage", devicePath.c_str(),
              result);
        if (busy) sendPipeMsg("-neoff");  // every busy signal is closed, error paths included
        return result;
    }
    InfoQueries queries;
    entriesToAsk(&entries, devicePath, &queries);
    const std::vector<const char *> &names = queries.names;
    queries.connection = ctx->afc_handle;
    if (names.size() > kStreamedListingEntries) queries.stream = storageInfoStream(ctx);
    for (size_t index = 0; index < names.size(); ++index) {
        const char *name = names[index];
        EntryInfo answer = infoOf(queries, index);
        info = answer.info;
        result = answer.result;
        if (result != 0) {
            // The walk ends here, in device order; answers already fetched
            // for later entries are dropped.
            QNLog(3, "%s libiusb_afc_file_get_info failed. code : %d\n", "enumStorage", result);
            break;
        }
        std::string childPath = ChildPath(path, name);
        _KTL_OBJECT *child = GetObjectWithFileName(childPath.c_str());
        if (listedAlready(child, "enumStorage", childPath)) continue;
        // Links and other kinds keep the mode they have (a new record is a file).
        if (info.file_type == LIBIUSB_FILE_TYPE_REGULAR) child->mode = KTL_MODE_FILE;
        if (info.file_type == LIBIUSB_FILE_TYPE_FOLDER) child->mode = KTL_MODE_FOLDER;
        fillFromDevice(child, info);
        LinkChildObject(folder, child);
        emit(buffer, filler, name);
    }
    finishInfoQueries(queries);
    dropLostStorageStream(ctx, queries);
    libiusb_misc_free_strings_array(entries);
    if (busy) sendPipeMsg("-neoff");
    return result;
}

int enumApps(_CONTEXT *ctx, const char *path, void *buffer, fuse_fill_dir_t filler) {
    _KTL_OBJECT *folder = GetObject(path);
    if (strcmp(path, "/Apps") == 0) return listAppFolders(ctx, folder, buffer, filler);
    return listAppDocuments(ctx, path, folder, buffer, filler);
}

int listFolder(_CONTEXT *ctx, const char *path, void *buffer, fuse_fill_dir_t filler, off_t offset) {
    emit(buffer, filler, ".");
    emit(buffer, filler, "..");
    _KTL_OBJECT *folder = GetObject(path);

    bool hasChildren = folder->child_list.next != &folder->child_list;
    if (hasChildren && folder->enumerated == 0 && mayBeHalfListed(path)) {
        // What a listing that failed half-way left behind is not the folder's
        // contents: drop it and ask the device again. The kernel may have
        // looked those names up meanwhile; it must ask again too.
        for (_KTL_LIST_ENTRY *link = folder->child_list.next; link != &folder->child_list; link = link->next) {
            _KTL_OBJECT *child = ObjectFromSibling(link);
            if (child->file_name != nullptr && !anythingOpenBelow(child))
                InvalidateKernelView(ChildPath(path, child->file_name).c_str());
        }
        if (Extras(folder).open_count == 0) {
            DeleteChildObject(folder, path);
        } else {
            while (folder->child_list.next != &folder->child_list) UnlinkObject(ObjectFromSibling(folder->child_list.next));
        }
        hasChildren = false;
    }
    if (hasChildren) {
        for (_KTL_LIST_ENTRY *link = folder->child_list.next; link != &folder->child_list; link = link->next) {
            _KTL_OBJECT *child = ObjectFromSibling(link);
            assert(child->file_name && "pObject->file_name");
            if (child->file_name != nullptr) emit(buffer, filler, child->file_name);
        }
        folder->enumerated = 1;
        // An app folder's connection, kept by file operations, is let go once
        // nothing in it is open.
        if (Extras(folder).hhandle != nullptr && Extras(folder).open_count == 0) {
            int result = libiusb_housearrest_exit(Extras(folder).hhandle);
            if (result != 0)
                QNLog(3, "%s libiusb_housearrest_exit failed. path(%s). ret : %d", "tarnifs_readdir", path, result);
            EditExtras(folder).hhandle = nullptr;
        }
        return 0;
    }
    if (folder->enumerated == 1) return 0;

    if (strcmp(path, "/") == 0) {
        listRoot(folder, buffer, filler);
        folder->enumerated = 1;
        return 0;
    }
    if (strcmp(path, "/Media") == 0) {
        listMediaRoot(ctx, folder, buffer, filler);
        folder->enumerated = 1;
        return 0;
    }

    int result = 0;
    const char *area = nullptr;
    if (strncmp(path, "/Apps", 5) == 0) {
        area = "enumApps";
        result = enumApps(ctx, path, buffer, filler);
    } else if (strncmp(path, "/Storage", 8) == 0) {
        area = "enumStorage";
        result = enumStorage(ctx, path, buffer, filler, offset);
    } else if (strncmp(path, "/Media", 6) == 0) {
        area = "enumMedia";
        result = enumMedia(ctx, path, buffer, filler);
    } else {
        QNLog(3, "%s Unexpected path(%s)", "tarnifs_readdir", path);
        snprintf(ErrMsg, sizeof(ErrMsg), "Unexpected path.\n%s", path);
        ShowMessageBox(kMsgError, "%s", ErrMsg);
        return -ECANCELED;
    }
    if (result == 0) {
        folder->enumerated = 1;
        return 0;
    }
    if (result == LIBIUSB_ERROR_CONNECTION_LOST)
        snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB Connection.\nDirectory reading aborted.");
    else
        snprintf(ErrMsg, sizeof(ErrMsg), "Could not read directory.\nError Code : %d", result);
    QNLog(3, "%s %s failed. error : %d", "tarnifs_readdir", area, result);
    ShowMessageBox(kMsgError, "%s", ErrMsg);
    return -ECANCELED;
}

int tarnifs_readdir(const char *path, void *buffer, fuse_fill_dir_t filler, off_t offset, struct fuse_file_info *) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    // What a program lists is asked of the device again; the catalogue's own
    // walks (a path found, a folder removed) answer from what was listed.
    _KTL_OBJECT *folder = FindObject(path);
    if (folder != nullptr && folder->enumerated == 1) refreshListedFolder(ctx, path, folder);
    return listFolder(ctx, path, buffer, filler, offset);
}

int listFoldersAbove(_CONTEXT *ctx, const char *path) {
    std::string target(path);
    std::string folder = "/";
    size_t position = 1;
    for (;;) {
        _KTL_OBJECT *record = FindObject(folder.c_str());
        if (folder != "/" && (record == nullptr || record->mode != KTL_MODE_FOLDER)) return 0;  // nothing to list
        if (record == nullptr || record->enumerated == 0) {
            int result = listFolder(ctx, folder.c_str(), nullptr, nullptr, 0);
            if (result != 0) return result;
        }
        size_t slash = target.find('/', position);
        if (slash == std::string::npos) return 0;  // `folder` was the parent
        folder = target.substr(0, slash);
        position = slash + 1;
    }
}
