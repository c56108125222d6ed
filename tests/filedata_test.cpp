// File-data handlers called directly, without a device: the refusals that
// must never reach one, the safe-save staging, read-through tracking and the
// transfer records queued for the tray. Then staging files reaching the
// device whole: uploads in 65535-byte chunks checked byte for byte against
// the simulated device's image, with the mount context connected as
// start-up connects it.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <string>

#include "tarnifs/filedata.h"
#include "tarnifs/notify.h"
#include "tests/support/catalogue_fixture.h"

namespace {

// Takes every queued transfer record off the queue.
std::vector<_KTL_PIPE_DATA_BOX_FS_VALUE> takeQueued() {
    std::vector<_KTL_PIPE_DATA_BOX_FS_VALUE> records;
    std::lock_guard<std::mutex> guard(gQueueLock);
    while (!gQueue.empty()) {
        records.push_back(*gQueue.front());
        free(gQueue.front());
        gQueue.pop_front();
    }
    return records;
}

class FileDataUnitTest : public MountContextTest {
protected:
    void SetUp() override {
        MountContextTest::SetUp();
        drainQueue();
        snprintf(context.work_dir, sizeof(context.work_dir), "%s/work", tempDir.c_str());
        mkdir(context.work_dir, 0700);
        context.device_info.free_capacity = 1000000;
        for (const char *path : {"/", "/Storage", "/Media", "/Media/Music"}) folder(path);
    }
    void TearDown() override {
        drainQueue();
        MountContextTest::TearDown();
    }
};

TEST_F(FileDataUnitTest, AMediaItemIsNeverOpenedOrResizedForWriting) {
    _KTL_OBJECT *song = file("/Media/Music/Artist - Title.mp3", 4000);
    const char *devicePath = "/iTunes_Control/Music/F00/ABCD.mp3";
    EditExtras(song).device_path = new char[strlen(devicePath) + 1];
    strcpy(Extras(song).device_path, devicePath);

    for (int flags : {O_WRONLY, O_RDWR, O_RDONLY | O_TRUNC}) {
        struct fuse_file_info fi {};
        fi.flags = flags;
        memset(context.dialog.dialog_message, 0, sizeof(context.dialog.dialog_message));
        EXPECT_EQ(tarnifs_open("/Media/Music/Artist - Title.mp3", &fi), -ECANCELED) << flags;
        EXPECT_EQ(fi.fh, 0u);
        EXPECT_EQ(dialogText(), "This folder is read only. You can not write or modify.\n/Media/Music");
        EXPECT_STREQ(context.dialog.dialog_title, "Quorvel Notification");
    }
    EXPECT_EQ(Extras(song).open_count, 0u);
    EXPECT_EQ(Extras(song).file_handle, 0u);

    EXPECT_EQ(tarnifs_truncate("/Media/Music/Artist - Title.mp3", 0, nullptr), -ECANCELED);
    EXPECT_EQ(song->size, 4000u);
    EXPECT_EQ(context.device_info.free_capacity, 1000000u);
}

TEST_F(FileDataUnitTest, ASafeSaveOverAnExistingFileIsStagedAtItsOffsetsAndTheDeviceIsLeftAlone) {
    file("/Storage/report.doc", 300);
    const char *name = "/Storage/report.doc.sb-5e0f12ab-Qx7LmZ";
    _KTL_OBJECT *temporary = file(name, 0);
    EditExtras(temporary).file_handle = 77;  // created on the device, as create does
    EditExtras(temporary).open_count = 1;
    struct fuse_file_info fi {};
    fi.fh = reinterpret_cast<uint64_t>(temporary);

    EXPECT_EQ(tarnifs_write(name, "hello", 5, 0, &fi), 5);
    EXPECT_EQ(tarnifs_write(name, "XY", 2, 1, &fi), 2);
    EXPECT_EQ(tarnifs_write(name, "!", 1, 5, &fi), 1);
    std::string staged = std::string(context.work_dir) + "/staging" + name;
    EXPECT_EQ(readLocal(staged), "hXYlo!");
    struct stat st;
    ASSERT_EQ(stat(staged.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << "staged files are private";
    EXPECT_EQ(temporary->type, static_cast<uint32_t>(KTL_TYPE_STAGED));
    EXPECT_EQ(temporary->size, 6u);
    EXPECT_EQ(Extras(temporary).writing, 1);
    EXPECT_EQ(context.device_info.free_capacity, 1000000u - 6);
    // Staging counterparts made on their own are private too.
    ASSERT_EQ(MakeTmpPath(&context, "/Storage", KTL_MODE_FOLDER), 0);
    ASSERT_EQ(MakeTmpPath(&context, "/Storage/draft.txt", KTL_MODE_FILE), 0);
    ASSERT_EQ(stat((std::string(context.work_dir) + "/Storage").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    ASSERT_EQ(stat((std::string(context.work_dir) + "/Storage/draft.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    // A safe-save name whose original does not exist, and a name that only
    // contains ".sb-" beside an existing file, are ordinary files: their
    // writes go to the device (here: no device handle, so refused).
    for (const char *loosePath : {"/Storage/nothing.sb-5e0f12ab-Qx7LmZ", "/Storage/report.doc.sb-copy"}) {
        _KTL_OBJECT *loose = file(loosePath, 0);
        struct fuse_file_info looseFi {};
        looseFi.fh = reinterpret_cast<uint64_t>(loose);
        EXPECT_EQ(tarnifs_write(loosePath, "x", 1, 0, &looseFi), -ECANCELED) << loosePath;
        EXPECT_EQ(readLocal(std::string(context.work_dir) + "/staging" + loosePath), "") << loosePath;
    }
}

TEST_F(FileDataUnitTest, ReleaseQueuesOneTransferRecordPerFileReadThroughOrWritten) {
    // A staged file is read from the work folder under its volume path; the
    // mount's connection is only looked at, never used, for it.
    alignas(8) static char connectionStandIn[64];
    context.afc_handle = reinterpret_cast<libiusb_afc *>(connectionStandIn);
    _KTL_OBJECT *notes = file("/Storage/notes.abcdefghijkl", 10);
    notes->type = KTL_TYPE_STAGED;
    EditExtras(notes).open_count = 1;  // another program holds it open: nothing is uploaded yet
    mkdir((std::string(context.work_dir) + "/staging").c_str(), 0700);
    mkdir((std::string(context.work_dir) + "/staging/Storage").c_str(), 0700);
    std::ofstream(std::string(context.work_dir) + "/staging/Storage/notes.abcdefghijkl") << "0123456789";
    struct fuse_file_info fi {};
    ASSERT_EQ(tarnifs_open("/Storage/notes.abcdefghijkl", &fi), 0);
    char buffer[16] = {0};
    EXPECT_EQ(tarnifs_read("/Storage/notes.abcdefghijkl", buffer, 4, 0, &fi), 4);
    EXPECT_EQ(Extras(notes).reading, 0);
    EXPECT_EQ(tarnifs_read("/Storage/notes.abcdefghijkl", buffer, 3, 7, &fi), 3);  // a gap: not through yet
    EXPECT_EQ(Extras(notes).reading, 0);
    EXPECT_EQ(tarnifs_read("/Storage/notes.abcdefghijkl", buffer, 6, 4, &fi), 6);  // the run reaches the end
    EXPECT_EQ(Extras(notes).reading, 1);
    EXPECT_EQ(std::string(buffer, 6), "456789");
    EditExtras(notes).writing = 1;
    EXPECT_EQ(tarnifs_release("/Storage/notes.abcdefghijkl", &fi), 0);

    std::vector<_KTL_PIPE_DATA_BOX_FS_VALUE> queued = takeQueued();
    ASSERT_EQ(queued.size(), 1u) << "one record per release, reading first";
    EXPECT_EQ(queued[0].kind, 1u);
    EXPECT_EQ(queued[0].size, 10u);
    EXPECT_STREQ(queued[0].extension, "abcdefghi");
    EXPECT_EQ(Extras(notes).writing, 1) << "left for the next release";

    ASSERT_EQ(tarnifs_open("/Storage/notes.abcdefghijkl", &fi), 0);
    EXPECT_EQ(tarnifs_release("/Storage/notes.abcdefghijkl", &fi), 0);
    queued = takeQueued();
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(queued[0].kind, 2u);
    EXPECT_EQ(Extras(notes).open_count, 1u);

    // Nothing read through, nothing written: nothing to report.
    ASSERT_EQ(tarnifs_open("/Storage/notes.abcdefghijkl", &fi), 0);
    EXPECT_EQ(tarnifs_read("/Storage/notes.abcdefghijkl", buffer, 2, 0, &fi), 2);
    EXPECT_EQ(tarnifs_release("/Storage/notes.abcdefghijkl", &fi), 0);
    EXPECT_TRUE(takeQueued().empty());
    context.afc_handle = nullptr;
}

TEST_F(FileDataUnitTest, CreatingOutsideStorageAndAppFoldersIsRefused) {
    struct fuse_file_info fi {};
    for (const auto &refused : {std::make_pair("/Apps/new.txt", "/Apps"), std::make_pair("/new.txt", "/"),
                                std::make_pair("/Storagex.txt", "/"),
                                std::make_pair("/Media/Music/new.mp3", "/Media/Music")}) {
        EXPECT_EQ(tarnifs_create(refused.first, 0644, &fi), -ECANCELED) << refused.first;
        EXPECT_EQ(dialogText(), std::string("This folder is read only. You can not write or modify.\n") + refused.second);
        EXPECT_EQ(fi.fh, 0u);
    }
    // The file manager's index is accepted and never written.
    EXPECT_EQ(tarnifs_create("/Storage/.Spotlight-V100", 0644, &fi), 0);
    EXPECT_EQ(fi.fh, 0u);
    EXPECT_EQ(FindObject("/Storage/.Spotlight-V100"), nullptr);
}

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

TEST_F(UploadTest, StagedFilesOfEverySizeArriveWholeReplaceLongerOnesAppendWhenAskedAndNeedTheirSource) {
    for (size_t size : {0ul, 1ul, 65534ul, 65535ul, 65536ul, 131070ul, 131071ul, 200000ul}) {
        std::string name = "staged" + std::to_string(size);
        std::string bytes = randomBytes(size, static_cast<unsigned>(size) + 1);
        stage(name, bytes);
        EXPECT_EQ(uploadfile(&context, ("/" + name).c_str(), ("/general_storage/" + name).c_str(), context.afc_handle,
                             true),
                  0)
            << size;
        EXPECT_EQ(readLocal(storage + "/" + name), bytes) << size;
        EXPECT_FALSE(exists(std::string(context.work_dir) + "/" + name)) << "removed once uploaded";
    }

    // Over a longer file, then appended to it.
    std::string bytes = randomBytes(70000, 5);
    stage("new.bin", bytes);
    ASSERT_EQ(uploadfile(&context, "/new.bin", "/general_storage/longer.bin", context.afc_handle, false), 0);
    EXPECT_EQ(readLocal(storage + "/longer.bin"), bytes) << "exactly the new bytes, no old tail";
    EXPECT_EQ(readLocal(std::string(context.work_dir) + "/new.bin"), bytes) << "kept when not asked to remove";

    ASSERT_EQ(uploadfileappend(&context, "/new.bin", "/general_storage/longer.bin"), 0);
    EXPECT_EQ(readLocal(storage + "/longer.bin"), bytes + bytes);

    // Without its staging file nothing reaches the device.
    EXPECT_EQ(uploadfile(&context, "/missing.bin", "/general_storage/missing.bin", context.afc_handle, true), -1);
    EXPECT_FALSE(exists(storage + "/missing.bin"));
    EXPECT_TRUE(logContains("uploadfile frompath(/missing.bin) file is not exist."));
}

} // namespace
