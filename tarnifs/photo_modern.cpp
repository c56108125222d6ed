// The photo library of iOS 14 and later: assets in ZASSET (a root entity
// "Asset", no GenericAsset), hidden photos marked by ZHIDDEN, originals that
// may live only in iCloud (their original resource is not local), live
// photos whose video half has the still's name with a video extension, and
// no camera roll album. The folders and naming rules are those of the other
// families; what differs is how the rows are found. docs/modern-photos.md
// says which facts this rests on.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/media.h"
#include "tarnifs/notify.h"
#include "util/log.h"

namespace {

constexpr char kCaller[] = "EnumModernContents";

bool tableExists(sqlite3 *db, const std::string &table) {
    sqlite3_stmt *statement = nullptr;
    bool found = false;
    if (sqlite3_prepare_v2(db, "select 1 from sqlite_master where type = 'table' and name = ?", -1, &statement,
                           nullptr) == SQLITE_OK) {
        sqlite3_bind_text(statement, 1, table.c_str(), -1, SQLITE_TRANSIENT);
        found = sqlite3_step(statement) == SQLITE_ROW;
    }
    sqlite3_finalize(statement);
    return found;
}

void logFailure(sqlite3 *db, int result) {
    QNLog(3, "%s photodb : %p, ret : %d, errormsg(%s)", kCaller, static_cast<void *>(db), result, sqlite3_errmsg(db));
}

// Shown in every modern folder: not in the trash, not hidden, visible in the
// library (the frames of a burst the user did not pick are not).
constexpr char kShown[] = "ZASSET.ZTRASHEDSTATE = 0 and ZASSET.ZHIDDEN = 0 and ZASSET.ZVISIBILITYSTATE = 0";

// 1 for an asset whose original is only in iCloud: its original resource is
// marked as not on the device (a live photo's video half, resource type 3,
// does not decide: the still is what is listed). Libraries without resource rows say nothing,
// and the file on the device decides alone.
std::string cloudOnlyColumn(sqlite3 *db) {
    if (!tableExists(db, "ZINTERNALRESOURCE")) return "0";
    return "exists (select 1 from ZINTERNALRESOURCE where ZINTERNALRESOURCE.ZASSET = ZASSET.Z_PK and "
           "ZINTERNALRESOURCE.ZDATASTORESUBTYPE = 1 and ZINTERNALRESOURCE.ZRESOURCETYPE <> 3 and "
           "ZINTERNALRESOURCE.ZLOCALAVAILABILITY = -1)";
}

int64_t countOf(sqlite3 *db, const std::string &sql, int *result) {
    sqlite3_stmt *statement = nullptr;
    *result = sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    int64_t count = 0;
    if (*result == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW) count = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return count;
}

struct ModernEntities {
    int album = 0;
    int asset = 0;
};

// The numbers move between releases; they are read by name, never assumed.
ModernEntities modernEntities(sqlite3 *db) {
    ModernEntities entities;
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, "select Z_ENT, Z_NAME from Z_PRIMARYKEY where Z_NAME = 'Album' or Z_NAME = 'Asset'", -1,
                           &statement, nullptr) != SQLITE_OK) {
        logFailure(db, sqlite3_errcode(db));
        sqlite3_finalize(statement);
        return entities;
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
        const unsigned char *name = sqlite3_column_text(statement, 1);
        if (name == nullptr) continue;
        int entity = sqlite3_column_int(statement, 0);
        if (strcmp(reinterpret_cast<const char *>(name), "Album") == 0) entities.album = entity;
        if (strcmp(reinterpret_cast<const char *>(name), "Asset") == 0) entities.asset = entity;
    }
    sqlite3_finalize(statement);
    return entities;
}

