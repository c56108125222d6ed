// Moves that copy: between /Storage and an app folder, and between two apps.
// Each file is copied beside its target under a hidden name, its size checked
// on the device, and renamed into place in one step; only then is the source
// removed. A move that fails half-way leaves every source that was not
// carried whole where it was, and no partial copy behind.
#include "tarnifs/move.h"

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/filedata.h"
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
        return item != nullptr && item->device_path != nullptr ? std::string(item->device_path) : std::string();
    }
    return begins(path, "/Storage") ? StorageDevicePath(path) : AppSandboxPath(path);
}
bool hasChildren(const _KTL_OBJECT *folder) { return folder->child_list.next != &folder->child_list; }
bool isAreaFolder(const char *path) {
    return strcmp(path, "/Storage") == 0 ||
           (begins(path, "/Apps/") && strchr(path + strlen("/Apps/"), '/') == nullptr);
}

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
    if (record->mode == KTL_MODE_FILE && record->open_count > 0)
        KeepUntilLastRelease(record, path);
    else
        DeleteObject(record, path);
}

_KTL_OBJECT *recordTarget(const MoveSide &target, const char *to, uint16_t mode, uint64_t size) {
    _KTL_OBJECT *existing = FindObject(to);
    forgetRecord(existing, to);
    _KTL_OBJECT *record = GetObjectWithFileName(to);
    record->mode = mode;
    record->size = size;
    time_t now = time(nullptr);
    record->birth_time = now;
    record->modify_time = now;
    record->access_time = now;
    if (target.app && record->app_id == nullptr) record->app_id = CopyString(target.appId.c_str());
    _KTL_OBJECT *parent = GetParentObject(to);
    if (parent != nullptr) LinkChildObject(parent, record);
    return record;
}

// Copies one device file to its target through the staging name, checks the
// size the device reports and renames it into place. 0 or a device error; on
// an error the staging copy is removed and the target is as it was.
int copyFile(const MoveSide &source, const char *from, const MoveSide &target, const char *to, const char *caller,
             uint64_t *size) {
    std::string deviceFrom = devicePathOf(from);
    std::string deviceTo = devicePathOf(to);
    std::string staging = stagingNameFor(deviceTo);
    libiusb_file_info info;
    memset(&info, 0, sizeof(info));
    int result = libiusb_afc_file_get_info(source.afc, deviceFrom.c_str(), &info);
    if (result != 0) {
        QNLog(3, "%s get file info failed. ret : %d", caller, result);
        return result;
    }
    uint64_t targetHandle = 0;
    result = libiusb_afc_file_open(target.afc, staging.c_str(), LIBIUSB_AFC_WRONLY, &targetHandle);
    if (result != 0) {
        QNLog(3, "%s  libiusb_afc_file_open failed, ret : %d", caller, result);
        return result;
    }
    uint64_t sourceHandle = 0;
    result = libiusb_afc_file_open(source.afc, deviceFrom.c_str(), LIBIUSB_AFC_RDONLY, &sourceHandle);
    if (result != 0) QNLog(3, "%s libiusb_afc_file_open failed, ret : %d", caller, result);
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
    if (sourceHandle != 0) libiusb_afc_file_close(source.afc, sourceHandle);
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
        libiusb_afc_file_remove(target.afc, staging.c_str());
        return result;
    }
    *size = info.size;
    return 0;
}

int moveEntry(_CONTEXT *ctx, const MoveSide &source, const char *from, const MoveSide &target, const char *to,
              const char *caller, bool top);

int moveFolder(_CONTEXT *ctx, const MoveSide &source, _KTL_OBJECT *folder, const char *from, const MoveSide &target,
               const char *to, const char *caller) {
    if (folder->enumerated == 0 && !hasChildren(folder)) {
        // Media folders are listed as a listing lists them (the databases
        // fetched first when /Media was never listed); each album is listed
        // in its turn when the copy reaches it.
        int listed = source.media ? listFolder(ctx, from, nullptr, nullptr, 0)
                     : begins(from, "/Storage") ? enumStorage(ctx, from, nullptr, nullptr, 0)
                                                : enumApps(ctx, from, nullptr, nullptr);
        if (listed != 0) return listed;
        folder->enumerated = 1;
    }
    std::string deviceTo = devicePathOf(to);
    int result = libiusb_afc_make_directory(target.afc, deviceTo.c_str());
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_make_directory failed, path(%s), ret : %d", caller, deviceTo.c_str(), result);
        return result;
    }
    _KTL_OBJECT *made = recordTarget(target, to, KTL_MODE_FOLDER, 0);
    made->enumerated = 1;
    std::vector<std::string> names;
    for (_KTL_LIST_ENTRY *link = folder->child_list.next; link != &folder->child_list; link = link->next) {
        const char *name = ObjectFromSibling(link)->file_name;
        if (name != nullptr) names.push_back(name);
    }
    for (const std::string &name : names) {
        std::string childFrom = ChildPath(from, name.c_str());
        std::string childTo = ChildPath(to, name.c_str());
        result = moveEntry(ctx, source, childFrom.c_str(), target, childTo.c_str(), caller, false);
        if (result != 0) {
            QNLog(3, "%s  failed. ret : %d, from : %s, to : %s", caller, result, childFrom.c_str(), childTo.c_str());
            return result;
        }
    }
    if (source.media) return 0;  // copied; the library keeps its own
    // An area's own folder (/Storage, an app's Documents) stays where it
    // is, emptied: only what is in it moves.
    if (isAreaFolder(from)) return 0;
    // Everything was carried. A folder still holding what the catalogue did
    // not know stays, and so does its record: nothing of it is lost.
    std::string deviceFrom = devicePathOf(from);
    int removed = libiusb_afc_file_remove(source.afc, deviceFrom.c_str());
    if (removed != 0) {
        QNLog(3, "%s libiusb_afc_file_remove failed. from(%s), ret : %d", caller, deviceFrom.c_str(), removed);
        return 0;
    }
    if (hasChildren(folder)) return 0;
    // An app folder whose files are still open keeps the connection they
    // use: its record lives on, out of the catalogue, until unmount.
    if (folder->open_count > 0)
        KeepUntilLastRelease(folder, from);
    else
        DeleteObject(folder, from);
    return 0;
}

