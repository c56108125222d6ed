// Writes media libraries into a device image: the three SQLite databases a
// phone keeps for music, photos and voice recordings, and the files their
// rows point at. The tables hold the columns the file system's /Media views
// read (with the types a phone gives them); a phone's many other columns are
// left out.
#include "devsim/media_library.h"

#include <sqlite3.h>
#include <stdio.h>
// jpeglib.h needs size_t and FILE declared first.
#include <jpeglib.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <map>
#include <set>

namespace devsim {

namespace fs = std::filesystem;

namespace {

// Device paths of cloud resources and recordings start with the media root
// "/var/mobile/Media"; the rest is relative to the image's media folder.
const size_t kDeviceMediaRootLength = 17;

// Seconds from 1970-01-01 to 2001-01-01, the epoch of the databases' dates.
const int64_t kEpoch2001 = 978307200;

// Owns one open database; closing twice is harmless.
struct Database {
  sqlite3* db = nullptr;
  ~Database() {
    if (db) sqlite3_close_v2(db);
  }
};

struct Statement {
  sqlite3_stmt* stmt = nullptr;
  ~Statement() { sqlite3_finalize(stmt); }
};

// A database with its companions; a phone's may be in WAL mode, and a stale
// -wal beside a fresh main file would be replayed into it.
void remove_database(const fs::path& file) {
  std::error_code ec;
  for (const char* suffix : {"", "-shm", "-wal", "-journal"}) fs::remove(file.string() + suffix, ec);
}

bool exec(sqlite3* db, const std::string& sql, std::string& error) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    error = std::string(message ? message : "sqlite3_exec failed") + " in: " + sql.substr(0, 120);
    sqlite3_free(message);
    return false;
  }
  return true;
}

bool prepare(sqlite3* db, const std::string& sql, Statement& statement, std::string& error) {
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement.stmt, nullptr) != SQLITE_OK) {
    error = std::string(sqlite3_errmsg(db)) + " in: " + sql;
    return false;
  }
  return true;
}

// Opens a new, empty database in rollback-journal mode inside a transaction:
// one transaction keeps tens of thousands of inserts fast.
bool open_fresh(const fs::path& file, Database& database, std::string& error) {
  remove_database(file);
  std::error_code ec;
  fs::create_directories(file.parent_path(), ec);
  if (sqlite3_open_v2(file.c_str(), &database.db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) != SQLITE_OK) {
    error = file.string() + ": " + (database.db ? sqlite3_errmsg(database.db) : "cannot open");
    return false;
  }
  return exec(database.db, "PRAGMA journal_mode=DELETE; PRAGMA synchronous=OFF; BEGIN", error);
}

// Commits and closes, so that neither a journal nor -wal/-shm stays behind.
// The statements still open are finalized by their owners just after, which
// completes the close.
bool close_database(const fs::path& file, Database& database, std::string& error) {
  if (!exec(database.db, "COMMIT", error)) return false;
  if (sqlite3_close_v2(database.db) != SQLITE_OK) {
    error = file.string() + ": " + sqlite3_errmsg(database.db);
    return false;
  }
  database.db = nullptr;
  return true;
}

