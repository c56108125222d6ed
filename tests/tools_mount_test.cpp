// `quorvel mount` and `quorvel unmount` as a user runs them, against the
// simulated device and a real FUSE mount.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"
#include "tests/support/fuse_mount.h"

#ifdef QUORVEL_TEST_HAVE_GIO
#include <gio/gio.h>
#endif

namespace fs = std::filesystem;

namespace {

const std::string kQuorvel = quorvelProgram();
const std::string kDbusDaemon = "/usr/bin/dbus-daemon";

int runQuorvel(const std::vector<std::string> &args, std::string *output) {
    std::vector<std::string> argv = {kQuorvel};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_program(argv, output, 180);
}

// A private folder holding the mount point and the file system's log; it
// unmounts whatever a failing test left mounted.
class QuorvelMountCommand : public ::testing::Test {
protected:
    void SetUp() override {
        if (kQuorvel.empty()) GTEST_SKIP() << "quorvel was not built (QUORVEL_PATH unset)";
        if (devsim_program().empty()) GTEST_SKIP() << "devsim was not built (DEVSIM_PATH unset)";
        std::string why = fuseUnavailableReason();
        if (!why.empty()) GTEST_SKIP() << why;
        char pattern[] = "/tmp/quorvel-mount-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        folder = pattern;
        mountPoint = folder + "/phone";
        fs::create_directory(mountPoint);
        fs::create_directory(folder + "/log");
        setenv("QUORVEL_LOG_DIR", (folder + "/log").c_str(), 1);
    }
    void TearDown() override {
        if (folder.empty()) return;
        if (isFuseMountPoint(mountPoint)) run_program({fusermountProgram(), "-u", "-z", mountPoint});
        // The mount's process ends once unmounted; give it a moment before
        // devsim goes, so devsim stops with no client left.
        waitUntilUnmounted();
        sim.stop();
        unsetenv("QUORVEL_LOG_DIR");
        std::error_code error;
        fs::remove_all(folder, error);
    }
    std::vector<std::string> imageStorage(size_t i) {
        return sorted(namesIn(sim.image_dir(i) + "/media/general_storage"));
    }
    bool waitUntilUnmounted() {
        return eventually([&] { return !isFuseMountPoint(mountPoint); }, 10);
    }

