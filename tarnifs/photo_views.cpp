// Photo library views: every folder below /Media/Photo is filled from the
// photo database with one counted query and one row query. The database's
// schema differs between device generations, so there are three families of
// queries: iOS 10 and later, older libraries without cloud masters, and older
// libraries with them.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/media.h"
#include "tarnifs/notify.h"
#include "util/log.h"

namespace {

enum class PhotoFamily { ios10, older, cloud };

constexpr char kAssetColumns[] =
    "select ZDIRECTORY, ZFILENAME, ZMOMENT.ZREPRESENTATIVEDATE+978307200, "
    "ZGENERICASSET.ZMODIFICATIONDATE+978307200, ZADDITIONALASSETATTRIBUTES.ZORIGINALFILESIZE, "
    "ZGENERICASSET.ZDATECREATED+978307200, ZGENERICASSET.ZCLOUDASSETGUID, "
    "ZADDITIONALASSETATTRIBUTES.ZORIGINALFILENAME, ZGENERICASSET.ZKINDSUBTYPE";
constexpr char kCloudColumns[] =
    "select ZCLOUDRESOURCE.ZFILEPATH, ZCLOUDMASTER.ZORIGINALFILENAME, ZMOMENT.ZREPRESENTATIVEDATE+978307200, "
    "ZGENERICASSET.ZMODIFICATIONDATE+978307200, ZCLOUDRESOURCE.ZFILESIZE, ZCLOUDRESOURCE.ZCLOUDMASTER, "
    "ZCLOUDRESOURCE.ZTYPE";
constexpr char kCloudSubtypeColumn[] = ", ZGENERICASSET.ZKINDSUBTYPE";
constexpr char kCountColumns[] = "select count(ZGENERICASSET.Z_PK)";

constexpr char kAssetJoin[] =
    "from ZGENERICASSET left outer join ZMOMENT on ZGENERICASSET.ZMOMENT=ZMOMENT.Z_PK left outer join "
    "ZADDITIONALASSETATTRIBUTES on ZGENERICASSET.ZADDITIONALATTRIBUTES=ZADDITIONALASSETATTRIBUTES.Z_PK";
// The link table is named from entity numbers: album four times, then the
// generic asset.
constexpr char kAlbumJoin[] =
    "from ZGENERICALBUM left outer join Z_%dASSETS on ZGENERICALBUM.Z_PK=Z_%dASSETS.Z_%dALBUMS left outer join "
    "ZGENERICASSET on Z_%dASSETS.Z_%dASSETS=ZGENERICASSET.Z_PK left outer join ZMOMENT on "
    "ZGENERICASSET.ZMOMENT=ZMOMENT.Z_PK left outer join ZADDITIONALASSETATTRIBUTES on "
    "ZGENERICASSET.ZADDITIONALATTRIBUTES=ZADDITIONALASSETATTRIBUTES.Z_PK";
constexpr char kCloudJoin[] =
    " left outer join ZCLOUDMASTER on %s=ZCLOUDMASTER.Z_PK left outer join ZCLOUDRESOURCE on "
    "ZCLOUDRESOURCE.ZASSETUUID like ZGENERICASSET.ZUUID";
constexpr char kCloudEnding[] =
    " and ZCLOUDRESOURCE.ZCLOUDMASTER is not NULL order by ZCLOUDRESOURCE.ZCLOUDMASTER, ZCLOUDRESOURCE.ZTYPE";

constexpr char kTrashed[] = "ZGENERICASSET.ZTRASHEDSTATE like 0";
constexpr char kVisibleNow[] = "ZGENERICASSET.ZVISIBILITYSTATE like 0";
constexpr char kNotHidden[] = "ZGENERICASSET.ZVISIBILITYSTATE is not 1";
constexpr char kLocal[] = "ZCLOUDRESOURCE.ZISLOCALLYAVAILABLE like 1";
constexpr char kPhotos[] = "ZGENERICASSET.ZKIND like 0";
constexpr char kVideos[] = "ZGENERICASSET.ZKIND like 1";
constexpr char kCameraRollAlbum[] = "ZGENERICALBUM.ZKIND like 1000";
constexpr char kFrontCamera[] = "ZADDITIONALASSETATTRIBUTES.ZCAMERACAPTUREDEVICE like 1";
constexpr char kBurstPicks[] =
    "(ZGENERICASSET.ZAVALANCHEPICKTYPE like 52 or ZGENERICASSET.ZAVALANCHEPICKTYPE like 16 or "
    "ZGENERICASSET.ZAVALANCHEPICKTYPE like 20)";

using PhotoFolder = PhotoFolderKind;

std::string format(const char *pattern, int value) {
    char text[64];
    snprintf(text, sizeof(text), pattern, value);
    return text;
}

std::string joined(const std::vector<std::string> &conditions, const char *separator = " and ") {
    std::string text;
    for (const std::string &condition : conditions) {
        if (!text.empty()) text += separator;
        text += condition;
    }
    return text;
}

// The folder's own test, after trashed/visibility/kind: a subtype, the front
// camera or the burst picks; empty for folders that have none.
std::string folderTest(PhotoFolder folder) {
    switch (folder) {
    case PhotoFolder::panoramas: return format("ZGENERICASSET.ZKINDSUBTYPE like %d", 1);
    case PhotoFolder::screenshots: return format("ZGENERICASSET.ZKINDSUBTYPE like %d", 10);
    case PhotoFolder::slo_mo: return format("ZGENERICASSET.ZKINDSUBTYPE like %d", 101);
    case PhotoFolder::time_lapse: return format("ZGENERICASSET.ZKINDSUBTYPE like %d", 102);
    case PhotoFolder::selfies: return kFrontCamera;
    case PhotoFolder::bursts: return kBurstPicks;
    default: return std::string();
    }
}

const char *folderKind(PhotoFolder folder) {
    switch (folder) {
    case PhotoFolder::recorded_videos:
    case PhotoFolder::slo_mo:
    case PhotoFolder::time_lapse: return kVideos;
    default: return kPhotos;
    }
}

// The where clause of a folder in a family.
std::string whereClause(PhotoFamily family, PhotoFolder folder, uint32_t albumKey, int assetEntity) {
    std::string clause;
    if (folder == PhotoFolder::album) {
        std::vector<std::string> conditions = {format("ZGENERICALBUM.Z_PK=%d", static_cast<int>(albumKey)), kTrashed,
                                               kNotHidden};
        if (family == PhotoFamily::cloud) conditions.push_back(kLocal);
        clause = joined(conditions);
    } else if (family == PhotoFamily::cloud) {
        std::vector<std::string> conditions;
        if (folder == PhotoFolder::camera_roll) conditions.push_back(kCameraRollAlbum);
        conditions.push_back(kTrashed);
        conditions.push_back(kNotHidden);
        // The screenshots clause has always had two blanks after this test.
        conditions.push_back(folder == PhotoFolder::screenshots ? std::string(kLocal) + " " : kLocal);
        conditions.push_back(folderKind(folder));
        std::string test = folderTest(folder);
        if (!test.empty()) conditions.push_back(test);
        clause = joined(conditions);
    } else {
        std::vector<std::string> conditions;
        if (folder == PhotoFolder::camera_roll) conditions.push_back(kPhotos);
        conditions.push_back(kTrashed);
        conditions.push_back(family == PhotoFamily::ios10 ? kVisibleNow : kNotHidden);
        if (folder != PhotoFolder::camera_roll) conditions.push_back(folderKind(folder));
        std::string test = folderTest(folder);
        if (!test.empty()) conditions.push_back(test);
        conditions.push_back(family == PhotoFamily::ios10 ? format("ZGENERICASSET.Z_ENT like %d", assetEntity)
                                                          : std::string(kCameraRollAlbum));
        clause = joined(conditions);
    }
    if (family == PhotoFamily::cloud) clause += kCloudEnding;
    return " where " + clause;
}

std::string albumJoin(int albumEntity, int genericAssetEntity) {
    char text[1024];
    snprintf(text, sizeof(text), kAlbumJoin, albumEntity, albumEntity, albumEntity, albumEntity, genericAssetEntity);
    return text;
}

// The count and the row query of a folder.
struct FolderQueries {
    std::string count;
    std::string rows;
};

FolderQueries queriesFor(_CONTEXT *ctx, PhotoFamily family, PhotoFolder folder, uint32_t albumKey, int albumEntity,
                         int genericAssetEntity, int assetEntity) {
    std::string join;
    if (family == PhotoFamily::ios10 && folder != PhotoFolder::album) {
        join = kAssetJoin;
    } else {
        join = albumJoin(albumEntity, genericAssetEntity);
    }
    if (family == PhotoFamily::cloud) {
        char cloud[512];
        const char *master = checkiOSVersion(ctx->device_info.ios_version, 9, 3) == 0
                                 ? "ZGENERICASSET.ZMASTER"
                                 : "ZADDITIONALASSETATTRIBUTES.ZCLOUDMASTER";
        snprintf(cloud, sizeof(cloud), kCloudJoin, master);
        join += cloud;
    }
    std::string where = whereClause(family, folder, albumKey, assetEntity);
    FolderQueries queries;
    // The camera roll count of older libraries has always had two blanks.
    bool twoBlanks = family == PhotoFamily::older && folder == PhotoFolder::camera_roll;
    queries.count = std::string(kCountColumns) + (twoBlanks ? "  " : " ") + join + where;
    std::string columns = family == PhotoFamily::cloud ? std::string(kCloudColumns) : std::string(kAssetColumns);
    if (family == PhotoFamily::cloud && folder != PhotoFolder::recorded_videos) columns += kCloudSubtypeColumn;
    queries.rows = columns + " " + join + where;
    return queries;
}

int listPhotoFolder(_CONTEXT *ctx, const char *caller, PhotoFamily family, const char *path, int albumEntity,
                    int genericAssetEntity, int assetEntity, fuse_fill_dir_t filler, void *buf) {
    _KTL_OBJECT *folderRecord = FindObject(path);
    if (folderRecord == nullptr) return -2;
    PhotoFolder folder = RecognisePhotoFolder(path);
    FolderQueries queries =
        queriesFor(ctx, family, folder, folderRecord->sub_type, albumEntity, genericAssetEntity, assetEntity);
    bool busy = false;
    sqlite3_stmt *statement = nullptr;
    int result = ctx->photo_db == nullptr
                     ? SQLITE_MISUSE
                     : sqlite3_prepare_v2(ctx->photo_db, queries.count.c_str(), -1, &statement, nullptr);
    if (result == SQLITE_OK) {
        if (sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_int64(statement, 0) >= kBusyPhotoRows) {
            sendPipeMsg("-neon");
            busy = true;
        }
    } else {
        QNLog(3, "%s photodb : %p, ret : %d, errormsg(%s)", caller, static_cast<void *>(ctx->photo_db), result,
              sqlite3_errmsg(ctx->photo_db));
    }
    sqlite3_finalize(statement);
    statement = nullptr;

    result = ctx->photo_db == nullptr
                 ? SQLITE_MISUSE
                 : sqlite3_prepare_v2(ctx->photo_db, queries.rows.c_str(), -1, &statement, nullptr);
    if (result != SQLITE_OK) {
        QNLog(3, "%s photodb : %p, ret : %d, errormsg(%s)", caller, static_cast<void *>(ctx->photo_db), result,
              sqlite3_errmsg(ctx->photo_db));
        sqlite3_finalize(statement);
        if (busy) sendPipeMsg("-neoff");
        return -1;
    }
    bool cloud = family == PhotoFamily::cloud;
    std::vector<PhotoRow> rows;
    std::vector<std::string> devicePaths;
    int step;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
        PhotoRow row = ReadPhotoRow(statement, cloud);
        if (!row.has_path || !row.has_file_name || (!cloud && !row.has_original_name)) continue;
        // Each row's file, and the video half of a live photo, asked in the
        // order the entries are made.
        devicePaths.push_back(DevicePathOfPhoto(row, cloud, 0));
        if (row.kind_subtype == 2) devicePaths.push_back(DevicePathOfPhoto(row, cloud, 2));
        rows.push_back(std::move(row));
    }
    if (step != SQLITE_DONE)
        QNLog(3, "%s photodb : %p, ret : %d, errormsg(%s)", caller, static_cast<void *>(ctx->photo_db), step,
              sqlite3_errmsg(ctx->photo_db));
    sqlite3_finalize(statement);

