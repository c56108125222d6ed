// Media library views: /Media/Music, Podcast, Movies and Voice Memos as files
// named by artist and title (or by label), the photo root's albums and kind
// folders, and the dispatch of every folder below it to the photo views.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/info_queries.h"
#include "tarnifs/jpeg_views.h"
#include "tarnifs/media.h"
#include "tarnifs/names.h"
#include "tarnifs/notify.h"
#include "util/log.h"

namespace {

constexpr size_t kNameBufferSize = 2048;

void announce(void *buffer, fuse_fill_dir_t filler, const char *name) {
    if (filler != nullptr) filler(buffer, name, nullptr, 0, static_cast<enum fuse_fill_dir_flags>(0));
}

// A name converted for the catalogue, or false (logged) when it cannot be.
// The buffer is at least the 2048 bytes every name has always had, and
// larger for a longer text, so no device text can overrun it.
bool convertName(const std::string &text, std::string *name) {
    std::vector<char> converted(std::max(kNameBufferSize, text.size() + 1), '\0');
    if (getUTF8MACName(text.c_str(), converted.data()) < 0) {
        QNLog(3, "%s getUTF8MACName failed.", "enumMedia");
        return false;
    }
    *name = converted.data();
    return true;
}

// Only a name that is one real path component is shown; anything else
// (empty, "." or "..") is left out so that no entry can alias another folder.
bool usableOrLogged(const std::string &name, const char *row) {
    if (IsUsableEntryName(name.c_str())) return true;
    QNLog(3, "%s file : (%s) has no usable name, row skipped.", "enumMedia", row);
    return false;
}

// ---- Music, Podcast, Movies -------------------------------------------------

struct LibraryQueries {
    const char *count;
    const char *rows;
    const char *failure;  // the log line of a failed query
};

constexpr char kLibraryJoin[] =
    " from item left outer join item_artist on item.item_artist_pid=item_artist.item_artist_pid left outer join "
    "item_extra on item.item_pid=item_extra.item_pid left outer join base_location on "
    "item.base_location_id=base_location.base_location_id where ";

std::string libraryQuery(bool count, LibraryFolder folder) {
    std::string sql = count ? "select count(item_extra.item_pid)"
                            : "select item_artist.item_artist, item_extra.title, item_extra.location, "
                              "base_location.path, item_extra.file_size, item_extra.media_kind";
    sql += kLibraryJoin;
    switch (folder) {
    case LibraryFolder::music: sql += "media_kind=1"; break;
    case LibraryFolder::podcast: sql += "media_kind like 4 or media_kind like 6"; break;
    case LibraryFolder::movies: sql += "media_kind>10"; break;
    }
    return sql;
}

const char *libraryFailureLine(LibraryFolder folder) {
    // "meidadb" is how these lines have always been spelled.
    switch (folder) {
    case LibraryFolder::music: return "%s for music meidadb : %p, ret : %d errormsg(%s)";
    case LibraryFolder::podcast: return "%s for Podcast meidadb : %p, ret : %d errormsg(%s)";
    case LibraryFolder::movies: return "%s for Movies meidadb : %p, ret : %d, errormsg(%s)";
    }
    return "";
}

struct SongRow {
    bool has_artist = false, has_title = false, has_location = false, has_base = false;
    std::string artist, title, location, base;
    int64_t db_size = 0;
};

// Runs a count query; true when it says `threshold` rows or more.
bool countReaches(sqlite3 *db, const std::string &sql, int64_t threshold, int *result) {
    *result = 0;
    if (db == nullptr) return false;
    sqlite3_stmt *statement = nullptr;
    *result = sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
    if (*result != SQLITE_OK) return false;
    bool reaches = sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_int64(statement, 0) >= threshold;
    sqlite3_finalize(statement);
    return reaches;
}

void trimTrailingSpace(std::string *text) {
    while (!text->empty() && isspace(static_cast<unsigned char>(text->back()))) text->pop_back();
}

// Long names are cut near 132 bytes, at a byte that starts a character
// where one is close by: a set high bit for music, the lead byte of a three-
// or four-byte sequence for podcasts and movies.
void cutLongStem(std::string *stem, LibraryFolder folder) {
    if (stem->size() < 133) return;
    auto cutsHere = [&](unsigned char byte) {
        return folder == LibraryFolder::music ? (byte & 0x80) != 0 : (byte & 0xE0) == 0xE0;
    };
    if (cutsHere(static_cast<unsigned char>((*stem)[127]))) {
        stem->resize(127);
        return;
    }
    for (size_t at = 128; at <= 131; ++at) {
        if (cutsHere(static_cast<unsigned char>((*stem)[at]))) {
            stem->resize(at);
            return;
        }
    }
    stem->resize(132);
}

int listLibraryFolder(_CONTEXT *ctx, const char *path, _KTL_OBJECT *parent, LibraryFolder folder, void *buffer,
                      fuse_fill_dir_t filler) {
    const char *failure = libraryFailureLine(folder);
    int result = 0;
    bool busy = countReaches(ctx->media_db, libraryQuery(true, folder), kBusyMediaRows, &result);
    if (ctx->media_db == nullptr || result != SQLITE_OK)
        QNLog(3, failure, "enumMedia", static_cast<void *>(ctx->media_db), result, sqlite3_errmsg(ctx->media_db));
    if (busy) sendPipeMsg("-neon");
    if (ctx->media_db == nullptr) {
        // No music library on this device: an empty folder.
        if (busy) sendPipeMsg("-neoff");
        return 0;
    }
    sqlite3_stmt *statement = nullptr;
    result = sqlite3_prepare_v2(ctx->media_db, libraryQuery(false, folder).c_str(), -1, &statement, nullptr);
    if (result != SQLITE_OK) {
        QNLog(3, failure, "enumMedia", static_cast<void *>(ctx->media_db), result, sqlite3_errmsg(ctx->media_db));
        sqlite3_finalize(statement);
        if (busy) sendPipeMsg("-neoff");
        return result;
    }
    std::vector<SongRow> rows;
    std::vector<std::string> devicePaths;
    int step;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
        SongRow row;
        row.artist = ColumnText(statement, 0, &row.has_artist);
        row.title = ColumnText(statement, 1, &row.has_title);
        row.location = ColumnText(statement, 2, &row.has_location);
        row.base = ColumnText(statement, 3, &row.has_base);
        row.db_size = sqlite3_column_int64(statement, 4);
        if (!row.has_location || !row.has_base) {
            // Nowhere to find the file: the row cannot be shown.
            QNLog(3, "%s file : (%s) has no location, row skipped.", "enumMedia", row.location.c_str());
            continue;
        }
        devicePaths.push_back("/" + row.base + "/" + row.location);
        rows.push_back(std::move(row));
    }
    if (step != SQLITE_DONE)
        QNLog(3, failure, "enumMedia", static_cast<void *>(ctx->media_db), step, sqlite3_errmsg(ctx->media_db));
    sqlite3_finalize(statement);

