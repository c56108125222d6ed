// Create and upload: a new file is made empty on the device at once and left
// open for the writes that follow; staging files reach the device in chunks.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "tarnifs/connections.h"
#include "tarnifs/filedata.h"
#include "tarnifs/listing.h"
#include "tarnifs/notify.h"
#include "util/log.h"

namespace {

// A new file is created empty and can be read back: "w+". It never appends.
constexpr int kOpenNewFile = LIBIUSB_AFC_WR;
constexpr int kOpenUploadTarget = LIBIUSB_AFC_WRONLY;
constexpr int kOpenAppendTarget = LIBIUSB_AFC_APPEND;
// One less than 64 KiB, on purpose: what the device has always been sent.
constexpr size_t kUploadChunk = 65535;

size_t countSlashes(const char *path) { return static_cast<size_t>(std::count(path, path + strlen(path), '/')); }
// The work folder exists from start-up; a staging call made before it (or
// after it was removed) makes it again, private to us.
void ensureWorkFolder(_CONTEXT *ctx) {
    struct stat st;
    if (ctx->work_dir[0] != '\0' && stat(ctx->work_dir, &st) != 0) mkdir(ctx->work_dir, 0700);
}

int uploadThrough(_CONTEXT *ctx, const char *from, const char *to, libiusb_afc *afc, int mode, bool remove_after,
                  const char *caller) {
    std::string local = std::string(ctx->work_dir) + from;
    struct stat st;
    if (stat(local.c_str(), &st) != 0) {
        QNLog(3, "%s frompath(%s) file is not exist.", caller, from);
        return -1;
    }
    uint64_t handle = 0;
    int result = libiusb_afc_file_open(afc, to, mode, &handle);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_open failed. code : %d, path : %s\n", caller, result, from);
        return result;
    }
    int fd = open(local.c_str(), O_RDONLY | O_NOFOLLOW);
    if (fd < 0) {
        QNLog(3, "%s topath open failed.", caller);
    } else {
        char buffer[kUploadChunk];
        uint64_t size = static_cast<uint64_t>(st.st_size);
        uint64_t offset = 0;
        while (offset < size) {
            size_t chunk = static_cast<size_t>(std::min<uint64_t>(size - offset, kUploadChunk));
            memset(buffer, 0, sizeof(buffer));
            ssize_t got = read(fd, buffer, chunk);
            if (got <= 0) {
                // The staging file ended early (or cannot be read): what was
                // read is on the device; never send bytes that were not read.
                QNLog(3, "%s staging file ended at %llu of %llu", caller, static_cast<unsigned long long>(offset),
                      static_cast<unsigned long long>(size));
                break;
            }
            uint32_t written = 0;
            result = libiusb_afc_file_write(afc, handle, buffer, static_cast<uint32_t>(got), offset, &written);
            if (result != 0) {
                QNLog(3, "%s libiusb_afc_file_write failed. code : %d", caller, result);
                close(fd);
                libiusb_afc_file_close(afc, handle);
                // The caller must know the device file is incomplete.
                return result;
            }
            if (written == 0) break;
            offset += written;
        }
        close(fd);
    }
    result = libiusb_afc_file_close(afc, handle);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_close failed. code : %d", caller, result);
        libiusb_afc_file_close(afc, handle);
        return result;
    }
    if (remove_after) remove(local.c_str());
    return 0;
}

} // namespace

