// `quorvel demo` run as a user runs it: it must reach a browsable mount, and
// however it is stopped (Ctrl-C, SIGTERM, SIGKILL, a dead mount left by
// someone else) the next run must work and nothing may stay behind.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/fuse_mount.h"
#include "tools/process.h"

namespace fs = std::filesystem;

namespace {

const std::string kQuorvel = quorvelProgram();

// One `quorvel demo MOUNTPOINT` process, its output collected in a file.
struct DemoRun {
    pid_t pid = -1;
    std::string output;
    int status = -1;

    void start(const std::string &mountPoint, const std::string &outputFile) {
        output = outputFile;
        pid = startProgram({kQuorvel, "demo", mountPoint}, outputFile);
    }
    std::string text() const { return readLocal(output); }
    // True once `wanted` was printed; false when the demo ended first or
    // the generous wait ran out.
    bool waitFor(const std::string &wanted, int seconds = 180) {
        eventually([&] { return text().find(wanted) != std::string::npos || finished(0); }, seconds);
        return text().find(wanted) != std::string::npos;
    }
    // True once it ended (waiting up to `seconds`), its wait status in `status`.
    bool finished(int seconds) {
        return eventually(
            [&] {
                if (pid > 0 && waitpid(pid, &status, WNOHANG) == pid) pid = -1;
                return pid <= 0;
            },
            seconds);
    }
    // Only ever this process: kill(-1, ...) would reach every process we own.
    void signal(int sig) {
        if (pid > 0) kill(pid, sig);
    }
    void kill9() {
        signal(SIGKILL);
        finished(60);
    }
    // The private folder the demo announced ("... image in /tmp/quorvel-demo-XXXXXX/image").
    std::string workFolder() const {
        std::string all = text();
        size_t at = all.find("/tmp/quorvel-demo-");
        if (at == std::string::npos) return "";
        return all.substr(at, strlen("/tmp/quorvel-demo-XXXXXX"));
    }
};

// Processes whose command line mentions `needle` (the demo's children name
// its work folder in their arguments).
int processesMentioning(const std::string &needle) {
    int count = 0;
    DIR *proc = opendir("/proc");
    while (proc != nullptr) {
        dirent *entry = readdir(proc);
        if (entry == nullptr) break;
        if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
        std::string cmdline = readLocal(std::string("/proc/") + entry->d_name + "/cmdline");
        for (char &c : cmdline) c = c == '\0' ? ' ' : c;
        if (cmdline.find(needle) != std::string::npos) count++;
    }
    if (proc != nullptr) closedir(proc);
    return count;
}

const char kBrowsable[] = "The demo is browsable. Press Ctrl-C";

class QuorvelDemoCommand : public ::testing::Test {
protected:
    void SetUp() override {
        if (kQuorvel.empty()) GTEST_SKIP() << "quorvel was not built (QUORVEL_PATH unset)";
        if (devsim_program().empty()) GTEST_SKIP() << "devsim was not built (DEVSIM_PATH unset)";
        std::string why = fuseUnavailableReason();
        if (!why.empty()) GTEST_SKIP() << why;
        char pattern[] = "/tmp/quorvel-demo-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        folder = pattern;
        mountPoint = folder + "/demo mount";  // a space, as users' folders have
    }
    void TearDown() override {
        if (folder.empty()) return;
        for (DemoRun *run : {&first, &second}) {
            if (run->pid > 0) {
                run->signal(SIGTERM);
                if (!run->finished(60)) run->kill9();
            }
        }
        if (isFuseMountPoint(mountPoint) || quorvel_tools::isDeadMount(mountPoint)) run_program({fusermountProgram(), "-u", "-z", mountPoint});
        eventually([&] { return !isFuseMountPoint(mountPoint); }, 30);
        std::error_code error;
        fs::remove_all(folder, error);
    }
    // The run must have mounted the simulated device and shown it.
    void expectBrowsable(DemoRun &run) {
        ASSERT_TRUE(run.waitFor(kBrowsable)) << run.text();
        EXPECT_TRUE(isFuseMountPoint(mountPoint)) << run.text();
        std::string shown = run.text();
        EXPECT_NE(shown.find("\n" + mountPoint + "\n├── Apps\n"), std::string::npos) << shown;
        EXPECT_NE(shown.find("└── Storage\n"), std::string::npos) << shown;
        // The media tree is served (how it is named is the media test's).
        EXPECT_NE(shown.find("The Examples-Morning Light (2).mp3\n"), std::string::npos) << shown;
        EXPECT_NE(shown.find("directories, "), std::string::npos) << shown;
        EXPECT_NE(shown.find("df -h '" + mountPoint + "'"), std::string::npos) << shown;
        EXPECT_TRUE(fs::is_directory(mountPoint + "/Storage/Documents")) << "the sample's Storage is served";
    }
    // Stopped, it leaves no mount, no work folder and no process behind.
    void expectNothingLeft(DemoRun &run, const std::string &workFolder, bool runMadeMountPoint = true) {
        ASSERT_TRUE(run.finished(120)) << run.text();
        EXPECT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0) << run.status << "\n" << run.text();
        EXPECT_NE(run.text().find("Demo stopped; nothing left behind."), std::string::npos) << run.text();
        EXPECT_FALSE(isFuseMountPoint(mountPoint));
        if (runMadeMountPoint) {
            EXPECT_FALSE(fs::exists(mountPoint)) << "the demo made the mount point, so it removes it";
        }
        ASSERT_FALSE(workFolder.empty()) << run.text();
        EXPECT_FALSE(fs::exists(workFolder));
        EXPECT_EQ(processesMentioning(workFolder), 0);
    }

