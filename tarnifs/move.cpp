// Moves that copy: between /Storage and an app folder, and between two apps.
// Each file is copied beside its target under a hidden name, its size checked
// on the device, and renamed into place in one step; only then is the source
// removed. A move that fails half-way leaves every source that was not
// carried whole where it was, and no partial copy behind.
#include "tarnifs/connections.h"
#include "tarnifs/move.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/filedata.h"
#include "tarnifs/jpeg_views.h"
#include "tarnifs/listing.h"
#include "util/log.h"

namespace {

constexpr uint32_t kCopyChunk = 65536;

bool begins(const char *path, const char *prefix) { return strncmp(path, prefix, strlen(prefix)) == 0; }

std::string appFolderOf(const char *path) {
    std::string rest = strlen(path) > 6 ? std::string(path + 6) : std::string();
    return "/Apps/" + rest.substr(0, rest.find('/'));
}

std::string devicePathOf(const char *path) {
    if (begins(path, "/Media")) {
        // A media item lies where the library says, whatever it is called here.
        _KTL_OBJECT *item = FindObject(path);
        return item != nullptr && Extras(item).device_path != nullptr ? std::string(Extras(item).device_path) : std::string();
    }
    return begins(path, "/Storage") ? StorageDevicePath(path) : AppSandboxPath(path);
}
bool hasChildren(const _KTL_OBJECT *folder) { return folder->child_list.next != &folder->child_list; }
bool isAreaFolder(const char *path) {
    return strcmp(path, "/Storage") == 0 ||
           (begins(path, "/Apps/") && strchr(path + strlen("/Apps/"), '/') == nullptr);
}

// Which way a move goes. movetostorage and movetoapps each log their steps
// in their own words, and these differ by where the source lies.
enum MoveKind { kMediaToStorage, kAppToStorage, kMediaToApp, kStorageToApp, kAppToApp };

MoveKind moveKindOf(const char *from, const char *to) {
    bool intoStorage = begins(to, "/Storage");
    if (begins(from, "/Media")) return intoStorage ? kMediaToStorage : kMediaToApp;
    if (begins(from, "/Storage")) return kStorageToApp;
    return intoStorage ? kAppToStorage : kAppToApp;
}

// One move: both ends, its way, and the routine it logs under.
struct MoveRun {
    _CONTEXT *ctx = nullptr;
    MoveKind kind = kMediaToStorage;
    const char *caller = "";
    MoveSide source;
    MoveSide target;
};

// ---- The log lines of each way --------------------------------------------

void logInfoFailed(const MoveRun &run, const std::string &deviceFrom, int ret) {
    if (run.kind == kAppToApp)
        QNLog(3, "%s libiusb_afc_file_get_info failed. path(%s), error : %d", run.caller, deviceFrom.c_str(), ret);
    else
        QNLog(3, "%s get file info failed. ret : %d", run.caller, ret);
}

void logOpenFailed(const MoveRun &run, bool target, const std::string &devicePath, int ret) {
    if (run.kind == kAppToApp)
        QNLog(3, "%s libiusb_afc_file_open failed. path(%s), error : %d", run.caller, devicePath.c_str(), ret);
    else if ((target && run.kind == kAppToStorage) || (!target && run.kind == kMediaToApp))
        QNLog(3, "%s  libiusb_afc_file_open failed, ret : %d", run.caller, ret);
    else
        QNLog(3, "%s libiusb_afc_file_open failed, ret : %d", run.caller, ret);
}

void logMakeDirectoryFailed(const MoveRun &run, const std::string &deviceTo, int ret) {
    switch (run.kind) {
    case kMediaToStorage:
        QNLog(3, "%s libiusb_afc_make_directory failed. to(%s), ret : %d", run.caller, deviceTo.c_str(), ret);
        break;
    case kAppToStorage:
        QNLog(3, "%s libiusb_afc_make_directory failed. path(%s), ret : %d", run.caller, deviceTo.c_str(), ret);
        break;
    case kMediaToApp:
        QNLog(3, "%s libiusb_afc_make_directory failed. to(%s). ret : %d", run.caller, deviceTo.c_str(), ret);
        break;
    case kStorageToApp:
    case kAppToApp:
        QNLog(3, "%s libiusb_afc_make_directory failed, path(%s), ret : %d", run.caller, deviceTo.c_str(), ret);
        break;
    }
}

void logListingFailed(const MoveRun &run, const std::string &deviceFrom, int ret) {
    // Media and app folders moved into Storage are listed by their listings,
    // which log for themselves.
    if (run.kind == kStorageToApp || run.kind == kAppToApp)
        QNLog(3, "%s libiusb_afc_file_read_directory failed. from(%s). ret : %d", run.caller, deviceFrom.c_str(), ret);
}

void logRemoveFailed(const MoveRun &run, bool folder, const std::string &deviceFrom, int ret) {
    switch (run.kind) {
    case kAppToStorage:
        QNLog(3, "%s  libiusb_afc_file_remove failed, ret : %d, hhandle : %p, path : %s", run.caller, ret,
              static_cast<void *>(run.source.afc), deviceFrom.c_str());
        break;
    case kStorageToApp:
        if (folder)
            QNLog(3, "%s libiusb_afc_file_remove failed. from(%s), ret : %d", run.caller, deviceFrom.c_str(), ret);
        else
            QNLog(3, "%s libiusb_afc_file_remove failed, ret : %d", run.caller, ret);
        break;
    case kAppToApp:
        if (folder)
            QNLog(3, "%s libiusb_afc_file_remove failed, path(%s), ret : %d", run.caller, deviceFrom.c_str(), ret);
        else
            QNLog(3, "%s libiusb_afc_file_remove failed. path(%s), error : %d", run.caller, deviceFrom.c_str(), ret);
        break;
    case kMediaToStorage:
    case kMediaToApp:
        break;  // media items are never removed
    }
}

// ---- Free space -------------------------------------------------------------

// The volume's free figure follows what each copy takes and each removal
// gives back, as writes through the mount do.
void takeFreeSpace(_CONTEXT *ctx, uint64_t bytes) {
    uint64_t &free = ctx->device_info.free_capacity;
    free = bytes > free ? 0 : free - bytes;
}
void giveBackFreeSpace(_CONTEXT *ctx, uint64_t bytes) { ctx->device_info.free_capacity += bytes; }

// The hidden name a file is copied under until it is whole: never listed,
// and beside its target, so the last step is a rename within one folder.
std::string stagingNameFor(const std::string &deviceTarget) {
    size_t slash = deviceTarget.rfind('/');
    return deviceTarget.substr(0, slash + 1) + "." + deviceTarget.substr(slash + 1) + ".quorvel-move";
}

// A name replaced by a move is forgotten; a file still open keeps its record
// until its last release.
void forgetRecord(_KTL_OBJECT *record, const char *path) {
    if (record == nullptr) return;
    if (record->mode == KTL_MODE_FILE && Extras(record).open_count > 0)
        KeepUntilLastRelease(record, path);
    else
        DeleteObject(record, path);
}

_KTL_OBJECT *recordTarget(const MoveRun &run, const char *to, uint16_t mode, uint64_t size) {
    _KTL_OBJECT *existing = FindObject(to);
    // A file the copy replaced is gone from the device, and so is its room.
    if (existing != nullptr && existing->mode == KTL_MODE_FILE && mode == KTL_MODE_FILE)
        giveBackFreeSpace(run.ctx, existing->size);
    forgetRecord(existing, to);
    _KTL_OBJECT *record = GetObjectWithFileName(to);
    record->mode = mode;
    record->size = size;
    time_t now = time(nullptr);
    record->birth_time = now;
    record->modify_time = now;
    record->access_time = now;
    if (run.target.app && Extras(record).app_id == nullptr) EditExtras(record).app_id = CopyString(run.target.appId.c_str());
    _KTL_OBJECT *parent = GetParentObject(to);
    if (parent != nullptr) LinkChildObject(parent, record);
    return record;
}

// Removes a partial copy through a device session of its own: the one the
// mount holds starts no new connection once the device dropped it. 0 or an
// error; the device must still answer.
int removeThroughNewSession(const MoveRun &run, const std::string &staging) {
    libiusb_device *device = nullptr;
    libiusb_device_handle *session = nullptr;
    unsigned long locationId = run.ctx->pLocationId != nullptr ? strtoul(run.ctx->pLocationId, nullptr, 10) : 0;
    int result = libiusb_device_find(run.ctx->context, static_cast<uint32_t>(locationId), &device);
    if (result == 0) result = libiusb_device_open(device, &session);
    if (result != 0) return result;
    libiusb_afc *afc = nullptr;
    result = run.target.app ? libiusb_housearrest_init(session, &afc) : libiusb_afc_init(session, &afc);
    if (result == 0 && run.target.app) result = libiusb_housearrest_openapp(afc, run.target.appId.c_str());
    if (result == 0) result = libiusb_afc_file_remove(afc, staging.c_str());
    if (afc != nullptr) libiusb_afc_exit(afc);
    libiusb_device_close(session);
    return result;
}

// A copy that failed part way must not leave its hidden partial copy taking
// room on the device, even when the failure took the connection with it.
void removeStagingCopy(const MoveRun &run, const std::string &staging) {
    int removed = libiusb_afc_file_remove(run.target.afc, staging.c_str());
    if (removed != 0 && removed != LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND) removed = removeThroughNewSession(run, staging);
    if (removed != 0 && removed != LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND)
        QNLog(3, "%s partial copy left on the device. path(%s), ret : %d", run.caller, staging.c_str(), removed);
}

// Copies one device file to its target through the staging name, checks the
// size the device reports and renames it into place. 0 or a device error; on
// an error the staging copy is removed and the target is as it was.
int copyFile(const MoveRun &run, const char *from, const char *to, uint64_t *size) {
    const MoveSide &source = run.source;
    const MoveSide &target = run.target;
    const char *caller = run.caller;
    std::string deviceFrom = devicePathOf(from);
    std::string deviceTo = devicePathOf(to);
    std::string staging = stagingNameFor(deviceTo);
    libiusb_file_info info;
    memset(&info, 0, sizeof(info));
    int result = libiusb_afc_file_get_info(source.afc, deviceFrom.c_str(), &info);
    if (result != 0) {
        logInfoFailed(run, deviceFrom, result);
        return result;
    }
    uint64_t targetHandle = 0;
    result = libiusb_afc_file_open(target.afc, staging.c_str(), LIBIUSB_AFC_WRONLY, &targetHandle);
    if (result != 0) {
        logOpenFailed(run, true, staging, result);
        return result;
    }
    uint64_t sourceHandle = 0;
    result = libiusb_afc_file_open(source.afc, deviceFrom.c_str(), LIBIUSB_AFC_RDONLY, &sourceHandle);
    if (result != 0) logOpenFailed(run, false, deviceFrom, result);
    std::vector<char> buffer(kCopyChunk, 0);
    uint64_t offset = 0;
    while (result == 0 && offset < info.size) {
        uint32_t count = 0;
        result = libiusb_afc_file_read(source.afc, sourceHandle, buffer.data(), kCopyChunk, offset, &count);
        if (result != 0) {
            QNLog(3, "%s libiusb_afc_file_read failed. from : %s, to : %s, ret : %d", caller, from, to, result);
            break;
        }
        if (count == 0) break;  // shorter than it said: the size check below tells
        uint32_t written = 0;
        result = libiusb_afc_file_write(target.afc, targetHandle, buffer.data(), count, offset, &written);
        if (result == 0 && written != count) result = LIBIUSB_ERROR_IO;
        if (result != 0) {
            QNLog(3, "%s libiusb_afc_file_write failed. from : %s, to : %s, ret : %d", caller, from, to, result);
            break;
        }
        offset += count;
    }
    if (sourceHandle != 0) {
        int closedSource = libiusb_afc_file_close(source.afc, sourceHandle);
        if (closedSource != 0 && run.kind == kAppToApp)
            QNLog(3, "%s from handle libiusb_afc_file_close failed. error : %d", caller, closedSource);
        // A media item copied into Storage counts its close as part of the copy.
        if (closedSource != 0 && run.kind == kMediaToStorage && result == 0) result = closedSource;
    }
    int closed = libiusb_afc_file_close(target.afc, targetHandle);
    if (result == 0 && closed != 0) {
        QNLog(3, "%s libiusb_afc_file_close failed. code : %d", caller, closed);
        result = closed;
    }
    if (result == 0) {
        // The source goes only once the device holds all of it.
        libiusb_file_info copied;
        memset(&copied, 0, sizeof(copied));
        result = libiusb_afc_file_get_info(target.afc, staging.c_str(), &copied);
        if (result == 0 && (copied.size != info.size || offset != info.size)) {
            QNLog(3, "%s copy incomplete. to(%s) %llu of %llu bytes", caller, deviceTo.c_str(),
                  static_cast<unsigned long long>(copied.size), static_cast<unsigned long long>(info.size));
            result = LIBIUSB_ERROR_IO;
        }
    }
    if (result == 0) {
        // One step: the target's old content or the new, never neither.
        result = libiusb_afc_rename(target.afc, staging.c_str(), deviceTo.c_str());
        if (result != 0)
            QNLog(3, "%s libiusb_afc_rename failed. from(%s) to(%s). error : %d", caller, staging.c_str(),
                  deviceTo.c_str(), result);
    }
    if (result != 0) {
        removeStagingCopy(run, staging);
        return result;
    }
    takeFreeSpace(run.ctx, info.size);
    *size = info.size;
    return 0;
}

int moveEntry(const MoveRun &run, const char *from, const char *to);

int moveFolder(const MoveRun &run, _KTL_OBJECT *folder, const char *from, const char *to) {
    _CONTEXT *ctx = run.ctx;
    if (folder->enumerated == 0 && !hasChildren(folder)) {
        // Media folders are listed as a listing lists them (the databases
        // fetched first when /Media was never listed); each album is listed
        // in its turn when the copy reaches it.
        int listed = run.source.media ? listFolder(ctx, from, nullptr, nullptr, 0)
                     : begins(from, "/Storage") ? enumStorage(ctx, from, nullptr, nullptr, 0)
                                                : enumApps(ctx, from, nullptr, nullptr);
        if (listed != 0) {
            logListingFailed(run, devicePathOf(from), listed);
            return listed;
        }
        folder->enumerated = 1;
    }
    std::string deviceTo = devicePathOf(to);
    int result = libiusb_afc_make_directory(run.target.afc, deviceTo.c_str());
    if (result != 0) {
        logMakeDirectoryFailed(run, deviceTo, result);
        return result;
    }
    _KTL_OBJECT *made = recordTarget(run, to, KTL_MODE_FOLDER, 0);
    made->enumerated = 1;
    std::vector<std::string> names;
    for (_KTL_LIST_ENTRY *link = folder->child_list.next; link != &folder->child_list; link = link->next) {
        const char *name = ObjectFromSibling(link)->file_name;
        if (name != nullptr) names.push_back(name);
    }
    for (const std::string &name : names) {
        std::string childFrom = ChildPath(from, name.c_str());
        std::string childTo = ChildPath(to, name.c_str());
        result = moveEntry(run, childFrom.c_str(), childTo.c_str());
        if (result != 0) {
            QNLog(3, "%s  failed. ret : %d, from : %s, to : %s", run.caller, result, childFrom.c_str(),
                  childTo.c_str());
            return result;
        }
    }
    if (run.source.media) return 0;  // copied; the library keeps its own
    // An area's own folder (/Storage, an app's Documents) stays where it
    // is, emptied: only what is in it moves.
    if (isAreaFolder(from)) return 0;
    // Everything was carried. A folder still holding what the catalogue did
    // not know stays, and so does its record: nothing of it is lost.
    std::string deviceFrom = devicePathOf(from);
    int removed = libiusb_afc_file_remove(run.source.afc, deviceFrom.c_str());
    if (removed != 0) {
        logRemoveFailed(run, true, deviceFrom, removed);
        return 0;
    }
    if (hasChildren(folder)) return 0;
    // An app folder whose files are still open keeps the connection they
    // use: its record lives on, out of the catalogue, until unmount.
    if (Extras(folder).open_count > 0)
        KeepUntilLastRelease(folder, from);
    else
        DeleteObject(folder, from);
    return 0;
}

int moveEntry(const MoveRun &run, const char *from, const char *to) {
    _CONTEXT *ctx = run.ctx;
    _KTL_OBJECT *record = FindObject(from);
    if (record == nullptr) return LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND;
    // Nothing below a moved folder is invalidated: to the kernel this is a
    // rename, whose entries below stay true (the same names, sizes and
    // bytes); and while it runs libfuse holds these paths, so an
    // invalidation would wait for reads and writes that wait for it.
    if (record->mode == KTL_MODE_FOLDER) return moveFolder(run, record, from, to);

    if (record->type == KTL_TYPE_STAGED) {
        // A safe-save temporary's data is still in the work folder.
        const char *slash = strrchr(from, '/');
        int uploaded =
            uploadfile(ctx, slash != nullptr ? slash : from, devicePathOf(from).c_str(), run.source.afc, true);
        if (uploaded != 0) {
            QNLog(3, "%s uploadfile failed. path(%s). ret : %d", run.caller, from, uploaded);
            return uploaded;
        }
        record->type = KTL_TYPE_ORDINARY;
    }
    if (record->type == KTL_TYPE_NOTE) {
        // Our own note in /Media/Photo lies in the work folder, not on the
        // device: it is written to the target from there, and stays.
        int uploaded = uploadfile(ctx, (std::string("/") + record->file_name).c_str(), devicePathOf(to).c_str(),
                                  run.target.afc, false);
        if (uploaded != 0) return uploaded;
        recordTarget(run, to, KTL_MODE_FILE, record->size);
        takeFreeSpace(ctx, record->size);
        return 0;
    }
    if (Extras(record).jpeg_view != 0) {
        // A JPEG view: what is copied is the converted file in the work
        // folder, not the HEIC on the device; the still stays.
        uint64_t converted = 0;
        std::string file;
        if (AwaitJpegView(Extras(record).device_path, &converted, &file, true) != 0) return LIBIUSB_ERROR_IO;
        int uploaded = uploadfile(ctx, file.substr(strlen(ctx->work_dir)).c_str(), devicePathOf(to).c_str(),
                                  run.target.afc, false);
        ReleaseJpegView(Extras(record).device_path);
        if (uploaded != 0) return uploaded;
        recordTarget(run, to, KTL_MODE_FILE, converted);
        takeFreeSpace(ctx, converted);
        return 0;
    }
    uint64_t size = 0;
    int result = copyFile(run, from, to, &size);
    if (result != 0) return result;
    recordTarget(run, to, KTL_MODE_FILE, size);
    if (run.source.media) return 0;  // the media item stays
    std::string deviceFrom = devicePathOf(from);
    result = libiusb_afc_file_remove(run.source.afc, deviceFrom.c_str());
    if (result != 0) {
        // The copy is whole and in place: the move is done, and the source
        // that could not go is only logged. It stays, with its record.
        logRemoveFailed(run, false, deviceFrom, result);
        return 0;
    }
    giveBackFreeSpace(ctx, size);
    forgetRecord(record, from);
    return 0;
}

} // namespace

