// Device databases: the media, photo and recordings databases are copied from
// the device's media file system into the private work folder and opened
// there. Only the copies are ever opened; the device's library is only read.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tarnifs/media.h"
#include "tarnifs/notify.h"
#include "util/log.h"

namespace {

constexpr uint32_t kCopyChunk = 65535;

struct DatabaseFiles {
    const char *device_paths[3];
    const char *local_names[3];
    const char *tag;
    sqlite3 *_CONTEXT::*handle;
};

const DatabaseFiles kDatabases[] = {
    {{"/iTunes_Control/iTunes/MediaLibrary.sqlitedb", "/iTunes_Control/iTunes/MediaLibrary.sqlitedb-shm",
      "/iTunes_Control/iTunes/MediaLibrary.sqlitedb-wal"},
     {"/MediaLibrary.sqlitedb", "/MediaLibrary.sqlitedb-shm", "/MediaLibrary.sqlitedb-wal"},
     "Mediadb",
     &_CONTEXT::media_db},
    {{"/PhotoData/Photos.sqlite", "/PhotoData/Photos.sqlite-shm", "/PhotoData/Photos.sqlite-wal"},
     {"/Photos.sqlite", "/Photos.sqlite-shm", "/Photos.sqlite-wal"},
     "Photodb",
     &_CONTEXT::photo_db},
    // "Recoddb" is the tag the log has always carried for the recordings.
    {{"/Recordings/Recordings.db", "/Recordings/Recordings.db-shm", "/Recordings/Recordings.db-wal"},
     {"/Recordings.db", "/Recordings.db-shm", "/Recordings.db-wal"},
     "Recoddb",
     &_CONTEXT::record_db},
};

// The copies live in the mount's private work folder; a copy made before it
// exists (or after it was removed) makes it again, private to us.
std::string localFolder(_CONTEXT *ctx) {
    std::string folder = ctx->work_dir;
    struct stat st;
    if (!folder.empty() && stat(folder.c_str(), &st) != 0) mkdir(folder.c_str(), 0700);
    return folder;
}

} // namespace

int downloadfile(_CONTEXT *ctx, const char *devicePath, const char *localName) {
    libiusb_file_info info{};
    int result = libiusb_afc_file_get_info(ctx->afc_handle, devicePath, &info);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_get_info failed. code : %d, path : %s", "downloadfile", result, devicePath);
        return result;
    }
    uint64_t handle = 0;
    result = libiusb_afc_file_open(ctx->afc_handle, devicePath, 1, &handle);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_open failed. code : %d, path : %s", "downloadfile", result, devicePath);
        return result;
    }
    uint64_t size = info.size;
    uint32_t chunk = static_cast<uint32_t>(size < kCopyChunk ? size : kCopyChunk);
    std::string folder = localFolder(ctx);
    if (folder.empty()) {
        // No private folder to copy into: nothing is copied anywhere else.
        QNLog(3, "%s topath open failed. errno : %d", "downloadfile", ENOENT);
    } else {
        std::string local = folder + localName;
        // Private to us, like everything in the work folder.
        int fd = open(local.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
        if (fd < 0) {
            QNLog(3, "%s topath open failed. errno : %d", "downloadfile", errno);
        } else {
            std::vector<char> buffer(kCopyChunk);
            uint64_t offset = 0;
            while (offset < size) {
                memset(buffer.data(), 0, buffer.size());
                uint32_t got = 0;
                result = libiusb_afc_file_read(ctx->afc_handle, handle, buffer.data(), chunk, offset, &got);
                if (result != 0) {
                    QNLog(3, "%s libiusb_afc_file_read failed. code : %d", "downloadfile", result);
                    int closed = libiusb_afc_file_close(ctx->afc_handle, handle);
                    close(fd);
                    if (closed != 0) QNLog(3, "%s libiusb_afc_file_close failed. code : %d", "downloadfile", closed);
                    return closed;
                }
                offset += got;
                // The whole chunk asked for is written, as the copy always has.
                ssize_t written = write(fd, buffer.data(), chunk);
                (void)written;
                uint64_t left = size > offset ? size - offset : 0;
                chunk = static_cast<uint32_t>(left < kCopyChunk ? left : kCopyChunk);
            }
            close(fd);
        }
    }
    result = libiusb_afc_file_close(ctx->afc_handle, handle);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_close failed. code : %d", "downloadfile", result);
        return result;
    }
    return 0;
}

int opendb(_CONTEXT *ctx, const char *localName, sqlite3 **out) {
    std::string local = std::string(ctx->work_dir) + localName;
    struct stat st;
    if (ctx->work_dir[0] == '\0' || stat(local.c_str(), &st) != 0) {
        QNLog(3, "%s target db not exist", "opendb");
        return 0;
    }
    sqlite3 *db = nullptr;
    int result = sqlite3_open(local.c_str(), &db);
    if (result != SQLITE_OK) {
        QNLog(3, "%s sqlite3_open failed code : %d, msg(%s)", "opendb", result, sqlite3_errmsg(db));
        // SQLite hands back a handle even when the open fails; it holds
        // nothing but the message and is let go here.
        sqlite3_close(db);
        return result;
    }
    *out = db;
    return 0;
}

int64_t DownloadDBandOpen(_CONTEXT *ctx) {
    uint64_t total = 0;
    for (const DatabaseFiles &database : kDatabases) {
        libiusb_file_info info{};
        int result = libiusb_afc_file_get_info(ctx->afc_handle, database.device_paths[0], &info);
        if (result != 0) {
            QNLog(3, "%s libiusb_afc_file_get_info failed. code : %d, path : %s", "DownloadDBandOpen", result,
                  database.tag);
            continue;
        }
        total += info.size;
    }
    bool busy = total > kBusyDatabaseBytes;
    if (busy) sendPipeMsg("-neon");
    int result = 0;
    for (const DatabaseFiles &database : kDatabases) {
        for (int file = 0; file < 3; ++file) downloadfile(ctx, database.device_paths[file], database.local_names[file]);
        result = opendb(ctx, database.local_names[0], &(ctx->*database.handle));
    }
    if (busy) sendPipeMsg("-neoff");
    return result;
}
