// afc_raw_move: moves a file or a folder tree from a device's media folder
// into an app's documents, as a device-to-device copy straight through
// libimobiledevice: read through an AFC client of the media root, write
// through a house-arrest client of the app, then remove the source. The move
// benchmark measures this as the best the protocols allow, so it uses none
// of Quorvel's device layer, no staging names, no size checks and no seeks.
//
// Usage:
//   afc_raw_move [--chunk BYTES] UDID BUNDLE_ID SOURCE TARGET
//
// SOURCE is inside the AFC media root (e.g. /general_storage/big.bin), TARGET
// inside the app's container as VendDocuments serves it (e.g.
// /Documents/big.bin); TARGET is the new name itself, not a folder to move
// into. A folder is carried whole: its folders are made on the target, each
// file is copied in requests of BYTES (default 65536, what the file system
// uses for these copies) and removed as soon as its copy is closed, and each
// source folder is removed once it is empty, deepest first.
//
// The device is found through usbmuxd, so USBMUXD_SOCKET_ADDRESS points it at
// a simulated one. On success one line goes to standard output:
//   FILES BYTES SECONDS
// where SECONDS runs from the first request about SOURCE to the removal of
// the last source, so connecting, the lockdown handshake and vending the
// app's documents are not counted, as they are not in a `mv` through a mount
// that is already up. Exit status: 0 moved, 1 failed, 2 bad arguments.
#include <libimobiledevice/afc.h>
#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <plist/plist.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "afc_session.h"

namespace {

// The file system copies between two device connections 64 KiB at a time
// (kCopyChunk in tarnifs/move.cpp); the floor is measured the same way.
constexpr uint32_t kDefaultChunk = 65536;
// devsim answers at most 16 MiB per read request, so a larger chunk would
// only come back short.
constexpr uint32_t kMaxChunk = 16u << 20;

const char *kProgram = "afc_raw_move";

void usage() { std::fprintf(stderr, "usage: %s [--chunk BYTES] UDID BUNDLE_ID SOURCE TARGET\n", kProgram); }

// Owns the connection chain so every early return releases it in order: the
// app's AFC client before the house-arrest client it was made from, both
// before the media connection.
struct MoveSession {
    AfcSession media{kProgram};
    house_arrest_client_t house_arrest = nullptr;
    afc_client_t app = nullptr;

    MoveSession() = default;
    MoveSession(const MoveSession &) = delete;
    MoveSession &operator=(const MoveSession &) = delete;
    ~MoveSession() {
        if (app != nullptr) afc_client_free(app);
        if (house_arrest != nullptr) house_arrest_client_free(house_arrest);
    }