    std::vector<DeviceFileAnswer> answers = AskDeviceAboutFiles(ctx, devicePaths);
    for (size_t index = 0; index < rows.size(); ++index) {
        const SongRow &row = rows[index];
        const DeviceFileAnswer &answer = answers[index];
        if (answer.result != 0) continue;
        if (row.db_size == 0) {
            QNLog(3, "%s file : (%s) size 0", "enumMedia", row.location.c_str());
            continue;
        }
        if (answer.info.size != static_cast<uint64_t>(row.db_size)) {
            QNLog(3, "%s file : (%s), database file size : %lld, local file size : %lld", "enumMedia",
                  row.location.c_str(), static_cast<long long>(row.db_size), static_cast<long long>(answer.info.size));
            continue;
        }
        std::string name = LibraryEntryName(row.has_artist ? row.artist.c_str() : nullptr,
                                            row.has_title ? row.title.c_str() : nullptr, row.location, folder);
        if (name.empty()) continue;

        std::string candidate = FreeEntryPath(path, name, true);
        _KTL_OBJECT *object = GetObjectWithFileName(candidate.c_str());
        delete[] Extras(object).device_path;
        EditExtras(object).device_path = CopyString(devicePaths[index].c_str());
        object->mode = KTL_MODE_FILE;
        object->size = answer.info.size;
        object->birth_time = answer.info.birth_time / 1000000000;
        object->modify_time = answer.info.modify_time / 1000000000;
        object->access_time = object->modify_time;
        LinkChildObject(parent, object);
        announce(buffer, filler, object->file_name);
    }
    if (busy) sendPipeMsg("-neoff");
    return 0;
}

// ---- Voice Memos ------------------------------------------------------------

// The recordings folder of the device's full paths, with its closing slash:
// "/var/mobile/Media/Recordings/".
constexpr size_t kRecordingsFolderLength = 29;

struct RecordingRow {
    std::string label, path;
    int32_t date = 0;
};