void bind_value(sqlite3_stmt* s, int i, int v) { sqlite3_bind_int(s, i, v); }
// GCC 12 at -O2 reports the payload of an empty std::optional as maybe
// uninitialized here, though it is read only when engaged.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
void bind_value(sqlite3_stmt* s, int i, int64_t v) { sqlite3_bind_int64(s, i, v); }
#pragma GCC diagnostic pop
void bind_value(sqlite3_stmt* s, int i, const std::string& v) {
  // Copied: a value may be a temporary that is gone before the step.
  sqlite3_bind_text(s, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
}
template <class T>
void bind_value(sqlite3_stmt* s, int i, const std::optional<T>& v) {
  if (v.has_value()) {
    bind_value(s, i, *v);
  } else {
    sqlite3_bind_null(s, i);
  }
}

// Binds the values to ?1, ?2, ... in order and runs the statement once.
template <class... Values>
bool insert_row(sqlite3* db, Statement& statement, std::string& error, const Values&... values) {
  int index = 0;
  (bind_value(statement.stmt, ++index, values), ...);
  int rc = sqlite3_step(statement.stmt);
  sqlite3_reset(statement.stmt);
  sqlite3_clear_bindings(statement.stmt);
  if (rc != SQLITE_DONE) {
    error = sqlite3_errmsg(db);
    return false;
  }
  return true;
}

// Writes media files, creating each folder once (large libraries put a
// thousand files in one folder).
struct FileWriter {
  fs::path root;
  std::set<fs::path> made_folders;
};

// A path below the media root; a leading "/" must not make it absolute.
fs::path under(const fs::path& root, const std::string& relative) {
  size_t start = relative.find_first_not_of('/');
  return start == std::string::npos ? root : root / relative.substr(start);
}

bool write_media_file(FileWriter& writer, const std::string& relative, const std::string& bytes, std::string& error) {
  fs::path path = under(writer.root, relative);
  fs::path folder = path.parent_path();
  if (writer.made_folders.insert(folder).second) {
    std::error_code ec;
    fs::create_directories(folder, ec);
  }
  FILE* out = fopen(path.c_str(), "wb");
  bool ok = out && fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
  if (out && fclose(out) != 0) ok = false;
  if (!ok) error = path.string() + ": cannot write";
  return ok;
}

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string format(const char* pattern, long long value) {
  char text[64];
  snprintf(text, sizeof text, pattern, value);
  return text;
}

int64_t size_of(const std::optional<int64_t>& recorded, const std::string& bytes) {
  return recorded ? *recorded : static_cast<int64_t>(bytes.size());
}

bool write_music(const fs::path& file, FileWriter& files, const std::vector<MediaSong>& songs, std::string& error) {
  Database database;
  if (!open_fresh(file, database, error)) return false;
  sqlite3* db = database.db;
  if (!exec(db,
            "CREATE TABLE base_location (base_location_id INTEGER PRIMARY KEY, path TEXT);"
            "CREATE TABLE item_artist (item_artist_pid INTEGER PRIMARY KEY, item_artist TEXT);"
            "CREATE TABLE item (item_pid INTEGER PRIMARY KEY, item_artist_pid INTEGER NOT NULL DEFAULT 0,"
            " base_location_id INTEGER NOT NULL DEFAULT 0);"
            "CREATE TABLE item_extra (item_pid INTEGER PRIMARY KEY, title TEXT, location TEXT,"
            " file_size INTEGER NOT NULL DEFAULT 0, media_kind INTEGER NOT NULL DEFAULT 0);",
            error)) {
    return false;
  }
  Statement add_location, add_artist, add_item, add_extra;
  if (!prepare(db, "INSERT INTO base_location VALUES (?1, ?2)", add_location, error) ||
      !prepare(db, "INSERT INTO item_artist VALUES (?1, ?2)", add_artist, error) ||
      !prepare(db, "INSERT INTO item VALUES (?1, ?2, ?3)", add_item, error) ||
      !prepare(db, "INSERT INTO item_extra VALUES (?1, ?2, ?3, ?4, ?5)", add_extra, error)) {
    return false;
  }
  // One row per distinct artist and folder, as the phone shares them. A song
  // without artist points at artist 0, which has no row, so the outer join
  // yields NULL; a song without folder gets the one location row whose path
  // is NULL.
  std::map<std::string, int64_t> artists;
  std::map<std::optional<std::string>, int64_t> locations;
  int64_t item_pid = 0;
  for (const MediaSong& song : songs) {
    ++item_pid;
    int64_t artist_pid = 0;
    if (song.artist) {
      auto found = artists.find(*song.artist);
      if (found == artists.end()) {
        found = artists.emplace(*song.artist, static_cast<int64_t>(artists.size()) + 1).first;
        if (!insert_row(db, add_artist, error, found->second, *song.artist)) return false;
      }
      artist_pid = found->second;
    }
    auto location = locations.find(song.base_path);
    if (location == locations.end()) {
      location = locations.emplace(song.base_path, static_cast<int64_t>(locations.size()) + 1).first;
      if (!insert_row(db, add_location, error, location->second, song.base_path)) return false;
    }
    if (!insert_row(db, add_item, error, item_pid, artist_pid, location->second) ||
        !insert_row(db, add_extra, error, item_pid, song.title, song.location, size_of(song.db_file_size, song.bytes),
                    song.media_kind)) {
      return false;
    }
    if (song.write_file && song.base_path && song.location &&
        !write_media_file(files, *song.base_path + "/" + *song.location, song.bytes, error)) {
      return false;
    }
  }
  return close_database(file, database, error);
}

// A stable UUID-shaped text per asset; the cloud tables find an asset's
// resources by it.
std::string asset_uuid(int64_t pk) {
  char text[64];
  snprintf(text, sizeof text, "%08llX-0000-4000-8000-%012llX", static_cast<unsigned long long>(pk),
           static_cast<unsigned long long>(pk * 2654435761u));
  return text;
}

// The album-to-asset link table, named after the entity numbers as Core
// Data names many-to-many tables.
std::string link_table_sql(const std::string& album, const std::string& asset) {
  return "CREATE TABLE Z_" + album + "ASSETS (Z_" + album + "ALBUMS INTEGER, Z_" + asset + "ASSETS INTEGER, Z_FOK_" +
         asset + "ASSETS INTEGER, PRIMARY KEY (Z_" + album + "ALBUMS, Z_" + asset + "ASSETS));"
         "CREATE INDEX Z_" + album + "ASSETS_Z_" + asset + "ASSETS_INDEX ON Z_" + album + "ASSETS (Z_" + asset +
         "ASSETS, Z_" + album + "ALBUMS);";
}

std::string photo_schema(PhotoFamily family, const PhotoEntities& e) {
  const std::string album = std::to_string(e.album);
  const std::string asset = std::to_string(e.generic_asset);
  std::string sql =
      "CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, Z_MAX INTEGER);"
      "CREATE TABLE ZGENERICASSET (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZKIND INTEGER,"
      " ZKINDSUBTYPE INTEGER, ZTRASHEDSTATE INTEGER, ZVISIBILITYSTATE INTEGER, ZAVALANCHEPICKTYPE INTEGER,"
      " ZMOMENT INTEGER, ZADDITIONALATTRIBUTES INTEGER, ZMASTER INTEGER, ZDATECREATED TIMESTAMP,"
      " ZMODIFICATIONDATE TIMESTAMP, ZDIRECTORY VARCHAR, ZFILENAME VARCHAR, ZUUID VARCHAR,"
      " ZCLOUDASSETGUID VARCHAR);"
      "CREATE TABLE ZMOMENT (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER,"
      " ZREPRESENTATIVEDATE TIMESTAMP);"
      "CREATE TABLE ZADDITIONALASSETATTRIBUTES (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER,"
      " ZASSET INTEGER, ZCAMERACAPTUREDEVICE INTEGER, ZCLOUDMASTER INTEGER, ZORIGINALFILESIZE INTEGER,"
      " ZORIGINALFILENAME VARCHAR);"
      "CREATE TABLE ZGENERICALBUM (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZKIND INTEGER,"
      " ZTRASHEDSTATE INTEGER, ZCACHEDCOUNT INTEGER, ZTITLE VARCHAR);" +
      link_table_sql(album, asset);
  if (family == PhotoFamily::cloud) {
    sql +=
        "CREATE TABLE ZCLOUDMASTER (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER,"
        " ZORIGINALFILENAME VARCHAR);"
        "CREATE TABLE ZCLOUDRESOURCE (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER,"
        " ZISLOCALLYAVAILABLE INTEGER, ZTYPE INTEGER, ZCLOUDMASTER INTEGER, ZFILESIZE INTEGER,"
        " ZFILEPATH VARCHAR, ZASSETUUID VARCHAR);"
        "CREATE INDEX ZCLOUDRESOURCE_ZCLOUDMASTER_INDEX ON ZCLOUDRESOURCE (ZCLOUDMASTER);"
        "CREATE INDEX ZCLOUDRESOURCE_ZASSETUUID_INDEX ON ZCLOUDRESOURCE (ZASSETUUID);";
  }
  return sql;
}

bool write_photos(const fs::path& file, FileWriter& files, const MediaLibrary& library, std::string& error) {
  Database database;
  if (!open_fresh(file, database, error)) return false;
  sqlite3* db = database.db;
  const PhotoEntities& e = library.entities;
  const bool cloud = library.photo_family == PhotoFamily::cloud;
  if (!exec(db, photo_schema(library.photo_family, e), error)) return false;
  const std::string album = std::to_string(e.album);
  const std::string asset = std::to_string(e.generic_asset);
  Statement add_asset, add_moment, add_attributes, add_album, add_link, add_master, add_resource, add_entity;
  if (!prepare(db,
               "INSERT INTO ZGENERICASSET (Z_PK, Z_ENT, Z_OPT, ZKIND, ZKINDSUBTYPE, ZTRASHEDSTATE, ZVISIBILITYSTATE,"
               " ZAVALANCHEPICKTYPE, ZMOMENT, ZADDITIONALATTRIBUTES, ZMASTER, ZDATECREATED, ZMODIFICATIONDATE,"
               " ZDIRECTORY, ZFILENAME, ZUUID, ZCLOUDASSETGUID)"
               " VALUES (?1, ?2, 1, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15, ?16)",
               add_asset, error) ||
      !prepare(db, "INSERT INTO ZMOMENT VALUES (?1, " + std::to_string(e.moment) + ", 1, ?2)", add_moment, error) ||
      !prepare(db,
               "INSERT INTO ZADDITIONALASSETATTRIBUTES VALUES (?1, " + std::to_string(e.additional_asset_attributes) +
                   ", 1, ?2, ?3, ?4, ?5, ?6)",
               add_attributes, error) ||
      !prepare(db, "INSERT INTO ZGENERICALBUM VALUES (?1, " + album + ", 1, ?2, ?3, ?4, ?5)", add_album, error) ||
      !prepare(db, "INSERT OR IGNORE INTO Z_" + album + "ASSETS VALUES (?1, ?2, ?3)", add_link, error) ||
      !prepare(db, "INSERT INTO Z_PRIMARYKEY VALUES (?1, ?2, ?3, ?4)", add_entity, error)) {
    return false;
  }
  if (cloud && (!prepare(db, "INSERT INTO ZCLOUDMASTER VALUES (?1, ?2, 1, ?3)", add_master, error) ||
                !prepare(db, "INSERT INTO ZCLOUDRESOURCE VALUES (?1, ?2, 1, ?3, ?4, ?5, ?6, ?7, ?8)", add_resource,
                         error))) {
    return false;
  }

  // Album keys first: the photos name the albums they are in by them.
  std::vector<int64_t> album_pks;
  std::map<int64_t, int64_t> album_sizes;
  for (size_t i = 0; i < library.albums.size(); ++i) {
    album_pks.push_back(library.albums[i].pk ? library.albums[i].pk : static_cast<int64_t>(i) + 1);
  }
  for (const MediaPhoto& photo : library.photos) {
    for (int64_t pk : photo.albums) ++album_sizes[pk];
  }

  // Entity numbers of the cloud tables come after every other one, so that
  // they never take a number a library asks for.
  int next_entity = std::max({e.additional_asset_attributes, e.album, e.generic_asset + 1, e.moment});
  for (const auto& extra : e.extra) next_entity = std::max(next_entity, extra.first);
  const int master_entity = next_entity + 1;
  const int resource_entity = next_entity + 2;

  std::map<int64_t, int64_t> moments;  // date -> Z_PK; photos of one moment share its row
  std::map<int64_t, int64_t> album_fill;
  int64_t asset_pk = 0, master_pk = 0, resource_pk = 0;
  for (const MediaPhoto& photo : library.photos) {
    ++asset_pk;
    std::optional<int64_t> moment_pk;
    if (photo.moment_date) {
      auto found = moments.find(*photo.moment_date);
      if (found == moments.end()) {
        found = moments.emplace(*photo.moment_date, static_cast<int64_t>(moments.size()) + 1).first;
        if (!insert_row(db, add_moment, error, found->second, *photo.moment_date)) return false;
      }
      moment_pk = found->second;
    }
    const std::string uuid = asset_uuid(asset_pk);
    // A master exists for every cloud asset that has a name or a resource;
    // older systems link it from the attributes, 9.3 on from the asset.
    std::optional<int64_t> master;
    if (cloud && (photo.cloud_original_filename || !photo.cloud_resources.empty())) {
      master = ++master_pk;
      if (!insert_row(db, add_master, error, *master, master_entity, photo.cloud_original_filename)) return false;
      for (const MediaCloudResource& resource : photo.cloud_resources) {
        if (!insert_row(db, add_resource, error, ++resource_pk, resource_entity, resource.locally_available,
                        resource.type, *master, size_of(resource.db_file_size, resource.bytes), resource.file_path,
                        uuid)) {
          return false;
        }
        if (resource.write_file && resource.file_path.size() > kDeviceMediaRootLength &&
            !write_media_file(files, resource.file_path.substr(kDeviceMediaRootLength), resource.bytes, error)) {
          return false;
        }
      }
    }
    std::optional<int64_t> asset_master = library.cloud_master_in_asset ? master : std::nullopt;
    std::optional<int64_t> attributes_master = library.cloud_master_in_asset ? std::nullopt : master;
    if (!insert_row(db, add_asset, error, asset_pk, photo.entity.value_or(e.generic_asset + 1), photo.kind,
                    photo.subtype, photo.trashed, photo.visibility, photo.avalanche_pick_type, moment_pk, asset_pk,
                    asset_master, photo.date_created, photo.modification_date, photo.directory, photo.filename, uuid,
                    cloud ? std::optional<std::string>(uuid) : std::nullopt) ||
        !insert_row(db, add_attributes, error, asset_pk, asset_pk, photo.camera_capture_device, attributes_master,
                    size_of(photo.db_file_size, photo.bytes), photo.original_filename)) {
      return false;
    }
    for (int64_t album_pk : photo.albums) {
      if (!insert_row(db, add_link, error, album_pk, asset_pk, ++album_fill[album_pk])) return false;
    }
    if (photo.directory && photo.filename) {
      const std::string relative = *photo.directory + "/" + *photo.filename;
      if (photo.write_file && !write_media_file(files, relative, photo.bytes, error)) return false;
      // The file system finds a live photo's video by this same replacement.
      if (photo.subtype == 2 && photo.live_video_bytes &&
          !write_media_file(files, replace_all(relative, "JPG", "MOV"), *photo.live_video_bytes, error)) {
        return false;
      }
    }
  }

  int64_t max_album = 0;
  for (size_t i = 0; i < library.albums.size(); ++i) {
    const MediaAlbum& a = library.albums[i];
    const int64_t pk = album_pks[i];
    max_album = std::max(max_album, pk);
    int64_t count = a.cached_count ? *a.cached_count : album_sizes[pk];
    if (!insert_row(db, add_album, error, pk, a.kind, a.trashed, count, a.title)) return false;
  }

  // The entity table. An "Asset" row (the concrete kind of GenericAsset)
  // is added when its number is free, as on a phone.
  std::vector<std::pair<int, std::string>> entities = {{e.additional_asset_attributes, "AdditionalAssetAttributes"},
                                                       {e.album, "Album"},
                                                       {e.generic_asset, "GenericAsset"},
                                                       {e.moment, "Moment"}};
  entities.insert(entities.end(), e.extra.begin(), e.extra.end());
  std::set<int> taken;
  for (const auto& entity : entities) taken.insert(entity.first);
  if (!taken.count(e.generic_asset + 1)) entities.push_back({e.generic_asset + 1, "Asset"});
  if (cloud) {
    entities.push_back({master_entity, "CloudMaster"});
    entities.push_back({resource_entity, "CloudResource"});
  }
  for (const auto& entity : entities) {
    int64_t max = 0, super = 0;
    const std::string& name = entity.second;
    if (name == "AdditionalAssetAttributes" || name == "GenericAsset" || name == "Asset") max = asset_pk;
    if (name == "Asset") super = e.generic_asset;
    if (name == "Album") max = max_album;
    if (name == "Moment") max = static_cast<int64_t>(moments.size());
    if (name == "CloudMaster") max = master_pk;
    if (name == "CloudResource") max = resource_pk;
    if (!insert_row(db, add_entity, error, entity.first, name, super, max)) {
      error = "entity " + std::to_string(entity.first) + " " + name + ": " + error;
      return false;
    }
  }
  return close_database(file, database, error);
}

// The extension of a file name after its last dot, upper-cased; empty when
// there is none.
std::string extension_of(const std::string& name) {
  size_t dot = name.rfind('.');
  std::string extension = dot == std::string::npos ? "" : name.substr(dot + 1);
  for (char& c : extension) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return extension;
}

// The uniform type identifier a phone records for a file of this name.
std::string uti_for(const std::string& name) {
  const std::string extension = extension_of(name);
  if (extension == "HEIC") return "public.heic";
  if (extension == "JPG" || extension == "JPEG") return "public.jpeg";
  if (extension == "PNG") return "public.png";
  if (extension == "MOV") return "com.apple.quicktime-movie";
  if (extension == "MP4") return "public.mpeg-4";
  return "public.data";
}

// A modern live photo's video: the still's path with its extension replaced.
std::string live_video_path(const std::string& still) {
  size_t dot = still.rfind('.');
  size_t slash = still.rfind('/');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return still + ".MOV";
  return still.substr(0, dot + 1) + "MOV";
}

std::string modern_photo_schema(int version, const ModernEntities& e) {
  const std::string album = std::to_string(e.album);
  const std::string asset = std::to_string(e.asset);
  // ZINTERNALRESOURCE names the type by text from iOS 15 on (ZCOMPACTUTI).
  const std::string resource_type_column = version >= 15 ? " ZCOMPACTUTI VARCHAR," : "";
  return "CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, Z_MAX INTEGER);"
         "CREATE TABLE ZASSET (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZKIND INTEGER,"
         " ZKINDSUBTYPE INTEGER, ZPLAYBACKSTYLE INTEGER, ZTRASHEDSTATE INTEGER, ZTRASHEDDATE TIMESTAMP,"
         " ZHIDDEN INTEGER, ZVISIBILITYSTATE INTEGER, ZAVALANCHEPICKTYPE INTEGER, ZAVALANCHEUUID VARCHAR,"
         " ZCLOUDLOCALSTATE INTEGER, ZDERIVEDCAMERACAPTUREDEVICE INTEGER, ZMOMENT INTEGER,"
         " ZADDITIONALATTRIBUTES INTEGER, ZMASTER INTEGER, ZDATECREATED TIMESTAMP, ZADDEDDATE TIMESTAMP,"
         " ZMODIFICATIONDATE TIMESTAMP, ZDIRECTORY VARCHAR, ZFILENAME VARCHAR, ZUNIFORMTYPEIDENTIFIER VARCHAR,"
         " ZUUID VARCHAR);"
         "CREATE TABLE ZMOMENT (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZSTARTDATE TIMESTAMP,"
         " ZENDDATE TIMESTAMP, ZREPRESENTATIVEDATE TIMESTAMP);"
         "CREATE TABLE ZADDITIONALASSETATTRIBUTES (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER,"
         " ZASSET INTEGER, ZCAMERACAPTUREDEVICE INTEGER, ZORIGINALFILESIZE INTEGER, ZORIGINALFILENAME VARCHAR,"
         " ZMASTERFINGERPRINT VARCHAR);"
         "CREATE TABLE ZINTERNALRESOURCE (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZASSET INTEGER,"
         " ZRESOURCETYPE INTEGER, ZDATASTORESUBTYPE INTEGER, ZLOCALAVAILABILITY INTEGER,"
         " ZREMOTEAVAILABILITY INTEGER, ZCLOUDLOCALSTATE INTEGER, ZDATALENGTH INTEGER," +
         resource_type_column +
         " ZFINGERPRINT VARCHAR);"
         "CREATE INDEX ZINTERNALRESOURCE_ZASSET_INDEX ON ZINTERNALRESOURCE (ZASSET);"
         "CREATE TABLE ZGENERICALBUM (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZKIND INTEGER,"
         " ZTRASHEDSTATE INTEGER, ZCACHEDCOUNT INTEGER, ZCACHEDPHOTOSCOUNT INTEGER, ZCACHEDVIDEOSCOUNT INTEGER,"
         " ZTITLE VARCHAR, ZUUID VARCHAR);" +
         link_table_sql(album, asset);
}

// The modern library: ZASSET rows of entity "Asset", one ZINTERNALRESOURCE
// row per original (and per live photo video) saying whether the file is on
// the device, albums whose entity follows their kind.
bool write_modern_photos(const fs::path& file, FileWriter& files, const MediaLibrary& library, std::string& error) {
  const int version = library.modern_version;
  ModernEntities e;
  if (!modern_entities(version, e)) {
    error = "modern photo library: no iOS " + std::to_string(version) + " (14 to 18)";
    return false;
  }
  Database database;
  if (!open_fresh(file, database, error)) return false;
  sqlite3* db = database.db;
  if (!exec(db, modern_photo_schema(version, e), error)) return false;
  const std::string album = std::to_string(e.album);
  // The type text is ?10; iOS 14 has no column for it, and SQLite accepts a
  // binding of a number the statement leaves out.
  const std::string resource_values = version >= 15 ? "?1, ?2, 1, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11"
                                                     : "?1, ?2, 1, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?11";
  Statement add_asset, add_moment, add_attributes, add_resource, add_album, add_link, add_entity;
  if (!prepare(db,
               "INSERT INTO ZASSET VALUES (?1, " + std::to_string(e.asset) +
                   ", 1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, NULL, ?15, ?16, ?17, ?18, ?19, ?20,"
                   " ?21)",
               add_asset, error) ||
      !prepare(db, "INSERT INTO ZMOMENT VALUES (?1, " + std::to_string(e.moment) + ", 1, ?2, ?2, ?2)", add_moment,
               error) ||
      !prepare(db,
               "INSERT INTO ZADDITIONALASSETATTRIBUTES VALUES (?1, " +
                   std::to_string(e.additional_asset_attributes) + ", 1, ?2, ?3, ?4, ?5, ?6)",
               add_attributes, error) ||
      !prepare(db, "INSERT INTO ZINTERNALRESOURCE VALUES (" + resource_values + ")", add_resource, error) ||
      !prepare(db, "INSERT INTO ZGENERICALBUM VALUES (?1, ?2, 1, ?3, ?4, ?5, ?6, ?7, ?8, ?9)", add_album, error) ||
      !prepare(db, "INSERT OR IGNORE INTO Z_" + album + "ASSETS VALUES (?1, ?2, ?3)", add_link, error) ||
      !prepare(db, "INSERT INTO Z_PRIMARYKEY VALUES (?1, ?2, ?3, ?4)", add_entity, error)) {
    return false;
  }

  std::vector<int64_t> album_pks;
  for (size_t i = 0; i < library.albums.size(); ++i) {
    album_pks.push_back(library.albums[i].pk ? library.albums[i].pk : static_cast<int64_t>(i) + 1);
  }
  // An iCloud library: every asset is synced once one original is only there.
  const bool icloud = std::any_of(library.photos.begin(), library.photos.end(),
                                  [](const MediaPhoto& p) { return p.cloud_only; });
  std::map<int64_t, int64_t> moments;
  std::map<int64_t, int64_t> album_fill, album_photos, album_videos;
  int64_t asset_pk = 0, resource_pk = 0;
  for (const MediaPhoto& photo : library.photos) {
    ++asset_pk;
    std::optional<int64_t> moment_pk;
    if (photo.moment_date) {
      auto found = moments.find(*photo.moment_date);
      if (found == moments.end()) {
        found = moments.emplace(*photo.moment_date, static_cast<int64_t>(moments.size()) + 1).first;
        if (!insert_row(db, add_moment, error, found->second, *photo.moment_date)) return false;
      }
      moment_pk = found->second;
    }
    const bool video = photo.kind == 1;
    const bool live = photo.subtype == 2 && !video;
    const int playback_style = video ? 4 : live ? 3 : 1;
    std::optional<std::string> uti = photo.uti;
    if (!uti && photo.filename) uti = uti_for(*photo.filename);
    std::optional<int64_t> trashed_date;
    if (photo.trashed) trashed_date = photo.modification_date;
    const std::string uuid = asset_uuid(asset_pk);
    const std::string fingerprint = "F" + uuid;
    const int64_t size = size_of(photo.db_file_size, photo.bytes);
    if (!insert_row(db, add_asset, error, asset_pk, photo.kind, photo.subtype, playback_style, photo.trashed,
                    trashed_date, photo.hidden ? 1 : 0, photo.visibility, photo.avalanche_pick_type,
                    photo.avalanche_uuid, icloud ? 1 : 0, photo.camera_capture_device, moment_pk, asset_pk,
                    photo.date_created, photo.date_created, photo.modification_date, photo.directory, photo.filename,
                    uti, uuid) ||
        !insert_row(db, add_attributes, error, asset_pk, asset_pk, photo.camera_capture_device, size,
                    photo.original_filename, fingerprint)) {
      return false;
    }
    // The original's resource (data store subtype 1): resource type 0 for a
    // photo, 1 for a video, 6 for a screenshot; a live photo's video is a
    // second one of type 3. Local availability 1 on the device, -1 only in
    // iCloud.
    const int local = photo.cloud_only ? -1 : 1;
    const int remote = icloud ? 1 : 0;
    const int cloud_state = icloud ? 3 : 0;
    const int resource_type = video ? 1 : photo.subtype == 10 ? 6 : 0;
    if (!insert_row(db, add_resource, error, ++resource_pk, e.internal_resource, asset_pk, resource_type, 1, local,
                    remote, cloud_state, size, uti, fingerprint)) {
      return false;
    }
    if (live && photo.live_video_bytes) {
      const int64_t video_size = static_cast<int64_t>(photo.live_video_bytes->size());
      if (!insert_row(db, add_resource, error, ++resource_pk, e.internal_resource, asset_pk, 3, 1, local, remote,
                      cloud_state, video_size, std::string("com.apple.quicktime-movie"), "V" + uuid)) {
        return false;
      }
    }
    for (int64_t album_pk : photo.albums) {
      if (!insert_row(db, add_link, error, album_pk, asset_pk, ++album_fill[album_pk])) return false;
      ++(video ? album_videos : album_photos)[album_pk];
    }
    if (photo.directory && photo.filename && !photo.cloud_only) {
      const std::string relative = *photo.directory + "/" + *photo.filename;
      if (photo.write_file && !write_media_file(files, relative, photo.bytes, error)) return false;
      if (live && photo.live_video_bytes &&
          !write_media_file(files, live_video_path(relative), *photo.live_video_bytes, error)) {
        return false;
      }
    }
  }

  int64_t max_album = 0;
  for (size_t i = 0; i < library.albums.size(); ++i) {
    const MediaAlbum& a = library.albums[i];
    const int64_t pk = album_pks[i];
    max_album = std::max(max_album, pk);
    const std::string entity_name = modern_album_entity(a.kind);
    const int entity = entity_name == "CloudSharedAlbum"   ? e.cloud_shared_album
                       : entity_name == "PhotoStreamAlbum" ? e.photo_stream_album
                       : entity_name == "FetchingAlbum"    ? e.fetching_album
                       : entity_name == "Folder"           ? e.folder
                       : entity_name == "ImportSession"    ? e.import_session
                                                           : e.album;
    const int64_t count = a.cached_count ? *a.cached_count : album_photos[pk] + album_videos[pk];
    if (!insert_row(db, add_album, error, pk, entity, a.kind, a.trashed, count, album_photos[pk], album_videos[pk],
                    a.title, format("%08llX-A1B0-4000-8000-000000000000", pk))) {
      return false;
    }
  }

  // Core Data keeps the highest key on a hierarchy's root entity; its
  // sub-entities list 0.
  struct Entity {
    int number;
    const char* name;
    int super;
    int64_t max;
  };
  const Entity entities[] = {
      {e.additional_asset_attributes, "AdditionalAssetAttributes", 0, asset_pk},
      {e.album_list, "AlbumList", 0, 0},
      {e.asset, "Asset", 0, asset_pk},
      {e.generic_album, "GenericAlbum", 0, max_album},
      {e.album, "Album", e.generic_album, 0},
      {e.cloud_shared_album, "CloudSharedAlbum", e.album, 0},
      {e.photo_stream_album, "PhotoStreamAlbum", e.album, 0},
      {e.fetching_album, "FetchingAlbum", e.generic_album, 0},
      {e.folder, "Folder", e.generic_album, 0},
      {e.import_session, "ImportSession", e.generic_album, 0},
      {e.internal_resource, "InternalResource", 0, resource_pk},
      {e.moment, "Moment", 0, static_cast<int64_t>(moments.size())},
  };
  for (const Entity& entity : entities) {
    if (!insert_row(db, add_entity, error, entity.number, std::string(entity.name), entity.super, entity.max)) {
      error = "entity " + std::to_string(entity.number) + " " + entity.name + ": " + error;
      return false;
    }
  }
  return close_database(file, database, error);
}

bool write_recordings(const fs::path& file, FileWriter& files, const std::vector<MediaRecording>& recordings,
                      std::string& error) {
  Database database;
  if (!open_fresh(file, database, error)) return false;
  sqlite3* db = database.db;
  if (!exec(db,
            "CREATE TABLE Z_PRIMARYKEY (Z_ENT INTEGER PRIMARY KEY, Z_NAME VARCHAR, Z_SUPER INTEGER, Z_MAX INTEGER);"
            "CREATE TABLE ZRECORDING (Z_PK INTEGER PRIMARY KEY, Z_ENT INTEGER, Z_OPT INTEGER, ZDATE TIMESTAMP,"
            " ZCUSTOMLABEL VARCHAR, ZPATH VARCHAR);",
            error)) {
    return false;
  }
  Statement add;
  if (!prepare(db, "INSERT INTO ZRECORDING VALUES (?1, 1, 1, ?2, ?3, ?4)", add, error)) return false;
  int64_t pk = 0;
  for (const MediaRecording& recording : recordings) {
    if (!insert_row(db, add, error, ++pk, recording.date, recording.label, recording.path)) return false;
    if (recording.write_file && recording.path && recording.path->size() > kDeviceMediaRootLength &&
        !write_media_file(files, recording.path->substr(kDeviceMediaRootLength), recording.bytes, error)) {
      return false;
    }
  }
  return exec(db, "INSERT INTO Z_PRIMARYKEY VALUES (1, 'Recording', 0, " + std::to_string(pk) + ")", error) &&
         close_database(file, database, error);
}

// Deterministic filler for audio and video files, which nothing decodes.
std::string placeholder_bytes(size_t length, uint32_t seed) {
  std::string bytes(length, '\0');
  uint32_t state = seed * 2654435761u + 1;
  for (char& c : bytes) {
    state = state * 1664525u + 1013904223u;
    c = static_cast<char>(state >> 24);
  }
  return bytes;
}

// "/var/mobile/Media/Recordings/20170102 101010.m4a" for a date (seconds
// since 2001), as the phone names its recordings.
std::string recording_path(int64_t date) {
  time_t unix_time = static_cast<time_t>(date + kEpoch2001);
  struct tm parts;
  gmtime_r(&unix_time, &parts);
  char name[32];
  strftime(name, sizeof name, "%Y%m%d %H%M%S", &parts);
  return std::string("/var/mobile/Media/Recordings/") + name + ".m4a";
}

// 2017-01-01 00:00 UTC in seconds since 2001.
const int64_t kStartOf2017 = 504921600;

// Turns the i-th generated asset into what a modern phone keeps: HEIC
// stills, PNG screenshots, every tenth original only in iCloud, a few
// hidden and trashed assets and a three-frame burst in every hundred.
void make_modern(MediaPhoto& photo, int i) {
  const std::string base = format("IMG_%04lld", i % 9999 + 1);
  if (photo.kind == 0) {
    if (photo.subtype == 10) {
      photo.filename = base + ".PNG";
      photo.bytes = std::string("\x89PNG\r\n\x1a\n", 8) + placeholder_bytes(150, static_cast<uint32_t>(i));
    } else {
      photo.filename = base + ".HEIC";
    }
  }
  photo.original_filename = photo.filename;
  photo.cloud_only = i % 10 == 4;
  photo.hidden = i % 50 == 17;
  photo.trashed = i % 50 == 29 ? 1 : 0;
  const int frame = i % 100 - 70;
  if (frame >= 0 && frame < 3 && photo.kind == 0 && photo.subtype == 0) {
    // The first frame is the burst's key photo; the others were not picked
    // and are not shown in the library.
    photo.avalanche_uuid = format("BURST-%08lld", i / 100);
    photo.avalanche_pick_type = frame == 0 ? 52 : 2;
    photo.visibility = frame == 0 ? 0 : 2;
  }
}

}  // namespace

