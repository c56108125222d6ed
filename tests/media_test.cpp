// The media views' own rules, without a device: version tests, entity
// numbers read from the photo database, and free names for duplicates.
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <string>

#include "tarnifs/media.h"
#include "tests/support/catalogue_fixture.h"

namespace {

TEST(CheckIosVersion, ComparesMajorThenMinorAndCountsAVersionWithoutDotAsZero) {
    EXPECT_EQ(checkiOSVersion("9.3.5", 9, 0), 0);
    EXPECT_EQ(checkiOSVersion("9.3.5", 9, 3), 0);
    EXPECT_EQ(checkiOSVersion("9.3.5", 10, 0), -1);
    EXPECT_EQ(checkiOSVersion("9.2.1", 9, 3), -1);
    EXPECT_EQ(checkiOSVersion("10.0", 10, 0), 0);
    EXPECT_EQ(checkiOSVersion("10.0", 9, 0), 0);
    EXPECT_EQ(checkiOSVersion("12.4", 9, 3), 0);  // a greater major passes whatever the minor
    EXPECT_EQ(checkiOSVersion("8.4.1", 9, 0), -1);
    // No dot: the major number counts as 0.
    EXPECT_EQ(checkiOSVersion("10", 9, 0), -1);
    EXPECT_EQ(checkiOSVersion("10", 10, 0), -1);
    EXPECT_EQ(checkiOSVersion("", 9, 0), -1);
}

struct EntityTable {
    sqlite3 *db = nullptr;
    explicit EntityTable(const char *rows) {
        sqlite3_open(":memory:", &db);
        sqlite3_exec(db, "create table Z_PRIMARYKEY (Z_ENT integer, Z_NAME text, Z_SUPER integer, Z_MAX integer)",
                     nullptr, nullptr, nullptr);
        sqlite3_exec(db, rows, nullptr, nullptr, nullptr);
    }
    ~EntityTable() { sqlite3_close(db); }
};

TEST(PhotoEntities, AreReadByExactNameAndAnyOtherCaseSpoilsThemAll) {
    EntityTable table("insert into Z_PRIMARYKEY values (1,'AdditionalAssetAttributes',0,9),(21,'Album',0,9),"
                      "(33,'GenericAsset',0,9),(34,'Asset',33,9),(40,'Moment',0,9),(0,'Album',0,0),"
                      "(41,NULL,0,0)");
    _PHOTOALBUMENT entities;
    EXPECT_EQ(GetPhotoAlbumENT(table.db, &entities), 0);
    EXPECT_EQ(entities.additional_attributes_ent, 1u);
    EXPECT_EQ(entities.album_ent, 21u);  // the row numbered 0 is passed over
    EXPECT_EQ(entities.generic_asset_ent, 33u);
    EXPECT_EQ(entities.asset_ent, 34u);
    EXPECT_EQ(entities.moment_ent, 40u);

    EntityTable lowercase("insert into Z_PRIMARYKEY values (21,'Album',0,9),(50,'album',0,9)");
    _PHOTOALBUMENT spoiled;
    EXPECT_EQ(GetPhotoAlbumENT(lowercase.db, &spoiled), -1);

    EntityTable noTable("select 1");
    sqlite3_exec(noTable.db, "drop table Z_PRIMARYKEY", nullptr, nullptr, nullptr);
    EXPECT_NE(GetPhotoAlbumENT(noTable.db, &spoiled), 0);
    EXPECT_EQ(GetPhotoAlbumENT(nullptr, &spoiled), 0);  // no database: nothing read, nothing failed
}

class FreeEntryPathTest : public MountContextTest {};

TEST_F(FreeEntryPathTest, SuffixesGoBeforeTheNamesOwnLastDotAndCountFromTwo) {
    folder("/");
    folder("/Media");
    folder("/Media/Photo");
    folder("/Media/Photo/My.Album");
    EXPECT_EQ(FreeEntryPath("/Media/Photo/My.Album", "IMG_0001.JPG", true), "/Media/Photo/My.Album/IMG_0001.JPG");
    file("/Media/Photo/My.Album/IMG_0001.JPG", 1);
    file("/Media/Photo/My.Album/IMG_0001 (2).JPG", 1);
    EXPECT_EQ(FreeEntryPath("/Media/Photo/My.Album", "IMG_0001.JPG", true), "/Media/Photo/My.Album/IMG_0001 (3).JPG");
    // A name without a dot gets its suffix at the end, never inside the
    // folder name above it.
    file("/Media/Photo/My.Album/README", 1);
    EXPECT_EQ(FreeEntryPath("/Media/Photo/My.Album", "README", true), "/Media/Photo/My.Album/README (2)");
    // Album folders always take it at the end.
    EXPECT_EQ(FreeEntryPath("/Media/Photo", "My.Album", false), "/Media/Photo/My.Album (2)");
    // A name in the other Unicode form is the same name.
    file("/Media/Photo/My.Album/Caf\xC3\xA9.JPG", 1);
    EXPECT_EQ(FreeEntryPath("/Media/Photo/My.Album", "Cafe\xCC\x81.JPG", true),
              "/Media/Photo/My.Album/Cafe\xCC\x81 (2).JPG");
}

} // namespace
