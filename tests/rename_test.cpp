// Rename called directly, without a device: the whole decision table's
// refusals and their texts, the moves left to the host, a device refusal
// that changes nothing, and the catalogue move that keeps records (and the
// handles pointing at them) alive under their new names.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tarnifs/catalogue.h"
#include "tarnifs/rename.h"
#include "tests/support/catalogue_fixture.h"

namespace {

class RenameUnitTest : public MountContextTest {
protected:
    void SetUp() override {
        MountContextTest::SetUp();
        context.device_info.free_capacity = 1000;
        for (const char *path : {"/", "/Storage", "/Apps", "/Media", "/Media/Music", "/Media/Movies", "/Apps/Notes",
                                 "/Apps/Other", "/Storage/dir", "/Storage/dir/inner"})
            folder(path);
        EditExtras(FindObject("/Apps/Notes")).app_id = CopyString("com.example.notes");
        EditExtras(FindObject("/Apps/Other")).app_id = CopyString("com.example.other");
        file("/Storage/a.txt", 10);
        file("/Storage/dir/one.txt", 3);
        file("/Storage/dir/inner/two.txt", 4);
        file("/Media/Music/song.mp3", 5);
        EditExtras(file("/Apps/Notes/n.txt", 6)).app_id = CopyString("com.example.notes");
        noDialog();
    }
};

TEST_F(RenameUnitTest, EveryRefusalOfTheTableShowsItsNoticeAndChangesNothing) {
    // Each row's dialog; a read-only target logs "create not supported" with
    // the target, any other refusal "rename not supported" with both names.
    const std::string readOnly = "This folder is read only. You can not write or modify.\n";
    const std::string file = "You can not rename this file.\n", folder = "You can not rename this folder.\n";
    const std::string refusals[][3] = {
        {"/Storage/a.txt", "/Apps/a.txt", readOnly + "/Apps"},
        {"/Storage/a.txt", "/Media/Music/a.txt", readOnly + "/Media/Music"},
        {"/Storage/a.txt", "/a.txt", file + "/Storage/a.txt"},
        {"/Storage", "/Store", folder + "/Storage"},
        {"/Media/Music/song.mp3", "/Apps/song.mp3", readOnly + "/Apps"},
        {"/Media/Music/song.mp3", "/Media/Music/tune.mp3", file + "/Media/Music/song.mp3"},
        {"/Media/Music/song.mp3", "/Media/Movies/song.mp3", readOnly + "/Media/Movies"},
        {"/Media/Music", "/Media/Songs", folder + "/Media/Music"},
        {"/Apps/Notes/n.txt", "/Media/Music/n.txt", readOnly + "/Media/Music"},
        {"/Apps/Notes", "/Apps/Notes2", folder + "/Apps/Notes"},
        {"/Apps", "/Apps/Notes/Apps", folder + "/Apps"},
        {"/Apps/Notes/n.txt", "/Apps/n.txt", readOnly + "/Apps"},
        {"/Apps/Notes/n.txt", "/n.txt", file + "/Apps/Notes/n.txt"},
        {"/top.txt", "/Storage/top.txt", file + "/top.txt"},
    };
    for (const auto &row : refusals) {
        SCOPED_TRACE(row[0] + " -> " + row[1]);
        const std::string log = row[2].rfind(readOnly, 0) == 0
                                    ? "tarnifs_rename create not supported. path : " + row[1]
                                    : "tarnifs_rename rename not supported. path from : " + row[0] + ", to : " + row[1];
        noDialog();
        EXPECT_EQ(tarnifs_rename(row[0].c_str(), row[1].c_str()), -ECANCELED);
        EXPECT_EQ(dialogText(), row[2]);
        EXPECT_EQ(dialogTitle(), "Quorvel Notification");
        EXPECT_TRUE(logContains(log)) << log;
        EXPECT_EQ(FindObject(row[1].c_str()), nullptr);
    }
    // The rows that refuse into a place above an app's contents say so first.
    EXPECT_EQ(logCount("tarnifs_rename rename not supported. "), 5);
    EXPECT_NE(FindObject("/Storage/a.txt"), nullptr);
    EXPECT_NE(FindObject("/Apps/Notes"), nullptr);
}

TEST_F(RenameUnitTest, FlagsAreRefusedAndANameRenamedToItselfStays) {
    // renameat2's flags have no device counterpart: refused before anything else.
    for (unsigned int flags : {RENAME_NOREPLACE, RENAME_EXCHANGE})
        EXPECT_EQ(tarni_opers.rename("/Storage/a.txt", "/Storage/b.txt", flags), -EINVAL) << flags;
    EXPECT_EQ(FindObject("/Storage/b.txt"), nullptr);
    // A name renamed to itself is already there.
    EXPECT_EQ(tarnifs_rename("/Storage/a.txt", "/Storage/a.txt"), 0);
    EXPECT_NE(FindObject("/Storage/a.txt"), nullptr);
}

TEST_F(RenameUnitTest, ADeviceRefusalIsShownAndLeavesTheCatalogueAsItWas) {
    // No device connection here: the device layer refuses the request.
    _KTL_OBJECT *source = FindObject("/Storage/a.txt");
    EXPECT_EQ(tarnifs_rename("/Storage/a.txt", "/Storage/dir/b.txt"), -ECANCELED);
    EXPECT_EQ(dialogText(), "Could not rename or move the contents.\nError Code : -2");
    EXPECT_EQ(dialogTitle(), "Quorvel Error!!");
    EXPECT_TRUE(logContains("tarnifs_rename libiusb_afc_rename failed. from(/general_storage/a.txt) "
                            "to(/general_storage/dir/b.txt). error : -2"));
    EXPECT_EQ(FindObject("/Storage/a.txt"), source);
    EXPECT_EQ(FindObject("/Storage/dir/b.txt"), nullptr);
    EXPECT_EQ(childNames("/Storage"), (std::vector<std::string>{"dir", "a.txt"}));
    // A folder with contents is never replaced: no dialog, nothing asked.
    noDialog();
    folder("/Storage/full");
    file("/Storage/full/x.txt", 1);
    EXPECT_EQ(tarnifs_rename("/Storage/dir", "/Storage/full"), -ENOTEMPTY);
    EXPECT_EQ(dialogText(), "");
    // A source the catalogue does not know is not there.
    EXPECT_EQ(tarnifs_rename("/Storage/none.txt", "/Storage/b.txt"), -ENOENT);
}

TEST_F(RenameUnitTest, AMovedRecordKeepsItsAddressAndTakesItsSubtreeAlong) {
    _KTL_OBJECT *dir = FindObject("/Storage/dir");
    _KTL_OBJECT *two = FindObject("/Storage/dir/inner/two.txt");
    EditExtras(two).open_count = 1;  // a handle points at it
    MoveObject(dir, "/Storage/dir", "/Storage/moved");
    EXPECT_EQ(FindObject("/Storage/moved"), dir);
    EXPECT_STREQ(dir->file_name, "moved");
    EXPECT_EQ(FindObject("/Storage/moved/inner/two.txt"), two);
    EXPECT_NE(FindObject("/Storage/moved/one.txt"), nullptr);
    EXPECT_EQ(FindObject("/Storage/dir"), nullptr);
    EXPECT_EQ(FindObject("/Storage/dir/inner"), nullptr);
    EXPECT_EQ(FindObject("/Storage/dir/inner/two.txt"), nullptr);
    EXPECT_EQ(childNames("/Storage/moved"), (std::vector<std::string>{"inner", "one.txt"}));
    EXPECT_EQ(two->size, 4u);
    // (Lookups that missed leave entries of 0 behind; they stand for no record.)
    for (const auto &entry : Object_list)
        if (entry.second != 0) {
            EXPECT_EQ(entry.first.find("/Storage/dir"), std::string::npos) << entry.first;
        }
    // A decomposed name is found under its composed key after the move.
    MoveObject(FindObject("/Storage/a.txt"), "/Storage/a.txt", "/Storage/Re\xcc\x81sume\xcc\x81.txt");
    EXPECT_NE(FindObject("/Storage/R\xc3\xa9sum\xc3\xa9.txt"), nullptr);
    EditExtras(two).open_count = 0;
}

} // namespace
