// The /Media area: music, podcasts, movies, voice memos and photo albums,
// built from copies of the device's own databases (never from its file tree,
// and never written back).
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/info_queries.h"
#include "tarnifs/mount.h"

// ---- Device databases -------------------------------------------------------

// Copies the media, photo and recordings databases (each with its -shm and
// -wal companions) into the work folder and opens the copies into media_db,
// photo_db and record_db. The result is that of opening the recordings copy.
int64_t DownloadDBandOpen(_CONTEXT *ctx);
// One device file into the work folder, as localName ("/Photos.sqlite").
int downloadfile(_CONTEXT *ctx, const char *devicePath, const char *localName);
// Opens the work folder's copy localName into *out; 0 also when there is none.
int opendb(_CONTEXT *ctx, const char *localName, sqlite3 **out);

// Database copies larger than this together (main files only) are announced
// to the tray helper as a long operation.
constexpr uint64_t kBusyDatabaseBytes = 3000000;

// ---- Media library views ----------------------------------------------------

// Lists one /Media folder below "/Media" into the catalogue (and the filler,
// when there is one). 0, -2, or the code of a query that did not prepare.
int enumMedia(_CONTEXT *ctx, const char *path, void *buffer, fuse_fill_dir_t filler);
// 0 when the dotted version text is at least major.minor, else -1.
int checkiOSVersion(const char *version, int major, int minor);

enum class LibraryFolder { music, podcast, movies };
// The name a song, podcast or movie row is shown under: "Artist-Title" and
// the extension of its file, cut and cleaned as the folder wants; "" (logged)
// when the row has no usable name. Null artist or title: NULL in the library.
std::string LibraryEntryName(const char *artist, const char *title, const std::string &location, LibraryFolder folder);

// Media-library folders of this many rows and more are announced as busy.
constexpr int64_t kBusyMediaRows = 301;

// ---- Photo library views ----------------------------------------------------

// A folder of /Media/Photo: stamped now, linked at the tail of `parent`,
// announced as `name`; albums keep their key in sub_type.
_KTL_OBJECT *MakePhotoFolder(_KTL_OBJECT *parent, const std::string &path, uint32_t albumKey, void *buffer,
                             fuse_fill_dir_t filler, const char *name);
// A kind folder ("Panoramas"...), made once however often it is found.
void MakePhotoKindFolder(_KTL_OBJECT *parent, const char *name, void *buffer, fuse_fill_dir_t filler);
// An album's folder name ("My Photo Stream" for kind 1500), "" when unusable.
std::string PhotoAlbumName(const std::string &title, int64_t kind);
// An album folder under /Media/Photo, " (2)", " (3)"... after a name taken.
void AddPhotoAlbum(_KTL_OBJECT *parent, const std::string &title, int64_t key, int64_t kind, void *buffer,
                   fuse_fill_dir_t filler);

struct _PHOTOALBUMENT {
    uint32_t additional_attributes_ent = 0;
    uint32_t album_ent = 0;
    uint32_t generic_asset_ent = 0;
    uint32_t asset_ent = 0;
    uint32_t moment_ent = 0;
};

int GetPhotoAlbumENT(sqlite3 *db, _PHOTOALBUMENT *out);
int EnumContentsForiOS_TEN(_CONTEXT *ctx, const char *path, int album_ent, int generic_asset_ent, int asset_ent,
                           fuse_fill_dir_t filler, void *buf);
int EnumNonCloudContents(_CONTEXT *ctx, const char *path, int album_ent, int generic_asset_ent, fuse_fill_dir_t filler,
                         void *buf);
int EnumCloudContents(_CONTEXT *ctx, const char *path, int album_ent, int generic_asset_ent, fuse_fill_dir_t filler,
                      void *buf);
// "Panoramas", "Screenshots", "Slo-mo", "Time-lapse", "Selfies", "Bursts", or
// null for a subtype that has no folder.
const char *getFolderNamefromSubtype(int subtype);

// Photo folders of this many rows and more are announced as busy.
constexpr int64_t kBusyPhotoRows = 501;

// What a folder below /Media/Photo shows, recognised by its path. The kind
// names after the first two are searched without a leading "/" on purpose:
// an album whose name holds one of them shows that kind's photos.
enum class PhotoFolderKind { camera_roll, recorded_videos, panoramas, screenshots, slo_mo, time_lapse, selfies, bursts, album };
PhotoFolderKind RecognisePhotoFolder(const char *path);

