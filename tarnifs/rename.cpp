// Rename dispatch: which renames are device renames, which are moves between
// areas, and which are refused. The catalogue changes only after the device
// did; a failed rename leaves both as they were.
#include "tarnifs/connections.h"
#include "tarnifs/rename.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>

#include "tarnifs/catalogue.h"
#include "tarnifs/filedata.h"
#include "tarnifs/listing.h"
#include "tarnifs/move.h"
#include "tarnifs/namespace.h"
#include "tarnifs/notify.h"
#include "util/log.h"

namespace {

bool begins(const char *path, const char *prefix) { return strncmp(path, prefix, strlen(prefix)) == 0; }

// The Storage area as a source: the area's folder itself or what is below
// it; "/Storagex.txt" is neither.
bool fromStorage(const char *path) { return strcmp(path, "/Storage") == 0 || IsInStorage(path); }

size_t depthOf(const char *path) { return static_cast<size_t>(std::count(path, path + strlen(path), '/')); }
bool isFolder(const _KTL_OBJECT *object) { return object != nullptr && object->mode == KTL_MODE_FOLDER; }

bool hasChildren(const _KTL_OBJECT *folder) { return folder->child_list.next != &folder->child_list; }

void logNotSupported() { QNLog(3, "%s rename not supported. ", "tarnifs_rename"); }

int refuseReadOnly(const char *to) {
    QNLog(3, "%s create not supported. path : %s", "tarnifs_rename", to);
    ShowMessageBox(kMsgNotification, "This folder is read only. You can not write or modify.\n%s",
                   ParentFolderOf(to).c_str());
    return -ECANCELED;
}

int refuseRename(const char *from, const char *to) {
    QNLog(3, "%s rename not supported. path from : %s, to : %s", "tarnifs_rename", from, to);
    if (isFolder(FindObject(from)))
        ShowMessageBox(kMsgNotification, "You can not rename this folder.\n%s", from);
    else
        ShowMessageBox(kMsgNotification, "You can not rename this file.\n%s", from);
    return -ECANCELED;
}

// A device failure (or the context's) as the user sees it; -ECANCELED.
int reportFailure(int result) {
    if (result == LIBIUSB_ERROR_CONNECTION_LOST)
        snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB connection.\nRenaming or moving aborted.");
    else if (result == LIBIUSB_ERROR_NO_SPACE)
        snprintf(ErrMsg, sizeof(ErrMsg), "Not enough space on device.");
    else
        snprintf(ErrMsg, sizeof(ErrMsg), "Could not rename or move the contents.\nError Code : %d", result);
    ShowMessageBox(kMsgError, "%s", ErrMsg);
    return -ECANCELED;
}

// A move that takes long (a folder, or a file above 3000000 bytes) tells the
// tray it is busy for as long as it runs; every "-neon" gets its "-neoff".
struct LongMoveBracket {
    explicit LongMoveBracket(const _KTL_OBJECT *source)
        : on(source != nullptr && (source->mode == KTL_MODE_FOLDER || source->size > kLongMoveBytes)) {
        if (on) sendPipeMsg("-neon");
    }
    ~LongMoveBracket() {
        if (on) sendPipeMsg("-neoff");
    }
    LongMoveBracket(const LongMoveBracket &) = delete;
    LongMoveBracket &operator=(const LongMoveBracket &) = delete;
    bool on;
};

// What a device rename needs before it may start: both folders known to the
// catalogue (listed when nothing listed them yet), the source's record, and
// a target that is not a folder with contents (POSIX rename replaces only an
// empty folder; the device would refuse it with a dialog the host does not
// expect). 0, or the answer to give.
int prepareDeviceRename(_CONTEXT *ctx, const char *from, const char *to, _KTL_OBJECT **source) {
    int result = listFoldersAbove(ctx, from);
    if (result != 0) return result;
    result = listFoldersAbove(ctx, to);
    if (result != 0) return result;
    *source = FindObject(from);
    if (*source == nullptr) return -ENOENT;
    if (GetParentObject(to) == nullptr) return -ENOENT;
    _KTL_OBJECT *target = FindObject(to);
    if (target == nullptr || target == *source || !isFolder(target)) return 0;
    if (target->enumerated == 0) {
        result = listFolder(ctx, to, nullptr, nullptr, 0);
        if (result != 0) return result;
    }
    return hasChildren(target) ? -ENOTEMPTY : 0;
}

// After the device renamed: the name replaced is forgotten, and the source's
// record with everything below it moves to the new name, linked last in its
// new folder. The records move rather than being made anew, so handles open
// on them (and app folders' connections) stay good, and the device need not
// be listed again.
void recordRename(_CONTEXT *ctx, _KTL_OBJECT *source, const char *from, const char *to) {
    _KTL_OBJECT *target = FindObject(to);
    if (target != nullptr && target != source) {
        if (target->mode == KTL_MODE_FILE) ctx->device_info.free_capacity += target->size;
        if (Extras(target).open_count > 0 && target->mode == KTL_MODE_FILE)
            KeepUntilLastRelease(target, to);
        else
            DeleteObject(target, to);
    }
    // The kernel moves its own entries below a renamed folder with it, and
    // they stay true: the same files, the same bytes. Nothing is invalidated
    // here: while this rename runs, libfuse holds the paths below it, and a
    // read or write waiting for them holds the very pages an invalidation
    // would wait for.
    MoveObject(source, from, to);
    // The staged data is on the device now; what follows goes there too.
    if (source->type == KTL_TYPE_STAGED) source->type = KTL_TYPE_ORDINARY;
    time_t now = time(nullptr);
    source->modify_time = now;
    source->access_time = now;
    _KTL_OBJECT *parent = GetParentObject(to);
    if (parent != nullptr) LinkChildObject(parent, source);
}

// A safe-save temporary whose data waits in the work folder goes to the
// device first, over the device's empty copy of the temporary, through the
// connection the rename will use. The staging file is removed once uploaded;
// from then on the device holds the temporary's bytes, whether or not the
// rename succeeds. On a failure nothing is renamed: the file it would replace
// must never be replaced by an incomplete copy.
int uploadStaged(_CONTEXT *ctx, _KTL_OBJECT *source, const char *from, const std::string &deviceFrom,
                 libiusb_afc *connection, const char *caller) {
    if (source->type != KTL_TYPE_STAGED) return 0;
    int result = uploadfile(ctx, StagingNameOf(from).c_str(), deviceFrom.c_str(), connection, true);
    if (result != 0) {
        QNLog(3, "%s uploadfile failed. path(%s). ret : %d", caller, deviceFrom.c_str(), result);
        return result;
    }
    source->type = KTL_TYPE_ORDINARY;
    return 0;
}

// Storage to Storage: one rename on the device.
int renameInStorage(_CONTEXT *ctx, const char *from, const char *to) {
    _KTL_OBJECT *source = nullptr;
    int result = prepareDeviceRename(ctx, from, to, &source);
    if (result != 0) return result;
    std::string deviceFrom = StorageDevicePath(from);
    std::string deviceTo = StorageDevicePath(to);
    result = uploadStaged(ctx, source, from, deviceFrom, ctx->afc_handle, "tarnifs_rename");
    if (result != 0) return reportFailure(result);
    // AFC renames over an existing file in the one step (a phone, as devsim,
    // uses rename(2)): whoever looks finds the old or the new file, never none.
    result = libiusb_afc_rename(ctx->afc_handle, deviceFrom.c_str(), deviceTo.c_str());
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_rename failed. from(%s) to(%s). error : %d", "tarnifs_rename", deviceFrom.c_str(),
              deviceTo.c_str(), result);
        return reportFailure(result);
    }
    recordRename(ctx, source, from, to);
    return 0;
}