std::string folderCondition(PhotoFolderKind kind) {
    switch (kind) {
    case PhotoFolderKind::camera_roll: return "ZASSET.ZKIND = 0";
    case PhotoFolderKind::recorded_videos: return "ZASSET.ZKIND = 1";
    case PhotoFolderKind::panoramas: return "ZASSET.ZKIND = 0 and ZASSET.ZKINDSUBTYPE = 1";
    case PhotoFolderKind::screenshots: return "ZASSET.ZKIND = 0 and ZASSET.ZKINDSUBTYPE = 10";
    case PhotoFolderKind::slo_mo: return "ZASSET.ZKIND = 1 and ZASSET.ZKINDSUBTYPE = 101";
    case PhotoFolderKind::time_lapse: return "ZASSET.ZKIND = 1 and ZASSET.ZKINDSUBTYPE = 102";
    case PhotoFolderKind::selfies: return "ZASSET.ZKIND = 0 and ZADDITIONALASSETATTRIBUTES.ZCAMERACAPTUREDEVICE = 1";
    case PhotoFolderKind::bursts: return "ZASSET.ZKIND = 0 and ZASSET.ZAVALANCHEPICKTYPE in (52, 16, 20)";
    case PhotoFolderKind::album: break;
    }
    return "1";
}

// The still's file with its extension replaced by "MOV": where the device
// keeps the video half of a live photo (IMG_0005.HEIC beside IMG_0005.MOV).
std::string withVideoExtension(const std::string &name) {
    size_t slash = name.rfind('/');
    size_t dot = name.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return name + ".MOV";
    return name.substr(0, dot) + ".MOV";
}

} // namespace

std::string NoteFileOf(_CONTEXT *ctx, const _KTL_OBJECT *note) {
    return std::string(ctx->work_dir) + "/" + (note->file_name != nullptr ? note->file_name : "note.txt");
}

void MakeCloudOnlyNote(_CONTEXT *ctx, _KTL_OBJECT *parent, int64_t photos, void *buffer, fuse_fill_dir_t filler) {
    const char *name = "Not on this device.txt";
    std::string text =
        std::to_string(photos) + (photos == 1 ? " photo or video is" : " photos and videos are") +
        " kept only in iCloud: \"Optimize iPhone Storage\" removed the original from this phone, so it is\n"
        "not shown here. To copy it through this folder, bring it back onto the phone first: in Settings,\n"
        "[your name] > iCloud > Photos, choose \"Download and Keep Originals\" (or open the photo on the\n"
        "phone), wait until it has downloaded, then mount the phone again.\n";
    _KTL_OBJECT *note = GetObjectWithFileName((std::string("/Media/Photo/") + name).c_str());
    note->mode = KTL_MODE_FILE;
    note->type = KTL_TYPE_NOTE;
    std::string local = NoteFileOf(ctx, note);
    // Private like everything in the work folder; a link there is not followed.
    int fd = ctx->work_dir[0] != '\0' ? open(local.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600) : -1;
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        QNLog(3, "%s note %s could not be written. errno : %d", kCaller, local.c_str(), errno);
        if (fd >= 0) close(fd);
        DeleteObject(note, (std::string("/Media/Photo/") + name).c_str());
        return;
    }
    close(fd);
    time_t now = time(nullptr);
    note->size = text.size();
    note->birth_time = now;
    note->modify_time = now;
    note->access_time = now;
    LinkChildObject(parent, note);
    if (filler != nullptr) filler(buffer, name, nullptr, 0, static_cast<enum fuse_fill_dir_flags>(0));
}

bool HasModernAssetTable(sqlite3 *db) { return db != nullptr && tableExists(db, "ZASSET"); }

