// Open, read, write and release. An open file has no record of its own: the
// handle's fh is the address of the path's catalogue record, and one device
// handle on that record serves every FUSE handle open on it.
#include "tarnifs/connections.h"
#include "tarnifs/filedata.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "tarnifs/jpeg_views.h"
#include "tarnifs/listing.h"
#include "tarnifs/media.h"
#include "tarnifs/notify.h"
#include "util/log.h"

namespace {

// Device open modes that keep every byte at its offset: "r" for media items
// and for files opened only to be read, "r+" (read and write in place) for
// files opened to be written. Phones create a missing file for "r+", so a
// file removed behind the mount's back is not brought back empty by a read.
// (Mode 6, "a+", would put every write at the end of the file.)
constexpr int kOpenForReading = LIBIUSB_AFC_RDONLY;
constexpr int kOpenForWriting = LIBIUSB_AFC_RW;

bool isMediaItem(const _KTL_OBJECT *object) { return Extras(object).device_path != nullptr && Extras(object).device_path[0] != '\0'; }

bool opensForWriting(int flags) { return (flags & O_ACCMODE) != O_RDONLY || (flags & O_TRUNC) != 0; }

// The connection a file's device requests go through: an app file's folder
// keeps a house-arrest client; everything else uses the mount's AFC connection.
libiusb_afc *connectionFor(_CONTEXT *ctx, const char *path, const _KTL_OBJECT *object) {
    if (Extras(object).app_id != nullptr) {
        _KTL_OBJECT *parent = GetParentObject(path);
        if (parent != nullptr && Extras(parent).hhandle != nullptr) return Extras(parent).hhandle;
    }
    return ctx->afc_handle;
}

std::string devicePathFor(const char *path, const _KTL_OBJECT *object) {
    if (Extras(object).app_id != nullptr) return AppSandboxPath(path);
    if (isMediaItem(object)) return Extras(object).device_path;
    return StorageDevicePath(path);
}

// Ends the house-arrest client of an app folder after a failed open: the rule
// is to let it go whoever opened it, so the next open starts afresh.
void dropFolderClient(_KTL_OBJECT *parent) {
    if (parent == nullptr || Extras(parent).hhandle == nullptr) return;
    libiusb_housearrest_exit(Extras(parent).hhandle);
    EditExtras(parent).hhandle = nullptr;
}

// Opens the app's sandbox on the parent folder's house-arrest client when it
// has none yet. 0, or -ECANCELED after the dialog.
int openFolderClient(_CONTEXT *ctx, const char *path, _KTL_OBJECT *parent) {
    if (Extras(parent).hhandle != nullptr) return 0;
    std::string app = AppFolderName(path);
    int result = StartHouseArrest(ctx, &EditExtras(parent).hhandle);
    if (result != 0) {
        QNLog(3, "%s libiusb_housearrest_init failed. error : %d", "tarnifs_open", result);
        if (result == LIBIUSB_ERROR_CONNECTION_LOST)
            snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB connection.\nService opening aborted.");
        else
            snprintf(ErrMsg, sizeof(ErrMsg), "Could not open the Device with Arrest Service.\nError Code : %d", result);
        EditExtras(parent).hhandle = nullptr;
        ShowMessageBox(kMsgError, "%s", ErrMsg);
        return -ECANCELED;
    }
    result = libiusb_housearrest_openapp(Extras(parent).hhandle, Extras(parent).app_id != nullptr ? Extras(parent).app_id : "");
    if (result != 0) {
        QNLog(3, "%s libiusb_housearrest_openapp failed. error : %d, App ID : %s", "tarnifs_open", result,
              Extras(parent).app_id != nullptr ? Extras(parent).app_id : "");
        if (result == LIBIUSB_ERROR_CONNECTION_LOST)
            snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB connection.\nOpening App(%s) aborted.", app.c_str());
        else
            snprintf(ErrMsg, sizeof(ErrMsg), "Could not open the App(%s).\nError Code : %d", app.c_str(), result);
        dropFolderClient(parent);
        ShowMessageBox(kMsgError, "%s", ErrMsg);
        return -ECANCELED;
    }
    return 0;
}

// Free space as the volume reports it follows every growth and shrink.
void accountForSizeChange(_CONTEXT *ctx, uint64_t from, uint64_t to) {
    uint64_t &free = ctx->device_info.free_capacity;
    if (to > from) free = to - from > free ? 0 : free - (to - from);
    else free += from - to;
}

// Shows the write failure dialog for `result` and answers -ECANCELED.
int writeFailed(int result) {
    if (result == LIBIUSB_ERROR_CONNECTION_LOST)
        snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB connection.\nWriting aborted.");
    else
        snprintf(ErrMsg, sizeof(ErrMsg), "Could not write a file.\nError Code : %d", result);
    ShowMessageBox(kMsgError, "%s", ErrMsg);
    return -ECANCELED;
}

void refuseReadOnly(const char *path) {
    ShowMessageBox(kMsgNotification, "This folder is read only. You can not write or modify.\n%s",
                   ParentFolderOf(path).c_str());
}

// Where a staged file waits: the work folder's staging folder + the whole
// volume path, so that temporaries of one name in different folders never
// share (or remove) each other's bytes.
std::string stagingFileOf(_CONTEXT *ctx, const char *path) { return std::string(ctx->work_dir) + StagingNameOf(path); }

// Makes the folders above a staging file, private to us like the work folder.
void makeStagingFolders(_CONTEXT *ctx, const std::string &local) {
    size_t from = strlen(ctx->work_dir) + 1;
    for (size_t slash = local.find('/', from); slash != std::string::npos; slash = local.find('/', slash + 1))
        mkdir(local.substr(0, slash).c_str(), 0700);
}

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool isLetterOrDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// macOS's safe save writes the new content to "<name>.sb-" + 8 hex digits +
// "-" + 6 letters or digits beside <name>, then renames it over <name>. Only
// such a name, in the folder of an existing <name>, is a temporary: anything
// else that merely contains ".sb-" ("report.txt.sb-copy", a folder
// "music.sb-old") is a user's file and goes to the device like any other.
bool isSafeSaveTemporary(const char *path) {
    static const size_t kSuffix = 4 + 8 + 1 + 6;  // ".sb-" 8 hex "-" 6 letters or digits
    const char *slash = strrchr(path, '/');
    if (slash == nullptr) return false;
    const char *name = slash + 1;
    size_t length = strlen(name);
    if (length <= kSuffix) return false;
    const char *suffix = name + length - kSuffix;
    if (strncmp(suffix, ".sb-", 4) != 0 || suffix[12] != '-') return false;
    for (int i = 4; i < 12; ++i)
        if (!isHexDigit(suffix[i])) return false;
    for (int i = 13; i < 19; ++i)
        if (!isLetterOrDigit(suffix[i])) return false;
    std::string original(path, static_cast<size_t>(suffix - path));
    return FindObject(original.c_str()) != nullptr;
}

// A file opened again is looked at on the device (one file-information
// request, made only when its first device handle is opened): an app on the
// phone may have changed it since the catalogue learnt its size. When it
// did, what the kernel keeps of the path is dropped, so that stat and read
// see the device's file. Media items keep what their library says.
void refreshFromDevice(libiusb_afc *connection, const char *path, const std::string &devicePath,
                       _KTL_OBJECT *object) {
    libiusb_file_info info;
    int result = libiusb_afc_file_get_info(connection, devicePath.c_str(), &info);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_get_info failed. path(%s) ret : %d", "tarnifs_open", devicePath.c_str(), result);
        return;
    }
    int64_t modified = info.modify_time / 1000000000;
    if (info.size == object->size && modified == object->modify_time) return;
    object->size = info.size;
    object->modify_time = modified;
    object->birth_time = info.birth_time / 1000000000;
    InvalidateKernelView(path);
}

