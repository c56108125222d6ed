// `quorvel list` as a user runs it: against the simulated device through
// USBMUXD_SOCKET_ADDRESS, with devices, without, and with nothing listening.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/devsim_fixture.h"

namespace {

struct Ran {
    int status = -1;
    std::string out, err;
};

std::string slurp(int fd) {
    std::string text;
    char buffer[4096];
    ssize_t got;
    while ((got = read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(got));
    return text;
}

// Runs `quorvel ARGS...` with the current environment (which the devsim
// fixture has pointed at its socket). Standard error goes through a file so
// neither pipe can fill up while the other is read.
Ran runQuorvel(const std::vector<std::string> &args) {
    Ran ran;
#ifdef QUORVEL_PATH
    char err_name[] = "/tmp/quorvel-list-err-XXXXXX";
    int err_fd = mkstemp(err_name);
    int out_pipe[2];
    if (err_fd < 0 || pipe(out_pipe) != 0) return ran;
    pid_t child = fork();
    if (child == 0) {
        dup2(out_pipe[1], 1);
        dup2(err_fd, 2);
        close(out_pipe[0]);
        close(out_pipe[1]);
        std::vector<char *> argv = {const_cast<char *>(QUORVEL_PATH)};
        for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out_pipe[1]);
    ran.out = slurp(out_pipe[0]);
    close(out_pipe[0]);
    int wstatus = 0;
    waitpid(child, &wstatus, 0);
    ran.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
    lseek(err_fd, 0, SEEK_SET);
    ran.err = slurp(err_fd);
    close(err_fd);
    unlink(err_name);
#else
    (void)args;
#endif
    return ran;
}

std::vector<std::string> lines(const std::string &text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

// Column position in characters, so a name with accents does not shift it.
size_t charColumn(const std::string &line, const std::string &needle) {
    size_t at = line.find(needle);
    if (at == std::string::npos) return std::string::npos;
    size_t column = 0;
    for (size_t i = 0; i < at; i++) {
        if ((static_cast<unsigned char>(line[i]) & 0xC0) != 0x80) column++;
    }
    return column;
}

#define NEED_PROGRAMS()                                                                           \
    do {                                                                                          \
        if (std::string(QUORVEL_PATH_OR_EMPTY).empty()) GTEST_SKIP() << "quorvel was not built"; \
        if (devsim_program().empty()) GTEST_SKIP() << "devsim was not built (DEVSIM_PATH unset)"; \
    } while (0)

#ifdef QUORVEL_PATH
#define QUORVEL_PATH_OR_EMPTY QUORVEL_PATH
#else
#define QUORVEL_PATH_OR_EMPTY ""
#endif

TEST(QuorvelList, ShowsEveryDeviceAsAnAlignedTable) {
    NEED_PROGRAMS();
    Devsim sim;
    DevsimImage phone;
    phone.name = "Jos\xc3\xa9's iPhone";
    phone.location_id = 9;
    phone.ios_version = "15.1";
    DevsimImage tablet;
    tablet.name = "Tab";
    tablet.location_id = 123456;
    tablet.ios_version = "17.0.3";
    if (!sim.start({phone, tablet})) GTEST_SKIP() << "devsim did not start: " << sim.error();

    Ran ran = runQuorvel({"list"});
    EXPECT_EQ(ran.status, 0) << ran.err;
    std::vector<std::string> shown = lines(ran.out);
    ASSERT_EQ(shown.size(), 3u) << ran.out;
    EXPECT_EQ(shown[0].find("LOCATION ID"), 0u) << shown[0];
    size_t udid_column = charColumn(shown[0], "UDID");
    size_t ios_column = charColumn(shown[0], "iOS");
    bool saw_phone = false, saw_tablet = false;
    for (size_t i = 1; i < shown.size(); i++) {
        const std::string &row = shown[i];
        bool is_phone = row.find(sim.udid(0)) != std::string::npos;
        const std::string expected_id = is_phone ? "9" : "123456";
        EXPECT_EQ(row.compare(0, expected_id.size() + 1, expected_id + " "), 0) << row;
        EXPECT_NE(row.find(is_phone ? "Jos\xc3\xa9's iPhone" : "Tab"), std::string::npos) << row;
        EXPECT_EQ(charColumn(row, sim.udid(is_phone ? 0 : 1)), udid_column) << row;
        EXPECT_EQ(charColumn(row, is_phone ? "15.1" : "17.0.3"), ios_column) << row;
        (is_phone ? saw_phone : saw_tablet) = true;
    }
    EXPECT_TRUE(saw_phone && saw_tablet) << ran.out;
}

TEST(QuorvelList, NoDeviceFound) {
    NEED_PROGRAMS();
    Devsim sim;
    DevsimImage phone;
    if (!sim.start({phone})) GTEST_SKIP() << "devsim did not start: " << sim.error();
    ASSERT_EQ(sim.control("unplug " + sim.udid(0)), "ok");
    Ran ran = runQuorvel({"list"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.out, "No device found.\n");
    EXPECT_EQ(ran.err, "");
}

TEST(QuorvelList, UnreachableServerIsNamed) {
    if (std::string(QUORVEL_PATH_OR_EMPTY).empty()) GTEST_SKIP() << "quorvel was not built";
    const char *saved = getenv("USBMUXD_SOCKET_ADDRESS");
    std::string restore = saved != nullptr ? saved : "";
    char folder[] = "/tmp/quorvel-list-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    std::string address = std::string("UNIX:") + folder + "/nobody.sock";
    setenv("USBMUXD_SOCKET_ADDRESS", address.c_str(), 1);
    Ran ran = runQuorvel({"list"});
    if (saved != nullptr) setenv("USBMUXD_SOCKET_ADDRESS", restore.c_str(), 1);
    else unsetenv("USBMUXD_SOCKET_ADDRESS");
    rmdir(folder);

    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.out, "") << "nothing on standard output: scripts must not read an error as a device";
    EXPECT_NE(ran.err.find("cannot reach usbmuxd at " + address), std::string::npos) << ran.err;
}

TEST(QuorvelList, HelpAndStrayArguments) {
    if (std::string(QUORVEL_PATH_OR_EMPTY).empty()) GTEST_SKIP() << "quorvel was not built";
    Ran help = runQuorvel({"list", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("usage: quorvel list"), std::string::npos);
    EXPECT_NE(help.out.find("USBMUXD_SOCKET_ADDRESS"), std::string::npos);
    Ran stray = runQuorvel({"list", "--bogus"});
    EXPECT_EQ(stray.status, 2);
    EXPECT_NE(stray.err.find("--bogus"), std::string::npos);
}

} // namespace