    Devsim sim;
    std::string folder, mountPoint;
};

// Several devices must be named, the named one is mounted (also over a
// folder with files, read-only, and detached lazily while busy). Then the
// third phone, left alone, plays the phone's side of pairing; with none left,
// no device is said plainly.
TEST_F(QuorvelMountCommand, SeveralDevicesMustBeNamedTheNamedOneIsMountedPairingIsWaitedForAndNoDeviceIsSaidPlainly) {
    ASSERT_TRUE(sim.start({namedPhone("Alice", 4111, {"alice.txt", "shared.txt"}),
                           namedPhone("Bob", 4112, {"bob-1.txt", "bob-2.txt", "shared.txt"}),
                           namedPhone("Careful", 4131, {"t.txt"})}))
        << sim.error();

    std::string output;
    EXPECT_EQ(runQuorvel({"mount", mountPoint}, &output), 1);
    EXPECT_FALSE(isFuseMountPoint(mountPoint)) << "nothing is mounted until the user chooses";
    for (const std::string &shown : {sim.udid(0), sim.udid(1), std::string("4111"), std::string("4112"),
                                     std::string("Alice"), std::string("Bob"), std::string("--udid"),
                                     std::string("--location")}) {
        EXPECT_NE(output.find(shown), std::string::npos) << "missing " << shown << " in:\n" << output;
    }

    EXPECT_EQ(runQuorvel({"mount", mountPoint, "--location", "4999"}, &output), 1);
    EXPECT_NE(output.find("No attached device has the location id 4999"), std::string::npos) << output;
    EXPECT_EQ(runQuorvel({"mount", mountPoint, "--udid", "0000"}, &output), 1);
    EXPECT_NE(output.find("No attached device has the UDID 0000"), std::string::npos) << output;

    ASSERT_EQ(runQuorvel({"mount", mountPoint, "--udid", sim.udid(1)}, &output), 0) << output;
    EXPECT_NE(output.find("Mounted Bob at " + mountPoint + ". Unmount with: quorvel unmount " + mountPoint),
              std::string::npos)
        << output;
    ASSERT_TRUE(isFuseMountPoint(mountPoint)) << "the command returns once the mount is up";
    EXPECT_EQ(sorted(namesIn(mountPoint + "/Storage")), imageStorage(1));

    EXPECT_EQ(runQuorvel({"mount", mountPoint, "--udid", sim.udid(0)}, &output), 1);
    EXPECT_NE(output.find("already mounted"), std::string::npos) << output;

    waitForQueuedReleases(mountPoint);
    EXPECT_EQ(runQuorvel({"unmount", mountPoint}, &output), 0) << output;
    EXPECT_NE(output.find("Unmounted " + mountPoint + "."), std::string::npos) << output;
    EXPECT_TRUE(waitUntilUnmounted());

    // The other one by location id, in the foreground, ended by SIGTERM as a
    // service manager would end it.
    std::string log = folder + "/foreground.out";
    pid_t foreground = startProgram({kQuorvel, "mount", mountPoint, "--location", "4111", "-f"}, log);
    ASSERT_GT(foreground, 0);
    ASSERT_TRUE(eventually([&] { return readLocal(log).find("Mounted Alice at") != std::string::npos; }, 120))
        << readLocal(log);
    EXPECT_TRUE(isFuseMountPoint(mountPoint));
    EXPECT_EQ(sorted(namesIn(mountPoint + "/Storage")), imageStorage(0));
    waitForQueuedReleases(mountPoint);
    EXPECT_EQ(exitStatusOf(foreground, SIGTERM), 0) << readLocal(log);
    EXPECT_TRUE(waitUntilUnmounted());

    // libfuse 3 refuses "nonempty" as an unknown option: the command must
    // honour it itself and leave it out of what quorvelfs is given. --jpeg is
    // ours too: quorvelfs takes its "-o jpeg" out before FUSE sees it.
    std::ofstream(mountPoint + "/hidden-while-mounted.txt") << "x";
    ASSERT_EQ(runQuorvel({"mount", mountPoint, "--location", "4111", "-o", "nonempty,ro", "--jpeg"}, &output), 0)
        << output;
    EXPECT_EQ(sorted(namesIn(mountPoint + "/Storage")), imageStorage(0));
    errno = 0;
    EXPECT_NE(mkdir((mountPoint + "/Storage/x").c_str(), 0755), 0) << "the other option, ro, was passed on";
    EXPECT_EQ(errno, EROFS);
    // A busy mount is detached lazily.
    int held = open((mountPoint + "/Storage/alice.txt").c_str(), O_RDONLY);
    ASSERT_GE(held, 0) << "the mount should serve alice.txt";
    EXPECT_EQ(runQuorvel({"unmount", mountPoint}, &output), 0) << output;
    EXPECT_NE(output.find("was busy"), std::string::npos) << output;
    EXPECT_FALSE(isFuseMountPoint(mountPoint)) << "detached at once, even while the file is open";
    close(held);
    EXPECT_TRUE(waitUntilUnmounted());
    EXPECT_TRUE(fs::exists(mountPoint + "/hidden-while-mounted.txt"));
    fs::remove(mountPoint + "/hidden-while-mounted.txt");

    // The phone's side of pairing, as devsim plays it: the first contact, a
    // phone that forgot this computer, a locked one, "Don't Trust", nobody there.
    ASSERT_EQ(sim.control("unplug " + sim.udid(0)), "ok");
    ASSERT_EQ(sim.control("unplug " + sim.udid(1)), "ok");
    const std::string udid = sim.udid(2);
    const std::string waiting = "Waiting for you to tap Trust on the device…";
    // A file of its own for each run: the file system a run left behind still
    // writes to the one it was started with.
    std::string runLog;
    int runs = 0;
    pid_t mounting = -1;
    auto startMount = [&]() {
        runLog = folder + "/mount" + std::to_string(++runs) + ".out";
        mounting = startProgram({kQuorvel, "mount", mountPoint}, runLog);
    };
    auto said = [&](const std::string &text) {
        return eventually([&] { return readLocal(runLog).find(text) != std::string::npos; }, 60);
    };
    // Starts quorvel mount, which is to wait until `phoneSide` is sent to the
    // phone, and then mount: the phone's file is read through the mount.
    auto mountsOnceAnswered = [&](const std::string &before, const std::string &phoneSide) {
        startMount();
        ASSERT_TRUE(said(before)) << readLocal(runLog);
        EXPECT_FALSE(isFuseMountPoint(mountPoint));
        ASSERT_EQ(sim.control(phoneSide + " " + udid), "ok");
        ASSERT_EQ(exitStatusOf(mounting, 0), 0) << readLocal(runLog);
        EXPECT_EQ(readLocal(mountPoint + "/Storage/t.txt"), "Careful");
        std::string text = readLocal(runLog);
        EXPECT_EQ(text.find(waiting, text.find(waiting) + 1), std::string::npos) << "said once:\n" << text;
        std::string unmounted;
        EXPECT_EQ(runQuorvel({"unmount", mountPoint}, &unmounted), 0) << unmounted;
        EXPECT_TRUE(waitUntilUnmounted());
    };

    // First contact: no pairing yet; the phone asks until Trust is tapped.
    ASSERT_EQ(sim.control("unpaired " + udid), "ok");
    mountsOnceAnswered(waiting, "trust");
    // Reset, or told to forget this computer: the pairing is made afresh once.
    ASSERT_EQ(sim.control("forget-host " + udid), "ok");
    mountsOnceAnswered(waiting, "trust");
    EXPECT_NE(readLocal(runLog).find("Careful no longer accepts this computer's pairing"), std::string::npos)
        << readLocal(runLog);
    // Locked with its passcode.
    ASSERT_EQ(sim.control("lock " + udid), "ok");
    mountsOnceAnswered("(It is locked: unlock it with its passcode first.)", "unlock");

    // "Don't Trust": a plain sentence and status 1, nothing mounted.
    ASSERT_EQ(sim.control("unpaired " + udid), "ok");
    startMount();
    ASSERT_TRUE(said(waiting)) << readLocal(runLog);
    ASSERT_EQ(sim.control("deny " + udid), "ok");
    EXPECT_EQ(exitStatusOf(mounting, 0), 1) << readLocal(runLog);
    EXPECT_NE(readLocal(runLog).find("Careful does not trust this computer: \"Don't Trust\" was tapped."),
              std::string::npos)
        << readLocal(runLog);
    EXPECT_FALSE(isFuseMountPoint(mountPoint));

    // Nobody answers: the wait ends with a clear message.
    ASSERT_EQ(sim.control("trust " + udid), "ok");
    ASSERT_EQ(sim.control("lock " + udid), "ok");
    EXPECT_EQ(run_program({"/usr/bin/env", "QUORVEL_TRUST_TIMEOUT=2", kQuorvel, "mount", mountPoint}, &output, 180), 1)
        << output;
    EXPECT_NE(output.find("did not trust this computer within 2 seconds"), std::string::npos) << output;
    EXPECT_FALSE(isFuseMountPoint(mountPoint));

    ASSERT_EQ(sim.control("unplug " + udid), "ok");
    EXPECT_EQ(runQuorvel({"mount", mountPoint}, &output), 1);
    EXPECT_NE(output.find("No device found. Connect an iPhone or iPad, unlock it, and try again."), std::string::npos)
        << output;
    EXPECT_FALSE(isFuseMountPoint(mountPoint));
}

TEST_F(QuorvelMountCommand, UnusableMountPointsAreRefusedBeforeAnythingStartsAndEveryCommandExplainsItself) {
    std::ofstream(folder + "/plain-file") << "x";
    std::ofstream(mountPoint + "/keep.txt") << "x";
    const struct {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> said;
    } runs[] = {
        {{"mount", folder + "/missing"}, 1, {"does not exist"}},
        {{"mount", folder + "/plain-file"}, 1, {"is not a folder"}},
        {{"mount", mountPoint}, 1, {"is not empty"}},
        {{"mount"}, 2, {}},
        {{"mount", mountPoint, "--udid", "a", "--location", "1"}, 2, {"not both"}},
        {{"unmount", folder}, 1, {"nothing is mounted at " + folder + "."}},
        {{"--help"}, 0, {"  mount ", "  unmount ", "  watch ", "  demo "}},
        {{"mount", "--help"}, 0, {"--udid UDID", "quorvel unmount MOUNTPOINT"}},
        {{"unmount", "--help"}, 0, {"fusermount3 -u -z"}},
        {{"watch", "--help"}, 0, {"--dir DIR"}},
        {{"demo", "--help"}, 0, {"Ctrl-C"}},
    };
    for (const auto &run : runs) {
        std::string output, command = "quorvel";
        for (const std::string &arg : run.args) command += " " + arg;
        SCOPED_TRACE(command);
        EXPECT_EQ(runQuorvel(run.args, &output), run.status) << output;
        for (const std::string &text : run.said) EXPECT_NE(output.find(text), std::string::npos) << output;
    }
    EXPECT_TRUE(fs::exists(mountPoint + "/keep.txt"));
}

#ifdef QUORVEL_TEST_HAVE_GIO
// A desktop's notification service on a private session bus: it answers what
// libnotify asks (it shows nothing unless GetServerInformation answers), so
// the notices go out as on a desktop; dbus-monitor records them. Calls are
// answered as they come in, in GDBus's own message thread.
GDBusMessage *answerNotificationCall(GDBusConnection *connection, GDBusMessage *call, gboolean incoming, gpointer) {
    if (!incoming || g_dbus_message_get_message_type(call) != G_DBUS_MESSAGE_TYPE_METHOD_CALL ||
        g_strcmp0(g_dbus_message_get_interface(call), "org.freedesktop.Notifications") != 0)
        return call;
    static guint lastId = 0;
    static const gchar *capabilities[] = {"body", nullptr};
    const std::string method = g_dbus_message_get_member(call);
    GDBusMessage *reply = g_dbus_message_new_method_reply(call);
    if (method == "GetServerInformation")
        g_dbus_message_set_body(reply, g_variant_new("(ssss)", "test", "quorvel", "1", "1.2"));
    else if (method == "GetCapabilities")
        g_dbus_message_set_body(reply, g_variant_new("(^as)", capabilities));
    else if (method == "Notify")
        g_dbus_message_set_body(reply, g_variant_new("(u)", ++lastId));
    g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(reply);
    g_object_unref(call);
    return nullptr;
}

// The notification service on the bus at `address`, serving until its
// connection is dropped; nullptr when it did not get the service's name.
GDBusConnection *serveNotifications(const std::string &address) {
    GDBusConnection *connection = g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    if (connection == nullptr) return nullptr;
    g_dbus_connection_add_filter(connection, answerNotificationCall, nullptr, nullptr);
    GVariant *owned = g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus", "RequestName",
                                                  g_variant_new("(su)", "org.freedesktop.Notifications", 4u), nullptr,
                                                  G_DBUS_CALL_FLAGS_NONE, 10000, nullptr, nullptr);
    if (owned == nullptr) {
        g_object_unref(connection);
        return nullptr;
    }
    g_variant_unref(owned);
    return connection;
}