// Where an appending write lands: the end of the device file as it is now
// (one file-information request per appending write), so that lines an app on
// the phone added meanwhile are kept. When the device cannot say, the
// catalogue's size stands.
uint64_t deviceEndOf(libiusb_afc *connection, const char *path, _KTL_OBJECT *object) {
    libiusb_file_info info;
    std::string devicePath = devicePathFor(path, object);
    int result = libiusb_afc_file_get_info(connection, devicePath.c_str(), &info);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_file_get_info failed. path(%s) ret : %d", "tarnifs_write", devicePath.c_str(), result);
        return object->size;
    }
    object->size = info.size;
    return info.size;
}

} // namespace

int tarnifs_open(const char *path, struct fuse_file_info *fi) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    _KTL_OBJECT *object = FindObject(path);
    if (object == nullptr) {
        QNLog(3, "%s path(%s) object not EXIST", "tarnifs_open", path);
        return -ENOENT;
    }
    fi->fh = 0;
    if (Extras(object).jpeg_view != 0) {
        if (opensForWriting(fi->flags)) {
            refuseReadOnly(path);
            return -ECANCELED;
        }
        if (Extras(object).file_handle == 0) {
            // Converted already (SettleJpegView waited without the lock);
            // a file dropped from the cache meanwhile is made again here.
            uint64_t size = 0;
            std::string file;
            int fd = -1;
            if (AwaitJpegView(Extras(object).device_path, &size, &file, true) == 0) {
                fd = open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
                ReleaseJpegView(Extras(object).device_path);  // the open file keeps its bytes
            }
            if (fd < 0) {
                ShowMessageBox(kMsgError, "Could not convert a photo to JPEG.\n%s", path);
                return -EIO;
            }
            EditExtras(object).file_handle = static_cast<uint64_t>(fd) + 1;
            object->size = size;
            EditExtras(object).jpeg_view = 2;
        }
    } else if (object->type == KTL_TYPE_NOTE) {
        // Our own note in the read-only media views: read, never written.
        if (opensForWriting(fi->flags)) {
            refuseReadOnly(path);
            return -ECANCELED;
        }
    } else if (object->type == KTL_TYPE_STAGED) {
        // A temporary opened again to be rewritten starts empty, as its
        // device file would.
        if ((fi->flags & O_TRUNC) != 0) {
            std::string local = stagingFileOf(ctx, path);
            if (truncate(local.c_str(), 0) != 0 && errno != ENOENT)
                QNLog(3, "%s staged file truncate failed. path(%s) errno %d", "tarnifs_open", local.c_str(), errno);
            accountForSizeChange(ctx, object->size, 0);
            object->size = 0;
            object->modify_time = time(nullptr);
        }
    } else if (object->type != KTL_TYPE_TEMPORARY) {
        bool media = isMediaItem(object);
        if (media && opensForWriting(fi->flags)) {
            // The device's library is never written: a media item opened for
            // writing gets the read-only notice, and nothing is opened.
            QNLog(3, "%s media item is read only. path(%s)", "tarnifs_open", path);
            refuseReadOnly(path);
            return -ECANCELED;
        }
        _KTL_OBJECT *parent = nullptr;
        libiusb_afc *connection = ctx->afc_handle;
        if (Extras(object).app_id != nullptr) {
            parent = GetParentObject(path);
            if (parent == nullptr) {
                QNLog(3, "%s Unexpected file! path(%s)", "tarnifs_open", path);
                ShowMessageBox(kMsgError, "Unexpected file! path\n%s", path);
                return -ECANCELED;
            }
            result = openFolderClient(ctx, path, parent);
            if (result != 0) return result;
            connection = Extras(parent).hhandle;
        } else if (!media && !IsInStorage(path)) {
            QNLog(3, "%s Unexpected file! path(%s)", "tarnifs_open", path);
            ShowMessageBox(kMsgError, "Unexpected file! path\n%s", path);
            return -ECANCELED;
        }
        std::string devicePath = devicePathFor(path, object);
        bool writing = opensForWriting(fi->flags);
        bool firstHandle = Extras(object).file_handle == 0;
        if (Extras(object).file_handle != 0 && writing && !Extras(object).device_writable) {
            // Readers hold a read-only device handle: a writer needs one that
            // writes. Reads name their offsets, so the readers go on with it.
            uint64_t readWrite = 0;
            result = libiusb_afc_file_open(connection, devicePath.c_str(), kOpenForWriting, &readWrite);
            if (result == 0) {
                libiusb_afc_file_close(connection, Extras(object).file_handle);
                EditExtras(object).file_handle = readWrite;
                EditExtras(object).device_writable = 1;
            }
        } else if (Extras(object).file_handle == 0) {
            result = libiusb_afc_file_open(connection, devicePath.c_str(), writing ? kOpenForWriting : kOpenForReading,
                                           &EditExtras(object).file_handle);
            EditExtras(object).device_writable = writing ? 1 : 0;
        }
        {
            if (result != 0) {
                QNLog(3, "%s libiusb_afc_file_open failed. path(%s) ret : %d", "tarnifs_open", devicePath.c_str(),
                      result);
                const char *name = object->file_name != nullptr ? object->file_name : path;
                if (result == LIBIUSB_ERROR_CONNECTION_LOST || result == LIBIUSB_ERROR_IO)
                    snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB connection.\nOpening file(%s) aborted.", name);
                else
                    snprintf(ErrMsg, sizeof(ErrMsg), "Could not open a file(%s).\nError Code : %d", name, result);
                if (Extras(object).open_count == 0) EditExtras(object).file_handle = 0;
                if (parent != nullptr && Extras(parent).open_count == 0) dropFolderClient(parent);
                ShowMessageBox(kMsgError, "%s", ErrMsg);
                return -ECANCELED;
            }
        }
        if (firstHandle && !media) refreshFromDevice(connection, path, devicePath, object);
        if ((fi->flags & O_TRUNC) != 0) {
            // An open that truncates empties the device file, not only the
            // catalogue, whatever size the catalogue holds: an app on the
            // phone may have written to a file the catalogue knows as empty.
            result = libiusb_afc_file_truncate(connection, Extras(object).file_handle, 0);
            if (result != 0) {
                QNLog(3, "%s libiusb_afc_file_truncate failed. path(%s) ret %d", "tarnifs_open", devicePath.c_str(),
                      result);
                if (Extras(object).open_count == 0) {
                    libiusb_afc_file_close(connection, Extras(object).file_handle);
                    EditExtras(object).file_handle = 0;
                    if (parent != nullptr && Extras(parent).open_count == 0) dropFolderClient(parent);
                }
                return writeFailed(result);
            }
            accountForSizeChange(ctx, object->size, 0);
            object->size = 0;
            object->modify_time = time(nullptr);
        }
        if (parent != nullptr) EditExtras(parent).open_count++;
    }
    EditExtras(object).open_count++;
    fi->fh = reinterpret_cast<uint64_t>(object);
    return 0;
}

