// Staging files reach the device whole: uploads in 65535-byte chunks are
// checked byte for byte against the simulated device's image, with the mount
// context connected as start-up connects it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <random>
#include <string>

#include "tarnifs/filedata.h"
#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"

namespace {

class UploadTest : public ConnectedContextTest {
protected:
    void SetUp() override {
        ConnectedContextTest::SetUp();
        if (IsSkipped()) return;
        DevsimImage image;
        image.location_id = 71;
        image.files = {{"media/general_storage/longer.bin", std::string(300000, 'o')}};
        connectTo(image);
        snprintf(context.work_dir, sizeof(context.work_dir), "%s/work", tempDir.c_str());
        mkdir(context.work_dir, 0700);
        storage = sim.image_dir(0) + "/media/general_storage";
    }
    void stage(const std::string &name, const std::string &bytes) {
        std::ofstream(std::string(context.work_dir) + "/" + name, std::ios::binary) << bytes;
    }
    std::string storage;
};

TEST_F(UploadTest, StagedFilesOfEverySizeAroundTheChunkArriveWhole) {
    for (size_t size : {0ul, 1ul, 65534ul, 65535ul, 65536ul, 131070ul, 131071ul, 200000ul}) {
        std::string name = "staged" + std::to_string(size);
        std::string bytes = randomBytes(size, static_cast<unsigned>(size) + 1);
        stage(name, bytes);
        EXPECT_EQ(uploadfile(&context, ("/" + name).c_str(), ("/general_storage/" + name).c_str(), context.afc_handle,
                             true),
                  0)
            << size;
        EXPECT_EQ(readLocal(storage + "/" + name), bytes) << size;
        struct stat st;
        EXPECT_NE(stat((std::string(context.work_dir) + "/" + name).c_str(), &st), 0) << "removed once uploaded";
    }
}

TEST_F(UploadTest, AnUploadReplacesALongerFileAppendsWhenAskedAndNeedsItsSource) {
    std::string bytes = randomBytes(70000, 5);
    stage("new.bin", bytes);
    ASSERT_EQ(uploadfile(&context, "/new.bin", "/general_storage/longer.bin", context.afc_handle, false), 0);
    EXPECT_EQ(readLocal(storage + "/longer.bin"), bytes) << "exactly the new bytes, no old tail";
    EXPECT_EQ(readLocal(std::string(context.work_dir) + "/new.bin"), bytes) << "kept when not asked to remove";

    ASSERT_EQ(uploadfileappend(&context, "/new.bin", "/general_storage/longer.bin"), 0);
    EXPECT_EQ(readLocal(storage + "/longer.bin"), bytes + bytes);

    // Without its staging file nothing reaches the device.
    EXPECT_EQ(uploadfile(&context, "/missing.bin", "/general_storage/missing.bin", context.afc_handle, true), -1);
    struct stat st;
    EXPECT_NE(stat((storage + "/missing.bin").c_str(), &st), 0);
    EXPECT_TRUE(logContains("uploadfile frompath(/missing.bin) file is not exist."));
}

TEST_F(UploadTest, StagingCounterpartsArePrivate) {
    ASSERT_EQ(MakeTmpPath(&context, "/Storage", KTL_MODE_FOLDER), 0);
    ASSERT_EQ(MakeTmpPath(&context, "/Storage/draft.txt", KTL_MODE_FILE), 0);
    struct stat st;
    ASSERT_EQ(stat((std::string(context.work_dir) + "/Storage").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    ASSERT_EQ(stat((std::string(context.work_dir) + "/Storage/draft.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

} // namespace
