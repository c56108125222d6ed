// Make and remove: mkdir, rmdir and unlink in /Storage and inside app folders.
// The device changes first; the catalogue follows only what the device did,
// and a removal never reaches further on the device than the one name asked.
#include "tarnifs/connections.h"
#include "tarnifs/namespace.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>

#include "tarnifs/listing.h"
#include "tarnifs/notify.h"
#include "util/log.h"

namespace {

bool isOneOf(const char *path, std::initializer_list<const char *> names) {
    for (const char *name : names)
        if (strcmp(path, name) == 0) return true;
    return false;
}

// Below /Storage, never /Storage itself: "/Storagex" is a top-level name,
// not the device's "/general_storagex".
bool belowStorage(const char *path) { return strncmp(path, "/Storage/", 9) == 0; }

// Inside an app: /Apps/<app>/x, not /Apps or /Apps/<app> (at least three "/").
bool insideApp(const char *path) {
    return strncmp(path, "/Apps/", 6) == 0 && std::count(path, path + strlen(path), '/') >= 3;
}

enum class ClientStep { None, Init, OpenApp };

// Makes sure `folder` holds a house-arrest connection to `appId`'s sandbox.
// A connection already there is used as it is. A connection whose app did not
// open is of no use to anyone and is not left on the folder. 0, or the device
// error with *failed saying which call gave it (logged under `caller`).
int holdFolderClient(_CONTEXT *ctx, _KTL_OBJECT *folder, const char *appId, const char *caller, bool logAppId,
                     ClientStep *failed) {
    *failed = ClientStep::None;
    if (Extras(folder).hhandle != nullptr) return 0;
    int result = StartHouseArrest(ctx, &EditExtras(folder).hhandle);
    if (result != 0) {
        QNLog(3, "%s libiusb_housearrest_init failed. error : %d", caller, result);
        EditExtras(folder).hhandle = nullptr;
        *failed = ClientStep::Init;
        return result;
    }
    result = libiusb_housearrest_openapp(Extras(folder).hhandle, appId != nullptr ? appId : "");
    if (result != 0) {
        if (logAppId)
            QNLog(3, "%s libiusb_housearrest_openapp failed. error : %d, App ID : %s", caller, result,
                  appId != nullptr ? appId : "");
        else
            QNLog(3, "%s libiusb_housearrest_openapp failed. error : %d", caller, result);
        libiusb_housearrest_exit(Extras(folder).hhandle);
        EditExtras(folder).hhandle = nullptr;
        *failed = ClientStep::OpenApp;
    }
    return result;
}

// The error dialog for a connection that could not be opened; -ECANCELED.
int clientFailed(const char *path, ClientStep step, int result) {
    if (step == ClientStep::Init) {
        if (result == LIBIUSB_ERROR_CONNECTION_LOST)
            snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB connection.\nService opening aborted.");
        else
            snprintf(ErrMsg, sizeof(ErrMsg), "Could not open the Device with Arrest Service.\nError Code : %d", result);
    } else {
        std::string app = AppFolderName(path);
        if (result == LIBIUSB_ERROR_CONNECTION_LOST)
            snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB connection.\nOpening App(%s) aborted.", app.c_str());
        else
            snprintf(ErrMsg, sizeof(ErrMsg), "Could not open the App(%s).\nError Code : %d", app.c_str(), result);
    }
    ShowMessageBox(kMsgError, "%s", ErrMsg);
    return -ECANCELED;
}

int mkdirFailed(int result) {
    if (result == LIBIUSB_ERROR_CONNECTION_LOST)
        snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB connection.\nDirectory making aborted.");
    else
        snprintf(ErrMsg, sizeof(ErrMsg), "Could not make a directory.\nError Code : %d", result);
    ShowMessageBox(kMsgError, "%s", ErrMsg);
    return -ECANCELED;
}

void composeRmdirFailure(int result) {
    if (result == LIBIUSB_ERROR_CONNECTION_LOST)
        snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB connection.\nDirectory remove aborted.");
    else
        snprintf(ErrMsg, sizeof(ErrMsg), "Could not remove a Directory.\nError Code : %d", result);
}

int refuseRmdir(const char *path) {
    ShowMessageBox(kMsgNotification, "You can not remove this folder.\n%s", path);
    return -ECANCELED;
}

// The record of a folder the device just made, linked at the tail of its parent.
void recordNewFolder(const char *path, _KTL_OBJECT *parent, bool inApp) {
    _KTL_OBJECT *folder = GetObjectWithFileName(path);
    folder->mode = KTL_MODE_FOLDER;
    if (inApp && Extras(folder).app_id == nullptr && parent != nullptr && Extras(parent).app_id != nullptr)
        EditExtras(folder).app_id = CopyString(Extras(parent).app_id);
    time_t now = time(nullptr);
    folder->birth_time = now;
    folder->modify_time = now;
    folder->access_time = now;
    if (parent != nullptr) LinkChildObject(parent, folder);
}

// Forgets a file the device no longer has. A file still open keeps its record
// (and device handle) until its last release; the handles point at it.
void forgetRemovedFile(_CONTEXT *ctx, _KTL_OBJECT *object, const char *path) {
    ctx->device_info.free_capacity += object->size;
    if (Extras(object).open_count > 0)
        KeepUntilLastRelease(object, path);
    else
        DeleteObject(object, path);
}

// What is in a folder nothing listed yet is not in the catalogue: list it, so
// that a folder with contents answers "not empty" as the host expects. 0, or
// -ECANCELED when the listing failed (its dialog shown).
int listIfNeverListed(_CONTEXT *ctx, const char *path, _KTL_OBJECT *folder) {
    if (folder->enumerated != 0 || folder->mode != KTL_MODE_FOLDER) return 0;
    return listFolder(ctx, path, nullptr, nullptr, 0);
}

bool hasChildren(const _KTL_OBJECT *folder) { return folder->child_list.next != &folder->child_list; }

int rmdirInStorage(_CONTEXT *ctx, const char *path) {
    _KTL_OBJECT *record = FindObject(path);
    if (record == nullptr) return 0;
    int listed = listIfNeverListed(ctx, path, record);
    if (listed != 0) return listed;
    if (hasChildren(record)) return -ENOTEMPTY;
    std::string devicePath = StorageDevicePath(path);
    int result = libiusb_afc_file_remove(ctx->afc_handle, devicePath.c_str());
    if (result == 0) {
        DeleteObject(record, path);
        return 0;
    }
    QNLog(3, "%s libiusb_afc_file_remove failed. path(%s). error : %d", "tarnifs_rmdir", devicePath.c_str(), result);
    composeRmdirFailure(result);
    ShowMessageBox(kMsgError, "%s", ErrMsg);
    return -ECANCELED;
}

int rmdirInApp(_CONTEXT *ctx, const char *path) {
    _KTL_OBJECT *record = FindObject(path);
    if (record == nullptr) return 0;
    int listed = listIfNeverListed(ctx, path, record);
    if (listed != 0) return listed;
    if (hasChildren(record)) return -ENOTEMPTY;
    _KTL_OBJECT *parent = GetParentObject(path);
    if (parent == nullptr) {
        DeleteObject(record, path);
        return 0;
    }
    ClientStep step = ClientStep::None;
    int result = holdFolderClient(ctx, parent, Extras(record).app_id, "tarnifs_rmdir", true, &step);
    if (result != 0) return clientFailed(path, step, result);

    std::string devicePath = AppSandboxPath(path);
    result = libiusb_afc_file_remove(Extras(parent).hhandle, devicePath.c_str());
    if (result == 0) {
        if (Extras(parent).open_count != 0) {
            DeleteObject(record, path);
            return 0;
        }
        int ended = libiusb_housearrest_exit(Extras(parent).hhandle);
        if (ended == 0) {
            EditExtras(parent).hhandle = nullptr;
            DeleteObject(record, path);
            return 0;
        }
        // The device layer frees a connection whatever its exit reports, and
        // reports a failure only for a connection it never had: asking once
        // more cannot touch freed memory.
        QNLog(3, "%s libiusb_housearrest_exit failed. error : %d", "tarnifs_rmdir", ended);
        libiusb_housearrest_exit(Extras(parent).hhandle);
        EditExtras(parent).hhandle = nullptr;
        return ended;
    }
    if (result == LIBIUSB_ERROR_DIR_NOT_EMPTY) {
        QNLog(3, "%s not support dir. path : %s, error : %d", "tarnifs_rmdir", path, result);
        return refuseRmdir(path);
    }
    QNLog(3, "%s libiusb_afc_file_remove failed. path(%s). error : %d", "tarnifs_rmdir", devicePath.c_str(), result);
    composeRmdirFailure(result);
    if (Extras(parent).hhandle != nullptr && Extras(parent).open_count == 0) {
        libiusb_housearrest_exit(Extras(parent).hhandle);
        EditExtras(parent).hhandle = nullptr;
    }
    ShowMessageBox(kMsgError, "%s", ErrMsg);
    return -ECANCELED;
}

} // namespace