int OpenMoveSide(_CONTEXT *ctx, const char *path, MoveSide *side, const char *caller, bool otherAppSource) {
    *side = MoveSide();
    if (begins(path, "/Media")) {
        side->afc = ctx->afc_handle;
        side->media = true;
        return 0;
    }
    if (begins(path, "/Storage")) {
        side->afc = ctx->afc_handle;
        return 0;
    }
    _KTL_OBJECT *app = FindObject(appFolderOf(path).c_str());
    if (app == nullptr || Extras(app).app_id == nullptr) return LIBIUSB_ERROR_APP_NOT_FOUND;
    // A client of its own: the folder connections that open files use stay untouched.
    int result = StartHouseArrest(ctx, &side->afc);
    if (result != 0) {
        if (otherAppSource)
            QNLog(3, "%s libiusb_housearrest_init failed. error : %d", caller, result);
        else
            QNLog(3, "%s libiusb_housearrest_init failed, ret : %d", caller, result);
        side->afc = nullptr;
        return result;
    }
    side->app = true;
    side->appId = Extras(app).app_id;
    result = libiusb_housearrest_openapp(side->afc, Extras(app).app_id);
    if (result != 0) {
        if (otherAppSource)
            QNLog(3, "%s libiusb_housearrest_openapp failed. error : %d", caller, result);
        else
            QNLog(3, "%s libiusb_housearrest_openapp failed, ret : %d", caller, result);
        CloseMoveSide(side, caller, otherAppSource);
    }
    return result;
}