    // Paths a row cannot name are not asked about; they fail as missing.
    std::vector<std::string> asked;
    for (const std::string &devicePath : devicePaths)
        if (!devicePath.empty()) asked.push_back(devicePath);
    std::vector<DeviceFileAnswer> answers = AskDeviceAboutFiles(ctx, asked);
    size_t nextAnswer = 0;
    auto answerFor = [&](const std::string &devicePath) {
        DeviceFileAnswer missing;
        missing.result = LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND;
        if (devicePath.empty()) return missing;
        return answers[nextAnswer++];
    };

    int32_t lastMaster = 0;
    int32_t *state = cloud ? &lastMaster : nullptr;
    size_t pathIndex = 0;
    int outcome = 0;
    for (const PhotoRow &row : rows) {
        const std::string &still = devicePaths[pathIndex++];
        int made = GetPhotoFromDevice(ctx, path, filler, row, buf, cloud, 0, state, answerFor(still));
        if (row.kind_subtype == 2) {
            const std::string &video = devicePaths[pathIndex++];
            DeviceFileAnswer videoAnswer = answerFor(video);
            if (made == 0) made = GetPhotoFromDevice(ctx, path, filler, row, buf, cloud, 2, state, videoAnswer);
        }
        if (made == -2) {
            outcome = -2;
            break;
        }
    }
    if (busy) sendPipeMsg("-neoff");
    return outcome;
}

} // namespace