int tarnifs_read(const char *path, char *buf, size_t size, off_t offset, struct fuse_file_info *fi) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    if (fi == nullptr || fi->fh == 0) {
        QNLog(3, "%s fh is NULL", "tarnifs_read");
        return -ECANCELED;
    }
    std::string removedPath;
    _KTL_OBJECT *object = objectOfHandle(path, fi, &removedPath);
    if (object == nullptr) return -ECANCELED;
    if (!removedPath.empty()) path = removedPath.c_str();
    if (object->type == KTL_TYPE_NOTE) {
        std::string local = NoteFileOf(ctx, object);
        int fd = open(local.c_str(), O_RDONLY | O_NOFOLLOW);
        if (fd < 0) return -EIO;
        ssize_t got = pread(fd, buf, size, offset);
        close(fd);
        return got < 0 ? -EIO : static_cast<int>(got);
    }
    libiusb_afc *connection = connectionFor(ctx, path, object);
    if (connection == nullptr) {
        QNLog(3, "%s afc_handle is NULL!", "tarnifs_read");
        return 0;
    }

    if (Extras(object).jpeg_view != 0 && Extras(object).file_handle != 0) {
        // The converted JPEG, from the cache file opened with the handle.
        ssize_t got = pread(static_cast<int>(Extras(object).file_handle - 1), buf, size, offset);
        if (got < 0) return -EIO;
        result = static_cast<int>(got);
    } else if (object->type == KTL_TYPE_STAGED) {
        // A staged file is read from the work folder under its whole volume path.
        std::string local = stagingFileOf(ctx, path);
        struct stat st;
        if (stat(local.c_str(), &st) != 0) {
            result = -ENOENT;
        } else {
            // Read-only whatever the handle's flags: a read must never truncate or create.
            int fd = open(local.c_str(), O_RDONLY);
            result = fd < 0 ? 0 : static_cast<int>(pread(fd, buf, size, offset));
            if (fd >= 0) close(fd);
        }
    } else if (Extras(object).file_handle == 0) {
        QNLog(3, "%s file_handle is NULL", "tarnifs_read");
        result = -ECANCELED;
    } else {
        uint32_t count = 0;
        result = libiusb_afc_file_read(connection, Extras(object).file_handle, buf, static_cast<uint32_t>(size),
                                       static_cast<uint64_t>(offset), &count);
        if (result != 0) {
            QNLog(3, "%s libiusb_afc_file_read fail. Err=%d, path(%s)", "tarnifs_read", result, path);
            if (result == LIBIUSB_ERROR_CONNECTION_LOST || result == LIBIUSB_ERROR_IO)
                ShowMessageBox(kMsgError, "Lost USB connection.\nReading aborted.");
            else
                ShowMessageBox(kMsgError, "Could not read a file.\nError Code : %d", result);
            return -ECANCELED;
        }
        object->access_time = time(nullptr);
        result = static_cast<int>(count);
    }

    // Read-through tracking: the end of the run of bytes read from the start.
    if ((object->mode & KTL_MODE_FILE) != 0 && !fi->keep_cache) {
        uint64_t n = static_cast<uint64_t>(static_cast<int64_t>(result));
        uint64_t at = static_cast<uint64_t>(offset);
        if (at == 0)
            EditExtras(object).read_offset = n;
        else if (at == Extras(object).read_offset)
            EditExtras(object).read_offset += n;
        else if (at < Extras(object).read_offset)
            EditExtras(object).read_offset = at + n;
        if (Extras(object).read_offset == object->size) EditExtras(object).reading = 1;
    }
    return result;
}

