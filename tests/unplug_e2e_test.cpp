// A phone unplugged while mounted: every later request comes back promptly
// with its lost-connection dialog, nothing hangs, `quorvel unmount` ends the
// mount, and neither the work folder nor the process is left behind.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

class UnplugTest : public MountedDeviceTest {};

TEST_F(UnplugTest, EveryRequestAfterAnUnplugAnswersPromptlyAndUnmountingCleansUp) {
#ifndef QUORVEL_PATH
    GTEST_SKIP() << "the quorvel command was not built";
#else
    DevsimImage phone;
    phone.location_id = 61;
    phone.apps = {{"com.example.notes", "Notes", true}};
    phone.folders = {"media/general_storage/later"};
    phone.files = {{"media/general_storage/a.txt", std::string(100000, 'a')},
                   {"media/general_storage/later/b.txt", "b"},
                   {"apps/com.example.notes/Documents/n.txt", "note"}};
    ASSERT_TRUE(startDevice({phone}));
    ASSERT_TRUE(mountDevice(61));
    std::string workFolder = "/tmp/61";
    struct stat st;
    ASSERT_EQ(stat(inMount("/Storage/a.txt").c_str(), &st), 0);
    ASSERT_EQ(stat(workFolder.c_str(), &st), 0) << "the mount's private work folder";
    std::string local = tempDir + "/local.txt";
    std::ofstream(local) << "local";

    ASSERT_EQ(sim.control("unplug " + sim.udid(0)), "ok");

    struct Step {
        const char *what;
        std::function<int()> run;
        const char *dialog;  // what the user is told, or null when the answer needs no device
    };
    auto failed = [](std::vector<std::string> argv) {
        return [argv] { return runStatus(argv); };
    };
    std::vector<Step> steps = {
        {"cat", failed({"cat", inMount("/Storage/a.txt")}), "Lost USB connection.\nOpening file(a.txt) aborted."},
        {"ls of a folder not listed yet", failed({"ls", inMount("/Storage/later")}),
         "Lost USB Connection.\nDirectory reading aborted."},
        {"cp in", failed({"cp", local, inMount("/Storage/new.txt")}), "Lost USB connection.\nCreate a file aborted."},
        {"mkdir", failed({"mkdir", inMount("/Storage/folder")}), "Lost USB connection.\nDirectory making aborted."},
        {"rm", failed({"rm", inMount("/Storage/a.txt")}), "Lost USB connection.\nFile remove aborted."},
        {"cat in an app", failed({"cat", inMount("/Apps/Notes/n.txt")}), nullptr},
        {"ls of a listed folder", failed({"ls", inMount("/Storage")}), nullptr},
        {"df", [&] { struct statvfs vfs; return statvfs(mount.mountPoint.c_str(), &vfs); }, nullptr},
    };
    size_t seen = 0;
    for (const Step &step : steps) {
        auto done = std::async(std::launch::async, step.run);
        // A guard against hanging, not a measure of speed.
        ASSERT_EQ(done.wait_for(std::chrono::seconds(30)), std::future_status::ready) << step.what << " hung";
        int result = done.get();
        if (step.dialog == nullptr) continue;
        EXPECT_NE(result, 0) << step.what;
        std::vector<RecordedDialog> shown = dialogs.waitForDialogs(seen + 1);
        ASSERT_GT(shown.size(), seen) << "no dialog after: " << step.what;
        EXPECT_EQ(shown.back().message, step.dialog) << step.what;
        EXPECT_EQ(shown.back().title, "Quorvel Error!!");
        // A dialog still on its way arrives before the next step counts.
        seen = dialogs.waitForDialogsToSettle(seen + 1, 5).size();
    }
    EXPECT_GE(mount.countLog("tarnifs_open libiusb_afc_file_open failed. path(/general_storage/a.txt) ret : -32"), 1);
    EXPECT_EQ(stat((sim.image_dir(0) + "/media/general_storage/a.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 100000) << "the device file is whole";

    // quorvel unmount ends it; the process goes and takes its work folder with it.
    int status = -1;
    std::string quorvel = QUORVEL_PATH;
    std::string said = runProgram({quorvel, "unmount", mount.mountPoint}, &status);
    EXPECT_EQ(status, 0) << said;
    EXPECT_FALSE(isFuseMountPoint(mount.mountPoint));
    EXPECT_EQ(mount.stop(), 0) << "quorvelfs ends with status 0";
    EXPECT_NE(stat(workFolder.c_str(), &st), 0) << "the work folder is removed";
#endif
}

} // namespace
