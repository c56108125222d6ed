// Media libraries in a device image, kept as a phone keeps them: the music
// library "iTunes_Control/iTunes/MediaLibrary.sqlitedb", the photo library
// "PhotoData/Photos.sqlite" and the voice recordings "Recordings/Recordings.db"
// under the image's media root, with the media files their rows point at.
//
// A library is described by plain records; write_media_library turns one
// into databases and files. Tests describe small libraries by hand (every
// awkward row they need), `devsim make-media` generates large ones and
// `devsim make-sample` writes the small library the demo shows.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace devsim {

// One row of the music library (tables item, item_artist, item_extra,
// base_location). The file lies at <media root>/<base_path>/<location>.
struct MediaSong {
  std::optional<std::string> artist;     // item_artist.item_artist; nullopt is NULL
  std::optional<std::string> title;      // item_extra.title
  std::optional<std::string> location;   // item_extra.location, e.g. "ABCD.mp3"
  std::optional<std::string> base_path;  // base_location.path, e.g. "iTunes_Control/Music/F00"
  int media_kind = 1;                    // 1 music, 4 podcast, 6 videocast, >10 movies (e.g. 1024)
  std::string bytes;                     // the file's content
  std::optional<int64_t> db_file_size;   // item_extra.file_size; nullopt: bytes.size()
  bool write_file = true;                // false: the row points at a file that is not there
};

// An album row of ZGENERICALBUM. Kind 2 is a user album, 1000 the camera
// roll, 1500 "My Photo Stream". Modern libraries (iOS 14 on) have no camera
// roll row; there 1505 is a shared album and 1600 to 1699 a smart album, and
// the row's entity follows the kind (see modern_album_entity).
struct MediaAlbum {
  int64_t pk = 0;                       // Z_PK; 0: numbered in order from 1
  std::optional<std::string> title;     // ZTITLE
  int kind = 2;                         // ZKIND
  int trashed = 0;                      // ZTRASHEDSTATE
  std::optional<int64_t> cached_count;  // ZCACHEDCOUNT; nullopt: the number of its assets
};

// What a cloud library keeps of one asset: its master (ZCLOUDMASTER) and
// its resources (ZCLOUDRESOURCE rows, ordered by the queries by master and
// type). A resource's file lies at its file_path less the 17-character media
// root "/var/mobile/Media".
struct MediaCloudResource {
  std::string file_path;                 // ZFILEPATH, full device path
  std::optional<int64_t> db_file_size;   // ZFILESIZE; nullopt: bytes.size()
  int type = 0;                          // ZTYPE
  int locally_available = 1;             // ZISLOCALLYAVAILABLE
  std::string bytes;
  bool write_file = true;
};

// One row of ZGENERICASSET (ZASSET in modern libraries) with its
// ZADDITIONALASSETATTRIBUTES and ZMOMENT. The file lies at
// <media root>/<directory>/<filename>; a live photo (subtype 2) also has its
// video at the same path with every "JPG" replaced by "MOV" (modern
// libraries: the extension replaced by "MOV", so IMG_0001.HEIC pairs with
// IMG_0001.MOV), written when live_video_bytes is set.
struct MediaPhoto {
  std::optional<std::string> directory;          // ZDIRECTORY, e.g. "DCIM/100APPLE"
  std::optional<std::string> filename;           // ZFILENAME, e.g. "IMG_0001.JPG"
  std::optional<std::string> original_filename;  // ZORIGINALFILENAME; nullopt: NULL
  int kind = 0;                                  // ZKIND: 0 photo, 1 video
  int subtype = 0;                               // ZKINDSUBTYPE: 1 panorama, 2 live, 10 screenshot, 101, 102
  int trashed = 0;                               // ZTRASHEDSTATE
  int visibility = 0;                            // ZVISIBILITYSTATE (1 hidden)
  int avalanche_pick_type = 0;                   // ZAVALANCHEPICKTYPE (bursts: 52, 16, 20)
  int camera_capture_device = 0;                 // ZCAMERACAPTUREDEVICE (1 front camera)
  std::optional<int64_t> moment_date;            // ZMOMENT.ZREPRESENTATIVEDATE, seconds since 2001; nullopt: no moment
  int64_t date_created = 0;                      // ZDATECREATED, seconds since 2001
  int64_t modification_date = 0;                 // ZMODIFICATIONDATE, seconds since 2001
  std::optional<int64_t> db_file_size;           // ZORIGINALFILESIZE; nullopt: bytes.size()
  std::optional<int> entity;                     // Z_ENT; nullopt: the asset entity (GenericAsset + 1)
  std::string bytes;                             // the still (or video) itself
  bool write_file = true;
  std::optional<std::string> live_video_bytes;   // subtype 2: the video half
  std::vector<int64_t> albums;                   // Z_PK of every album it belongs to
  // Modern libraries only.
  bool hidden = false;                           // ZHIDDEN (the visibility state stays as set)
  bool cloud_only = false;                       // original only in iCloud: no file written, resource not local
  std::optional<std::string> uti;                // ZUNIFORMTYPEIDENTIFIER; nullopt: from the file name's extension
  std::optional<std::string> avalanche_uuid;     // ZAVALANCHEUUID, shared by the frames of one burst
  // Cloud libraries only: the master's original file name and the resources.
  std::optional<std::string> cloud_original_filename;
  std::vector<MediaCloudResource> cloud_resources;
};