int CloseMoveSide(MoveSide *side, const char *caller, bool otherAppSource) {
    int ended = 0;
    if (side->app && side->afc != nullptr) {
        // The device layer releases the client whatever its exit reports.
        ended = libiusb_housearrest_exit(side->afc);
        if (ended != 0 && otherAppSource)
            QNLog(3, "%s from libiusb_housearrest_exit failed. error : %d", caller, ended);
        else if (ended != 0)
            QNLog(3, "%s libiusb_housearrest_exit failed. error : %d", caller, ended);
    }
    side->afc = nullptr;
    return ended;
}

int MoveByCopy(_CONTEXT *ctx, const char *from, const char *to, const char *caller) {
    MoveRun run;
    run.ctx = ctx;
    run.kind = moveKindOf(from, to);
    run.caller = caller;
    bool otherAppSource = run.kind == kAppToApp;
    int result = OpenMoveSide(ctx, from, &run.source, caller, otherAppSource);
    if (result != 0) return result;
    result = OpenMoveSide(ctx, to, &run.target, caller);
    if (result == 0) {
        result = moveEntry(run, from, to);
        CloseMoveSide(&run.target, caller);
    }
    int ended = CloseMoveSide(&run.source, caller, otherAppSource);
    // An app's document moved into Storage ends with its client's exit.
    if (result == 0 && run.kind == kAppToStorage) result = ended;
    return result;
}