    std::string folder, mountPoint;
    DemoRun first, second;
};

TEST_F(QuorvelDemoCommand, BecomesBrowsableCtrlCLeavesNothingBehindAndTheNextRunRecoversFromSigkill) {
    first.start(mountPoint, folder + "/first.out");
    expectBrowsable(first);
    std::string work = first.workFolder();
    ASSERT_TRUE(fs::is_directory(work + "/log")) << "the file system logs into the demo's own folder";
    // Inside the mount while Ctrl-C comes: clean-up must still finish.
    int held = open((mountPoint + "/Storage").c_str(), O_RDONLY | O_DIRECTORY);
    first.signal(SIGINT);
    first.signal(SIGINT);  // impatient users press twice
    expectNothingLeft(first, work);
    if (held >= 0) close(held);

    first.start(mountPoint, folder + "/killed.out");
    ASSERT_TRUE(first.waitFor(kBrowsable)) << first.text();
    std::string firstWork = first.workFolder();
    first.kill9();
    // Its children notice it died and stop; the mount and folder may stay.
    EXPECT_TRUE(eventually([&] { return processesMentioning(firstWork) == 0; }, 60)) << "devsim or quorvelfs outlived it";

    second.start(mountPoint, folder + "/second.out");
    expectBrowsable(second);
    EXPECT_FALSE(fs::exists(firstWork)) << "the killed run's folder is cleared by the next run";
    std::string secondWork = second.workFolder();
    second.signal(SIGTERM);
    expectNothingLeft(second, secondWork, false);
}

TEST_F(QuorvelDemoCommand, RefusesAFolderWithFilesInItAndRecoversFromADeadMount) {
    fs::create_directory(mountPoint);
    std::ofstream(mountPoint + "/precious.txt") << "mine";
    first.start(mountPoint, folder + "/refused.out");
    ASSERT_TRUE(first.finished(120)) << first.text();
    EXPECT_TRUE(WIFEXITED(first.status) && WEXITSTATUS(first.status) == 1) << first.text();
    EXPECT_NE(first.text().find("is not empty"), std::string::npos) << first.text();
    EXPECT_EQ(readLocal(mountPoint + "/precious.txt"), "mine");

    // A file-system process killed outright leaves a mount that answers
    // every access with "Transport endpoint is not connected".
    mountPoint = folder + "/stale";
    Devsim sim;
    DevsimImage phone;
    phone.location_id = 4201;
    ASSERT_TRUE(sim.start({phone})) << sim.error();
    fs::create_directory(mountPoint);
    fs::create_directory(folder + "/log");
    QuorvelMount stale;
    stale.mountPoint = mountPoint;
    stale.logDir = folder + "/log";
    ASSERT_TRUE(stale.start(sim.location_id(0)));
    kill(stale.pid, SIGKILL);
    waitpid(stale.pid, nullptr, 0);
    stale.pid = -1;
    sim.stop();
    ASSERT_TRUE(eventually([&] { return quorvel_tools::isDeadMount(mountPoint); }, 10)) << "could not make a dead mount to recover from";

    first.start(mountPoint, folder + "/first.out");
    ASSERT_TRUE(first.waitFor(kBrowsable)) << first.text();
    EXPECT_NE(first.text().find("Found a leftover mount at " + mountPoint + " (its file system had stopped); "
                                "unmounting it."),
              std::string::npos)
        << first.text();
    EXPECT_TRUE(isFuseMountPoint(mountPoint));
    std::string work = first.workFolder();
    first.signal(SIGINT);
    expectNothingLeft(first, work, false);
    EXPECT_TRUE(fs::is_directory(mountPoint)) << "a mount point the demo did not make is left in place";
}

} // namespace