std::string make_jpeg(int width, int height, uint32_t seed) {
  // libjpeg's default error handler exits the process; sizes it accepts are
  // all it could complain about here.
  width = std::min(std::max(width, 1), 4096);
  height = std::min(std::max(height, 1), 4096);
  jpeg_compress_struct info;
  jpeg_error_mgr errors;
  info.err = jpeg_std_error(&errors);
  jpeg_create_compress(&info);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&info, &buffer, &size);
  info.image_width = static_cast<JDIMENSION>(width);
  info.image_height = static_cast<JDIMENSION>(height);
  info.input_components = 3;
  info.in_color_space = JCS_RGB;
  jpeg_set_defaults(&info);
  jpeg_set_quality(&info, 85, TRUE);
  jpeg_start_compress(&info, TRUE);
  // A diagonal gradient whose colours and direction follow the seed, so that
  // different photos look different.
  const uint32_t r0 = (seed * 97u) & 255, g0 = (seed * 57u + 80) & 255, b0 = (seed * 31u + 160) & 255;
  std::vector<unsigned char> row(static_cast<size_t>(width) * 3);
  while (info.next_scanline < info.image_height) {
    const uint32_t y = info.next_scanline;
    for (int x = 0; x < width; ++x) {
      const uint32_t fx = static_cast<uint32_t>(x) * 255 / static_cast<uint32_t>(width);
      const uint32_t fy = y * 255 / static_cast<uint32_t>(height);
      row[x * 3] = static_cast<unsigned char>((r0 + fx) & 255);
      row[x * 3 + 1] = static_cast<unsigned char>((g0 + fy) & 255);
      row[x * 3 + 2] = static_cast<unsigned char>((b0 + (seed & 1 ? fx + fy : 510 - fx - fy) / 2) & 255);
    }
    JSAMPROW rows[1] = {row.data()};
    jpeg_write_scanlines(&info, rows, 1);
  }
  jpeg_finish_compress(&info);
  std::string jpeg(reinterpret_cast<const char*>(buffer), size);
  jpeg_destroy_compress(&info);
  free(buffer);
  return jpeg;
}