int tarnifs_write(const char *path, const char *buf, size_t size, off_t offset, struct fuse_file_info *fi) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) {
        QNLog(3, "%s pContext is NULL!", "tarnifs_write");
        return result;
    }
    if (fi == nullptr || fi->fh == 0) return 0;
    std::string removedPath;
    _KTL_OBJECT *object = objectOfHandle(path, fi, &removedPath);
    if (object == nullptr) return -ECANCELED;
    if (!removedPath.empty()) path = removedPath.c_str();
    libiusb_afc *connection = connectionFor(ctx, path, object);
    if (Extras(object).file_handle == 0 && object->type != KTL_TYPE_STAGED) return -ECANCELED;
    // A safe-save temporary is staged from its first byte on: while it is
    // empty on the device, its whole content can wait in the work folder.
    // One that already holds bytes on the device is written there in place.
    bool staging = object->type == KTL_TYPE_STAGED || (object->size == 0 && isSafeSaveTemporary(path));
    // O_APPEND puts every write at the end of the file, as POSIX says: the
    // end of the device file as it is now, whatever the catalogue last saw.
    uint64_t at = static_cast<uint64_t>(offset);
    if ((fi->flags & O_APPEND) != 0) at = staging ? object->size : deviceEndOf(connection, path, object);

    uint32_t written = 0;
    if (staging) {
        // Its data waits in the work folder until the rename that replaces
        // the original, or the last release, puts it on the device. The
        // staging file is written at the offsets given, as the device file
        // would be; a temporary starting to be staged starts empty.
        std::string local = stagingFileOf(ctx, path);
        int flags = O_WRONLY | O_CREAT | O_NOFOLLOW;
        if (object->type != KTL_TYPE_STAGED) {
            makeStagingFolders(ctx, local);
            flags |= O_TRUNC;
        }
        int fd = open(local.c_str(), flags, 0600);
        ssize_t put = fd >= 0 ? pwrite(fd, buf, size, static_cast<off_t>(at)) : -1;
        if (fd >= 0) close(fd);
        if (put < 0) {
            QNLog(3, "%s staging write failed. path(%s) errno %d", "tarnifs_write", local.c_str(), errno);
            return -EIO;
        }
        written = static_cast<uint32_t>(put);
        object->type = KTL_TYPE_STAGED;
    } else {
        result = libiusb_afc_file_write(connection, Extras(object).file_handle, buf, static_cast<uint32_t>(size), at,
                                        &written);
        if (result != 0) {
            QNLog(3, "%s libiusb_afc_file_write failed. path(%s) ret %d", "tarnifs_write", path, result);
            // Whatever part the device took is on it: the record says so.
            if (at + written > object->size) {
                accountForSizeChange(ctx, object->size, at + written);
                object->size = at + written;
            }
            return writeFailed(result);
        }
    }
    time_t now = time(nullptr);
    object->modify_time = now;
    object->access_time = now;
    if (at + written > object->size) {
        accountForSizeChange(ctx, object->size, at + written);
        object->size = at + written;
        EditExtras(object).writing = 1;
    }
    return static_cast<int>(written);
}