bool sameApp(const char *from, const char *to) {
    return begins(from, "/Apps/") && begins(to, "/Apps/") && AppFolderName(from) == AppFolderName(to);
}

// Into an app folder, where the dispatch found the source and target ready.
int renameInsideApp(_CONTEXT *ctx, const char *from, const char *to) {
    _KTL_OBJECT *source = FindObject(from);
    _KTL_OBJECT *parent = GetParentObject(to);
    if (source == nullptr || parent == nullptr) return LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND;
    // A client of its own, so nothing is shared with the connection that
    // files open in the folder use.
    libiusb_afc *client = nullptr;
    int result = StartHouseArrest(ctx, &client);
    if (result != 0) {
        QNLog(3, "%s libiusb_housearrest_init failed, ret : %d", "movetoapps", result);
        return result;
    }
    result = libiusb_housearrest_openapp(client, Extras(parent).app_id != nullptr ? Extras(parent).app_id : "");
    if (result != 0) {
        QNLog(3, "%s libiusb_housearrest_openapp failed, ret : %d", "movetoapps", result);
        libiusb_housearrest_exit(client);
        return result;
    }
    std::string deviceFrom = AppSandboxPath(from);
    std::string deviceTo = AppSandboxPath(to);
    result = uploadStaged(ctx, source, from, deviceFrom, client, "movetoapps");
    if (result == 0) {
        result = libiusb_afc_rename(client, deviceFrom.c_str(), deviceTo.c_str());
        if (result != 0)
            QNLog(3, "%s libiusb_afc_rename filed, from(%s), to(%s), ret : %d", "movetoapps", deviceFrom.c_str(),
                  deviceTo.c_str(), result);
    }
    if (result == 0) {
        if (Extras(source).app_id == nullptr && Extras(parent).app_id != nullptr) EditExtras(source).app_id = CopyString(Extras(parent).app_id);
        recordRename(ctx, source, from, to);
    }
    // The device layer releases the client whatever its exit reports.
    int ended = libiusb_housearrest_exit(client);
    if (ended != 0) QNLog(3, "%s libiusb_housearrest_exit failed. error : %d", "movetoapps", ended);
    return result;
}