bool modern_entities(int modern_version, ModernEntities& out) {
  // GenericAlbum's number per major version, as the link tables Z_26ASSETS
  // (14), Z_27 (15), Z_28 (16 and 17.0 to 17.5), Z_29 (17.6 on), Z_30 (18)
  // show; Album follows it. The rest are picks of ours above them.
  int generic_album = 0;
  switch (modern_version) {
    case 14: generic_album = 25; break;
    case 15: generic_album = 26; break;
    case 16: generic_album = 27; break;
    case 17: generic_album = 28; break;
    case 18: generic_album = 29; break;
    default: return false;
  }
  ModernEntities e;
  e.generic_album = generic_album;
  e.album = generic_album + 1;
  e.cloud_shared_album = generic_album + 2;
  e.photo_stream_album = generic_album + 3;
  e.fetching_album = generic_album + 5;
  e.folder = generic_album + 6;
  e.import_session = generic_album + 7;
  e.internal_resource = generic_album + 12;
  e.moment = generic_album + 18;
  out = e;
  return true;
}

std::string modern_ios_version(int modern_version) {
  switch (modern_version) {
    case 14: return "14.8";
    case 15: return "15.8";
    case 16: return "16.7";
    case 17: return "17.6.1";
    case 18: return "18.1";
    default: return "";
  }
}