int tarnifs_release(const char *path, struct fuse_file_info *fi) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    if (fi == nullptr || fi->fh == 0) return result;
    std::string removedPath;
    _KTL_OBJECT *object = objectOfHandle(path, fi, &removedPath);
    if (object == nullptr) return result;
    bool removed = !removedPath.empty();
    if (removed) path = removedPath.c_str();

    if (Extras(object).open_count > 0) EditExtras(object).open_count--;
    if (Extras(object).reading != 0 || Extras(object).writing != 0) {
        uint32_t kind = kTransferWritten;
        if (Extras(object).reading != 0) {
            EditExtras(object).reading = 0;
            kind = kTransferRead;
        } else {
            EditExtras(object).writing = 0;
        }
        QNLog(3, "%s path %s / reading %d writing %d", "tarnifs_release", path, Extras(object).reading, Extras(object).writing);
        if (queueTransferRecord(kind, object->size, object->file_name != nullptr ? object->file_name : "") != 0)
            QNLog(3, "%s PKTL_PIPE_DATA_BOX alloc failed", "tarnifs_release");
    }
    if (Extras(object).open_count == 0 && object->type == KTL_TYPE_STAGED && !removed) {
        // The flush of its close normally did this already; what failed
        // there is tried once more (while the folder's connection is open).
        int uploaded = UploadStagedFile(ctx, path, object, "tarnifs_release");
        if (uploaded != 0) result = uploaded;
    }
    if (Extras(object).open_count == 0 && Extras(object).file_handle != 0 && Extras(object).jpeg_view != 0) {
        close(static_cast<int>(Extras(object).file_handle - 1));
        EditExtras(object).file_handle = 0;
    }
    if (Extras(object).open_count == 0 && Extras(object).file_handle != 0) {
        if (Extras(object).app_id != nullptr) {
            _KTL_OBJECT *parent = GetParentObject(path);
            if (parent != nullptr) {
                if (Extras(parent).open_count > 0) EditExtras(parent).open_count--;
                if (Extras(parent).hhandle != nullptr) {
                    result = libiusb_afc_file_close(Extras(parent).hhandle, Extras(object).file_handle);
                    if (result != 0)
                        QNLog(3, "%s libiusb_afc_file_close failed. path(%s). ret : %d", "tarnifs_release", path,
                              result);
                    if (Extras(parent).open_count == 0) {
                        result = libiusb_housearrest_exit(Extras(parent).hhandle);
                        if (result != 0)
                            QNLog(3, "%s libiusb_housearrest_exit failed. ret : %d", "tarnifs_release", result);
                        EditExtras(parent).hhandle = nullptr;
                    }
                }
            }
        } else {
            result = libiusb_afc_file_close(ctx->afc_handle, Extras(object).file_handle);
            if (result != 0)
                QNLog(3, "%s libiusb_afc_file_close failed. path(%s). ret : %d", "tarnifs_release", path, result);
        }
        if (object->type == KTL_TYPE_TEMPORARY) object->type = KTL_TYPE_ORDINARY;
        EditExtras(object).hhandle = nullptr;
        EditExtras(object).file_handle = 0;
        EditExtras(object).device_writable = 0;
    }
    // A file removed while open lives until its last handle is gone.
    if (removed && Extras(object).open_count == 0) FreeRemovedObject(object);
    return result;
}