// ---- Photo libraries of iOS 14 and later -------------------------------------

// The library keeps its assets in ZASSET (iOS 14 on).
bool HasModernAssetTable(sqlite3 *db);
// /Media/Photo of such a library: Camera Roll, albums, kind folders, and
// the note on photos kept only in iCloud. 0.
int ListModernPhotoRoot(_CONTEXT *ctx, _KTL_OBJECT *parent, void *buffer, fuse_fill_dir_t filler);
// A folder below it. 0, -1 when the rows cannot be read, -2 to stop.
int EnumModernContents(_CONTEXT *ctx, const char *path, fuse_fill_dir_t filler, void *buf);
// "Not on this device.txt" in /Media/Photo, saying how many photos are
// only in iCloud and how to bring them onto the phone.
void MakeCloudOnlyNote(_CONTEXT *ctx, _KTL_OBJECT *parent, int64_t photos, void *buffer, fuse_fill_dir_t filler);
// Where a note's text is kept: the work folder + its name.
std::string NoteFileOf(_CONTEXT *ctx, const _KTL_OBJECT *note);

// ---- Photo entries ----------------------------------------------------------

// The columns of one photo row that an entry is made from, read from the
// statement before the device is asked (NULL columns read as absent text or 0).
struct PhotoRow {
    bool has_path = false;        // column 0 is not NULL
    std::string path;             // column 0: folder below the media root, or the cloud resource's device path
    bool has_file_name = false;   // column 1 is not NULL
    std::string file_name;        // column 1: stored name, or the cloud master's original name
    int32_t moment_date = 0;      // column 2
    int32_t modification_date = 0;  // column 3
    int64_t db_size = 0;          // column 4
    int64_t column5 = 0;          // column 5: creation date, or the cloud master's key
    bool has_original_name = false;  // column 7 is not NULL (non-cloud rows)
    std::string original_name;    // column 7: the name the photo was taken or imported with
    int64_t kind_subtype = 0;     // column 8 (non-cloud) or 7 (cloud)
};

// The columns of the row a photo query's statement is on (non-cloud rows:
// column 7 is the recorded name, 8 the subtype; cloud rows: 7 the subtype,
// absent from the cloud "Recorded Videos" query).
PhotoRow ReadPhotoRow(sqlite3_stmt *statement, bool is_cloud);

// A text column, or "" with *present false when it is NULL.
std::string ColumnText(sqlite3_stmt *statement, int column, bool *present);

// What the device said of one file the listing asked about.
using DeviceFileAnswer = EntryInfo;

// Makes the entry of one photo row (subtype 2: the video half of a live
// photo) in the folder `path`; `answer` is what the device said of the row's
// device path (DevicePathOfPhoto). 0 made, -1 skipped, -2 stop the listing.
int GetPhotoFromDevice(_CONTEXT *ctx, const char *path, fuse_fill_dir_t filler, const PhotoRow &row, void *buf,
                       bool is_cloud, int subtype, int32_t *last_master, const DeviceFileAnswer &answer);
// The device paths of the JPEG views made since the folder's listing began
// (lock held), in listing order.
extern std::vector<std::string> gListedJpegViews;
// Where the row's file lies, relative to the media root: "" when the row
// cannot name one (a cloud path shorter than the media root).
std::string DevicePathOfPhoto(const PhotoRow &row, bool is_cloud, int subtype);

// ---- Shared by the views ----------------------------------------------------

// The device's media root as the databases spell full paths.
constexpr size_t kMediaRootLength = 17;  // "/var/mobile/Media"

// Asks the device about each path, on the information stream when there are
// many; answers come back in the order asked.
std::vector<DeviceFileAnswer> AskDeviceAboutFiles(_CONTEXT *ctx, const std::vector<std::string> &paths);

// The candidate path for `name` in `folder` that no record holds yet: the
// name itself, else " (2)", " (3)"... inserted before the name's last "." (or
// appended when it has none, and always for folders).
std::string FreeEntryPath(const std::string &folder, const std::string &name, bool before_extension);

// A converted name is shown only when it is a single, real path component
// of at most NAME_MAX bytes.
bool IsUsableEntryName(const char *name);