std::string modern_album_entity(int kind) {
  if (kind == 1505) return "CloudSharedAlbum";
  if (kind == 1500) return "PhotoStreamAlbum";
  if (kind >= 1600 && kind < 1700) return "FetchingAlbum";
  if (kind == 1506) return "ImportSession";
  if (kind == 3999 || kind == 4000) return "Folder";
  return "Album";
}

std::string make_heic_placeholder(size_t length, uint32_t seed) {
  // ftyp box: size 24, type, major brand, minor version 0, two compatible
  // brands.
  static const char kFtyp[] = {0, 0, 0, 24, 'f', 't', 'y', 'p', 'h', 'e', 'i', 'c', 0, 0,
                               0, 0, 'm', 'i', 'f', '1', 'h', 'e', 'i', 'c'};
  return std::string(kFtyp, sizeof kFtyp) + placeholder_bytes(length, seed);
}

bool write_media_library(const fs::path& media_root, const MediaLibrary& library, std::string& error) {
  FileWriter files{media_root, {}};
  const fs::path music = media_root / "iTunes_Control" / "iTunes" / "MediaLibrary.sqlitedb";
  const fs::path photos = media_root / "PhotoData" / "Photos.sqlite";
  const fs::path recordings = media_root / "Recordings" / "Recordings.db";
  for (const fs::path& file : {music, photos, recordings}) remove_database(file);
  return (!library.write_music_db || write_music(music, files, library.songs, error)) &&
         (!library.write_photo_db || (library.photo_family == PhotoFamily::modern
                                          ? write_modern_photos(photos, files, library, error)
                                          : write_photos(photos, files, library, error))) &&
         (!library.write_record_db || write_recordings(recordings, files, library.recordings, error));
}

