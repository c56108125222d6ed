// Start-up and shut-down of a real mount against the simulated device.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

class StartupTest : public MountedDeviceTest {};

DevsimImage phone(const std::string &name, uint32_t locationId) {
    return namedPhone(name, locationId, {name + ".txt"});
}

// One devsim serves several phones; each part mounts the one it is about.
TEST_F(StartupTest, ChoosesTheDeviceByLocationIdAndLeavesNothingBehindAtUnmount) {
    DevsimImage roomy = phone("roomy", 8);
    roomy.capacity_bytes = 68719476736ull;
    DevsimImage withApp = phone("tray", 14);
    withApp.apps = {{"com.example.notes", "Notes", true}};
    std::vector<std::string> dirs;
    for (const DevsimImage &image : {phone("first", 5), phone("second", 9), phone("linked", 23), roomy, withApp}) {
        dirs.push_back(tempDir + "/" + image.name);
        ASSERT_TRUE(write_devsim_image(dirs.back(), image));
    }
    // A sparse file leaves exactly 15,000,000,000 bytes free on the roomy device.
    std::string big = tempDir + "/roomy/media/general_storage/sparse.bin";
    std::ofstream(big).close();
    uint64_t stored = std::filesystem::file_size(tempDir + "/roomy/media/general_storage/roomy.txt");
    ASSERT_EQ(truncate(big.c_str(), static_cast<off_t>(68719476736ull - 15000000000ull - stored)), 0);
    ASSERT_TRUE(sim.start_with_dirs(dirs)) << sim.error();

    ASSERT_TRUE(mountDevice(9));
    // "-neoff" closes every start-up, so the tray listener knows it may go on.
    EXPECT_TRUE(tray.waitFor("-neoff"));
    struct stat st;
    ASSERT_EQ(stat(inMount("/Storage/second.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, static_cast<off_t>(strlen("second")));
    EXPECT_NE(stat(inMount("/Storage/first.txt").c_str(), &st), 0);
    EXPECT_EQ(mount.countLog("device_init Device Name : second"), 1);
    EXPECT_EQ(mount.countLog("device_init Connected device 1 : 0x9"), 1);
    ASSERT_EQ(lstat("/tmp/9", &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 0777), S_IFDIR | 0700u);
    EXPECT_EQ(unmountDevice(), 0);
    EXPECT_NE(lstat("/tmp/9", &st), 0) << "the work folder outlived the mount";

    // "/tmp/<id>" taken by a link (or anything not ours) is left alone: the
    // mount works in a fresh private folder and removes only that.
    std::string target = tempDir + "/precious";
    ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
    std::ofstream(target + "/keep.txt") << "keep me";
    unlink("/tmp/23");
    ASSERT_EQ(symlink(target.c_str(), "/tmp/23"), 0);
    ASSERT_TRUE(mountDevice(23));
    // A first request is answered only once start-up is over: the log line is written by then.
    EXPECT_EQ(stat(inMount("/Storage/linked.txt").c_str(), &st), 0);
    EXPECT_EQ(mount.countLog("tarnifs_init /tmp/23 is not a private folder of ours, using a fresh one"), 1);
    EXPECT_EQ(unmountDevice(), 0);
    EXPECT_EQ(lstat("/tmp/23", &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
    EXPECT_TRUE(std::filesystem::exists(target + "/keep.txt"));
    for (const auto &entry : std::filesystem::directory_iterator("/tmp"))
        EXPECT_NE(entry.path().filename().string().rfind("quorvel-23-", 0), 0u) << "outlived the mount: " << entry.path();
    unlink("/tmp/23");

    // Volume figures are the calibrated device capacities.
    ASSERT_TRUE(mountDevice(8));
    std::string figures = runProgram({"stat", "-f", "-c", "%S %b %f %a", mount.mountPoint});
    EXPECT_EQ(figures, "4096 15625000 3408203 3408203\n");
    EXPECT_EQ(unmountDevice(), 0);

    // Whether the tray listener is missing, listening, or killed in the
    // middle (`quorvel tray` here), the file system keeps answering and
    // unmounts. Without a listener every pipe message fails quietly; one that
    // is reading hears the busy signals of the app listing.
    const std::string killed = tempDir + "/killed.fifo";
    pid_t listener = startProgram({"/usr/bin/env", "QUORVEL_PIPE=" + killed, quorvelProgram(), "tray"}, tempDir + "/tray.out");
    ASSERT_TRUE(eventually([&] { return exists(killed); }));
    for (const std::string fifo : {"/nobody.fifo", "/tray.fifo", "/killed.fifo"}) {
        SCOPED_TRACE(fifo);
        mount.extraEnvironment.back() = "QUORVEL_PIPE=" + tempDir + fifo;
        ASSERT_TRUE(mountDevice(14));
        EXPECT_EQ(runProgram({"ls", inMount("/Apps")}), "Notes\n");
        if (fifo == "/nobody.fifo") {
            EXPECT_GE(mount.countLog("sendPipeMsg open pipe failed. errno : 2"), 1);
        } else if (fifo == "/tray.fifo") {
            EXPECT_TRUE(tray.waitFor("-neoff-neon-neoff"));
        } else {
            kill(listener, SIGKILL);
            waitpid(listener, nullptr, 0);
            EXPECT_EQ(stat(inMount("/Apps/Notes").c_str(), &st), 0);
        }
        EXPECT_EQ(unmountDevice(), 0);
    }
}

// Start-up goes on while a device is missing or asks to be trusted, and gives
// up after eleven attempts.
TEST_F(StartupTest, WaitsForALateOrCarefulDeviceAndGivesUpOnAMissingOne) {
    ASSERT_TRUE(startDevice({phone("late", 3), phone("careful", 6)}));
    ASSERT_TRUE(mountDevice(78));
    std::string root = mount.mountPoint;
    // Start-up runs before the first request is answered.
    struct stat st;
    errno = 0;
    EXPECT_NE(stat(inMount("/Storage").c_str(), &st), 0);
    EXPECT_EQ(errno, ENOSYS);
    EXPECT_EQ(mount.countLog("device_init no devices."), 11);
    EXPECT_TRUE(tray.waitFor("-neoff"));
    EXPECT_NE(access("/tmp/78", F_OK), 0) << "a failed start-up leaves no work folder";

    // Operations as programs issue them: each must fail and leave the file
    // system running. Below the root every one (cat, cp, mkdir, rm, mv, ...)
    // first looks "/Storage" up, the very request `stat` makes; the handlers
    // themselves are MissingContextTest's.
    struct Step {
        const char *what;
        std::function<int()> run;
    };
    std::vector<Step> steps = {
        {"chmod of the mount point", [&] { return chmod(root.c_str(), 0700); }},
        {"setxattr on the mount point", [&] { return setxattr(root.c_str(), "user.a", "v", 1, 0); }},
        {"getxattr on the mount point", [&] { char v[8]; return static_cast<int>(getxattr(root.c_str(), "user.a", v, 8)); }},
        {"removexattr on the mount point", [&] { return removexattr(root.c_str(), "user.a"); }},
        {"utimens of the mount point", [&] { return utimensat(AT_FDCWD, root.c_str(), nullptr, 0); }},
        {"ls", [&] { return runStatus({"ls", root}); }},
        {"stat", [&] { struct stat st; return stat((root + "/Storage/a.txt").c_str(), &st); }},
        {"df", [&] { struct statvfs vfs; return statvfs(root.c_str(), &vfs); }},
    };
    for (const Step &step : steps) {
        errno = 0;
        auto done = std::async(std::launch::async, step.run);
        ASSERT_EQ(done.wait_for(std::chrono::seconds(60)), std::future_status::ready) << step.what << " hung";
        EXPECT_NE(done.get(), 0) << step.what;
        EXPECT_EQ(kill(mount.pid, 0), 0) << "quorvelfs ended after: " << step.what;
        struct statvfs vfs;
        errno = 0;
        statvfs(root.c_str(), &vfs);
        EXPECT_NE(errno, ENOTCONN) << "the mount died after: " << step.what;
    }
    EXPECT_EQ(unmountDevice(), 0);
    EXPECT_FALSE(isFuseMountPoint(root));

    // A device that appears half a second later is found.
    ASSERT_EQ(sim.control("appear-after " + sim.udid(0) + " 0.5"), "ok");
    ASSERT_TRUE(mountDevice(3));
    EXPECT_TRUE(std::filesystem::exists(inMount("/Storage/late.txt")));
    int misses = mount.countLog("device_init no devices.") - 11;
    EXPECT_GE(misses, 1);
    EXPECT_LT(misses, 11);
    EXPECT_EQ(unmountDevice(), 0);

    // A five-second trust prompt is waited out.
    ASSERT_EQ(sim.control("trust-prompt " + sim.udid(1) + " 5"), "ok");
    ASSERT_TRUE(mountDevice(6));
    EXPECT_TRUE(std::filesystem::exists(inMount("/Storage/careful.txt")));
    EXPECT_GE(mount.countLog("device_init libiusb fail cause trust dialog. retry(0/10)"), 1);
    EXPECT_GE(mount.countLog("device_init libiusb fail cause trust dialog. retry(1/10)"), 1);
    EXPECT_EQ(mount.countLog("device_init libiusb fail cause trust dialog. retry(3/10)"), 0);
}

} // namespace
