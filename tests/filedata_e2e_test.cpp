// File data through a real mount: copies in and out of /Storage and an app's
// folder compared byte for byte with the device image, changes in place,
// what the tray hears, and device faults in the middle of a transfer.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

// A file's size as stat answers it, or -1.
// Runs `request` and says whether it came back within a minute: a request
// that hangs after a fault is a failure in itself. (A guard, not a timing.)
template <typename Request>
bool answers(Request request) {
    auto done = std::async(std::launch::async, request);
    return done.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
}

class FileDataTest : public MountedDeviceTest {
protected:
    // Waits for at least one dialog after the `seen` ones, then until no
    // more come (a fault may fail several requests in flight), and checks
    // that every new one is an error dialog saying `message`.
    void expectNewDialogsSay(const std::string &message) {
        std::vector<RecordedDialog> shown = dialogs.waitForDialogsToSettle(seen + 1, 10);
        ASSERT_GT(shown.size(), seen) << "no dialog for: " << message;
        for (size_t i = seen; i < shown.size(); ++i) {
            EXPECT_EQ(shown[i].message, message);
            EXPECT_EQ(shown[i].title, "Quorvel Error!!");
        }
        seen = shown.size();
    }

    DevsimImage image(uint32_t locationId) {
        DevsimImage phone;
        phone.name = "Copier";
        phone.location_id = locationId;
        location = locationId;
        phone.apps = {{"com.example.notes", "Notes", true}};
        phone.folders = {"media/general_storage/in", "apps/com.example.notes/Documents/in"};
        phone.files = {{"media/general_storage/long.txt", std::string(5000, 'L')},
                       {"media/general_storage/edit.bin", std::string(100, 'a')},
                       {"media/general_storage/big.bin", randomBytes(3 << 20, 7)},
                       {"media/general_storage/song.mp3", randomBytes(200000, 8)},
                       {"media/general_storage/gone.txt", "about to vanish"}};
        return phone;
    }
    // Unmounts (expecting a clean end) and mounts again with no dialogs or log yet.
    void mountFresh() {
        ASSERT_TRUE(mountAfresh(location));
        seen = 0;
        // Both areas listed, as a user's file manager would have them.
        runProgram({"ls", inMount("/Storage"), inMount("/Apps/Notes")});
    }
    // What an app on the phone does: the image changes behind the mount.
    void phoneWrites(const std::string &name, const std::string &bytes) { writeLocal(storageImage() + "/" + name, bytes); }
    void phoneAppends(const std::string &name, const std::string &bytes) {
        std::ofstream(storageImage() + "/" + name, std::ios::binary | std::ios::app) << bytes;
    }
    int shell(const std::string &command) { return runStatus({"sh", "-c", command}); }
    uint32_t location = 0;
    size_t seen = 0;  // dialogs of this mount already checked
};

// Location ids of their own: a mount's work folder is "/tmp/" + id.
constexpr uint32_t kPhoneChangesLocation = 9151;
constexpr uint32_t kStressLocation = 9203;