int tarnifs_mkdir(const char *path, mode_t) {
    TarniLock lock;
    if (isOneOf(path, {"/.Trashes", "/.TemporaryItems", "/.fseventsd"})) return -ENOENT;
    if (LastNameTooLong(path)) return -ENAMETOOLONG;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) {
        QNLog(3, "%s getContext failed", "tarnifs_mkdir");
        return result;
    }
    bool inStorage = belowStorage(path);
    bool inApp = insideApp(path);
    if (!inStorage && !inApp) {
        QNLog(3, "%s make directory not supported. path : %s", "tarnifs_mkdir", path);
        ShowMessageBox(kMsgNotification, "This folder is read only. You can not write or modify.\n%s",
                       ParentFolderOf(path).c_str());
        return -ECANCELED;
    }
    // The parent must be in the catalogue before the new folder is linked to it.
    result = listFoldersAbove(ctx, path);
    if (result != 0) return result;
    _KTL_OBJECT *parent = GetParentObject(path);

    if (inStorage) {
        std::string devicePath = StorageDevicePath(path);
        result = libiusb_afc_make_directory(ctx->afc_handle, devicePath.c_str());
        if (result != 0) {
            QNLog(3, "%s libiusb_afc_make_directory failed. path(%s), error : %d", "tarnifs_mkdir",
                  devicePath.c_str(), result);
            return mkdirFailed(result);
        }
        recordNewFolder(path, parent, false);
        return 0;
    }

    // An app folder's contents need the folder itself in the catalogue: its
    // record holds the app and the connection.
    if (parent == nullptr) return -ENOENT;
    ClientStep step = ClientStep::None;
    result = holdFolderClient(ctx, parent, Extras(parent).app_id, "tarnifs_mkdir", true, &step);
    if (result != 0) return clientFailed(path, step, result);
    std::string devicePath = AppSandboxPath(path);
    result = libiusb_afc_make_directory(Extras(parent).hhandle, devicePath.c_str());
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_make_directory failed. path(%s). error : %d", "tarnifs_mkdir", devicePath.c_str(),
              result);
        return mkdirFailed(result);
    }
    recordNewFolder(path, parent, true);
    // Files open below the parent go on using its connection.
    if (Extras(parent).open_count != 0) return 0;
    result = libiusb_housearrest_exit(Extras(parent).hhandle);
    EditExtras(parent).hhandle = nullptr;  // released by the device layer whatever it reports
    if (result != 0) QNLog(3, "%s libiusb_housearrest_exit failed. error : %d", "tarnifs_mkdir", result);
    return result;
}

