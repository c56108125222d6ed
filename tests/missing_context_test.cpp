// A mount whose start-up could not reach the device has no context and no
// name buffer (start-up freed it). Every operation of the table must then
// answer the missing-context error without touching the catalogue: reaching
// it would write through the freed buffer and end the process.
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstring>

#include "tarnifs/catalogue.h"
#include "tarnifs/listing.h"
#include "tarnifs/names.h"
#include "tests/support/catalogue_fixture.h"

namespace {

int countEntries(void *buffer, const char *, const struct stat *, off_t, enum fuse_fill_dir_flags) {
    ++*static_cast<int *>(buffer);
    return 0;
}

class MissingContextTest : public MountContextTest {
protected:
    void SetUp() override {
        MountContextTest::SetUp();
        GetObjectWithFileName("/Storage/kept.txt")->size = 5;
        // What a failed start-up leaves: no context, the name buffer gone.
        fuse.private_data = nullptr;
        savedBuffer = gEncodedPath;
        gEncodedPath = nullptr;
    }
    void TearDown() override {
        gEncodedPath = savedBuffer;
        MountContextTest::TearDown();
    }
    char *savedBuffer = nullptr;
};

TEST_F(MissingContextTest, EveryOperationAnswersTheMissingContextErrorAndTouchesNothing) {
    const int missing = -ENOSYS;
    const char *path = "/Storage/kept.txt";
    struct stat st;
    struct fuse_file_info open {};
    EXPECT_EQ(tarni_opers.getattr(path, &st, nullptr), missing);
    EXPECT_EQ(tarni_opers.getattr(path, &st, &open), missing);
    EXPECT_EQ(tarni_opers.chmod("/", 0700, nullptr), missing);
    EXPECT_EQ(tarni_opers.chmod(path, 0700, nullptr), missing);
    EXPECT_EQ(tarni_opers.chown(path, 1, 1, nullptr), missing);
    EXPECT_EQ(tarni_opers.truncate(path, 1, &open), missing);
    EXPECT_EQ(tarni_opers.utimens(path, nullptr, nullptr), missing);
    char value[8];
    EXPECT_EQ(tarni_opers.getxattr("/", "user.a", value, sizeof(value)), missing);
    EXPECT_EQ(tarni_opers.getxattr(path, "user.a", value, sizeof(value)), missing);
    EXPECT_EQ(tarni_opers.setxattr("/", "user.a", "v", 1, 0), missing);
    EXPECT_EQ(tarni_opers.setxattr(path, "user.a", "v", 1, 0), missing);
    EXPECT_EQ(tarni_opers.removexattr(path, "user.a"), missing);
    EXPECT_EQ(tarni_opers.access(path, R_OK), missing);
    EXPECT_EQ(tarni_opers.mkdir("/Storage/new", 0755), missing);
    EXPECT_EQ(tarni_opers.mkdir("/Apps/Notes/new", 0755), missing);
    EXPECT_EQ(tarni_opers.rmdir("/Storage/kept.txt"), missing);
    EXPECT_EQ(tarni_opers.rmdir("/Apps/Notes/in"), missing);
    EXPECT_EQ(tarni_opers.unlink(path), missing);
    EXPECT_EQ(tarni_opers.unlink("/Media/Music/x.mp3"), missing);
    struct statvfs volume;
    EXPECT_EQ(tarni_opers.statfs("/", &volume), missing);
    int entries = 0;
    ASSERT_EQ(tarni_opers.opendir("/Storage", &open), 0);
    EXPECT_EQ(tarni_opers.readdir("/Storage", &entries, countEntries, 0, &open, FUSE_READDIR_PLUS), missing);
    EXPECT_EQ(entries, 0);
    EXPECT_EQ(tarni_opers.releasedir("/Storage", &open), 0);

    // The catalogue is as it was: nothing was made, changed or attached.
    gEncodedPath = savedBuffer;
    _KTL_OBJECT *kept = FindObject(path);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->size, 5u);
    EXPECT_EQ(kept->xattr_list, nullptr);
    EXPECT_EQ(FindObject("/Storage/other"), nullptr);
}

} // namespace
