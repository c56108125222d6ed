// Fuzz target: the media views over database rows a broken or hostile phone
// fully controls. Each input fills the music, photo and recordings tables
// with values of any type (NULL, integers near the meaningful ones, texts
// with "/", "..", control bytes and invalid UTF-8, reals, blobs), in the
// tables of the older libraries and, for some inputs, of iOS 14 and later,
// and lists every /Media folder; then it turns random photo rows with random device
// answers into entries, and random song rows into names. Afterwards every
// record under /Media is linked into its folder under a usable name, and no
// folder holds two records of one name.
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/listing.h"
#include "tarnifs/media.h"
#include "tarnifs/mount.h"
#include "tarnifs/names.h"
#include "tarnifs/platform.h"
#include "tests/fuzz/harness.h"

namespace {

const char *const kTexts[] = {
    "",    "a",   "IMG_0001.JPG", "IMG_0001.MOV", "/",          "..",           ".",  "a/b",
    "\xFF", "\xC3", "e\xCC\x81",  "wlrtitdb",     "Panoramas",  "My Panoramas", "x.y.z", "DCIM/100APPLE",
    "/var/mobile/Media/DCIM/100APPLE/IMG_0001.JPG", "/var/mobile/Media/Recordings/rec.m4a", "\n\t\x01",
    "progress", "Album", "Asset", "GenericAsset", "Moment", "AdditionalAssetAttributes", "album",
};
const int64_t kNumbers[] = {0, 1, 2, 3, 10, 16, 20, 52, 101, 102, 1000, 1500, 2000, 2001, -1, 4294967297LL, INT64_MIN};

std::string text(Input &in) {
    std::string out;
    int pieces = in.next() % 4;
    for (int i = 0; i < pieces; ++i) {
        uint8_t pick = in.next();
        if (pick == 255) {
            out += std::string(150 + in.next(), 'x');  // past the length cuts
        } else {
            out += kTexts[pick % (sizeof(kTexts) / sizeof(kTexts[0]))];
        }
    }
    return out;
}

void bindAny(sqlite3_stmt *statement, int column, Input &in) {
    switch (in.next() % 6) {
    case 0: sqlite3_bind_null(statement, column); break;
    case 1:
    case 2: sqlite3_bind_int64(statement, column, kNumbers[in.next() % (sizeof(kNumbers) / sizeof(kNumbers[0]))]); break;
    case 3: {
        std::string value = text(in);
        sqlite3_bind_text(statement, column, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
        break;
    }
    case 4: sqlite3_bind_double(statement, column, static_cast<double>(in.next()) / 3.0); break;
    default: {
        std::string value = text(in);
        sqlite3_bind_blob(statement, column, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
        break;
    }
    }
}

// A table of `columns` columns with a few rows of any values.
void fillTable(sqlite3 *db, const std::string &name, const std::vector<const char *> &columns, Input &in) {
    std::string create = "create table " + name + " (";
    std::string insert = "insert into " + name + " values (";
    for (size_t i = 0; i < columns.size(); ++i) {
        create += std::string(i ? ", " : "") + columns[i];
        insert += std::string(i ? ", " : "") + "?";
    }
    sqlite3_exec(db, (create + ")").c_str(), nullptr, nullptr, nullptr);
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v2(db, (insert + ")").c_str(), -1, &statement, nullptr) != SQLITE_OK) return;
    int rows = in.next() % 5;
    for (int row = 0; row < rows; ++row) {
        for (size_t i = 0; i < columns.size(); ++i) bindAny(statement, static_cast<int>(i) + 1, in);
        sqlite3_step(statement);
        sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
}

sqlite3 *freshDatabase() {
    sqlite3 *db = nullptr;
    sqlite3_open(":memory:", &db);
    return db;
}

void fillLibraries(_CONTEXT *ctx, Input &in) {
    ctx->media_db = freshDatabase();
    fillTable(ctx->media_db, "item", {"item_pid", "item_artist_pid", "base_location_id"}, in);
    fillTable(ctx->media_db, "item_artist", {"item_artist_pid", "item_artist"}, in);
    fillTable(ctx->media_db, "item_extra", {"item_pid", "title", "location", "file_size", "media_kind"}, in);
    fillTable(ctx->media_db, "base_location", {"base_location_id", "path"}, in);
    ctx->photo_db = freshDatabase();
    fillTable(ctx->photo_db, "Z_PRIMARYKEY", {"Z_ENT", "Z_NAME", "Z_SUPER", "Z_MAX"}, in);
    if (in.next() % 3 == 0) {
        // A library of iOS 14 and later: its own tables, found by ZASSET.
        fillTable(ctx->photo_db, "ZASSET",
                  {"Z_PK", "Z_ENT", "ZDIRECTORY", "ZFILENAME", "ZMOMENT", "ZMODIFICATIONDATE", "ZDATECREATED",
                   "ZADDITIONALATTRIBUTES", "ZKIND", "ZKINDSUBTYPE", "ZTRASHEDSTATE", "ZHIDDEN", "ZVISIBILITYSTATE",
                   "ZAVALANCHEPICKTYPE"},
                  in);
        fillTable(ctx->photo_db, "ZINTERNALRESOURCE",
                  {"Z_PK", "ZASSET", "ZDATASTORESUBTYPE", "ZRESOURCETYPE", "ZLOCALAVAILABILITY"}, in);
        fillTable(ctx->photo_db, "Z_0ASSETS", {"Z_0ALBUMS", "Z_0ASSETS"}, in);
    }
    fillTable(ctx->photo_db, "ZGENERICASSET",
              {"Z_PK", "Z_ENT", "ZDIRECTORY", "ZFILENAME", "ZMOMENT", "ZMODIFICATIONDATE", "ZDATECREATED",
               "ZCLOUDASSETGUID", "ZADDITIONALATTRIBUTES", "ZKIND", "ZKINDSUBTYPE", "ZTRASHEDSTATE",
               "ZVISIBILITYSTATE", "ZAVALANCHEPICKTYPE", "ZUUID", "ZMASTER"},
              in);
    fillTable(ctx->photo_db, "ZMOMENT", {"Z_PK", "ZREPRESENTATIVEDATE"}, in);
    fillTable(ctx->photo_db, "ZADDITIONALASSETATTRIBUTES",
              {"Z_PK", "ZASSET", "ZORIGINALFILESIZE", "ZORIGINALFILENAME", "ZCAMERACAPTUREDEVICE", "ZCLOUDMASTER"}, in);
    fillTable(ctx->photo_db, "ZGENERICALBUM", {"Z_PK", "ZKIND", "ZTITLE", "ZTRASHEDSTATE", "ZCACHEDCOUNT"}, in);
    fillTable(ctx->photo_db, "Z_0ASSETS", {"Z_0ALBUMS", "Z_0ASSETS"}, in);
    if (in.next() % 2) {
        fillTable(ctx->photo_db, "ZCLOUDMASTER", {"Z_PK", "ZORIGINALFILENAME"}, in);
        fillTable(ctx->photo_db, "ZCLOUDRESOURCE",
                  {"Z_PK", "ZFILEPATH", "ZFILESIZE", "ZCLOUDMASTER", "ZTYPE", "ZASSETUUID", "ZISLOCALLYAVAILABLE"}, in);
    }
    ctx->record_db = freshDatabase();
    fillTable(ctx->record_db, "ZRECORDING", {"Z_PK", "ZCUSTOMLABEL", "ZPATH", "ZDATE"}, in);
}

void closeLibraries(_CONTEXT *ctx) {
    for (sqlite3 **db : {&ctx->media_db, &ctx->photo_db, &ctx->record_db}) {
        FUZZ_CHECK(sqlite3_close(*db) == SQLITE_OK);  // every statement was finalised
        *db = nullptr;
    }
}

// Every record below `path` is linked under its folder by a usable name
// that no sibling shares.
void checkFolder(const std::string &path, _KTL_OBJECT *folder, int depth) {
    FUZZ_CHECK(depth < 8);
    std::vector<std::string> seen;
    size_t steps = 0;
    for (_KTL_LIST_ENTRY *link = folder->child_list.next; link != &folder->child_list; link = link->next) {
        FUZZ_CHECK(link->next->previous == link);
        FUZZ_CHECK(++steps < 100000);
        _KTL_OBJECT *child = ObjectFromSibling(link);
        FUZZ_CHECK(child->file_name != nullptr);
        FUZZ_CHECK(IsUsableEntryName(child->file_name));
        std::string childPath = ChildPath(path, child->file_name);
        FUZZ_CHECK(FindObject(childPath.c_str()) == child);
        for (const std::string &other : seen) FUZZ_CHECK(other != childPath);
        seen.push_back(childPath);
        if (child->mode == KTL_MODE_FOLDER) checkFolder(childPath, child, depth + 1);
    }
}

_CONTEXT gContext;
struct fuse_context gFuse {};

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzzQuietLog();
    gEncodedPath = static_cast<char *>(calloc(kEncodedPathSize, 1));
    gFuse.private_data = &gContext;
    SetFuseContextForTesting(&gFuse);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    _CONTEXT *ctx = &gContext;
    const char *versions[] = {"10.3.3", "9.3.5", "9.2.1", "8.4", "10", ""};
    snprintf(ctx->device_info.ios_version, sizeof(ctx->device_info.ios_version), "%s", versions[in.next() % 6]);
    fillLibraries(ctx, in);

    // Every folder, as a user's file manager would open them. No device is
    // attached: each file check fails, so rows stop there; names, albums and
    // kinds come from the rows alone.
    listFolder(ctx, "/", nullptr, nullptr, 0);
    listFolder(ctx, "/Media", nullptr, nullptr, 0);
    for (const char *folder : {"/Media/Music", "/Media/Podcast", "/Media/Movies", "/Media/Voice Memos", "/Media/Photo"})
        if (FindObject(folder) != nullptr) listFolder(ctx, folder, nullptr, nullptr, 0);
    _KTL_OBJECT *photo = FindObject("/Media/Photo");
    FUZZ_CHECK(photo != nullptr);
    std::vector<std::string> albums;
    for (_KTL_LIST_ENTRY *link = photo->child_list.next; link != &photo->child_list; link = link->next)
        albums.push_back(ChildPath("/Media/Photo", ObjectFromSibling(link)->file_name));
    for (const std::string &album : albums) listFolder(ctx, album.c_str(), nullptr, nullptr, 0);

    // Rows with device answers: entries made in the Camera Roll.
    for (int step = 0; step < 16 && !in.empty(); ++step) {
        PhotoRow row;
        row.has_path = in.next() % 4 != 0;
        row.path = text(in);
        row.has_file_name = in.next() % 4 != 0;
        row.file_name = text(in);
        constexpr size_t kCount = sizeof(kNumbers) / sizeof(kNumbers[0]);
        row.moment_date = static_cast<int32_t>(kNumbers[in.next() % kCount]);
        row.modification_date = static_cast<int32_t>(kNumbers[in.next() % kCount]);
        row.db_size = kNumbers[in.next() % kCount];
        row.column5 = kNumbers[in.next() % kCount];
        row.has_original_name = in.next() % 4 != 0;
        row.original_name = text(in);
        row.kind_subtype = in.next() % 3;
        bool cloud = in.next() % 2;
        DeviceFileAnswer answer;
        answer.result = in.next() % 5 == 0 ? -70 : 0;
        answer.info.size = in.next() % 2 ? static_cast<uint64_t>(row.db_size) : in.next();
        int32_t lastMaster = 0;
        FUZZ_CHECK(DevicePathOfPhoto(row, cloud, 2).find("JPG") == std::string::npos);
        int made = GetPhotoFromDevice(ctx, "/Media/Photo/Camera Roll", nullptr, row, nullptr, cloud,
                                      row.kind_subtype == 2 ? 2 : 0, cloud ? &lastMaster : nullptr, answer);
        FUZZ_CHECK(made == 0 || made == -1);

        std::string name = LibraryEntryName(in.next() % 3 ? text(in).c_str() : nullptr,
                                            in.next() % 3 ? text(in).c_str() : nullptr, text(in),
                                            static_cast<LibraryFolder>(in.next() % 3));
        FUZZ_CHECK(name.empty() || IsUsableEntryName(name.c_str()));
    }

    checkFolder("/", FindObject("/"), 0);
    closeLibraries(ctx);
    FreeAllObjects(nullptr);
    return 0;
}
