// The media libraries devsim writes into a device image, read back with
// SQLite the way the /Media views read a phone's databases.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdio.h>
#include <jpeglib.h>


#include "devsim/media_library.h"
#include "tests/support/media_images.h"

namespace {

using devsim::MediaLibrary;
using devsim::PhotoFamily;
using Rows = std::vector<std::vector<std::string>>;

// Every row of `sql` as text, "NULL" for NULL; "error: ..." when it cannot run.
Rows query(const std::string& db_path, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_stmt* statement = nullptr;
  Rows rows;
  if (sqlite3_open_v2(db_path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    rows.push_back({std::string("error: ") + sqlite3_errmsg(db)});
  }
  while (statement && sqlite3_step(statement) == SQLITE_ROW) {
    rows.emplace_back();
    for (int i = 0; i < sqlite3_column_count(statement); ++i) {
      const unsigned char* text = sqlite3_column_text(statement, i);
      rows.back().push_back(text ? reinterpret_cast<const char*>(text) : "NULL");
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return rows;
}

std::string table_sql(const std::string& db, const std::string& name) {
  Rows rows = query(db, "select sql from sqlite_master where name='" + name + "'");
  return rows.empty() ? "" : rows[0][0];
}

// The join of the album folders, entity numbers formatted in as the views do.
std::string album_join(int album, int asset) {
  char text[512];
  snprintf(text, sizeof text,
           " from ZGENERICALBUM left outer join Z_%dASSETS on ZGENERICALBUM.Z_PK=Z_%dASSETS.Z_%dALBUMS"
           " left outer join ZGENERICASSET on Z_%dASSETS.Z_%dASSETS=ZGENERICASSET.Z_PK"
           " left outer join ZADDITIONALASSETATTRIBUTES"
           " on ZGENERICASSET.ZADDITIONALATTRIBUTES=ZADDITIONALASSETATTRIBUTES.Z_PK",
           album, album, album, album, asset);
  return text;
}

class DevsimMediaLibraryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root = makeTempDir("media-library");
    library.entities.album = 7;
    library.entities.generic_asset = 12;
    library.entities.moment = 3;
    library.entities.additional_asset_attributes = 30;
    library.entities.extra = {{50, "Folder"}};
    library.albums = {{0, std::nullopt, 1000, 0, std::nullopt}, {0, std::string("Trip"), 2, 0, std::nullopt}};
    devsim::MediaPhoto live = mediaPhoto("DCIM/100APPLE", "IMG_0001.JPG", {1, 2}, 1, 5, 0);
    live.original_filename = std::string("Beach.JPG");
    live.subtype = 2;
    live.live_video_bytes = std::string("video");
    devsim::MediaPhoto unnamed = mediaPhoto("DCIM/100APPLE", "IMG_0002.JPG", {1}, 2, 5, 0);
    unnamed.original_filename = std::nullopt;
    library.photos = {live, unnamed};
  }
  void TearDown() override { removeTree(root); }

  std::string media() const { return root + "/media"; }
  std::string photo_db() const { return media() + "/PhotoData/Photos.sqlite"; }
  bool write(std::string& error) { return devsim::write_media_library(media(), library, error); }

  std::string entity(const std::string& name) const {
    Rows rows = query(photo_db(), "select Z_ENT from Z_PRIMARYKEY where Z_NAME='" + name + "'");
    return rows.empty() ? "none" : rows[0][0];
  }

  std::string root;
  MediaLibrary library;
};

TEST_F(DevsimMediaLibraryTest, LinkTableAndAssetEntityFollowTheEntityNumbers) {
  for (PhotoFamily family : {PhotoFamily::older, PhotoFamily::ios10}) {
    library.photo_family = family;
    std::string error;
    ASSERT_TRUE(write(error)) << error;
    // The joins below name Z_7ASSETS.Z_7ALBUMS and Z_7ASSETS.Z_12ASSETS: they
    // fail unless the numbers are followed.
    EXPECT_EQ(table_sql(photo_db(), "Z_19ASSETS"), "");
    EXPECT_EQ(table_sql(photo_db(), "ZCLOUDMASTER"), "");
    EXPECT_EQ(query(photo_db(), "select ZFILENAME, ZORIGINALFILENAME" + album_join(7, 12) +
                                    " where ZGENERICALBUM.Z_PK=2"),
              (Rows{{"IMG_0001.JPG", "Beach.JPG"}}));
    EXPECT_EQ(query(photo_db(), "select ZFILENAME, ZORIGINALFILENAME, ZCACHEDCOUNT" + album_join(7, 12) +
                                    " where ZGENERICALBUM.ZKIND like 1000 order by ZFILENAME"),
              (Rows{{"IMG_0001.JPG", "Beach.JPG", "2"}, {"IMG_0002.JPG", "NULL", "2"}}));
    EXPECT_EQ(query(photo_db(), "select distinct Z_ENT from ZGENERICASSET"), (Rows{{"13"}}));
    EXPECT_EQ(query(photo_db(), "select Z_ENT, Z_NAME from Z_PRIMARYKEY order by Z_ENT"),
              (Rows{{"3", "Moment"}, {"7", "Album"}, {"12", "GenericAsset"}, {"13", "Asset"},
                    {"30", "AdditionalAssetAttributes"}, {"50", "Folder"}}));
    EXPECT_EQ(readLocal(media() + "/DCIM/100APPLE/IMG_0001.MOV"), "video");
    EXPECT_FALSE(exists(media() + "/DCIM/100APPLE/IMG_0002.MOV"));
  }
}

TEST_F(DevsimMediaLibraryTest, CloudResourcesAreFoundThroughEitherMasterLink) {
  library.photo_family = PhotoFamily::cloud;
  library.photos[0].cloud_original_filename = std::string("Beach.JPG");
  devsim::MediaCloudResource resource;
  resource.file_path = "/var/mobile/Media/PhotoData/CPLAssets/group1/A.JPG";
  resource.bytes = "resource";
  library.photos[0].cloud_resources = {resource};
  for (bool in_asset : {true, false}) {
    library.cloud_master_in_asset = in_asset;
    std::string error;
    ASSERT_TRUE(write(error)) << error;
    const std::string master = in_asset ? "ZGENERICASSET.ZMASTER" : "ZADDITIONALASSETATTRIBUTES.ZCLOUDMASTER";
    EXPECT_EQ(query(photo_db(), "select ZCLOUDRESOURCE.ZFILEPATH, ZCLOUDMASTER.ZORIGINALFILENAME,"
                                " ZCLOUDRESOURCE.ZFILESIZE" + album_join(7, 12) +
                                    " left outer join ZCLOUDMASTER on " + master +
                                    "=ZCLOUDMASTER.Z_PK left outer join ZCLOUDRESOURCE on"
                                    " ZCLOUDRESOURCE.ZASSETUUID like ZGENERICASSET.ZUUID"
                                    " where ZGENERICALBUM.ZKIND like 1000 and ZCLOUDRESOURCE.ZCLOUDMASTER is not"
                                    " NULL order by ZCLOUDRESOURCE.ZCLOUDMASTER, ZCLOUDRESOURCE.ZTYPE"),
              (Rows{{resource.file_path, "Beach.JPG", "8"}}));
    EXPECT_EQ(readLocal(media() + "/PhotoData/CPLAssets/group1/A.JPG"), "resource");
  }
}

TEST_F(DevsimMediaLibraryTest, MusicAndRecordingsKeepNullsAndPlaceFilesAndSkippedDatabasesGo) {
  devsim::MediaSong song;
  song.artist = std::nullopt;
  song.title = std::string("Alone");
  song.location = std::string("ABCD.mp3");
  song.base_path = std::string("iTunes_Control/Music/F07");
  song.bytes = "abc";
  devsim::MediaSong homeless = song;
  homeless.base_path = std::nullopt;
  homeless.media_kind = 4;
  homeless.db_file_size = 99;
  library.songs = {song, homeless};
  devsim::MediaRecording memo;
  memo.label = std::string("Talk");
  memo.path = std::string("/var/mobile/Media/Recordings/rec1.m4a");
  memo.bytes = "memo";
  library.recordings = {memo};
  std::string error;
  ASSERT_TRUE(write(error)) << error;
  const std::string music = media() + "/iTunes_Control/iTunes/MediaLibrary.sqlitedb";
  const std::string join =
      " from item left outer join item_artist on item.item_artist_pid=item_artist.item_artist_pid"
      " left outer join item_extra on item.item_pid=item_extra.item_pid left outer join base_location"
      " on item.base_location_id=base_location.base_location_id";
  EXPECT_EQ(query(music, "select item_artist.item_artist, item_extra.title, item_extra.location,"
                         " base_location.path, item_extra.file_size, item_extra.media_kind" + join),
            (Rows{{"NULL", "Alone", "ABCD.mp3", "iTunes_Control/Music/F07", "3", "1"},
                  {"NULL", "Alone", "ABCD.mp3", "NULL", "99", "4"}}));
  EXPECT_EQ(readLocal(media() + "/iTunes_Control/Music/F07/ABCD.mp3"), "abc");
  EXPECT_EQ(query(media() + "/Recordings/Recordings.db", "select ZCUSTOMLABEL, ZPATH, ZDATE+978307200 from ZRECORDING"),
            (Rows{{"Talk", *memo.path, "978307200"}}));
  EXPECT_EQ(readLocal(media() + "/Recordings/rec1.m4a"), "memo");
  for (const char* companion : {"-wal", "-shm", "-journal"}) EXPECT_FALSE(exists(music + companion));

  // Written again without them: the skipped databases are gone, and so is a
  // stale companion of the photo database.
  ASSERT_TRUE(writeLocal(photo_db() + "-wal", ""));
  library.write_music_db = false;
  library.write_record_db = false;
  ASSERT_TRUE(write(error)) << error;
  EXPECT_FALSE(exists(music));
  EXPECT_FALSE(exists(media() + "/Recordings/Recordings.db"));
  EXPECT_FALSE(exists(photo_db() + "-wal"));
  EXPECT_EQ(query(photo_db(), "select count(*) from ZGENERICASSET"), (Rows{{"2"}}));
}

TEST(DevsimMediaJpeg, DecodesToItsSizeAndSeedsDiffer) {
  const std::string jpeg = devsim::make_jpeg(64, 48, 3);
  EXPECT_EQ(jpeg.substr(0, 2), "\xFF\xD8");
  EXPECT_EQ(jpeg.substr(jpeg.size() - 2), "\xFF\xD9");
  EXPECT_NE(jpeg, devsim::make_jpeg(64, 48, 4));
  jpeg_decompress_struct info;
  jpeg_error_mgr errors;
  info.err = jpeg_std_error(&errors);
  jpeg_create_decompress(&info);
  jpeg_mem_src(&info, reinterpret_cast<const unsigned char*>(jpeg.data()), jpeg.size());
  ASSERT_EQ(jpeg_read_header(&info, TRUE), JPEG_HEADER_OK);
  jpeg_start_decompress(&info);
  EXPECT_EQ(info.output_width, 64u);
  EXPECT_EQ(info.output_height, 48u);
  std::vector<unsigned char> row(info.output_width * info.output_components);
  JSAMPROW rows[1] = {row.data()};
  while (info.output_scanline < info.output_height) jpeg_read_scanlines(&info, rows, 1);
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
}

TEST(DevsimMediaGenerated, IsDeterministicAndFillsFoldersLikeAPhone) {
  MediaLibrary a = devsim::generated_media_library(PhotoFamily::cloud, 2001, 60, 2);
  MediaLibrary b = devsim::generated_media_library(PhotoFamily::cloud, 2001, 60, 2);
  ASSERT_EQ(a.photos.size(), 2001u);
  EXPECT_EQ(*a.photos[999].directory, "DCIM/100APPLE");
  EXPECT_EQ(*a.photos[1000].directory, "DCIM/101APPLE");
  EXPECT_EQ(a.photos[1234].bytes, b.photos[1234].bytes);
  EXPECT_EQ(*a.songs[59].location, *b.songs[59].location);
  EXPECT_EQ(a.songs[59].location->size(), 8u);  // four letters and an extension
  EXPECT_EQ(a.photos[6].subtype, 2);
  EXPECT_EQ(a.photos[6].cloud_resources.at(0).file_path, "/var/mobile/Media/DCIM/100APPLE/IMG_0007.JPG");
  // Modern libraries keep a tenth of the originals in iCloud.
  MediaLibrary modern = devsim::generated_media_library(PhotoFamily::modern, 1000, 0, 0);
  int cloud = 0;
  for (const devsim::MediaPhoto& photo : modern.photos) cloud += photo.cloud_only;
  EXPECT_EQ(cloud, 100);
  EXPECT_EQ(*modern.photos[0].filename, "IMG_0001.HEIC");
  EXPECT_EQ(*modern.photos[9].filename, "IMG_0010.MOV");
}

// A modern library (iOS 14 on): a live HEIC photo in a user album, a photo
// whose original is only in iCloud, a hidden and a trashed one. The link
// table is named from the album and asset entities of each version; the live
// video lies beside the HEIC, and cloud originals are absent.
TEST_F(DevsimMediaLibraryTest, ModernLinkTableFollowsTheEntitiesLiveVideoLiesBesideAndCloudOriginalsAreAbsent) {
  library = MediaLibrary();
  library.photo_family = PhotoFamily::modern;
  library.albums = {{0, std::string("Trip"), 2, 0, std::nullopt}, {0, std::string("Gone"), 2, 1, std::nullopt}};
  auto heic = [](const char* name, bool live) {
    devsim::MediaPhoto made = mediaPhoto("DCIM/100APPLE", name, {1}, 1, 0, 0);
    made.subtype = live ? 2 : 0;
    made.bytes = devsim::make_heic_placeholder(40, 1);
    if (live) made.live_video_bytes = std::string("video half");
    return made;
  };
  devsim::MediaPhoto cloud = heic("IMG_0002.HEIC", true), hidden = heic("IMG_0003.HEIC", false);
  devsim::MediaPhoto trashed = heic("IMG_0004.HEIC", false);
  cloud.cloud_only = true;
  hidden.hidden = true;
  trashed.trashed = 1;
  library.photos = {heic("IMG_0001.HEIC", true), cloud, hidden, trashed};
  for (auto [version, album] : {std::pair{14, "26"}, std::pair{18, "30"}}) {
    SCOPED_TRACE(version);
    library.modern_version = version;
    std::string error;
    ASSERT_TRUE(write(error)) << error;
    EXPECT_EQ(entity("Album"), album);
    EXPECT_EQ(entity("Asset"), "3");
    EXPECT_EQ(entity("GenericAsset"), "none");
    EXPECT_EQ(table_sql(photo_db(), "ZGENERICASSET"), "");
    // The join the album folders need, built only from the two numbers.
    const std::string link = "Z_" + entity("Album") + "ASSETS";
    EXPECT_EQ(query(photo_db(), "select ZASSET.ZFILENAME, ZASSET.Z_ENT from ZGENERICALBUM join " + link +
                                    " on " + link + ".Z_" + entity("Album") + "ALBUMS=ZGENERICALBUM.Z_PK join ZASSET" +
                                    " on " + link + ".Z_" + entity("Asset") + "ASSETS=ZASSET.Z_PK" +
                                    " where ZGENERICALBUM.ZTITLE='Trip' order by 1"),
              (Rows{{"IMG_0001.HEIC", "3"}, {"IMG_0002.HEIC", "3"}, {"IMG_0003.HEIC", "3"},
                    {"IMG_0004.HEIC", "3"}}));
  }
  EXPECT_EQ(devsim::modern_ios_version(18), "18.1");
  EXPECT_EQ(devsim::modern_ios_version(13), "");

  const std::string folder = media() + "/DCIM/100APPLE/";
  EXPECT_EQ(readLocal(folder + "IMG_0001.HEIC").substr(4, 8), "ftypheic");
  EXPECT_EQ(readLocal(folder + "IMG_0001.MOV"), "video half");
  // Only in iCloud: neither half is on the device, and the original's
  // resource says so.
  EXPECT_FALSE(exists(folder + "IMG_0002.HEIC"));
  EXPECT_FALSE(exists(folder + "IMG_0002.MOV"));
  EXPECT_EQ(query(photo_db(), "select ZRESOURCETYPE, ZLOCALAVAILABILITY from ZINTERNALRESOURCE join ZASSET on"
                              " ZINTERNALRESOURCE.ZASSET=ZASSET.Z_PK where ZFILENAME='IMG_0002.HEIC' and"
                              " ZDATASTORESUBTYPE=1 order by 1"),
            (Rows{{"0", "-1"}, {"3", "-1"}}));
  // Hidden and trashed assets keep their files but drop out of the listing.
  EXPECT_TRUE(exists(folder + "IMG_0003.HEIC"));
  EXPECT_EQ(query(photo_db(), "select ZFILENAME from ZASSET where ZTRASHEDSTATE=0 and ZHIDDEN=0 and"
                              " ZVISIBILITYSTATE=0 order by 1"),
            (Rows{{"IMG_0001.HEIC"}, {"IMG_0002.HEIC"}}));
}

}  // namespace