// Where a window is on the screen, as xwininfo tells it.
struct ScreenArea {
    int x = 0, y = 0, width = 0, height = 0;
    bool viewable = false;
};

ScreenArea windowNamed(const std::string &display, const std::string &name) {
    ScreenArea area;
    std::string out;
    if (run_program({"/usr/bin/xwininfo", "-display", display, "-name", name}, &out, 60) != 0) return area;
    auto number = [&](const std::string &label) {
        size_t at = out.find(label);
        return at == std::string::npos ? 0 : atoi(out.c_str() + at + label.size());
    };
    area.x = number("Absolute upper-left X:");
    area.y = number("Absolute upper-left Y:");
    area.width = number("Width:");
    area.height = number("Height:");
    area.viewable = out.find("Map State: IsViewable") != std::string::npos;
    return area;
}

// Saves a screenshot of the whole screen at `shot` and returns what
// tesseract reads in `area` of it, enlarged three times first: a side
// panel's small type reads badly at its own size.
std::string textOnScreen(const std::string &display, const std::string &shot, const ScreenArea &area,
                         const std::string &scratch) {
    std::string output;
    if (run_program({"/usr/bin/import", "-display", display, "-window", "root", shot}, &output, 60) != 0) return "";
    const std::string geometry = std::to_string(area.width) + "x" + std::to_string(area.height) + "+" +
                                 std::to_string(area.x) + "+" + std::to_string(area.y);
    const std::string cut = scratch + "/area.png";
    if (run_program({"/usr/bin/convert", shot, "-crop", geometry, "+repage", "-resize", "300%", "-colorspace", "Gray",
                     cut},
                    &output, 60) != 0)
        return "";
    if (run_program({"/usr/bin/tesseract", cut, "stdout"}, &output, 60) != 0) return "";
    return output;
}
#endif