// One row of ZRECORDING. The file lies at path less its first 17 characters
// ("/var/mobile/Media"), under the media root.
struct MediaRecording {
  std::optional<std::string> label;  // ZCUSTOMLABEL
  std::optional<std::string> path;   // ZPATH, e.g. "/var/mobile/Media/Recordings/20170102 101010.m4a"
  int64_t date = 0;                  // ZDATE, seconds since 2001
  std::string bytes;
  bool write_file = true;
};

// The photo database families: iOS 10 to 13 (ZGENERICASSET), older without
// cloud masters, older with them, and modern (iOS 14 on: ZASSET, the asset
// entity "Asset" is a root entity, originals may be only in iCloud).
enum class PhotoFamily { ios10, older, cloud, modern };

// Entity numbers of Z_PRIMARYKEY; the album link table is named from them:
// Z_<album>ASSETS with columns Z_<album>ALBUMS and Z_<generic_asset>ASSETS.
struct PhotoEntities {
  int additional_asset_attributes = 1;
  int album = 19;
  int generic_asset = 32;  // the assets themselves carry generic_asset + 1
  int moment = 40;
  std::vector<std::pair<int, std::string>> extra;  // more Z_PRIMARYKEY rows, e.g. {50, "album"}
};

// Entity numbers of a modern library as its Z_PRIMARYKEY lists them. The
// link table is Z_<album>ASSETS with columns Z_<album>ALBUMS and
// Z_<asset>ASSETS. Album and GenericAlbum follow the major version (see
// docs/modern-photos.md); the numbers after `folder` are our own picks.
struct ModernEntities {
  int additional_asset_attributes = 1;
  int album_list = 2;
  int asset = 3;  // root entity "Asset"; the rows of ZASSET carry it
  int generic_album = 0;
  int album = 0;  // generic_album + 1
  int cloud_shared_album = 0;
  int photo_stream_album = 0;
  int fetching_album = 0;
  int folder = 0;
  int import_session = 0;
  int internal_resource = 0;
  int moment = 0;
};

// The modern versions devsim imitates: 14, 15, 16 (also 17.0 to 17.5), 17
// (17.6 on) and 18. False for any other.
bool modern_entities(int modern_version, ModernEntities& out);

// The ProductVersion a device of that version reports ("14.8", "15.8",
// "16.7", "17.6.1", "18.1"); empty for a version devsim does not imitate.
std::string modern_ios_version(int modern_version);

// The entity name a modern album row of this kind carries: "Album",
// "CloudSharedAlbum", "PhotoStreamAlbum", "FetchingAlbum", "Folder" or
// "ImportSession".
std::string modern_album_entity(int kind);

struct MediaLibrary {
  PhotoFamily photo_family = PhotoFamily::ios10;
  bool cloud_master_in_asset = true;  // cloud family: ZGENERICASSET.ZMASTER (9.3 on), else the attributes' ZCLOUDMASTER
  int modern_version = 17;            // modern family: 14, 15, 16, 17 or 18; entities from modern_entities()
  PhotoEntities entities;             // every family but modern
  std::vector<MediaSong> songs;
  std::vector<MediaAlbum> albums;
  std::vector<MediaPhoto> photos;
  std::vector<MediaRecording> recordings;
  bool write_music_db = true;   // false: no MediaLibrary.sqlitedb at all
  bool write_photo_db = true;
  bool write_record_db = true;
};

// Writes the databases and every file the rows point at under media_root
// (the image's "media" folder), replacing databases already there. False
// with `error` set when something cannot be written.
bool write_media_library(const std::filesystem::path& media_root, const MediaLibrary& library, std::string& error);

// A small valid JPEG of width x height pixels (a colour gradient picked by
// seed) that image viewers open.
std::string make_jpeg(int width, int height, uint32_t seed);

// Stand-in for an HEIC still: a real ISO-BMFF "ftyp" box of brand "heic"
// (compatible "mif1", "heic") followed by `length` deterministic bytes. File
// type probes see HEIC; image decoders do not open it.
std::string make_heic_placeholder(size_t length, uint32_t seed);

// What a real HEIC still shows and says of itself.
struct HeicStill {
  int width = 64;        // as stored, before the orientation is applied
  int height = 48;
  uint32_t seed = 0;     // picks the colours
  int orientation = 1;   // Exif orientation 1..8, also written as irot/imir
  int quality = 50;
  bool texture = false;  // grain, so that large pictures compress as photos do
  std::string model = "iPhone 12";
  std::string date_taken = "2021:06:05 14:03:09";  // Exif DateTimeOriginal
  int64_t latitude_millionths = 48856613;           // north
  int64_t longitude_millionths = 2352222;           // east
  // An ICC profile with this description ("" for none), as phones attach one.
  std::string icc_description = "Display P3 (devsim)";
};

// An HEIC file (HEVC through libheif) with an Exif block holding Make,
// Model, Orientation, DateTimeOriginal and GPS; "" when libheif cannot
// encode.
std::string make_heic(const HeicStill& still);

// A generated library for make-media: `photos` assets in the camera roll
// (every 10th a video, every 7th a live photo, a few panoramas and
// screenshots), spread over a few albums, `songs` songs and `memos` voice
// memos, with deterministic content. The modern family (at modern_version
// 17; change it afterwards for another) has HEIC stills, PNG screenshots,
// a tenth of the assets only in iCloud, a few hidden and trashed ones, a
// trashed album, a shared and a smart album.
// Modern stills are real HEIC pictures of photo_width x photo_height (some
// turned through their orientation).
MediaLibrary generated_media_library(PhotoFamily family, int photos, int songs, int memos, int photo_width = 64,
                                     int photo_height = 48);

// The library make-sample adds for the demo.
MediaLibrary sample_media_library();

}  // namespace devsim