    bool connect(const std::string &udid, const std::string &bundle) {
        if (!media.connect(udid, true)) return false;
        lockdownd_service_descriptor_t service = nullptr;
        if (!media.startService("com.apple.mobile.house_arrest", &service)) return false;
        house_arrest_error_t made = house_arrest_client_new(media.device, service, &house_arrest);
        lockdownd_service_descriptor_free(service);
        if (made != HOUSE_ARREST_E_SUCCESS) {
            std::fprintf(stderr, "%s: could not open a house_arrest client (error %d)\n", kProgram, made);
            house_arrest = nullptr;
            return false;
        }
        media.releaseLockdown();

        made = house_arrest_send_command(house_arrest, "VendDocuments", bundle.c_str());
        plist_t reply = nullptr;
        if (made == HOUSE_ARREST_E_SUCCESS) made = house_arrest_get_result(house_arrest, &reply);
        if (made != HOUSE_ARREST_E_SUCCESS) {
            std::fprintf(stderr, "%s: VendDocuments for %s failed (error %d)\n", kProgram, bundle.c_str(), made);
            if (reply != nullptr) plist_free(reply);
            return false;
        }
        plist_t error = plist_dict_get_item(reply, "Error");
        if (error != nullptr) {
            char *text = nullptr;
            if (plist_get_node_type(error) == PLIST_STRING) plist_get_string_val(error, &text);
            std::fprintf(stderr, "%s: VendDocuments for %s refused: %s\n", kProgram, bundle.c_str(),
                         text != nullptr ? text : "(no text)");
            free(text);
            plist_free(reply);
            return false;
        }
        plist_free(reply);
        afc_error_t vended = afc_client_new_from_house_arrest_client(house_arrest, &app);
        if (vended != AFC_E_SUCCESS) {
            std::fprintf(stderr, "%s: could not speak AFC to %s (error %d)\n", kProgram, bundle.c_str(), vended);
            app = nullptr;
            return false;
        }
        return true;
    }
};

struct Totals {
    uint64_t files = 0;
    uint64_t bytes = 0;
};

struct Entry {
    bool folder = false;
    uint64_t size = 0;
};

bool describe(afc_client_t afc, const std::string &path, Entry *entry) {
    char **info = nullptr;
    afc_error_t result = afc_get_file_info(afc, path.c_str(), &info);
    if (result != AFC_E_SUCCESS || info == nullptr) {
        std::fprintf(stderr, "%s: no information on %s (AFC error %d)\n", kProgram, path.c_str(), result);
        return false;
    }
    std::string kind;
    for (char **pair = info; pair[0] != nullptr && pair[1] != nullptr; pair += 2) {
        if (std::strcmp(pair[0], "st_ifmt") == 0) kind = pair[1];
        if (std::strcmp(pair[0], "st_size") == 0) entry->size = std::strtoull(pair[1], nullptr, 10);
    }
    afc_dictionary_free(info);
    if (kind != "S_IFDIR" && kind != "S_IFREG") {
        std::fprintf(stderr, "%s: %s is neither a file nor a folder (%s)\n", kProgram, path.c_str(),
                     kind.empty() ? "no type" : kind.c_str());
        return false;
    }
    entry->folder = kind == "S_IFDIR";
    return true;
}

bool removeSource(afc_client_t afc, const std::string &path) {
    afc_error_t result = afc_remove_path(afc, path.c_str());
    if (result != AFC_E_SUCCESS) {
        std::fprintf(stderr, "%s: cannot remove %s (AFC error %d)\n", kProgram, path.c_str(), result);
        return false;
    }
    return true;
}

// Copies one file of `size` bytes; reading stops at that size, so no request
// is spent learning where the file ends.
bool copyFile(const MoveSession &session, const std::string &from, const std::string &to, uint64_t size,
              uint32_t chunk, Totals *totals) {
    uint64_t source = 0;
    afc_error_t result = afc_file_open(session.media.afc, from.c_str(), AFC_FOPEN_RDONLY, &source);
    if (result != AFC_E_SUCCESS) {
        std::fprintf(stderr, "%s: cannot open %s (AFC error %d)\n", kProgram, from.c_str(), result);
        return false;
    }
    uint64_t target = 0;
    result = afc_file_open(session.app, to.c_str(), AFC_FOPEN_WRONLY, &target);
    if (result != AFC_E_SUCCESS) {
        std::fprintf(stderr, "%s: cannot create %s in the app (AFC error %d)\n", kProgram, to.c_str(), result);
        afc_file_close(session.media.afc, source);
        return false;
    }
    std::vector<char> buf(chunk);
    uint64_t done = 0;
    bool ok = true;
    while (ok && done < size) {
        uint32_t wanted = size - done < chunk ? static_cast<uint32_t>(size - done) : chunk;
        uint32_t got = 0;
        result = afc_file_read(session.media.afc, source, buf.data(), wanted, &got);
        if (result != AFC_E_SUCCESS || got == 0) {
            std::fprintf(stderr, "%s: read of %s failed after %llu bytes (AFC error %d, %u read)\n", kProgram,
                         from.c_str(), static_cast<unsigned long long>(done), result, got);
            ok = false;
            break;
        }
        if (got > wanted) got = wanted;
        uint32_t written = 0;
        while (written < got) {
            uint32_t sent = 0;
            result = afc_file_write(session.app, target, buf.data() + written, got - written, &sent);
            // A request that moved nothing would loop for ever.
            if (result != AFC_E_SUCCESS || sent == 0) {
                std::fprintf(stderr, "%s: write of %s failed after %llu bytes (AFC error %d, %u sent)\n", kProgram,
                             to.c_str(), static_cast<unsigned long long>(done + written), result, sent);
                ok = false;
                break;
            }
            written += sent < got - written ? sent : got - written;
        }
        done += written;
    }
    afc_error_t closed_source = afc_file_close(session.media.afc, source);
    afc_error_t closed_target = afc_file_close(session.app, target);
    if (ok && (closed_source != AFC_E_SUCCESS || closed_target != AFC_E_SUCCESS)) {
        std::fprintf(stderr, "%s: closing %s or %s failed (AFC errors %d, %d)\n", kProgram, from.c_str(), to.c_str(),
                     closed_source, closed_target);
        ok = false;
    }
    if (!ok) return false;
    totals->files += 1;
    totals->bytes += done;
    return removeSource(session.media.afc, from);
}

bool moveEntry(const MoveSession &session, const std::string &from, const std::string &to, uint32_t chunk,
               Totals *totals) {
    Entry entry;
    if (!describe(session.media.afc, from, &entry)) return false;
    if (!entry.folder) return copyFile(session, from, to, entry.size, chunk, totals);

    afc_error_t result = afc_make_directory(session.app, to.c_str());
    if (result != AFC_E_SUCCESS) {
        std::fprintf(stderr, "%s: cannot make %s in the app (AFC error %d)\n", kProgram, to.c_str(), result);
        return false;
    }
    char **names = nullptr;
    result = afc_read_directory(session.media.afc, from.c_str(), &names);
    if (result != AFC_E_SUCCESS || names == nullptr) {
        std::fprintf(stderr, "%s: cannot list %s (AFC error %d)\n", kProgram, from.c_str(), result);
        return false;
    }
    std::vector<std::string> children;
    for (char **name = names; *name != nullptr; ++name) {
        if (std::strcmp(*name, ".") != 0 && std::strcmp(*name, "..") != 0) children.emplace_back(*name);
    }
    afc_dictionary_free(names);
    for (const std::string &child : children) {
        if (!moveEntry(session, from + "/" + child, to + "/" + child, chunk, totals)) return false;
    }
    return removeSource(session.media.afc, from);
}

}  // namespace