int listVoiceMemos(_CONTEXT *ctx, const char *path, _KTL_OBJECT *parent, void *buffer, fuse_fill_dir_t filler) {
    int result = 0;
    bool busy = countReaches(ctx->record_db, "select count(Z_PK) from ZRECORDING", kBusyMediaRows, &result);
    if (ctx->record_db == nullptr || result != SQLITE_OK)
        QNLog(3, "%s recorddb : %p, ret : %d, errormsg(%s)", "enumMedia", static_cast<void *>(ctx->record_db), result,
              sqlite3_errmsg(ctx->record_db));
    if (busy) sendPipeMsg("-neon");
    std::vector<RecordingRow> rows;
    std::vector<std::string> devicePaths;
    sqlite3_stmt *statement = nullptr;
    result = ctx->record_db == nullptr
                 ? SQLITE_OK
                 : sqlite3_prepare_v2(ctx->record_db, "select ZCUSTOMLABEL, ZPATH, ZDATE+978307200 from ZRECORDING", -1,
                                      &statement, nullptr);
    if (result != SQLITE_OK) {
        QNLog(3, "%s recorddb : %p, ret : %d, errormsg(%s)", "enumMedia", static_cast<void *>(ctx->record_db), result,
              sqlite3_errmsg(ctx->record_db));
        if (busy) sendPipeMsg("-neoff");
        return result;
    }
    while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
        RecordingRow row;
        bool hasLabel = false, hasPath = false;
        row.label = ColumnText(statement, 0, &hasLabel);
        row.path = ColumnText(statement, 1, &hasPath);
        row.date = sqlite3_column_int(statement, 2);
        if (!hasLabel || !hasPath) continue;
        if (row.path.size() < kRecordingsFolderLength) {
            // Too short to hold the media root and the recordings folder.
            QNLog(3, "%s recording path(%s) is too short, row skipped.", "enumMedia", row.path.c_str());
            continue;
        }
        devicePaths.push_back(row.path.substr(kMediaRootLength));
        rows.push_back(std::move(row));
    }
    sqlite3_finalize(statement);

    std::vector<DeviceFileAnswer> answers = AskDeviceAboutFiles(ctx, devicePaths);
    for (size_t index = 0; index < rows.size(); ++index) {
        const RecordingRow &row = rows[index];
        const DeviceFileAnswer &answer = answers[index];
        if (answer.result != 0) {
            QNLog(3, "%s libiusb_afc_file_get_info failed. path(%s). ret : %d", "enumMedia", devicePaths[index].c_str(),
                  answer.result);
            continue;
        }
        if (answer.info.size == 0) continue;
        std::string name;
        if (!convertName(row.label + "_" + row.path.substr(kRecordingsFolderLength), &name)) continue;
        if (!usableOrLogged(name, row.path.c_str())) continue;
        std::string entryPath = std::string("/Media/Voice Memos") + "/" + name;
        _KTL_OBJECT *object = GetObjectWithFileName(entryPath.c_str());
        if (object->sibling.next != &object->sibling) {
            // Recordings carry no duplicate suffix: a second row of the same
            // name is left out rather than linked twice.
            QNLog(3, "%s %s is listed once: another recording has the same name", "enumMedia", entryPath.c_str());
            continue;
        }
        if (Extras(object).device_path == nullptr) EditExtras(object).device_path = CopyString(devicePaths[index].c_str());
        object->mode = KTL_MODE_FILE;
        object->birth_time = row.date;
        object->modify_time = row.date;
        object->access_time = row.date;
        object->size = answer.info.size;
        LinkChildObject(parent, object);
        announce(buffer, filler, object->file_name);
    }
    (void)path;
    if (busy) sendPipeMsg("-neoff");
    return 0;
}

// ---- Photo root -------------------------------------------------------------

void logPhotoFailure(_CONTEXT *ctx, int result) {
    QNLog(3, "%s photodb : %p, ret : %d, errormsg(%s)", "enumMedia", static_cast<void *>(ctx->photo_db), result,
          sqlite3_errmsg(ctx->photo_db));
}

// Prepares a photo-root query; null (logged) when there is no photo library
// or the statement does not prepare.
sqlite3_stmt *preparePhotoQuery(_CONTEXT *ctx, const char *sql, bool withVersion) {
    sqlite3_stmt *statement = nullptr;
    int result = ctx->photo_db == nullptr ? SQLITE_MISUSE
                                          : sqlite3_prepare_v2(ctx->photo_db, sql, -1, &statement, nullptr);
    if (result == SQLITE_OK) return statement;
    sqlite3_finalize(statement);
    if (withVersion)
        QNLog(3, "%s photodb : %p, ret : %d, errormsg(%s), iOS version : %s", "enumMedia",
              static_cast<void *>(ctx->photo_db), result, sqlite3_errmsg(ctx->photo_db), ctx->device_info.ios_version);
    else
        logPhotoFailure(ctx, result);
    return nullptr;
}