int ListModernPhotoRoot(_CONTEXT *ctx, _KTL_OBJECT *parent, void *buffer, fuse_fill_dir_t filler) {
    sqlite3 *db = ctx->photo_db;
    // There is no camera roll album: Camera Roll shows every photo shown.
    MakePhotoFolder(parent, "/Media/Photo/Camera Roll", 0, buffer, filler, "Camera Roll");

    // User albums, and My Photo Stream where the library still has one;
    // shared, smart and trashed albums are left out.
    sqlite3_stmt *statement = nullptr;
    int result = sqlite3_prepare_v2(db,
                                    "select ZTITLE, Z_PK, ZKIND, ZCACHEDCOUNT from ZGENERICALBUM where ZTITLE is not "
                                    "NULL and ZTRASHEDSTATE = 0 and ZKIND in (2, 1500) order by Z_PK",
                                    -1, &statement, nullptr);
    if (result != SQLITE_OK) logFailure(db, result);
    while (result == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW) {
        const unsigned char *title = sqlite3_column_text(statement, 0);
        if (title == nullptr || sqlite3_column_int64(statement, 3) == 0) continue;
        AddPhotoAlbum(parent, reinterpret_cast<const char *>(title), sqlite3_column_int64(statement, 1),
                      sqlite3_column_int64(statement, 2), buffer, filler);
    }
    sqlite3_finalize(statement);

    statement = nullptr;
    std::string kinds = std::string("select ZKINDSUBTYPE, ZKIND from ZASSET where ") + kShown +
                        " group by ZKINDSUBTYPE, ZKIND";
    result = sqlite3_prepare_v2(db, kinds.c_str(), -1, &statement, nullptr);
    if (result != SQLITE_OK) logFailure(db, result);
    while (result == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW) {
        int subtype = sqlite3_column_int(statement, 0);
        if (sqlite3_column_int(statement, 1) == 1) MakePhotoKindFolder(parent, "Recorded Videos", buffer, filler);
        const char *folder = subtype != 0 ? getFolderNamefromSubtype(subtype) : nullptr;
        if (folder != nullptr) MakePhotoKindFolder(parent, folder, buffer, filler);
    }
    sqlite3_finalize(statement);

    const std::string join = " from ZASSET left outer join ZADDITIONALASSETATTRIBUTES on "
                             "ZASSET.ZADDITIONALATTRIBUTES = ZADDITIONALASSETATTRIBUTES.Z_PK where ";
    if (countOf(db, "select count(*)" + join + kShown + " and " + folderCondition(PhotoFolderKind::selfies), &result) > 0)
        MakePhotoKindFolder(parent, "Selfies", buffer, filler);
    if (countOf(db, "select count(*)" + join + kShown + " and " + folderCondition(PhotoFolderKind::bursts), &result) > 0)
        MakePhotoKindFolder(parent, "Bursts", buffer, filler);

    // Photos kept only in iCloud cannot be read through the phone: a note
    // says how many and how to bring them onto it.
    std::string cloudOnly = cloudOnlyColumn(db);
    int64_t left = cloudOnly == "0" ? 0 : countOf(db, "select count(*) from ZASSET where " + std::string(kShown) +
                                                          " and " + cloudOnly, &result);
    if (left > 0) MakeCloudOnlyNote(ctx, parent, left, buffer, filler);
    return 0;
}

