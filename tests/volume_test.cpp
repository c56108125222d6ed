#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cstring>

#include "tarnifs/catalogue.h"
#include "tests/support/catalogue_fixture.h"

namespace {

TEST(CalibrateVolumeSizeTest, BinaryUnitsAreReexpressedInDecimalOnes) {
    EXPECT_EQ(CalibrateVolumeSize(0), 0u);
    EXPECT_EQ(CalibrateVolumeSize(1000), 1000u);
    EXPECT_EQ(CalibrateVolumeSize(1024), 1024u);
    EXPECT_EQ(CalibrateVolumeSize(1025), 1000u);
    EXPECT_EQ(CalibrateVolumeSize(68719476736ull), 64000000000ull);  // 64 GiB
    EXPECT_EQ(CalibrateVolumeSize(15000000000ull), 13960000000ull);
    // Exactly 102400 after scaling stops the reduction: 1 TiB reads as 1024 GB.
    EXPECT_EQ(CalibrateVolumeSize(1ull << 40), 1024000000000ull);
}

class VolumeTest : public MountContextTest {
protected:
    void SetUp() override {
        MountContextTest::SetUp();
        context.device_info.block_size = 4096;
        context.device_info.total_capacity = 68719476736ull;
        context.device_info.free_capacity = 15000000000ull;
    }
};

TEST_F(VolumeTest, EveryPathReportsTheCalibratedDeviceFiguresAndAccessAnswersFromTheCatalogue) {
    struct statvfs st;
    memset(&st, 0, sizeof(st));
    ASSERT_EQ(tarnifs_statfs("/", &st), 0);
    EXPECT_EQ(st.f_bsize, 4096u);
    EXPECT_EQ(st.f_frsize, 4096u);
    EXPECT_EQ(st.f_blocks, 15625000u);
    EXPECT_EQ(st.f_bfree, 3408203u);
    EXPECT_EQ(st.f_bavail, 3408203u);
    EXPECT_EQ(st.f_ffree, 0u);
    EXPECT_EQ(st.f_namemax, 255u);

    // Every other path answers the same figures (programs divide by them).
    for (const char *path : {"/Media", "/Storage/x", "/Apps/Notes/deep/er"}) {
        struct statvfs other;
        memset(&other, 0, sizeof(other));
        ASSERT_EQ(tarnifs_statfs(path, &other), 0) << path;
        EXPECT_EQ(memcmp(&other, &st, sizeof(st)), 0) << path;
    }

    // Access answers from the catalogue.
    EXPECT_EQ(tarnifs_access("/", W_OK), 0);
    EXPECT_EQ(tarnifs_access("/Storage/never-listed", R_OK), -1);
    GetObject("/Storage");
    GetObject("/Storage/caf\xC3\xA9");
    EXPECT_EQ(tarnifs_access("/Storage", X_OK), 0);
    EXPECT_EQ(tarnifs_access("/Storage/cafe\xCC\x81", W_OK), 0);
}

} // namespace