// `quorvel watch` left running in the fixture's folder; whatever a failing
// test leaves mounted under its folder is detached before devsim stops.
class QuorvelWatchCommand : public QuorvelMountCommand {
protected:
    void SetUp() override {
        QuorvelMountCommand::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        watchFolder = folder + "/Devices";
        watchLog = folder + "/watch.out";
        // Lost-connection dialogs of the unplugged mount go nowhere; no
        // session bus, so every notice is a line of the watcher's output.
        setenv("QUORVEL_DIALOG", "/bin/true", 1);
        runtimeFolder = folder + "/run";
        fs::create_directory(runtimeFolder);
        for (const char *name : {"XDG_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS"}) {
            const char *value = getenv(name);
            saved.push_back({name, value != nullptr ? value : ""});
            unsetenv(name);
        }
        setenv("XDG_RUNTIME_DIR", runtimeFolder.c_str(), 1);
    }
    void TearDown() override {
        if (watcher > 0) exitStatusOf(watcher, SIGTERM);
        // Last started, first ended: a file manager before its display and bus.
        for (auto helper = helpers.rbegin(); helper != helpers.rend(); ++helper)
            if (*helper > 0) exitStatusOf(*helper, SIGTERM);  // kill(-1) would reach every process
        std::error_code error;
        for (const auto &entry : fs::directory_iterator(watchFolder, error))
            if (isFuseMountPoint(entry.path().string())) run_program({fusermountProgram(), "-u", "-z", entry.path().string()});
        unsetenv("QUORVEL_DIALOG");
        for (const auto &variable : saved) {
            if (variable.second.empty()) unsetenv(variable.first.c_str());
            else setenv(variable.first.c_str(), variable.second.c_str(), 1);
        }
        QuorvelMountCommand::TearDown();
    }
    bool said(const std::string &text) const { return readLocal(watchLog).find(text) != std::string::npos; }
    size_t timesSaid(const std::string &text) const { return occurrences(readLocal(watchLog), text); }
    bool waitUntilSaid(const std::string &text) {
        return eventually([&] { return said(text); }, 120);
    }
    // A private session bus, as dbus-run-session gives one, but one that
    // starts no service on demand (a file manager would have it start its
    // settings daemon): every process on it is one the test started and
    // ends. Its address, or "" when it did not come up.
    std::string startSessionBus() {
        const std::string socket = folder + "/bus", config = folder + "/bus.conf";
        std::ofstream(config) << "<busconfig><type>session</type><listen>unix:path=" << socket
                              << "</listen><auth>EXTERNAL</auth><policy context='default'>"
                                 "<allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/>"
                                 "<allow own='*'/></policy></busconfig>";
        helpers.push_back(startProgram({kDbusDaemon, "--nofork", "--config-file=" + config}, folder + "/bus.out"));
        if (!eventually([&] { return fs::exists(socket); }, 30)) return "";
        return "unix:path=" + socket;
    }
    // `quorvel watch` without --dir, so in the folder it says file managers
    // list, ~/Devices, with HOME a test folder and notices sent on `bus`.
    void watchInHome(const std::string &bus) {
        const char *home = getenv("HOME");
        saved.push_back({"HOME", home != nullptr ? home : ""});
        setenv("HOME", (folder + "/home").c_str(), 1);
        watchFolder = folder + "/home/Devices";
        setenv("DBUS_SESSION_BUS_ADDRESS", bus.c_str(), 1);
        watcher = startProgram({kQuorvel, "watch"}, watchLog);
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
    }