// Device faults in the middle of a transfer are reported and lose nothing;
// then, on the same device, copies in and out keep every byte and the tray
// hears of each, and writes through the mount meet the phone's own changes
// behind its back: every file holds exactly the bytes asked, nothing of the
// phone's is overwritten or hidden, and only Storage and app folders take new
// files.
TEST_F(FileDataTest, FaultsLoseNothingAndCopiesAndChangesInPlaceLeaveExactlyTheBytesAskedAndThePhonesOwnStay) {
    DevsimImage phone = image(kPhoneChangesLocation);
    phone.files.push_back({"media/general_storage/empty.txt", ""});
    phone.files.push_back({"media/general_storage/shrunk.txt", std::string(100, 's')});
    phone.files.push_back({"media/general_storage/log.txt", "first\n"});
    phone.files.push_back({"media/general_storage/held.txt", "0123456789"});
    phone.files.push_back({"media/general_storage/grown.txt", "short"});
    ASSERT_TRUE(startDevice({phone}));
    std::string udid = sim.udid(0);
    std::string original = readLocal(storageImage() + "/big.bin");

    // A file removed on the device behind the mount's back.
    mountFresh();
    ASSERT_EQ(unlink((storageImage() + "/gone.txt").c_str()), 0);
    EXPECT_EQ(open(inMount("/Storage/gone.txt").c_str(), O_RDONLY) < 0 ? errno : 0, ECANCELED);
    expectNewDialogsSay("Could not open a file(gone.txt).\nError Code : -70");

    // A device file shorter than the mount last saw it (changed behind its
    // back): the read brings what the device has, and nothing breaks.
    std::string longBytes = readLocal(storageImage() + "/long.txt");
    ASSERT_EQ(truncate((storageImage() + "/long.txt").c_str(), 100), 0);
    std::string shortened;
    EXPECT_TRUE(answers([&] {
        shortened = readLocal(inMount("/Storage/long.txt"));
        return 0;
    }));
    EXPECT_EQ(shortened, longBytes.substr(0, 100));

    // The connection drops while a file is being read: the read that meets
    // it fails; the kernel may have been reading ahead, and the reads after
    // it open the connection again. Whatever cp calls a copy is the device's.
    ASSERT_EQ(sim.control("drop-after-bytes " + udid + " 1048576"), "ok");
    int copied = -1;
    EXPECT_TRUE(answers([&] { return copied = runStatus({"cp", inMount("/Storage/big.bin"), tempDir + "/big.out"}); }));
    if (copied == 0) {
        EXPECT_TRUE(readLocal(tempDir + "/big.out") == original) << "cp succeeded with other bytes";
    }
    expectNewDialogsSay("Lost USB connection.\nReading aborted.");
    EXPECT_GE(mount.countLog("tarnifs_read libiusb_afc_file_read fail. Err=-32, path(/Storage/big.bin)"), 1);
    EXPECT_EQ(readLocal(storageImage() + "/big.bin"), original) << "the device file is whole where it was";
    // The mount stays up and answers at once.
    struct stat st;
    EXPECT_TRUE(answers([&] { return stat(inMount("/Storage/big.bin").c_str(), &st); }));
    EXPECT_TRUE(answers([&] { return runStatus({"ls", inMount("/Storage")}); }));
    ASSERT_EQ(sim.control("clear " + udid), "ok");

    // The connection drops while a file is being written: the source is
    // whole where it was, and the release after the drop does not hang.
    mountFresh();
    std::string upload = randomBytes(3 << 20, 11);
    writeLocal(tempDir + "/upload.bin", upload);
    ASSERT_EQ(sim.control("drop-after-bytes " + udid + " 1048576"), "ok");
    EXPECT_TRUE(answers([&] { return runStatus({"cp", tempDir + "/upload.bin", inMount("/Storage/in/upload.bin")}); }));
    expectNewDialogsSay("Lost USB connection.\nWriting aborted.");
    EXPECT_EQ(mount.countLog("tarnifs_write libiusb_afc_file_write failed. path(/Storage/in/upload.bin) ret -32"), 1);
    EXPECT_EQ(readLocal(tempDir + "/upload.bin"), upload);
    EXPECT_TRUE(answers([&] { return runStatus({"ls", inMount("/Storage/in")}); }));
    ASSERT_EQ(sim.control("clear " + udid), "ok");

    // No space left: no byte past the limit lands on the device.
    mountFresh();
    uint64_t used = 0;
    for (const char *file : {"long.txt", "edit.bin", "big.bin", "song.mp3"})
        used += readLocal(storageImage() + "/" + file).size();
    const uint64_t room = 500000;
    ASSERT_EQ(sim.control("capacity " + udid + " " + std::to_string(used + room)), "ok");
    std::string tooBig = randomBytes(2 << 20, 12);
    writeLocal(tempDir + "/toobig.bin", tooBig);
    EXPECT_TRUE(answers([&] { return runStatus({"cp", tempDir + "/toobig.bin", inMount("/Storage/in/toobig.bin")}); }));
    expectNewDialogsSay("Could not write a file.\nError Code : -62");
    std::string partial = readLocal(storageImage() + "/in/toobig.bin");
    EXPECT_TRUE(exists(storageImage() + "/in/toobig.bin"));
    EXPECT_LE(partial.size(), room);
    EXPECT_EQ(partial, tooBig.substr(0, partial.size()));
    EXPECT_EQ(readLocal(tempDir + "/toobig.bin"), tooBig);

    // Room again, and a mount that knows nothing of the faults above.
    ASSERT_EQ(sim.control("capacity " + udid + " 8000000000"), "ok");
    mountFresh();
    const size_t heard = tray.bytes().size();
    const std::vector<size_t> sizes = {0, 1, 65535, 65536, 65537, (3u << 20) + 17};
    for (const auto &area : {std::make_pair(std::string("/Storage/in"), storageImage() + "/in"),
                             std::make_pair(std::string("/Apps/Notes/in"), appImage() + "/in")}) {
        for (size_t size : sizes) {
            std::string name = "file" + std::to_string(size) + ".bin";
            std::string bytes = randomBytes(size, static_cast<unsigned>(size));
            std::string local = tempDir + "/" + name;
            writeLocal(local, bytes);
            ASSERT_EQ(runStatus({"cp", local, inMount(area.first + "/" + name)}), 0) << area.first << " " << size;
            EXPECT_EQ(readLocal(area.second + "/" + name), bytes) << "on the device: " << area.first << " " << size;
            std::string back = tempDir + "/back-" + name;
            ASSERT_EQ(runStatus({"cp", inMount(area.first + "/" + name), back}), 0);
            EXPECT_EQ(readLocal(back), bytes) << "copied out: " << area.first << " " << size;
            EXPECT_EQ(sizeOf(inMount(area.first + "/" + name)), static_cast<off_t>(size));
        }
    }

    // A new file is on the device as soon as it is created, before any write.
    int fd = open(inMount("/Storage/in/fresh.txt").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    ASSERT_GE(fd, 0) << strerror(errno);
    EXPECT_EQ(sizeOf(storageImage() + "/in/fresh.txt"), 0);
    ASSERT_EQ(write(fd, "x", 1), 1);
    close(fd);
    EXPECT_EQ(readLocal(storageImage() + "/in/fresh.txt"), "x");

    // Two programs reading one file at the same time get the same bytes.
    auto readBig = [&] { return readLocal(inMount("/Storage/big.bin")); };
    auto first = std::async(std::launch::async, readBig);
    auto second = std::async(std::launch::async, readBig);
    EXPECT_EQ(first.get(), original);
    EXPECT_EQ(second.get(), original);

    // The tray hears of every file read through and written.
    ASSERT_EQ(runStatus({"cp", inMount("/Storage/song.mp3"), tempDir + "/song.mp3"}), 0);
    EXPECT_TRUE(tray.waitFor(transferRecordBytes(1, 200000, "mp3"))) << "read through";

    writeLocal(tempDir + "/upload.jpeg", randomBytes(70000, 3));
    ASSERT_EQ(runStatus({"cp", tempDir + "/upload.jpeg", inMount("/Storage/in/upload.jpeg")}), 0);
    EXPECT_TRUE(tray.waitFor(transferRecordBytes(2, 70000, "jpeg"))) << "written";
    EXPECT_NE(tray.bytes().find("-ncdat", heard), std::string::npos);
    EXPECT_TRUE(dialogs.dialogs().empty());

    EXPECT_EQ(readLocal(inMount("/Storage/grown.txt")), "short");  // the kernel has seen its size

    // Saving over a file the phone made longer (the catalogue says empty)
    // or shorter leaves exactly what was saved.
    phoneWrites("empty.txt", "an app on the phone wrote this line\n");
    phoneWrites("shrunk.txt", "tiny");
    for (const char *name : {"empty.txt", "shrunk.txt"}) {
        ASSERT_EQ(shell("echo NEW > " + inMount("/Storage/") + name), 0) << name;
        EXPECT_EQ(readLocal(storageImage() + "/" + name), "NEW\n") << name;
    }

    // An append lands after the line the phone added, whether the file is
    // opened afresh or was already open when the phone changed it.
    phoneAppends("log.txt", "phone line\n");
    ASSERT_EQ(shell("echo X >> " + inMount("/Storage/log.txt")), 0);
    EXPECT_EQ(readLocal(storageImage() + "/log.txt"), "first\nphone line\nX\n");
    int reader = open(inMount("/Storage/log.txt").c_str(), O_RDONLY);
    ASSERT_GE(reader, 0) << strerror(errno);
    phoneAppends("log.txt", "second phone line\n");
    ASSERT_EQ(shell("echo Y >> " + inMount("/Storage/log.txt")), 0);
    EXPECT_EQ(readLocal(storageImage() + "/log.txt"), "first\nphone line\nX\nsecond phone line\nY\n");

    // A size change reaches the device even when it is the size the
    // catalogue holds (the file open, so nothing looked at it again).
    int holder = open(inMount("/Storage/held.txt").c_str(), O_RDONLY);
    ASSERT_GE(holder, 0) << strerror(errno);
    phoneWrites("held.txt", "0123456789 and twenty more bytes");
    ASSERT_EQ(runStatus({"truncate", "-s", "10", inMount("/Storage/held.txt")}), 0);
    EXPECT_EQ(readLocal(storageImage() + "/held.txt"), "0123456789");
    close(holder);
    close(reader);

    // A file the phone made longer reads to its new end.
    phoneWrites("grown.txt", "short, and then the phone added more");
    EXPECT_EQ(readLocal(inMount("/Storage/grown.txt")), "short, and then the phone added more");
    EXPECT_EQ(sizeOf(inMount("/Storage/grown.txt")), 36);

    // cp over a longer file leaves exactly the new bytes.
    writeLocal(tempDir + "/short.txt", "short");
    ASSERT_EQ(runStatus({"cp", tempDir + "/short.txt", inMount("/Storage/long.txt")}), 0);
    EXPECT_EQ(readLocal(storageImage() + "/long.txt"), "short");

    // dd conv=notrunc changes only its own bytes.
    writeLocal(tempDir + "/patch", "XYZ");
    ASSERT_EQ(runStatus({"dd", "if=" + tempDir + "/patch", "of=" + inMount("/Storage/edit.bin"), "bs=1", "seek=40",
                   "conv=notrunc", "status=none"}),
              0);
    std::string edited(100, 'a');
    edited.replace(40, 3, "XYZ");
    EXPECT_EQ(readLocal(storageImage() + "/edit.bin"), edited);

    // truncate shrinks and grows the device file; stat agrees at once.
    ASSERT_EQ(runStatus({"truncate", "-s", "10", inMount("/Storage/edit.bin")}), 0);
    EXPECT_EQ(readLocal(storageImage() + "/edit.bin"), edited.substr(0, 10));
    ASSERT_EQ(runStatus({"truncate", "-s", "20", inMount("/Storage/edit.bin")}), 0);
    EXPECT_EQ(readLocal(storageImage() + "/edit.bin"), edited.substr(0, 10) + std::string(10, '\0'));
    EXPECT_EQ(sizeOf(inMount("/Storage/edit.bin")), 20);

    // Appending (as >> does) lands at the end.
    ASSERT_EQ(runStatus({"dd", "if=" + tempDir + "/patch", "of=" + inMount("/Storage/edit.bin"), "oflag=append",
                   "conv=notrunc", "status=none"}),
              0);
    EXPECT_EQ(readLocal(storageImage() + "/edit.bin"), edited.substr(0, 10) + std::string(10, '\0') + "XYZ");
    EXPECT_EQ(sizeOf(inMount("/Storage/edit.bin")), 23);

    // An open that truncates empties the device file too.
    fd = open(inMount("/Storage/edit.bin").c_str(), O_WRONLY | O_TRUNC);
    ASSERT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(readLocal(storageImage() + "/edit.bin"), "");

    // A user's file whose name says "Spotlight" is created like any other.
    EXPECT_EQ(shell("echo kept > '" + inMount("/Storage/Spotlight notes.txt") + "'"), 0);
    EXPECT_EQ(readLocal(storageImage() + "/Spotlight notes.txt"), "kept\n");

    // A name at the root that merely begins with "Storage" is the root's:
    // refused with the read-only notice, nothing on the device. (FileDataUnitTest
    // pins every place a file may not be made.)
    EXPECT_NE(runStatus({"touch", inMount("/Storagex.txt")}), 0);
    EXPECT_FALSE(exists(sim.image_dir(0) + "/media/general_storagex.txt"));
    std::vector<RecordedDialog> shown = dialogs.waitForDialogs(1);
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].message, "This folder is read only. You can not write or modify.\n/");
}