PhotoRow ReadPhotoRow(sqlite3_stmt *statement, bool cloud) {
    PhotoRow row;
    row.path = ColumnText(statement, 0, &row.has_path);
    row.file_name = ColumnText(statement, 1, &row.has_file_name);
    row.moment_date = sqlite3_column_int(statement, 2);
    row.modification_date = sqlite3_column_int(statement, 3);
    row.db_size = sqlite3_column_int64(statement, 4);
    row.column5 = sqlite3_column_int64(statement, 5);
    if (!cloud) row.original_name = ColumnText(statement, 7, &row.has_original_name);
    int subtypeColumn = cloud ? 7 : 8;
    // The cloud "Recorded Videos" query has no subtype column: never a pair.
    row.kind_subtype = sqlite3_column_count(statement) > subtypeColumn ? sqlite3_column_int64(statement, subtypeColumn) : 0;
    return row;
}

PhotoFolderKind RecognisePhotoFolder(const char *path) {
    if (strstr(path, "/Camera Roll") != nullptr) return PhotoFolderKind::camera_roll;
    if (strstr(path, "/Recorded Videos") != nullptr) return PhotoFolderKind::recorded_videos;
    if (strstr(path, "Panoramas") != nullptr) return PhotoFolderKind::panoramas;
    if (strstr(path, "Screenshots") != nullptr) return PhotoFolderKind::screenshots;
    if (strstr(path, "Slo-mo") != nullptr) return PhotoFolderKind::slo_mo;
    if (strstr(path, "Time-lapse") != nullptr) return PhotoFolderKind::time_lapse;
    if (strstr(path, "Selfies") != nullptr) return PhotoFolderKind::selfies;
    if (strstr(path, "Bursts") != nullptr) return PhotoFolderKind::bursts;
    return PhotoFolderKind::album;
}