int tarnifs_flush(const char *path, struct fuse_file_info *fi) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    if (fi == nullptr || fi->fh == 0) return 0;
    std::string removedPath;
    _KTL_OBJECT *object = objectOfHandle(path, fi, &removedPath);
    // A temporary removed while open was thrown away by its program.
    if (object == nullptr || !removedPath.empty() || object->type != KTL_TYPE_STAGED) return 0;
    // Nothing a user wrote stays only in the work folder: at each close
    // (which waits for its flush, where the release comes later, unwaited)
    // a staged temporary goes to the device under its own name, not at
    // unmount, which a crash or an unplugged cable may never reach. Its
    // device file then holds every byte, so later writes go there in place,
    // and the rename that follows is one device rename. On a failure it
    // stays staged: the release, the rename or the unmount tries again.
    result = UploadStagedFile(ctx, path, object, "tarnifs_flush");
    if (result == 0 || result == -ECANCELED) return result;  // -ECANCELED: its dialog was shown
    return writeFailed(result);
}

_KTL_OBJECT *objectOfHandle(const char *path, const struct fuse_file_info *fi, std::string *removedPath) {
    removedPath->clear();
    if (fi != nullptr && fi->fh != 0) {
        _KTL_OBJECT *removed = RemovedOpenObject(fi->fh, removedPath);
        if (removed != nullptr) return removed;
    }
    // libfuse names no path for a handle whose file was removed.
    return path != nullptr ? FindObject(path) : nullptr;
}