int CopyAppsArea(_CONTEXT *ctx, const char *to) {
    _KTL_OBJECT *apps = FindObject("/Apps");
    if (apps == nullptr) return LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND;
    if (!hasChildren(apps)) {
        int listed = listFolder(ctx, "/Apps", nullptr, nullptr, 0);
        if (listed != 0) return listed;
    }
    std::string deviceTo = StorageDevicePath(to);
    int result = libiusb_afc_make_directory(ctx->afc_handle, deviceTo.c_str());
    if (result != 0) {
        QNLog(3, "%s make directory failed. to : %s", "tarnifs_rename", to);
        return result;
    }
    MoveRun run;
    run.ctx = ctx;
    run.kind = kAppToStorage;
    run.caller = "movetostorage";
    run.target.afc = ctx->afc_handle;
    _KTL_OBJECT *made = recordTarget(run, to, KTL_MODE_FOLDER, 0);
    made->enumerated = 1;
    std::vector<std::string> names;
    for (_KTL_LIST_ENTRY *link = apps->child_list.next; link != &apps->child_list; link = link->next) {
        const char *name = ObjectFromSibling(link)->file_name;
        if (name != nullptr) names.push_back(name);
    }
    for (const std::string &name : names) {
        std::string app = ChildPath("/Apps", name.c_str());
        std::string target = ChildPath(to, name.c_str());
        result = MoveByCopy(ctx, app.c_str(), target.c_str(), "movetostorage");
        if (result != 0) return result;
    }
    return 0;
}

int movetostorage(_CONTEXT *ctx, const char *from, const char *to) {
    // The whole Apps area is refused by the dispatch: what comes here is a
    // media item or folder, or an app's file or folder.
    if (!(begins(from, "/Apps/") || begins(from, "/Media")) || !begins(to, "/Storage/")) return -EXDEV;
    return MoveByCopy(ctx, from, to, "movetostorage");
}