int main(int argc, char **argv) {
    uint32_t chunk = kDefaultChunk;
    int arg = 1;
    if (arg < argc && std::strcmp(argv[arg], "--chunk") == 0) {
        if (arg + 1 >= argc) {
            usage();
            return 2;
        }
        char *end = nullptr;
        errno = 0;
        unsigned long long value = std::strtoull(argv[arg + 1], &end, 10);
        if (errno != 0 || end == argv[arg + 1] || *end != '\0' || value == 0 || value > kMaxChunk) {
            std::fprintf(stderr, "%s: --chunk takes 1 to %u bytes\n", kProgram, kMaxChunk);
            return 2;
        }
        chunk = static_cast<uint32_t>(value);
        arg += 2;
    }
    if (argc - arg != 4) {
        usage();
        return 2;
    }
    const std::string udid = argv[arg];
    const std::string bundle = argv[arg + 1];
    const std::string from = argv[arg + 2];
    const std::string to = argv[arg + 3];
    if (from.empty() || from[0] != '/' || to.empty() || to[0] != '/') {
        std::fprintf(stderr, "%s: SOURCE and TARGET are absolute paths on the device\n", kProgram);
        return 2;
    }

    MoveSession session;
    if (!session.connect(udid, bundle)) return 1;

    Totals totals;
    auto start = std::chrono::steady_clock::now();
    bool ok = moveEntry(session, from, to, chunk, &totals);
    auto end = std::chrono::steady_clock::now();
    if (!ok) return 1;
    std::printf("%llu %llu %.6f\n", static_cast<unsigned long long>(totals.files),
                static_cast<unsigned long long>(totals.bytes), std::chrono::duration<double>(end - start).count());
    return 0;
}