int ChangeFileSizeOnDevice(_CONTEXT *ctx, const char *path, _KTL_OBJECT *object, uint64_t size,
                           struct fuse_file_info *fi) {
    (void)fi;  // the record holds the device handle, whichever FUSE handle asked
    // Whatever size the catalogue holds, the device file is changed: an app
    // on the phone may have changed it since the catalogue learnt its size.
    if (object->mode != KTL_MODE_FILE) return 0;
    if (isMediaItem(object) || object->type == KTL_TYPE_NOTE) {
        QNLog(3, "%s media item is read only. path(%s)", "tarnifs_setattr_x", path);
        refuseReadOnly(path);
        return -ECANCELED;
    }
    if (object->type == KTL_TYPE_STAGED) {
        std::string local = stagingFileOf(ctx, path);
        if (truncate(local.c_str(), static_cast<off_t>(size)) != 0)
            QNLog(3, "%s staged file truncate failed. path(%s) errno %d", "tarnifs_setattr_x", local.c_str(), errno);
        return 0;
    }
    bool inApps = Extras(object).app_id != nullptr;
    if (!inApps && !IsInStorage(path)) return 0;  // nothing on the device stands behind it
    std::string devicePath = devicePathFor(path, object);
    int result = 0;
    if (Extras(object).file_handle != 0) {
        result = libiusb_afc_file_truncate(connectionFor(ctx, path, object), Extras(object).file_handle, size);
    } else if (!inApps) {
        // No device connection (handlers called without a device): nothing to change there.
        if (ctx->afc_handle == nullptr) return 0;
        result = libiusb_afc_truncate(ctx->afc_handle, devicePath.c_str(), size);
    } else {
        // An app file that is not open: through the folder's client, made for
        // this change and let go after it unless files in the folder are open.
        _KTL_OBJECT *parent = GetParentObject(path);
        if (parent == nullptr || ctx->device_handle == nullptr) return 0;
        result = openFolderClient(ctx, path, parent);
        if (result != 0) return result;
        result = libiusb_afc_truncate(Extras(parent).hhandle, devicePath.c_str(), size);
        if (Extras(parent).open_count == 0) dropFolderClient(parent);
    }
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_truncate failed. path(%s) ret %d", "tarnifs_setattr_x", devicePath.c_str(), result);
        return writeFailed(result);
    }
    accountForSizeChange(ctx, object->size, size);
    return 0;
}