void probeFolder(_CONTEXT *ctx, _KTL_OBJECT *parent, const char *sql, const char *name, void *buffer,
                 fuse_fill_dir_t filler) {
    sqlite3_stmt *statement = preparePhotoQuery(ctx, sql, true);
    if (statement == nullptr) return;
    if (sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_int64(statement, 0) != 0)
        MakePhotoKindFolder(parent, name, buffer, filler);
    sqlite3_finalize(statement);
}

int listPhotoRoot(_CONTEXT *ctx, _KTL_OBJECT *parent, void *buffer, fuse_fill_dir_t filler) {
    if (HasModernAssetTable(ctx->photo_db)) return ListModernPhotoRoot(ctx, parent, buffer, filler);
    _KTL_OBJECT *cameraRoll = MakePhotoFolder(parent, "/Media/Photo/Camera Roll", 0, buffer, filler, "Camera Roll");

    if (ctx->photo_db != nullptr) {
        sqlite3_stmt *statement =
            preparePhotoQuery(ctx, "select Z_PK from ZGENERICALBUM where ZKIND like 1000 and ZTRASHEDSTATE like 0", false);
        while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
            int64_t key = sqlite3_column_int64(statement, 0);
            if (key != 0) cameraRoll->sub_type = static_cast<uint32_t>(key);
        }
        sqlite3_finalize(statement);
    }

    char albums[512];
    snprintf(albums, sizeof(albums),
             "select ZTITLE, Z_PK, ZKIND, ZCACHEDCOUNT from ZGENERICALBUM where ZTITLE is not NULL and ZTRASHEDSTATE "
             "like 0 and ZTITLE not like '%%progress%%'");
    sqlite3_stmt *statement = preparePhotoQuery(ctx, albums, false);
    while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
        bool hasTitle = false;
        std::string title = ColumnText(statement, 0, &hasTitle);
        if (!hasTitle || sqlite3_column_int64(statement, 3) == 0) continue;
        AddPhotoAlbum(parent, title, sqlite3_column_int64(statement, 1), sqlite3_column_int64(statement, 2), buffer,
                      filler);
    }
    sqlite3_finalize(statement);

    statement = preparePhotoQuery(
        ctx, "select ZKINDSUBTYPE, ZKIND from ZGENERICASSET where ZTRASHEDSTATE like 0 group by ZKINDSUBTYPE, ZKIND",
        false);
    while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
        int subtype = sqlite3_column_int(statement, 0);
        int kind = sqlite3_column_int(statement, 1);
        if (kind == 1 && FindObject("/Media/Photo/Recorded Videos") == nullptr)
            MakePhotoFolder(parent, "/Media/Photo/Recorded Videos", 0, buffer, filler, "Recorded Videos");
        const char *folder = subtype != 0 ? getFolderNamefromSubtype(subtype) : nullptr;
        if (folder != nullptr) MakePhotoKindFolder(parent, folder, buffer, filler);
    }
    sqlite3_finalize(statement);

    if (checkiOSVersion(ctx->device_info.ios_version, 9, 0) != 0) return 0;
    probeFolder(ctx, parent,
                "select ZADDITIONALASSETATTRIBUTES.ZCAMERACAPTUREDEVICE from ZADDITIONALASSETATTRIBUTES left outer join "
                "ZGENERICASSET on ZADDITIONALASSETATTRIBUTES.ZASSET like ZGENERICASSET.Z_PK where "
                "ZADDITIONALASSETATTRIBUTES.ZCAMERACAPTUREDEVICE is not 0 and ZGENERICASSET.ZTRASHEDSTATE like 0 limit 1",
                "Selfies", buffer, filler);
    probeFolder(ctx, parent,
                "select Z_PK from ZGENERICASSET where (ZAVALANCHEPICKTYPE like 52 or ZAVALANCHEPICKTYPE like 16 or "
                "ZAVALANCHEPICKTYPE like 20) and ZTRASHEDSTATE like 0 limit 1",
                "Bursts", buffer, filler);
    return 0;
}