int tarnifs_rmdir(const char *path) {
    TarniLock lock;
    if (isOneOf(path, {"/.Trashes", "/.TemporaryItems"})) return -ENOENT;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) {
        QNLog(3, "%s getContext failed", "tarnifs_rmdir");
        return result;
    }
    bool inStorage = belowStorage(path);
    bool inApp = insideApp(path);
    if (!inStorage && !inApp) {
        QNLog(3, "%s rmdir not supported. path : %s ", "tarnifs_rmdir", path);
        return refuseRmdir(path);
    }
    result = listFoldersAbove(ctx, path);
    if (result != 0) return result;
    return inStorage ? rmdirInStorage(ctx, path) : rmdirInApp(ctx, path);
}

namespace {
int unlinkLocked(_CONTEXT *ctx, const char *path);
} // namespace

bool IsHiddenRemovedName(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash != nullptr && strncmp(slash + 1, ".fuse_hidden", 12) == 0;
}

int HideRemovedOpenFile(_CONTEXT *ctx, const char *from, const char *to) {
    // Removed on the device now, as any unlink; its record, kept for the
    // open handles, is known by the hidden name from here on.
    int result = unlinkLocked(ctx, from);
    if (result != 0) return result;
    _KTL_OBJECT *kept = RemovedObjectAt(from);
    if (kept != nullptr) RenameRemovedObject(kept, to);
    return 0;
}

int tarnifs_unlink(const char *path) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    // The hidden name of a file removed while open, let go at its last
    // close: the file left the device when it was removed.
    if (IsHiddenRemovedName(path)) return 0;
    return unlinkLocked(ctx, path);
}

namespace {
int unlinkLocked(_CONTEXT *ctx, const char *path) {
    int result = 0;
    bool refused = true;
    if (belowStorage(path) || strncmp(path, "/Apps/", 6) == 0) {
        result = listFoldersAbove(ctx, path);
        if (result != 0) return result;
        result = belowStorage(path) ? UnlinkStorageContents(ctx, path) : UnlinkAppsContents(ctx, path);
        refused = result == 1;
    }
    if (refused) {
        QNLog(3, "%s unlink not supported. path : %s", "tarnifs_unlink", path);
        ShowMessageBox(kMsgNotification, "You can not remove this file.\n%s", path);
        return -ECANCELED;
    }
    if (result == 0) return 0;
    if (result == LIBIUSB_ERROR_CONNECTION_LOST)
        snprintf(ErrMsg, sizeof(ErrMsg), "Lost USB connection.\nFile remove aborted.");
    else
        snprintf(ErrMsg, sizeof(ErrMsg), "Could not remove a file.\nError Code : %d", result);
    ShowMessageBox(kMsgError, "%s", ErrMsg);
    return -ECANCELED;
}
} // namespace