    std::string watchFolder, watchLog, runtimeFolder;
    std::vector<std::pair<std::string, std::string>> saved;
    pid_t watcher = -1;
    std::vector<pid_t> helpers;  // a session bus and its monitor
};

TEST_F(QuorvelWatchCommand, MountsEachDeviceAsItComesAndClearsItAwayOnUnplug) {
    DevsimImage alpha = namedPhone("Alpha Phone", 9301, {"alpha.txt"});
    alpha.files.push_back({"media/general_storage/big.bin", std::string(6 << 20, 'b')});
    DevsimImage beta = namedPhone("Beta Phone", 9302, {"beta.txt", "b1.txt", "b2.txt"});
    // Slow enough that the unplug lands in the middle of the copy.
    ASSERT_TRUE(sim.start({alpha, beta}, {"--bandwidth-mbps", "2"})) << sim.error();
    // A folder of the user's with the second phone's name: it gets a suffix.
    fs::create_directories(watchFolder + "/Beta Phone");
    std::ofstream(watchFolder + "/Beta Phone/mine.txt") << "mine";
    // The first phone's name holds a dead mount, as a watcher killed with
    // its file systems leaves one: cleared and used again.
    QuorvelMount killed;
    killed.mountPoint = watchFolder + "/Alpha Phone";
    killed.logDir = folder + "/log";
    fs::create_directories(killed.mountPoint);
    ASSERT_TRUE(killed.start(9301));
    kill(killed.pid, SIGKILL);
    waitpid(killed.pid, nullptr, 0);
    struct statvfs dead;
    ASSERT_NE(statvfs(killed.mountPoint.c_str(), &dead), 0);
    ASSERT_EQ(errno, ENOTCONN);

    // Each mount is given --jpeg's "-o jpeg", which FUSE itself would refuse.
    watcher = startProgram({kQuorvel, "watch", "--dir", watchFolder, "--jpeg"}, watchLog);
    ASSERT_GT(watcher, 0);
    const std::string alphaPoint = watchFolder + "/Alpha Phone";
    const std::string betaPoint = watchFolder + "/Beta Phone (2)";
    ASSERT_TRUE(waitUntilSaid("Mounted Alpha Phone at " + alphaPoint + ".")) << readLocal(watchLog);
    ASSERT_TRUE(waitUntilSaid("Mounted Beta Phone at " + betaPoint + ".")) << readLocal(watchLog);
    EXPECT_TRUE(isFuseMountPoint(alphaPoint));
    EXPECT_TRUE(isFuseMountPoint(betaPoint));
    EXPECT_EQ(readLocal(watchFolder + "/Beta Phone/mine.txt"), "mine");

    // What quorvelfs reports on its tray pipe becomes one notice per burst,
    // never one per file, with the phone's name.
    ASSERT_EQ(run_program({"/bin/cp", "-r", betaPoint + "/Storage", folder + "/beta-copy"}), 0);
    ASSERT_TRUE(waitUntilSaid("Copied 3 files (30 bytes) from Beta Phone")) << readLocal(watchLog);
    std::ofstream(folder + "/up.txt") << "hello";
    ASSERT_EQ(run_program({"/bin/cp", folder + "/up.txt", betaPoint + "/Storage/up.txt"}), 0);
    ASSERT_TRUE(waitUntilSaid("Copied 1 file (5 bytes) to Beta Phone")) << readLocal(watchLog);
    // Long work shows a "Working on" notice; short work shows none.
    EXPECT_EQ(namesIn(alphaPoint + "/Apps"), std::vector<std::string>{});
    ASSERT_EQ(sim.control("latency-us 1500000"), "ok");
    EXPECT_EQ(namesIn(betaPoint + "/Apps"), std::vector<std::string>{});
    ASSERT_EQ(sim.control("latency-us 0"), "ok");
    ASSERT_TRUE(waitUntilSaid("Working on Beta Phone…")) << readLocal(watchLog);
    EXPECT_EQ(timesSaid("Working on"), 1u) << readLocal(watchLog);
    EXPECT_EQ(timesSaid("Copied 3 files"), 1u) << readLocal(watchLog);
    EXPECT_EQ(timesSaid("Copied "), 2u) << readLocal(watchLog);

    // Unplugged while a copy out of it runs: the copy fails instead of
    // hanging, and neither the mount nor its folder stays behind.
    const std::string copy = folder + "/copy.bin";
    pid_t cp = startProgram({"/bin/cp", alphaPoint + "/Storage/big.bin", copy}, folder + "/cp.out");
    ASSERT_GT(cp, 0);
    ASSERT_TRUE(eventually([&] { return fs::exists(copy) && fs::file_size(copy) > 0; }, 60)) << "the copy never started";
    ASSERT_EQ(sim.control("unplug " + sim.udid(0)), "ok");
    int cpStatus = exitStatusOf(cp, 0);
    EXPECT_NE(cpStatus, -1) << "cp hung on the unplugged device";
    EXPECT_NE(cpStatus, 0) << readLocal(folder + "/cp.out");
    ASSERT_TRUE(waitUntilSaid("Alpha Phone was unplugged; removed " + alphaPoint + ".")) << readLocal(watchLog);
    EXPECT_FALSE(isFuseMountPoint(alphaPoint));
    std::error_code error;
    EXPECT_FALSE(fs::exists(fs::symlink_status(alphaPoint, error))) << "the folder of the unplugged phone is removed";
    EXPECT_TRUE(isFuseMountPoint(betaPoint)) << "the other phone stays mounted";
    EXPECT_EQ(sorted(namesIn(betaPoint + "/Storage")), imageStorage(1));
    EXPECT_EQ(readLocal(betaPoint + "/Storage/beta.txt"), "Beta Phone");

    // Plugged back in while it asks for Trust: said in plain words, and only
    // that phone waits.
    ASSERT_EQ(sim.control("trust-prompt " + sim.udid(0) + " 3600"), "ok");
    ASSERT_EQ(sim.control("plug " + sim.udid(0)), "ok");
    ASSERT_TRUE(waitUntilSaid("tap Trust on Alpha Phone")) << readLocal(watchLog);
    EXPECT_FALSE(isFuseMountPoint(alphaPoint));
    EXPECT_EQ(readLocal(betaPoint + "/Storage/beta.txt"), "Beta Phone");
    ASSERT_EQ(sim.control("trust-prompt " + sim.udid(0) + " 60 PasswordProtected"), "ok");
    ASSERT_TRUE(waitUntilSaid("unlock Alpha Phone with its passcode")) << readLocal(watchLog);
    ASSERT_EQ(sim.control("trust-prompt " + sim.udid(0) + " 0"), "ok");
    ASSERT_TRUE(eventually([&] { return isFuseMountPoint(alphaPoint); }, 120)) << readLocal(watchLog);
    EXPECT_EQ(readLocal(alphaPoint + "/Storage/alpha.txt"), "Alpha Phone");

    // SIGTERM: everything it mounted is unmounted and removed; the user's own folder stays.
    waitForQueuedReleases(alphaPoint);
    waitForQueuedReleases(betaPoint);
    EXPECT_EQ(exitStatusOf(watcher, SIGTERM), 0) << readLocal(watchLog);
    watcher = -1;
    EXPECT_FALSE(isFuseMountPoint(alphaPoint));
    EXPECT_FALSE(isFuseMountPoint(betaPoint));
    EXPECT_EQ(namesIn(watchFolder), std::vector<std::string>{"Beta Phone"}) << readLocal(watchLog);
    EXPECT_EQ(namesIn(runtimeFolder), std::vector<std::string>{}) << "its pipes are removed";
}