int listPhotoFamilyFolder(_CONTEXT *ctx, const char *path, void *buffer, fuse_fill_dir_t filler) {
    // Chosen by what the library holds, not by the version the phone reports.
    if (HasModernAssetTable(ctx->photo_db)) return EnumModernContents(ctx, path, filler, buffer);
    _PHOTOALBUMENT entities;
    // Without usable entity numbers every number passed on is 0: the album
    // joins then name no table and those folders fail, the others list empty.
    if (GetPhotoAlbumENT(ctx->photo_db, &entities) != 0) entities = _PHOTOALBUMENT();
    bool cloud = false;
    if (ctx->photo_db != nullptr) {
        sqlite3_stmt *statement = nullptr;
        if (sqlite3_prepare_v2(ctx->photo_db, "select Z_PK from ZCLOUDMASTER limit 1", -1, &statement, nullptr) ==
                SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_int64(statement, 0) != 0)
            cloud = true;
        sqlite3_finalize(statement);
    }
    int album = static_cast<int>(entities.album_ent);
    int genericAsset = static_cast<int>(entities.generic_asset_ent);
    if (checkiOSVersion(ctx->device_info.ios_version, 10, 0) == 0)
        return EnumContentsForiOS_TEN(ctx, path, album, genericAsset, static_cast<int>(entities.asset_ent), filler,
                                      buffer);
    if (cloud) return EnumCloudContents(ctx, path, album, genericAsset, filler, buffer);
    return EnumNonCloudContents(ctx, path, album, genericAsset, filler, buffer);
}

// The JPEG views a folder shows are noted in listing order, so that asking
// for one converts the stills after it too.
int listPhotoSubfolder(_CONTEXT *ctx, const char *path, void *buffer, fuse_fill_dir_t filler) {
    gListedJpegViews.clear();
    int result = listPhotoFamilyFolder(ctx, path, buffer, filler);
    NoteJpegViewFolder(gListedJpegViews);
    gListedJpegViews.clear();
    return result;
}

} // namespace

std::string ColumnText(sqlite3_stmt *statement, int column, bool *present) {
    const unsigned char *text = sqlite3_column_text(statement, column);
    if (present != nullptr) *present = text != nullptr;
    if (text == nullptr) return std::string();
    return std::string(reinterpret_cast<const char *>(text), static_cast<size_t>(sqlite3_column_bytes(statement, column)));
}

_KTL_OBJECT *MakePhotoFolder(_KTL_OBJECT *parent, const std::string &path, uint32_t albumKey, void *buffer,
                             fuse_fill_dir_t filler, const char *name) {
    _KTL_OBJECT *folder = GetObjectWithFileName(path.c_str());
    time_t now = time(nullptr);
    folder->mode = KTL_MODE_FOLDER;
    folder->type = KTL_TYPE_DEVICE_FOLDER;
    if (albumKey != 0) folder->sub_type = albumKey;
    folder->birth_time = now;
    folder->modify_time = now;
    folder->access_time = now;
    LinkChildObject(parent, folder);
    announce(buffer, filler, name);
    return folder;
}

void MakePhotoKindFolder(_KTL_OBJECT *parent, const char *name, void *buffer, fuse_fill_dir_t filler) {
    std::string folderPath = std::string("/Media/Photo/") + name;
    if (FindObject(folderPath.c_str()) != nullptr) return;
    MakePhotoFolder(parent, folderPath, 0, buffer, filler, name);
}

std::string PhotoAlbumName(const std::string &title, int64_t kind) {
    if (kind == 1500) return "My Photo Stream";
    std::vector<char> converted(std::max(kNameBufferSize, title.size() * 4 + 16), '\0');
    std::vector<char> input(title.begin(), title.end());
    input.push_back('\0');
    if (unicode_to_utf8(3, input.data(), static_cast<int>(title.size()), converted.data(),
                        static_cast<int>(converted.size()) - 1) == 0)
        return chkInvalidString(converted.data());
    std::string name;
    if (!convertName(title, &name)) return std::string();
    return name;
}

void AddPhotoAlbum(_KTL_OBJECT *parent, const std::string &title, int64_t key, int64_t kind, void *buffer,
                   fuse_fill_dir_t filler) {
    std::string name = PhotoAlbumName(title, kind);
    if (name.empty() || !usableOrLogged(name, title.c_str())) return;
    std::string candidate = FreeEntryPath("/Media/Photo", name, false);
    std::string shown = candidate.substr(strlen("/Media/Photo/"));
    MakePhotoFolder(parent, candidate, static_cast<uint32_t>(key), buffer, filler, shown.c_str());
}