// stress-ng's file stressors that the device can carry, each a few seconds
// with its own verification, one after another on /Storage: every one ends,
// passes, and leaves the folder as empty as it found it; then fio's
// verifying jobs. (scripts/stress_storage.sh runs the whole list, links and times included.)
TEST_F(FileDataTest, StressNgAndFioVerifyOnStorage) {
    for (const char *program : {"stress-ng", "fio"})
        if (runProgram({"sh", "-c", std::string("command -v ") + program}).empty())
            GTEST_SKIP() << program << " is not installed (package " << program << ")";
    ASSERT_TRUE(startDevice({image(kStressLocation)}));
    mountFresh();
    for (const char *stressor : {"hdd", "rename", "dir", "dentry", "filename", "io", "copy-file", "sendfile", "fstat"}) {
        int status = -1;
        std::string output = runProgram({"timeout", "120", "stress-ng", std::string("--") + stressor, "1", "--timeout",
                                         "3", "--verify", "--temp-path", inMount("/Storage/in"), "--hdd-bytes", "4m",
                                         "--stdout"},
                                        &status);
        EXPECT_EQ(status, 0) << stressor << ":\n" << output;
    }
    EXPECT_TRUE(namesIn(storageImage() + "/in").empty());
    EXPECT_TRUE(namesIn(inMount("/Storage/in")).empty());

    // fio verifies every block it wrote, sequentially and at random.
    const std::string output = tempDir + "/fio.out";
    int status = -1;
    runProgram({"timeout", "600", "fio", "--directory=" + inMount("/Storage/in"),
                std::string(QUORVEL_SOURCE_DIR) + "/tests/fio/verify.fio", "--output=" + output},
               &status);
    std::string report = readLocal(output);
    EXPECT_EQ(status, 0) << report;
    EXPECT_EQ(report.find("verify:"), std::string::npos) << report;
    // Every job ran and reported no error.
    size_t jobs = 0;
    for (size_t at = report.find("err= 0"); at != std::string::npos; at = report.find("err= 0", at + 1)) ++jobs;
    EXPECT_EQ(jobs, 3u) << report;
    // Names past NAME_MAX (the filename stressor tries them) are refused
    // as Linux refuses them, not with a dialog.
    for (const RecordedDialog &dialog : dialogs.dialogs()) ADD_FAILURE() << "dialog: " << dialog.message;
}

} // namespace