// The desktop's notification service gets every notice, and a real file
// manager on a virtual screen lists the phone the watcher mounted in
// ~/Devices among its devices. What is checked there is what a person sees:
// tesseract reads the side panel off a screenshot, so the check fails
// whenever the name is not drawn there (no mount, a hidden one, a panel that
// does not list it).
TEST_F(QuorvelWatchCommand, NoticesReachTheDesktopAndAFileManagerListsThePhoneUntilItIsUnplugged) {
#ifndef QUORVEL_TEST_HAVE_GIO
    GTEST_SKIP() << "GIO (libglib2.0-dev) is missing: no notification service to answer libnotify";
#else
    const std::string monitor = "/usr/bin/dbus-monitor";
    if (access(kDbusDaemon.c_str(), X_OK) != 0 || access(monitor.c_str(), X_OK) != 0)
        GTEST_SKIP() << "dbus-daemon or dbus-monitor is missing (Debian package dbus)";
    std::string missing;
    for (const auto &[tool, package] : std::vector<std::pair<std::string, std::string>>{
             {"/usr/bin/Xvfb", "xvfb"}, {"/usr/bin/thunar", "thunar"}, {"/usr/bin/import", "imagemagick"},
             {"/usr/bin/convert", "imagemagick"}, {"/usr/bin/tesseract", "tesseract-ocr"},
             {"/usr/bin/xwininfo", "x11-utils"}})
        if (missing.empty() && access(tool.c_str(), X_OK) != 0) missing = tool + " (Debian package " + package + ")";
    ASSERT_TRUE(sim.start({namedPhone("Gamma Phone", 9303, {"g1.txt", "g2.txt"})})) << sim.error();

    // A screen on a free display: Xvfb picks the number and writes it out.
    const std::string screenLog = folder + "/xvfb.out";
    std::string display;
    if (missing.empty()) {
        helpers.push_back(startProgram(
            {"/usr/bin/Xvfb", "-displayfd", "1", "-screen", "0", "1024x768x24", "-nolisten", "tcp"}, screenLog));
        ASSERT_TRUE(eventually(
            [&] {
                std::istringstream lines(readLocal(screenLog));
                for (std::string line; std::getline(lines, line) && !lines.eof();)
                    if (!line.empty() && line.find_first_not_of("0123456789") == std::string::npos)
                        display = ":" + line;
                return !display.empty();
            },
            60))
            << readLocal(screenLog);
    } else {
        std::cout << missing << " is missing: not checked that a file manager lists the phone\n";
    }
    const std::string bus = startSessionBus();
    ASSERT_NE(bus, "") << readLocal(folder + "/bus.out");
    const std::string calls = folder + "/monitor.out";
    helpers.push_back(startProgram({monitor, "--address", bus, "interface='org.freedesktop.Notifications'"}, calls));
    ASSERT_TRUE(eventually([&] { return readLocal(calls).find("NameAcquired") != std::string::npos; }, 30));
    std::unique_ptr<GDBusConnection, void (*)(gpointer)> server(serveNotifications(bus), g_object_unref);
    ASSERT_NE(server, nullptr);
    watchInHome(bus);
    ASSERT_GT(watcher, 0);

    auto notified = [&](const std::string &text) {
        return eventually([&] { return readLocal(calls).find("string \"" + text) != std::string::npos; }, 120);
    };
    const std::string home = folder + "/home", point = watchFolder + "/Gamma Phone";
    EXPECT_TRUE(notified("Mounted Gamma Phone at " + point + ".")) << readLocal(calls);
    ASSERT_TRUE(eventually([&] { return isFuseMountPoint(point); }, 120)) << readLocal(watchLog);
    if (access("/usr/bin/gio", X_OK) == 0) {
        // GIO's own rule for what file managers show as a device.
        std::string mounts;
        run_program({"/usr/bin/gio", "mount", "-l"}, &mounts, 60);
        EXPECT_NE(mounts.find("Gamma Phone -> file://"), std::string::npos) << mounts;
    } else {
        std::cout << "gio (libglib2.0-bin) is missing: not checked that GIO lists the mount\n";
    }

    // Thunar as the user starts it, on the home folder, keeping its settings
    // in that home; in English, the words the check reads.
    ScreenArea panel;
    const std::string artifacts = QUORVEL_TEST_ARTIFACTS;
    std::string text;
    if (!display.empty()) {
        const std::string thunarLog = folder + "/thunar.out";
        helpers.push_back(startProgram({"/usr/bin/env", "LC_ALL=C.UTF-8", "DISPLAY=" + display,
                                        "DBUS_SESSION_BUS_ADDRESS=" + bus, "XDG_CONFIG_HOME=" + home + "/.config",
                                        "XDG_CACHE_HOME=" + home + "/.cache",
                                        "XDG_DATA_HOME=" + home + "/.local/share", "NO_AT_BRIDGE=1",
                                        "/usr/bin/thunar", home},
                                       thunarLog));
        ASSERT_TRUE(eventually(
            [&] {
                panel = windowNamed(display, "home - Thunar");
                if (!panel.viewable) std::this_thread::sleep_for(std::chrono::milliseconds(200));
                return panel.viewable;
            },
            120))
            << readLocal(thunarLog);
        // The side panel is the left part of the window; the folder view, which
        // shows the Devices folder, stays out of what is read.
        panel.width /= 4;
        fs::create_directories(artifacts);
        const std::string shot = artifacts + "/file-manager-side-panel.png";
        bool listed = eventually(
            [&] {
                text = textOnScreen(display, shot, panel, folder);
                return text.find("Gamma Phone") != std::string::npos;
            },
            120);
        std::cout << "Screenshot of the file manager: " << shot << "\n";
        EXPECT_TRUE(listed) << "tesseract read in the side panel:\n" << text;
        EXPECT_GT(text.find("Gamma Phone"), text.find("Devices")) << "listed among the devices:\n" << text;
    }

    // The summaries go out as "Mounted" did (their words are the watch
    // test's); the "Working on" notice is one kept open, then closed.
    ASSERT_EQ(sim.control("latency-us 1500000"), "ok");
    namesIn(point + "/Apps");
    ASSERT_EQ(sim.control("latency-us 0"), "ok");
    EXPECT_TRUE(notified("Working on Gamma Phone…")) << readLocal(calls);
    waitForQueuedReleases(point);
    // Unplugged: the mount and its folder go, and so does the panel's entry
    // (the panel still read, so the check is not passed by a blank screen).
    ASSERT_EQ(sim.control("unplug " + sim.udid(0)), "ok");
    EXPECT_TRUE(notified("Gamma Phone was unplugged; removed " + point + ".")) << readLocal(calls);
    EXPECT_TRUE(eventually([&] { return !fs::exists(fs::symlink_status(point)); }, 120))
        << "the folder of the unplugged phone is removed";
    if (!display.empty()) {
        const std::string after = artifacts + "/file-manager-after-unplug.png";
        EXPECT_TRUE(eventually(
            [&] {
                text = textOnScreen(display, after, panel, folder);
                return text.find("Gamma Phone") == std::string::npos && text.find("File System") != std::string::npos;
            },
            120))
            << "tesseract read in the side panel of " << after << ":\n" << text;
    }
    // Plugged in again after it was reset: the pairing it refuses is made
    // afresh once, with a notice, and the phone asks for Trust.
    ASSERT_EQ(sim.control("forget-host " + sim.udid(0)), "ok");
    ASSERT_EQ(sim.control("plug " + sim.udid(0)), "ok");
    EXPECT_TRUE(notified("Gamma Phone was reset or told to forget this computer. Pairing again: tap Trust on Gamma "
                         "Phone when it asks"))
        << readLocal(calls);
    EXPECT_TRUE(notified("To use Gamma Phone, tap Trust on Gamma Phone")) << readLocal(calls);
    ASSERT_EQ(sim.control("trust " + sim.udid(0)), "ok");
    EXPECT_TRUE(eventually([&] { return isFuseMountPoint(point); }, 120)) << readLocal(watchLog);
    EXPECT_EQ(readLocal(point + "/Storage/g1.txt"), "Gamma Phone");
    // Shown on the desktop, so not repeated on standard error.
    EXPECT_FALSE(said("Mounted Gamma Phone")) << readLocal(watchLog);

    EXPECT_EQ(exitStatusOf(watcher, SIGTERM), 0) << readLocal(watchLog);
    watcher = -1;
#endif
}

} // namespace
