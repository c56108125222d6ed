// `quorvel install-service` as a desktop user runs it: the user unit it
// writes and the systemctl calls it makes, recorded by a stand-in systemctl
// first in PATH. The command refuses root, so when the tests run as root the
// command runs as the unprivileged user "nobody".
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"
#include "tests/support/fuse_mount.h"

namespace fs = std::filesystem;

namespace {

const std::string kQuorvel = quorvelProgram();

constexpr uid_t kNobody = 65534;

// A private folder with a copy of quorvel in a folder whose name has a space
// and a "%" (both mean something to systemd in ExecStart=), a stand-in
// systemctl that appends its arguments to `calls` (and answers as a missing
// user manager does while the file `no-bus` exists), and a config home.
class InstallService : public ::testing::Test {
protected:
    void SetUp() override {
        if (kQuorvel.empty()) GTEST_SKIP() << "quorvel was not built (QUORVEL_PATH unset)";
        char pattern[] = "/tmp/quorvel-service-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        chmod(dir.c_str(), 0755);
        binDir = dir + "/bin dir%1";
        quorvel = binDir + "/quorvel";
        fs::create_directories(binDir);
        fs::create_directories(dir + "/fake");
        fs::create_directories(dir + "/nothing");
        fs::copy_file(kQuorvel, quorvel);
        std::ofstream(dir + "/fake/systemctl") << "#!/bin/sh\n"
                                               << "echo \"$*\" >> '" << dir << "/calls'\n"
                                               << "if [ -e '" << dir << "/no-bus' ]; then\n"
                                               << "  echo 'Failed to connect to bus: No medium found' >&2; exit 1\n"
                                               << "fi\n";
        chmod((dir + "/fake/systemctl").c_str(), 0755);
        config = dir + "/config";
        unit = config + "/systemd/user/quorvel-watch.service";
        if (geteuid() == 0) {
            ASSERT_EQ(run_program({"chown", "-R", "65534:65534", dir}), 0);
        }
    }
    void TearDown() override {
        if (!dir.empty()) fs::remove_all(dir);
    }

    // quorvel install-service ARGS as an ordinary user, with only `path` to find programs in.
    int installService(const std::vector<std::string> &args, std::string *output, const std::string &path) {
        std::vector<std::string> argv;
        if (geteuid() == 0) argv = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
        argv.insert(argv.end(), {"env", "XDG_CONFIG_HOME=" + config, "PATH=" + path, quorvel, "install-service"});
        argv.insert(argv.end(), args.begin(), args.end());
        return run_program(argv, output, 60);
    }
    std::string takeCalls() {
        std::string calls = readLocal(dir + "/calls");
        fs::remove(dir + "/calls");
        return calls;
    }

    std::string dir, binDir, quorvel, config, unit;
};

TEST_F(InstallService, WritesEnablesAndRemovesTheUserUnitAndSaysWhenThereIsNoUserManagerOrItIsRoot) {
    std::string output;
    const std::string path = dir + "/fake";
    ASSERT_EQ(installService({}, &output, path), 0) << output;
    std::string text = readLocal(unit);
    // Run from this copy, its folder quoted for systemd: "%%" is a literal "%".
    EXPECT_NE(text.find("\nExecStart=\"" + dir + "/bin dir%%1/quorvel\" watch\n"), std::string::npos) << text;
    for (const char *line : {"Restart=on-failure", "PartOf=graphical-session.target",
                             "After=graphical-session.target", "WantedBy=graphical-session.target"})
        EXPECT_NE(text.find("\n" + std::string(line) + "\n"), std::string::npos) << line << " in\n" << text;
    EXPECT_EQ(takeCalls(), "--user daemon-reload\n--user enable --now quorvel-watch.service\n");
    struct stat st;
    ASSERT_EQ(stat(unit.c_str(), &st), 0);
    if (geteuid() == 0) {
        EXPECT_EQ(st.st_uid, kNobody) << "the unit belongs to the user who installed it";
    }

    // systemd itself reads the unit: the program it names exists and runs.
    if (run_program({"sh", "-c", "command -v systemd-analyze >/dev/null"}) == 0) {
        std::string verify;
        EXPECT_EQ(run_program({"systemd-analyze", "verify", "--man=no", unit}, &verify), 0) << verify;
    } else {
        std::cout << "systemd-analyze is not installed: the unit was not verified by systemd\n";
    }

    ASSERT_EQ(installService({"--uninstall"}, &output, path), 0) << output;
    EXPECT_FALSE(fs::exists(unit));
    EXPECT_EQ(takeCalls(), "--user disable --now quorvel-watch.service\n--user daemon-reload\n");

    // --no-enable writes the same unit and asks systemd nothing.
    ASSERT_EQ(installService({"--no-enable"}, &output, path), 0) << output;
    EXPECT_EQ(readLocal(unit), text);
    EXPECT_EQ(takeCalls(), "");

    // Wrong arguments change nothing.
    EXPECT_EQ(installService({"--no-enable", "--uninstall"}, &output, path), 2) << output;
    EXPECT_EQ(installService({"--enable"}, &output, path), 2) << output;
    EXPECT_TRUE(fs::exists(unit));
    EXPECT_EQ(takeCalls(), "");
    fs::remove(unit);

    // No systemctl at all: the unit is still written, and the status says why it is not running.
    EXPECT_EQ(installService({}, &output, dir + "/nothing"), 3) << output;
    EXPECT_NE(output.find("systemctl was not found"), std::string::npos) << output;
    EXPECT_TRUE(fs::exists(unit));

    // A systemctl that cannot reach the user manager (su, sudo, a container).
    std::ofstream(dir + "/no-bus").close();
    EXPECT_EQ(installService({}, &output, dir + "/fake"), 3) << output;
    EXPECT_NE(output.find("the systemd user manager did not answer"), std::string::npos) << output;
    EXPECT_EQ(takeCalls(), "--user daemon-reload\n");

    // Uninstalling then still takes the unit away, and the link `enable` would have made.
    fs::create_directories(config + "/systemd/user/graphical-session.target.wants");
    fs::create_symlink(unit, config + "/systemd/user/graphical-session.target.wants/quorvel-watch.service");
    if (geteuid() == 0) {
        ASSERT_EQ(run_program({"chown", "-R", "-h", "65534:65534", config}), 0);
    }
    EXPECT_EQ(installService({"--uninstall"}, &output, dir + "/fake"), 3) << output;
    EXPECT_FALSE(fs::exists(unit));
    EXPECT_FALSE(fs::exists(fs::symlink_status(config + "/systemd/user/graphical-session.target.wants/quorvel-watch.service")));
    EXPECT_EQ(takeCalls(), "--user disable --now quorvel-watch.service\n");
    fs::remove(dir + "/no-bus");

    if (geteuid() != 0) return;
    // Root gets no unit: the service is each desktop user's, never root's.
    EXPECT_EQ(run_program({"env", "XDG_CONFIG_HOME=" + config, "PATH=" + dir + "/fake", quorvel, "install-service"}, &output), 1)
        << output;
    EXPECT_NE(output.find("not as root"), std::string::npos) << output;
    EXPECT_FALSE(fs::exists(unit));
    EXPECT_EQ(takeCalls(), "");
}

} // namespace