int CreateFileHandle(const char *path) {
    _KTL_OBJECT *object = GetObject(path);
    _KTL_OBJECT *parent = GetParentObject(path);
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) {
        QNLog(3, "%s getContext failed. ret : %d", "CreateFileHandle", result);
        return result;
    }
    if (Extras(object).file_handle != 0) return 0;
    if (parent != nullptr && Extras(parent).app_id != nullptr) {
        if (Extras(parent).hhandle == nullptr) {
            result = StartHouseArrest(ctx, &EditExtras(parent).hhandle);
            if (result != 0) {
                QNLog(3, "%s libiusb_housearrest_init failed. error : %d", "CreateFileHandle", result);
                EditExtras(parent).hhandle = nullptr;
                return result;
            }
            result = libiusb_housearrest_openapp(Extras(parent).hhandle, Extras(parent).app_id);
            if (result != 0) {
                QNLog(3, "%s libiusb_housearrest_openapp failed. error : %d", "CreateFileHandle", result);
                return result;
            }
        }
        std::string devicePath = AppSandboxPath(path);
        result = libiusb_afc_file_open(Extras(parent).hhandle, devicePath.c_str(), kOpenNewFile, &EditExtras(object).file_handle);
        if (result != 0) {
            QNLog(3, "%s libiusb_afc_file_open failed. error : %d", "CreateFileHandle", result);
            return result;
        }
    } else {
        std::string devicePath = StorageDevicePath(path);
        result = libiusb_afc_file_open(ctx->afc_handle, devicePath.c_str(), kOpenNewFile, &EditExtras(object).file_handle);
        if (result != 0) {
            QNLog(3, "%s libiusb_afc_file_open failed. path(%s). ret : %d", "CreateFileHandle", devicePath.c_str(),
                  result);
            return result;
        }
    }
    if (Extras(object).file_handle == 0) {
        QNLog(3, "%s Invalid File handle!", "CreateFileHandle");
        return -ECANCELED;
    }
    EditExtras(object).device_writable = 1;
    return 0;
}

int tarnifs_create(const char *path, mode_t, struct fuse_file_info *fi) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    // macOS's own index folders (".Spotlight-V100") are never written to a
    // phone; a user's "Spotlight notes.txt" is a file like any other.
    if (strstr(path, "/.Spotlight-") != nullptr) return 0;
    if (LastNameTooLong(path)) return -ENAMETOOLONG;

    bool inAppFolder = strncmp(path, "/Apps/", 6) == 0 && countSlashes(path) > 2;
    // "/Storagex.txt" is a name at the root, refused as the root is.
    bool inStorage = IsInStorage(path);
    if (!inAppFolder && !inStorage) {
        QNLog(3, "%s create not supported. path : %s%s", "tarnifs_create", path,
              strncmp(path, "/Apps/", 6) == 0 ? " " : "");
        ShowMessageBox(kMsgNotification, "This folder is read only. You can not write or modify.\n%s",
                       ParentFolderOf(path).c_str());
        return -ECANCELED;
    }
    _KTL_OBJECT *object = GetObjectWithFileName(path);
    result = CreateFileHandle(path);
    if (result != 0) {
        if (result == LIBIUSB_ERROR_CONNECTION_LOST)
            ShowMessageBox(kMsgError, "Lost USB connection.\nCreate a file aborted.");
        else
            ShowMessageBox(kMsgError, "Could not create a file.\nError Code : %d", result);
        return -ECANCELED;
    }
    _KTL_OBJECT *parent = GetParentObject(path);
    if (parent != nullptr) {
        if (inAppFolder && Extras(object).app_id == nullptr && Extras(parent).app_id != nullptr)
            EditExtras(object).app_id = CopyString(Extras(parent).app_id);
        LinkChildObject(parent, object);
        // Counted in both areas, although only an app folder's count comes
        // down again at release.
        EditExtras(parent).open_count++;
    }
    object->mode = KTL_MODE_FILE;
    object->size = 0;
    EditExtras(object).open_count++;
    time_t now = time(nullptr);
    object->access_time = now;
    object->modify_time = now;
    object->birth_time = now;
    fi->fh = reinterpret_cast<uint64_t>(object);
    return 0;
}

int uploadfile(_CONTEXT *ctx, const char *from, const char *to, libiusb_afc *afc, bool remove_after) {
    ensureWorkFolder(ctx);
    return uploadThrough(ctx, from, to, afc, kOpenUploadTarget, remove_after, "uploadfile");
}

int uploadfileappend(_CONTEXT *ctx, const char *from, const char *to) {
    return uploadThrough(ctx, from, to, ctx->afc_handle, kOpenAppendTarget, false, "uploadfileappend");
}

int MakeTmpPath(_CONTEXT *ctx, const char *path, mode_t mode) {
    ensureWorkFolder(ctx);
    std::string local = std::string(ctx->work_dir) + path;
    if ((mode & KTL_MODE_FOLDER) != 0) return mkdir(local.c_str(), 0700);
    if ((mode & KTL_MODE_FILE) != 0) {
        int fd = open(local.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
        if (fd >= 0) close(fd);
        return 0;
    }
    return 0;
}