int EnumModernContents(_CONTEXT *ctx, const char *path, fuse_fill_dir_t filler, void *buf) {
    _KTL_OBJECT *folderRecord = FindObject(path);
    if (folderRecord == nullptr) return -2;
    sqlite3 *db = ctx->photo_db;
    if (db == nullptr) return -1;
    PhotoFolderKind kind = RecognisePhotoFolder(path);

    std::string from = " from ZASSET";
    std::string where = std::string(" where ") + kShown + " and " + folderCondition(kind);
    if (kind == PhotoFolderKind::album) {
        ModernEntities entities = modernEntities(db);
        std::string album = std::to_string(entities.album), asset = std::to_string(entities.asset);
        std::string link = "Z_" + album + "ASSETS";
        if (entities.album == 0 || entities.asset == 0 || !tableExists(db, link)) {
            QNLog(3, "%s no album link table (%s), album %u lists empty", kCaller, link.c_str(), folderRecord->sub_type);
            return 0;
        }
        from += " join " + link + " on " + link + ".Z_" + asset + "ASSETS = ZASSET.Z_PK";
        where += " and " + link + ".Z_" + album + "ALBUMS = " + std::to_string(folderRecord->sub_type);
    }
    from += " left outer join ZADDITIONALASSETATTRIBUTES on ZASSET.ZADDITIONALATTRIBUTES = "
            "ZADDITIONALASSETATTRIBUTES.Z_PK";
    bool moments = tableExists(db, "ZMOMENT");
    if (moments) from += " left outer join ZMOMENT on ZASSET.ZMOMENT = ZMOMENT.Z_PK";

    int result = 0;
    bool busy = countOf(db, "select count(*)" + from + where, &result) >= kBusyPhotoRows;
    if (result != SQLITE_OK) logFailure(db, result);
    if (busy) sendPipeMsg("-neon");

    std::string rows = std::string("select ZASSET.ZDIRECTORY, ZASSET.ZFILENAME, ") +
                       (moments ? "ZMOMENT.ZREPRESENTATIVEDATE+978307200" : "0") +
                       ", ZASSET.ZMODIFICATIONDATE+978307200, ZADDITIONALASSETATTRIBUTES.ZORIGINALFILESIZE, "
                       "ZASSET.ZDATECREATED+978307200, NULL, ZADDITIONALASSETATTRIBUTES.ZORIGINALFILENAME, "
                       "ZASSET.ZKINDSUBTYPE, " +
                       cloudOnlyColumn(db) + from + where + " order by ZASSET.Z_PK";
    sqlite3_stmt *statement = nullptr;
    result = sqlite3_prepare_v2(db, rows.c_str(), -1, &statement, nullptr);
    if (result != SQLITE_OK) {
        logFailure(db, result);
        sqlite3_finalize(statement);
        if (busy) sendPipeMsg("-neoff");
        return -1;
    }
    std::vector<PhotoRow> stills;
    std::vector<std::string> devicePaths;
    size_t cloudOnly = 0;
    int step;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
        PhotoRow row = ReadPhotoRow(statement, false);
        if (!row.has_path || !row.has_file_name || !row.has_original_name) continue;
        if (sqlite3_column_int(statement, 9) != 0) {
            ++cloudOnly;
            continue;
        }
        devicePaths.push_back(DevicePathOfPhoto(row, false, 0));
        if (row.kind_subtype == 2) devicePaths.push_back(withVideoExtension(devicePaths.back()));
        stills.push_back(std::move(row));
    }
    if (step != SQLITE_DONE) logFailure(db, step);
    sqlite3_finalize(statement);
    if (cloudOnly > 0)
        QNLog(3, "%s %s: %zu photos only in iCloud, left out", kCaller, path, cloudOnly);

    std::vector<DeviceFileAnswer> answers = AskDeviceAboutFiles(ctx, devicePaths);
    size_t next = 0;
    int outcome = 0;
    for (const PhotoRow &still : stills) {
        const DeviceFileAnswer &stillAnswer = answers[next++];
        int made = GetPhotoFromDevice(ctx, path, filler, still, buf, false, 0, nullptr, stillAnswer);
        if (made == -2) {
            outcome = -2;
            break;
        }
        if (still.kind_subtype != 2) continue;
        const DeviceFileAnswer &videoAnswer = answers[next++];
        // The video half is shown only beside its still, and only when the
        // device has it; its name is the still's with the video extension.
        if (made != 0 || videoAnswer.result != 0) continue;
        PhotoRow video = still;
        video.file_name = withVideoExtension(still.file_name);
        video.original_name = withVideoExtension(still.original_name);
        video.db_size = static_cast<int64_t>(videoAnswer.info.size);
        if (GetPhotoFromDevice(ctx, path, filler, video, buf, false, 0, nullptr, videoAnswer) == -2) {
            outcome = -2;
            break;
        }
    }
    if (busy) sendPipeMsg("-neoff");
    return outcome;
}