int copyAppsArea(_CONTEXT *ctx, const char *, const char *to) { return CopyAppsArea(ctx, to); }

// A move: both ends ready, room for a file's copy when it copies, the tray
// told when it is long, and the failure shown.
int moveAcross(_CONTEXT *ctx, const char *from, const char *to, int (*move)(_CONTEXT *, const char *, const char *),
               bool copies = true) {
    _KTL_OBJECT *source = nullptr;
    int result = prepareDeviceRename(ctx, from, to, &source);
    if (result != 0) return result;
    if (copies && source->mode == KTL_MODE_FILE && source->size >= ctx->device_info.free_capacity)
        return reportFailure(LIBIUSB_ERROR_NO_SPACE);
    {
        LongMoveBracket busy(source);
        result = move(ctx, from, to);
    }
    return result == 0 ? 0 : reportFailure(result);
}

} // namespace

int movetoapps(_CONTEXT *ctx, const char *from, const char *to) {
    if (sameApp(from, to)) return renameInsideApp(ctx, from, to);
    return MoveByCopy(ctx, from, to, "movetoapps");
}

int tarnifs_rename(const char *from, const char *to) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) {
        QNLog(3, "%s getContext failed", "tarnifs_rename");
        return reportFailure(result);
    }
    if (strcmp(from, to) == 0) return 0;
    // libfuse hides a file that is removed (or renamed over) while open.
    if (IsHiddenRemovedName(to)) return HideRemovedOpenFile(ctx, from, to);
    if (LastNameTooLong(to)) return -ENAMETOOLONG;

    if (fromStorage(from)) {
        if (begins(to, "/Apps/")) {
            // /Storage itself stays: only what is in it can move.
            if (depthOf(to) > 2) return moveAcross(ctx, from, to, movetoapps);
            logNotSupported();
            return refuseReadOnly(to);
        }
        if (begins(to, "/Media/")) return refuseReadOnly(to);
        if (begins(to, "/Storage/")) return renameInStorage(ctx, from, to);
        return refuseRename(from, to);
    }
    if (begins(from, "/Media")) {
        // Copies: the media item stays where the library shows it.
        if (begins(to, "/Apps/")) {
            if (depthOf(to) >= 3) return moveAcross(ctx, from, to, movetoapps);
            logNotSupported();
            return refuseReadOnly(to);
        }
        if (begins(to, "/Storage/")) return moveAcross(ctx, from, to, movetostorage);
        if (ParentFolderOf(from) == ParentFolderOf(to)) return refuseRename(from, to);
        return refuseReadOnly(to);
    }
    if (begins(from, "/Apps")) {
        if (begins(to, "/Storage/")) {
            if (strcmp(from, "/Apps") == 0) return moveAcross(ctx, from, to, copyAppsArea);
            // An app folder itself is the app's Documents: its contents
            // move, the folder stays.
            return moveAcross(ctx, from, to, movetostorage);
        }
        if (begins(to, "/Media")) return refuseReadOnly(to);
        if (begins(to, "/Apps/")) {
            if (depthOf(from) < 3) {
                logNotSupported();
                return refuseRename(from, to);
            }
            // Within one app nothing is copied, so nothing needs room.
            if (depthOf(to) > 2) return moveAcross(ctx, from, to, movetoapps, !sameApp(from, to));
            logNotSupported();
            return refuseReadOnly(to);
        }
        return refuseRename(from, to);
    }
    return refuseRename(from, to);
}