const char *getFolderNamefromSubtype(int subtype) {
    switch (subtype) {
    case 1: return "Panoramas";
    case 10: return "Screenshots";
    case 101: return "Slo-mo";
    case 102: return "Time-lapse";
    case 2000: return "Selfies";
    case 2001: return "Bursts";
    default: return nullptr;
    }
}

int GetPhotoAlbumENT(sqlite3 *db, _PHOTOALBUMENT *out) {
    const char *sql = "select Z_ENT, Z_NAME from Z_PRIMARYKEY where Z_NAME like 'AdditionalAssetAttributes' or Z_NAME "
                      "like 'Album' or Z_NAME like 'GenericAsset' or Z_NAME like 'Moment'";
    if (db == nullptr) {
        QNLog(3, "%s sql error. sql : %s, errmsg(%s)", "GetPhotoAlbumENT", sql, sqlite3_errmsg(db));
        return 0;
    }
    sqlite3_stmt *statement = nullptr;
    int result = sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
    if (result != SQLITE_OK) {
        QNLog(3, "%s sql error. sql : %s, errmsg(%s)", "GetPhotoAlbumENT", sql, sqlite3_errmsg(db));
        sqlite3_finalize(statement);
        return result;
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
        const unsigned char *text = sqlite3_column_text(statement, 1);
        uint32_t entity = static_cast<uint32_t>(sqlite3_column_int64(statement, 0));
        if (text == nullptr || entity == 0) continue;
        const char *name = reinterpret_cast<const char *>(text);
        if (strcmp(name, "AdditionalAssetAttributes") == 0) {
            out->additional_attributes_ent = entity;
        } else if (strcmp(name, "Album") == 0) {
            out->album_ent = entity;
        } else if (strcmp(name, "GenericAsset") == 0) {
            out->generic_asset_ent = entity;
            out->asset_ent = entity + 1;
        } else if (strcmp(name, "Moment") == 0) {
            out->moment_ent = entity;
        } else {
            // A name the patterns match only without regard to case: the
            // numbers cannot be trusted. (The statement is let go all the
            // same, so the database can be closed at unmount.)
            sqlite3_finalize(statement);
            return -1;
        }
    }
    sqlite3_finalize(statement);
    return 0;
}

int EnumContentsForiOS_TEN(_CONTEXT *ctx, const char *path, int album_ent, int generic_asset_ent, int asset_ent,
                           fuse_fill_dir_t filler, void *buf) {
    return listPhotoFolder(ctx, "EnumContentsForiOS_TEN", PhotoFamily::ios10, path, album_ent, generic_asset_ent,
                           asset_ent, filler, buf);
}

int EnumNonCloudContents(_CONTEXT *ctx, const char *path, int album_ent, int generic_asset_ent, fuse_fill_dir_t filler,
                         void *buf) {
    return listPhotoFolder(ctx, "EnumNonCloudContents", PhotoFamily::older, path, album_ent, generic_asset_ent, 0,
                           filler, buf);
}

int EnumCloudContents(_CONTEXT *ctx, const char *path, int album_ent, int generic_asset_ent, fuse_fill_dir_t filler,
                      void *buf) {
    return listPhotoFolder(ctx, "EnumCloudContents", PhotoFamily::cloud, path, album_ent, generic_asset_ent, 0, filler,
                           buf);
}