int moveEntry(_CONTEXT *ctx, const MoveSide &source, const char *from, const MoveSide &target, const char *to,
              const char *caller, bool top) {
    _KTL_OBJECT *record = FindObject(from);
    if (record == nullptr) return LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND;
    // The kernel knows the paths below a moved folder by their old names.
    if (!top) InvalidateKernelView(from);
    if (record->mode == KTL_MODE_FOLDER) return moveFolder(ctx, source, record, from, target, to, caller);

    if (record->type == KTL_TYPE_STAGED) {
        // A safe-save temporary's data is still in the work folder.
        const char *slash = strrchr(from, '/');
        int uploaded = uploadfile(ctx, slash != nullptr ? slash : from, devicePathOf(from).c_str(), source.afc, true);
        if (uploaded != 0) {
            QNLog(3, "%s uploadfile failed. path(%s). ret : %d", caller, from, uploaded);
            return uploaded;
        }
        record->type = KTL_TYPE_ORDINARY;
    }
    if (record->type == KTL_TYPE_NOTE) {
        // Our own note in /Media/Photo lies in the work folder, not on the
        // device: it is written to the target from there, and stays.
        int uploaded = uploadfile(ctx, (std::string("/") + record->file_name).c_str(), devicePathOf(to).c_str(),
                                  target.afc, false);
        if (uploaded != 0) return uploaded;
        recordTarget(target, to, KTL_MODE_FILE, record->size);
        return 0;
    }
    uint64_t size = 0;
    int result = copyFile(source, from, target, to, caller, &size);
    if (result != 0) return result;
    recordTarget(target, to, KTL_MODE_FILE, size);
    if (source.media) return 0;  // the media item stays
    std::string deviceFrom = devicePathOf(from);
    result = libiusb_afc_file_remove(source.afc, deviceFrom.c_str());
    if (result != 0) {
        // Both copies are whole; the user is told the source could not go.
        QNLog(3, "%s libiusb_afc_file_remove failed, ret : %d", caller, result);
        return result;
    }
    forgetRecord(record, from);
    return 0;
}

} // namespace

int OpenMoveSide(_CONTEXT *ctx, const char *path, MoveSide *side, const char *caller) {
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
    if (app == nullptr || app->app_id == nullptr) return LIBIUSB_ERROR_APP_NOT_FOUND;
    // A client of its own: the folder connections that open files use stay untouched.
    int result = libiusb_housearrest_init(ctx->device_handle, &side->afc);
    if (result != 0) {
        QNLog(3, "%s libiusb_housearrest_init failed, ret : %d", caller, result);
        side->afc = nullptr;
        return result;
    }
    side->app = true;
    side->appId = app->app_id;
    result = libiusb_housearrest_openapp(side->afc, app->app_id);
    if (result != 0) {
        QNLog(3, "%s libiusb_housearrest_openapp failed, ret : %d", caller, result);
        CloseMoveSide(side, caller);
    }
    return result;
}

void CloseMoveSide(MoveSide *side, const char *caller) {
    if (side->app && side->afc != nullptr) {
        // The device layer releases the client whatever its exit reports.
        int ended = libiusb_housearrest_exit(side->afc);
        if (ended != 0) QNLog(3, "%s libiusb_housearrest_exit failed. error : %d", caller, ended);
    }
    side->afc = nullptr;
}

int MoveByCopy(_CONTEXT *ctx, const char *from, const char *to, const char *caller) {
    MoveSide source, target;
    int result = OpenMoveSide(ctx, from, &source, caller);
    if (result != 0) return result;
    result = OpenMoveSide(ctx, to, &target, caller);
    if (result == 0) {
        result = moveEntry(ctx, source, from, target, to, caller, true);
        CloseMoveSide(&target, caller);
    }
    CloseMoveSide(&source, caller);
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
    MoveSide storage;
    storage.afc = ctx->afc_handle;
    _KTL_OBJECT *made = recordTarget(storage, to, KTL_MODE_FOLDER, 0);
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
