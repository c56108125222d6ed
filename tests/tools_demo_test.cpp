// `quorvel demo` run as a user runs it: it must reach a browsable mount, and
// however it is stopped (Ctrl-C, SIGTERM, SIGKILL, a dead mount left by
// someone else) the next run must work and nothing may stay behind.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

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

    void start(const std::string &mountPoint, const std::string &outputFile) {
        output = outputFile;
        pid = startProgram({kQuorvel, "demo", mountPoint}, outputFile);
    }
    std::string text() const { return readLocal(output); }
    // True once `wanted` was printed; false when the demo ended first or
    // the generous wait ran out. An ended demo is left for stop() to reap.
    bool waitFor(const std::string &wanted) {
        siginfo_t ended{};
        eventually(
            [&] {
                return text().find(wanted) != std::string::npos ||
                       (waitid(P_PID, pid, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid == pid);
            },
            180);
        return text().find(wanted) != std::string::npos;
    }
    // Its exit status once `sig` (0: none) ended it within `seconds`, or -1.
    // Then killed, but not waited for: one held by a hung mount cannot end.
    // Only ever this process: kill(-1, ...) would reach every process we own.
    int stop(int sig, int seconds = 120) {
        if (pid <= 0) return -1;
        if (sig != 0) kill(pid, sig);
        int status = -1;
        bool ended = false;
        eventually([&] { return ended = ended || waitpid(pid, &status, WNOHANG) == pid; }, seconds);
        if (!ended) kill(pid, SIGKILL);
        pid = -1;
        return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    // The private folder the demo announced ("... image in /tmp/quorvel-demo-XXXXXX/image").
    std::string workFolder() const {
        std::string all = text();
        size_t at = all.find("/tmp/quorvel-demo-");
        if (at == std::string::npos) return "";
        return all.substr(at, strlen("/tmp/quorvel-demo-XXXXXX"));
    }
};

// The command lines, one a line, of processes that mention `needle` (the
// demo's children name its work folder in their arguments).
std::string processesMentioning(const std::string &needle) {
    std::string found;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc", error)) {
        std::string cmdline = readLocal(entry.path().string() + "/cmdline");
        std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
        if (cmdline.find(needle) != std::string::npos) found += cmdline + "\n";
    }
    return found;
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
        for (DemoRun *run : {&first, &second}) run->stop(SIGTERM, 60);
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
    // Stopped by `sig`, it leaves no mount, no work folder and no process behind.
    void expectNothingLeft(DemoRun &run, const std::string &workFolder, int sig, bool runMadeMountPoint = true) {
        ASSERT_EQ(run.stop(sig), 0) << run.text();
        EXPECT_NE(run.text().find("Demo stopped; nothing left behind."), std::string::npos) << run.text();
        EXPECT_FALSE(isFuseMountPoint(mountPoint));
        if (runMadeMountPoint) {
            EXPECT_FALSE(fs::exists(mountPoint)) << "the demo made the mount point, so it removes it";
        }
        ASSERT_FALSE(workFolder.empty()) << run.text();
        EXPECT_FALSE(fs::exists(workFolder));
        EXPECT_TRUE(eventually([&] { return processesMentioning(workFolder).empty(); }, 10)) << processesMentioning(workFolder);
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
    kill(first.pid, SIGINT);  // impatient users press twice
    expectNothingLeft(first, work, SIGINT);
    if (held >= 0) close(held);

    first.start(mountPoint, folder + "/killed.out");
    ASSERT_TRUE(first.waitFor(kBrowsable)) << first.text();
    std::string firstWork = first.workFolder();
    first.stop(SIGKILL, 60);
    // Its children notice it died and stop; the mount and folder may stay.
    EXPECT_TRUE(eventually([&] { return processesMentioning(firstWork).empty(); }, 60)) << processesMentioning(firstWork);

    second.start(mountPoint, folder + "/second.out");
    expectBrowsable(second);
    EXPECT_FALSE(fs::exists(firstWork)) << "the killed run's folder is cleared by the next run";
    expectNothingLeft(second, second.workFolder(), SIGTERM, false);
}

TEST_F(QuorvelDemoCommand, RefusesAFolderWithFilesInItAndRecoversFromADeadMount) {
    fs::create_directory(mountPoint);
    std::ofstream(mountPoint + "/precious.txt") << "mine";
    first.start(mountPoint, folder + "/refused.out");
    EXPECT_EQ(first.stop(0), 1) << first.text();
    EXPECT_NE(first.text().find("is not empty"), std::string::npos) << first.text();
    EXPECT_EQ(readLocal(mountPoint + "/precious.txt"), "mine");

    // A file-system process killed outright leaves a mount that answers
    // every access with "Transport endpoint is not connected".
    mountPoint = folder + "/stale mount";
    Devsim sim;
    ASSERT_TRUE(sim.start({namedPhone("Stale", 4201, {})})) << sim.error();
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
    expectBrowsable(first);
    EXPECT_NE(first.text().find("Found a leftover mount at " + mountPoint + " (its file system had stopped); "
                                "unmounting it."),
              std::string::npos)
        << first.text();
    expectNothingLeft(first, first.workFolder(), SIGINT, false);
    EXPECT_TRUE(fs::is_directory(mountPoint)) << "a mount point the demo did not make is left in place";
}

} // namespace
