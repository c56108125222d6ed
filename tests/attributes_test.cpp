#include <gtest/gtest.h>

#include <cstring>
#include <ctime>

#include "tarnifs/catalogue.h"
#include "tests/support/catalogue_fixture.h"

namespace {

class AttributesTest : public MountContextTest {
protected:
    void SetUp() override {
        MountContextTest::SetUp();
        // Both folders count as listed, so lookups never reach for the device.
        GetObject("/")->enumerated = 1;
        folder("/Storage");
        song = file("/Storage/song.mp3", 4096);
        song->birth_time = 1000;
        song->modify_time = 2000;
        song->access_time = 3000;
    }
    _KTL_OBJECT *song = nullptr;
};

TEST_F(AttributesTest, StatRecordsComeFromTheCatalogueAndOnlyForNamesThatExist) {
    struct stat st;
    time_t before = time(nullptr);
    ASSERT_EQ(tarnifs_getattr("/", &st), 0);
    EXPECT_EQ(st.st_mode, 0x41ffu);
    EXPECT_GE(st.st_mtime, before);
    EXPECT_GE(st.st_atime, before);

    ASSERT_EQ(tarnifs_getattr("/Storage/song.mp3", &st), 0);
    EXPECT_EQ(st.st_mode, 0x81ffu);
    EXPECT_EQ(st.st_size, 4096);
    EXPECT_EQ(st.st_mtime, 2000);
    EXPECT_EQ(st.st_atime, 3000);
    EXPECT_EQ(st.st_nlink, 0u);
    EXPECT_EQ(st.st_blocks, 0);

    ASSERT_EQ(tarnifs_getattr("/Storage", &st), 0);
    EXPECT_EQ(st.st_mode, 0x41ffu);

    struct stat viaHandle;
    ASSERT_EQ(tarnifs_fgetattr("/Storage/song.mp3", &viaHandle, nullptr), 0);
    ASSERT_EQ(tarnifs_getattr("/Storage/song.mp3", &st), 0);
    EXPECT_EQ(memcmp(&st, &viaHandle, sizeof(st)), 0);

    // Top-level dot names and unknown paths do not exist.
    for (auto [path, answer] : {std::pair{"/.Trashes", -ENOENT}, {"/._Media", -ENOENT}, {"/Storage/.hidden", 0}}) {
        GetObjectWithFileName(path);
        EXPECT_EQ(tarnifs_getattr(path, &st), answer) << path;
    }
    EXPECT_EQ(tarnifs_getattr("/Storage/nothing", &st), -ENOENT);
}

TEST_F(AttributesTest, AttributeChangesTouchOnlyTheCatalogue) {
    // An unknown path gets a record: an empty regular file.
    EXPECT_EQ(tarnifs_chmod("/Storage/new.txt", 0600, nullptr), 0);
    _KTL_OBJECT *made = FindObject("/Storage/new.txt");
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->mode, KTL_MODE_FILE);
    EXPECT_EQ(made->size, 0u);

    EXPECT_EQ(tarnifs_truncate("/Storage/song.mp3", 10, nullptr), 0);
    EXPECT_EQ(song->size, 10u);
    struct fuse_file_info openFile {};  // ftruncate: the change comes through an open file
    EXPECT_EQ(tarnifs_truncate("/Storage/song.mp3", 77, &openFile), 0);
    EXPECT_EQ(song->size, 77u);

    // Asking for 2001-01-01 sets the time of the call.
    time_t before = time(nullptr);
    struct timespec times[2] = {{978307200, 0}, {978307200, 0}};
    EXPECT_EQ(tarnifs_utimens("/Storage/song.mp3", times, nullptr), 0);
    EXPECT_GE(song->modify_time, before);
    EXPECT_EQ(song->access_time, 3000);  // access time is accepted and ignored
    EXPECT_EQ(song->birth_time, 1000);

    struct timespec omitModify[2] = {{0, UTIME_NOW}, {0, UTIME_OMIT}};
    song->modify_time = 5;
    EXPECT_EQ(tarnifs_utimens("/Storage/song.mp3", omitModify, &openFile), 0);
    EXPECT_EQ(song->modify_time, 5);

    struct setattr_x creation{};
    creation.valid = 1 << 28;
    EXPECT_EQ(tarnifs_fsetattr_x("/Storage/song.mp3", &creation, nullptr), 0);
    EXPECT_GE(song->birth_time, before);

    EXPECT_EQ(tarnifs_chown("/Storage/song.mp3", 1, 1, nullptr), 0);
    EXPECT_EQ(song->mode, KTL_MODE_FILE);  // permissions and owners are never stored
}

TEST_F(AttributesTest, ExtendedAttributesAreStoredReplacedAndRemoved) {
    const char *path = "/Storage/song.mp3";
    EXPECT_EQ(tarnifs_getxattr(path, "user.a", nullptr, 0), -ENOATTR);
    EXPECT_EQ(tarnifs_setxattr("/Storage/none", "user.a", "x", 1, 0), -ENOATTR);
    EXPECT_EQ(tarnifs_getxattr("/", "user.anything", nullptr, 0), 0);

    ASSERT_EQ(tarnifs_setxattr(path, "user.a", "first", 5, 0), 0);
    ASSERT_EQ(tarnifs_setxattr(path, "user.b", "second", 6, 0), 0);
    ASSERT_EQ(tarnifs_setxattr(path, "user.a", "replaced!", 9, 0), 0);
    int nodes = 0;
    for (_KTL_XATTR *node = Extras(song).xattr_list; node != nullptr; node = node->next) ++nodes;
    EXPECT_EQ(nodes, 2);
    EXPECT_STREQ(Extras(song).xattr_list->name, "user.b");  // newest name first

    EXPECT_EQ(tarnifs_getxattr(path, "user.a", nullptr, 0), 9);
    char buffer[64];
    memset(buffer, 0, sizeof(buffer));
    EXPECT_EQ(tarnifs_getxattr(path, "user.a", buffer, 9), 9);
    EXPECT_STREQ(buffer, "replaced!");
    // More room than the value: only the value comes back.
    memset(buffer, 0, sizeof(buffer));
    EXPECT_EQ(tarnifs_getxattr(path, "user.b", buffer, sizeof(buffer)), 6);
    EXPECT_STREQ(buffer, "second");

    // A value with a NUL inside reports the length before it.
    ASSERT_EQ(tarnifs_setxattr(path, "user.nul", "ab\0cd", 5, 0), 0);
    EXPECT_EQ(tarnifs_getxattr(path, "user.nul", nullptr, 0), 2);

    // Remove the head, then one further down, then a missing one.
    EXPECT_EQ(tarnifs_removexattr(path, "user.nul"), 0);
    EXPECT_EQ(tarnifs_removexattr(path, "user.a"), 0);
    EXPECT_EQ(tarnifs_removexattr(path, "user.a"), -ENOATTR);
    EXPECT_EQ(tarnifs_getxattr(path, "user.b", nullptr, 0), 6);
    EXPECT_EQ(tarnifs_removexattr(path, "user.b"), 0);
    EXPECT_EQ(Extras(song).xattr_list, nullptr);
    EXPECT_EQ(tarnifs_removexattr(path, "user.b"), -ENOATTR);
}

} // namespace