std::string StagingNameOf(const char *path) { return std::string("/staging") + path; }

int UploadStagedFile(_CONTEXT *ctx, const char *path, _KTL_OBJECT *object, const char *caller) {
    if (object->type != KTL_TYPE_STAGED) return 0;
    _KTL_OBJECT *parent = nullptr;
    libiusb_afc *connection = ctx->afc_handle;
    if (Extras(object).app_id != nullptr) {
        parent = GetParentObject(path);
        if (parent == nullptr) return LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND;
        int result = openFolderClient(ctx, path, parent);
        if (result != 0) return result;
        connection = Extras(parent).hhandle;
    }
    std::string devicePath = devicePathFor(path, object);
    int result = uploadfile(ctx, StagingNameOf(path).c_str(), devicePath.c_str(), connection, true);
    // A client made only for this upload is let go again.
    if (parent != nullptr && Extras(parent).open_count == 0) dropFolderClient(parent);
    if (result != 0) {
        QNLog(3, "%s uploadfile failed. path(%s). ret : %d", caller, devicePath.c_str(), result);
        return result;
    }
    object->type = KTL_TYPE_ORDINARY;
    return 0;
}

void UploadEveryStagedFile(_CONTEXT *ctx) {
    for (const auto &entry : Object_list) {
        _KTL_OBJECT *object = reinterpret_cast<_KTL_OBJECT *>(entry.second);
        if (object != nullptr && object->type == KTL_TYPE_STAGED) UploadStagedFile(ctx, entry.first.c_str(), object, "tarnifs_destroy");
    }
}

int SettleJpegView(const char *path) {
    std::string devicePath;
    {
        TarniLock lock;
        _KTL_OBJECT *object = path != nullptr ? FindObject(path) : nullptr;
        if (object == nullptr || Extras(object).jpeg_view != 1 || Extras(object).device_path == nullptr) return 0;
        devicePath = Extras(object).device_path;
    }
    // Converting takes a while: other requests go on meanwhile.
    uint64_t size = 0;
    std::string file;
    if (AwaitJpegView(devicePath, &size, &file) != 0) return -EIO;
    TarniLock lock;
    _KTL_OBJECT *object = FindObject(path);
    if (object == nullptr || Extras(object).jpeg_view != 1 || Extras(object).device_path == nullptr || devicePath != Extras(object).device_path)
        return 0;
    object->size = size;
    EditExtras(object).jpeg_view = 2;
    return 1;
}