int UnlinkStorageContents(_CONTEXT *ctx, const char *path) {
    _KTL_OBJECT *record = FindObject(path);
    if (record == nullptr) {
        QNLog(3, "%s Target not exitst! path(%s)", "UnlinkStorageContents", path);
        return 0;
    }
    std::string devicePath = StorageDevicePath(path);
    int result = libiusb_afc_file_remove(ctx->afc_handle, devicePath.c_str());
    if (result == LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND)
        QNLog(3, "%s libiusb_afc_file_remove return LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND", "UnlinkStorageContents");
    if (result == 0 || result == LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND) {
        // A file already gone on the device counts as removed.
        forgetRemovedFile(ctx, record, path);
        return 0;
    }
    QNLog(3, "%s libiusb_afc_file_remove failed. path(%s). ret : %d", "UnlinkStorageContents", devicePath.c_str(),
          result);
    return result;
}

int UnlinkAppsContents(_CONTEXT *ctx, const char *path) {
    if (!insideApp(path)) {
        QNLog(3, "%s unlink not supported. path : %s ", "UnlinkAppsContents", path);
        return 1;
    }
    _KTL_OBJECT *record = FindObject(path);
    if (record == nullptr) {
        QNLog(3, "%s Target not exitst! path(%s)", "UnlinkAppsContents", path);
        return 0;
    }
    _KTL_OBJECT *parent = GetParentObject(path);
    if (parent == nullptr) {
        QNLog(3, "%s parent object not exitst! path(%s)", "UnlinkAppsContents", path);
        return 0;
    }
    ClientStep step = ClientStep::None;
    int result = holdFolderClient(ctx, parent, Extras(parent).app_id, "UnlinkAppsContents", true, &step);
    if (result != 0) return result;
    std::string devicePath = AppSandboxPath(path);
    result = libiusb_afc_file_remove(Extras(parent).hhandle, devicePath.c_str());
    if (result == LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND)
        QNLog(3, "%s libiusb_afc_file_remove return LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND", "UnlinkAppsContents");
    if (result == 0 || result == LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND) {
        forgetRemovedFile(ctx, record, path);
        return 0;
    }
    QNLog(3, "%s libiusb_afc_file_remove failed. path(%s). ret : %d", "UnlinkAppsContents", devicePath.c_str(),
          result);
    return result;
}

int CleanupSubFiles(_CONTEXT *ctx, const char *path, _KTL_OBJECT *folder) {
    int result = 0;
    _KTL_LIST_ENTRY *head = &folder->child_list;
    for (_KTL_LIST_ENTRY *link = head->next; link != head;) {
        _KTL_LIST_ENTRY *following = link->next;
        _KTL_OBJECT *child = ObjectFromSibling(link);
        std::string childPath = ChildPath(path, child->file_name);
        if (child->mode == KTL_MODE_FOLDER) {
            result = CleanupSubFiles(ctx, childPath.c_str(), child);
            if (result != 0) break;
        }
        libiusb_afc *connection = ctx->afc_handle;
        std::string devicePath;
        if (Extras(child).app_id == nullptr) {
            devicePath = StorageDevicePath(childPath.c_str());
        } else {
            ClientStep step = ClientStep::None;
            result = holdFolderClient(ctx, folder, Extras(child).app_id, "CleanupSubFiles", false, &step);
            if (result != 0) break;
            connection = Extras(folder).hhandle;
            devicePath = AppSandboxPath(childPath.c_str());
        }
        result = libiusb_afc_file_remove(connection, devicePath.c_str());
        if (result != 0) {
            QNLog(3, "%s libiusb_afc_file_remove failed. path(%s). ret : %d", "CleanupSubFiles", devicePath.c_str(),
                  result);
            break;
        }
        // The record goes under the volume path it is known by, so no map
        // entry outlives it; the kernel must forget the name as well.
        if (child->mode == KTL_MODE_FOLDER || Extras(child).open_count == 0)
            DeleteObject(child, childPath.c_str());
        else
            KeepUntilLastRelease(child, childPath.c_str());
        InvalidateKernelView(childPath.c_str());
        link = following;
    }
    // Files still open below the folder go on using its connection.
    if (Extras(folder).hhandle != nullptr && Extras(folder).open_count == 0) {
        int ended = libiusb_housearrest_exit(Extras(folder).hhandle);
        if (ended != 0)
            QNLog(3, "%s libiusb_housearrest_exit failed. path(%s). ret : %d", "CleanupSubFiles", path, ended);
        EditExtras(folder).hhandle = nullptr;
    }
    return result;
}