int checkiOSVersion(const char *version, int major, int minor) {
    std::string text = version != nullptr ? version : "";
    int deviceMajor = 0;
    size_t dot = text.find('.');
    if (dot != std::string::npos) {
        deviceMajor = atoi(text.substr(0, dot).c_str());
        text.erase(0, dot + 1);
    }
    if (deviceMajor < major) return -1;
    if (deviceMajor > major) return 0;
    return atoi(text.c_str()) >= minor ? 0 : -1;
}

bool IsUsableEntryName(const char *name) {
    // Past NAME_MAX a name cannot be looked up, and the kernel refuses the
    // whole listing that holds it.
    return name != nullptr && name[0] != '\0' && strcmp(name, ".") != 0 && strcmp(name, "..") != 0 &&
           strchr(name, '/') == nullptr && strlen(name) <= NAME_MAX;
}

std::string FreeEntryPath(const std::string &folder, const std::string &name, bool before_extension) {
    std::string candidate = folder + "/" + name;
    if (FindObject(candidate.c_str()) == nullptr) return candidate;
    // The suffix goes before the name's own last "." (never into a folder
    // name above it); a name without one gets it at its end.
    size_t dot = before_extension ? name.rfind('.') : std::string::npos;
    std::string stem = dot == std::string::npos ? name : name.substr(0, dot);
    std::string extension = dot == std::string::npos ? std::string() : name.substr(dot);
    for (int counter = 2;; ++counter) {
        candidate = folder + "/" + stem + " (" + std::to_string(counter) + ")" + extension;
        if (FindObject(candidate.c_str()) == nullptr) return candidate;
    }
}

std::string LibraryEntryName(const char *artist, const char *title, const std::string &location, LibraryFolder folder) {
    std::string stem = (artist != nullptr ? std::string(artist) + "-" : std::string()) + (title != nullptr ? title : "");
    if (folder == LibraryFolder::music) {
        size_t mark = stem.rfind("wlrtitdb");
        if (mark != std::string::npos) stem.resize(mark);
        trimTrailingSpace(&stem);
    }
    std::string name;
    if (!convertName(stem, &name)) return std::string();
    if (name.size() >= 133 && folder == LibraryFolder::movies)
        QNLog(3, "%s %s filename length is over %d.", "enumMedia", name.c_str(), static_cast<int>(name.size()));
    cutLongStem(&name, folder);
    size_t dot = location.find('.');
    if (dot != std::string::npos) name += location.substr(dot);
    if (!usableOrLogged(name, location.c_str())) return std::string();
    return name;
}

std::vector<DeviceFileAnswer> AskDeviceAboutFiles(_CONTEXT *ctx, const std::vector<std::string> &paths) {
    std::vector<DeviceFileAnswer> answers;
    answers.reserve(paths.size());
    // Every answer is wanted before any entry is made; a stream asks with
    // requests in flight, the mount's own connection one at a time.
    InfoQueries queries;
    for (const std::string &path : paths) queries.names.push_back(path.c_str());
    queries.connection = ctx->afc_handle;
    if (paths.size() > kStreamedListingEntries) queries.stream = storageInfoStream(ctx);
    for (size_t index = 0; index < paths.size(); ++index) answers.push_back(infoOf(queries, index));
    finishInfoQueries(queries);
    dropLostStorageStream(ctx, queries);
    return answers;
}

int enumMedia(_CONTEXT *ctx, const char *path, void *buffer, fuse_fill_dir_t filler) {
    _KTL_OBJECT *parent = GetObject(path);
    if (parent == nullptr) return -2;
    if (strcmp(path, "/Media/Music") == 0)
        return listLibraryFolder(ctx, path, parent, LibraryFolder::music, buffer, filler);
    if (strcmp(path, "/Media/Podcast") == 0)
        return listLibraryFolder(ctx, path, parent, LibraryFolder::podcast, buffer, filler);
    if (strcmp(path, "/Media/Movies") == 0)
        return listLibraryFolder(ctx, path, parent, LibraryFolder::movies, buffer, filler);
    if (strcmp(path, "/Media/Photo") == 0) return listPhotoRoot(ctx, parent, buffer, filler);
    if (strstr(path, "/Media/Photo/") != nullptr) return listPhotoSubfolder(ctx, path, buffer, filler);
    if (strcmp(path, "/Media/Voice Memos") == 0) return listVoiceMemos(ctx, path, parent, buffer, filler);
    return 0;
}