MediaLibrary generated_media_library(PhotoFamily family, int photo_count, int song_count, int memo_count,
                                     int photo_width, int photo_height) {
  MediaLibrary library;
  library.photo_family = family;
  const bool modern = family == PhotoFamily::modern;
  // The camera roll has no title: titled albums are listed as user albums.
  // A modern library has no camera roll row; its user albums come first,
  // then one in the trash, a shared and a smart album.
  if (modern) {
    library.albums = {{1, std::string("Favourites"), 2, 0, std::nullopt},
                      {2, std::string("Family"), 2, 0, std::nullopt},
                      {3, std::string("Travel"), 2, 0, std::nullopt},
                      {4, std::string("Old trip"), 2, 1, std::nullopt},
                      {5, std::string("Shared with family"), 1505, 0, std::nullopt},
                      {6, std::string("Recently Saved"), 1600, 0, std::nullopt}};
  } else {
    library.albums = {{1, std::nullopt, 1000, 0, std::nullopt},
                      {2, std::string("Favourites"), 2, 0, std::nullopt},
                      {3, std::string("Family"), 2, 0, std::nullopt},
                      {4, std::string("Travel"), 2, 0, std::nullopt}};
  }
  // Stills share a few tiny JPEGs (modern: real HEIC pictures, every other
  // one turned a quarter or half round) made once: real images that cost
  // nothing to write fifty thousand times. Large pictures take seconds each
  // to encode, so there are fewer of them. Videos hold placeholder bytes.
  std::vector<std::string> stills;
  const bool large = static_cast<int64_t>(photo_width) * photo_height > 1000000;
  for (uint32_t seed = 0; seed < (modern && large ? 4u : 16u); ++seed) {
    if (!modern) {
      stills.push_back(make_jpeg(16, 16, seed));
      continue;
    }
    HeicStill still;
    still.width = photo_width;
    still.height = photo_height;
    still.seed = seed;
    still.orientation = seed % 4 == 1 ? 6 : seed % 4 == 3 ? 3 : 1;
    still.texture = large;
    still.date_taken = format("2021:06:%02lld 14:03:09", 1 + seed);
    std::string heic = make_heic(still);
    stills.push_back(heic.empty() ? make_heic_placeholder(200 + seed, seed) : heic);
  }
  library.photos.reserve(static_cast<size_t>(std::max(photo_count, 0)));
  for (int i = 0; i < photo_count; ++i) {
    MediaPhoto photo;
    // A thousand files per folder and names that wrap after IMG_9999, as on
    // a phone; repeated names show as "IMG_0001 (2).JPG" in one folder.
    const int number = i % 9999 + 1;
    const bool video = i % 10 == 9;
    photo.directory = format("DCIM/%03lldAPPLE", 100 + i / 1000);
    photo.filename = format(video ? "IMG_%04lld.MOV" : "IMG_%04lld.JPG", number);
    photo.original_filename = photo.filename;
    photo.date_created = kStartOf2017 + static_cast<int64_t>(i) * 1800;
    photo.modification_date = photo.date_created + 60;
    photo.moment_date = photo.date_created - photo.date_created % 86400;
    if (video) {
      photo.kind = 1;
      photo.bytes = placeholder_bytes(512 + i % 64, static_cast<uint32_t>(i));
    } else {
      photo.bytes = stills[static_cast<size_t>(i) % stills.size()];
      if (i % 7 == 6) {
        photo.subtype = 2;
        photo.live_video_bytes = placeholder_bytes(384 + i % 32, static_cast<uint32_t>(i) + 1);
      } else if (i % 50 == 3) {
        photo.subtype = 1;
      } else if (i % 40 == 11) {
        photo.subtype = 10;
      } else if (i % 25 == 5) {
        photo.camera_capture_device = 1;
      }
    }
    if (modern) {
      make_modern(photo, i);
      if (i % 5 == 0) photo.albums.push_back(1 + (i / 5) % 3);
      if (i % 50 == 10) photo.albums.push_back(4);
      library.photos.push_back(std::move(photo));
      continue;
    }
    photo.albums.push_back(1);
    if (i % 5 == 0) photo.albums.push_back(2 + (i / 5) % 3);
    if (family == PhotoFamily::cloud) {
      photo.cloud_original_filename = photo.filename;
      MediaCloudResource original;
      original.file_path = "/var/mobile/Media/" + *photo.directory + "/" + *photo.filename;
      original.bytes = photo.bytes;
      original.write_file = false;  // the same file the asset row points at, written once
      photo.cloud_resources.push_back(original);
    }
    library.photos.push_back(std::move(photo));
  }

  const char* const artists[] = {"The Examples", "Quiet Hours", "Northbound", "Léa Martin", "Blue Harbour",
                                 "Seven Lanterns", "Copper Fields", "Night Orchard"};
  library.songs.reserve(static_cast<size_t>(std::max(song_count, 0)));
  for (int i = 0; i < song_count; ++i) {
    MediaSong song;
    // Four letters per file, spread so that neighbours do not look alike;
    // 7919 is prime, so no two of 26^4 indexes share a name.
    uint32_t code = static_cast<uint32_t>((static_cast<uint64_t>(i) * 7919 + 13) % (26 * 26 * 26 * 26));
    std::string name(4, 'A');
    for (char& c : name) {
      c = static_cast<char>('A' + code % 26);
      code /= 26;
    }
    song.base_path = format("iTunes_Control/Music/F%02lld", i % 50);
    if (i % 40 == 39) {
      song.media_kind = 2048;
      song.artist = std::nullopt;
      song.title = format("Film %lld", i / 40 + 1);
      song.location = name + ".m4v";
    } else if (i % 25 == 24) {
      song.media_kind = 4;
      song.artist = std::string("Sample Radio");
      song.title = format("Episode %lld", i / 25 + 1);
      song.location = name + ".mp3";
    } else {
      song.artist = std::string(artists[i % 8]);
      song.title = format("Song %lld", i + 1);
      song.location = name + ".mp3";
    }
    song.bytes = placeholder_bytes(1024 + i % 512, static_cast<uint32_t>(i) + 7);
    library.songs.push_back(std::move(song));
  }

  for (int i = 0; i < memo_count; ++i) {
    MediaRecording memo;
    memo.date = kStartOf2017 + static_cast<int64_t>(i) * 28800 + 3600;
    memo.label = format("Memo %lld", i + 1);
    memo.path = recording_path(memo.date);
    memo.bytes = placeholder_bytes(2048 + i % 256, static_cast<uint32_t>(i) + 3);
    library.recordings.push_back(std::move(memo));
  }
  return library;
}

MediaLibrary sample_media_library() {
  MediaLibrary library;
  library.photo_family = PhotoFamily::ios10;

  auto song = [](std::optional<std::string> artist, std::string title, std::string location, int kind,
                 uint32_t seed) {
    MediaSong s;
    s.artist = std::move(artist);
    s.title = std::move(title);
    s.location = std::move(location);
    s.base_path = format("iTunes_Control/Music/F%02lld", seed % 50);
    s.media_kind = kind;
    s.bytes = placeholder_bytes(4096 + seed * 100, seed);
    return s;
  };
  library.songs = {
      song(std::string("The Examples"), "Morning Light", "QWER.mp3", 1, 1),
      // The same artist and title again: listed with a " (2)" suffix.
      song(std::string("The Examples"), "Morning Light", "ASDF.mp3", 1, 2),
      song(std::string("L\xC3\xA9" "a Martin"), "Caf\xC3\xA9 du Soir", "ZXCV.m4a", 1, 3),
      song(std::nullopt, "Untitled Demo", "POIU.mp3", 1, 4),
      song(std::string("Sample Radio"), "Episode 1", "LKJH.mp3", 4, 5),
      song(std::nullopt, "Holiday Film", "MNBV.m4v", 2048, 6),
  };

  library.albums = {{1, std::nullopt, 1000, 0, std::nullopt},
                    {2, std::string("Holiday"), 2, 0, std::nullopt},
                    {3, std::string("Holiday"), 2, 0, std::nullopt},
                    {4, std::string("Shared"), 1500, 0, std::nullopt}};
  auto photo = [](int number, int kind, int subtype, std::vector<int64_t> albums) {
    MediaPhoto p;
    p.directory = std::string("DCIM/100APPLE");
    p.filename = format(kind == 1 ? "IMG_%04lld.MOV" : "IMG_%04lld.JPG", number);
    p.original_filename = p.filename;
    p.kind = kind;
    p.subtype = subtype;
    p.date_created = kStartOf2017 + 86400 * 180 + number * 600;
    p.modification_date = p.date_created + 30;
    p.moment_date = kStartOf2017 + 86400 * 180;
    p.bytes = kind == 1 ? placeholder_bytes(8192, static_cast<uint32_t>(number))
                        : make_jpeg(64, 48, static_cast<uint32_t>(number));
    p.albums = std::move(albums);
    return p;
  };
  MediaPhoto live = photo(1, 0, 2, {1, 2});
  live.live_video_bytes = placeholder_bytes(6000, 101);
  MediaPhoto plain = photo(5, 0, 0, {1, 3, 4});
  plain.moment_date = std::nullopt;  // no moment: the creation date stands in
  library.photos = {live, photo(2, 0, 1, {1, 2}), photo(3, 0, 10, {1}), photo(4, 1, 0, {1}), plain};

  for (int i = 0; i < 2; ++i) {
    MediaRecording memo;
    memo.date = kStartOf2017 + 86400 * 200 + i * 7200;
    memo.label = std::string(i == 0 ? "Interview" : "Shopping list");
    memo.path = recording_path(memo.date);
    memo.bytes = placeholder_bytes(3000 + static_cast<size_t>(i) * 500, 200 + static_cast<uint32_t>(i));
    library.recordings.push_back(memo);
  }
  return library;
}

}  // namespace devsim
