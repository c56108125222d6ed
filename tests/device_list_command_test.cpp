// `quorvel list` as a user runs it: against the simulated device through
// USBMUXD_SOCKET_ADDRESS, with devices, without, and with nothing listening.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"
#include "tests/support/fuse_mount.h"

namespace {

struct Ran {
    int status = -1;
    std::string out, err;
};

// Runs `quorvel ARGS...` with the current environment (which the devsim
// fixture has pointed at its socket); standard error is kept apart in a file.
Ran runQuorvel(const std::vector<std::string> &args) {
    Ran ran;
    const std::string folder = makeTempDir("quorvel-list-");
    std::vector<std::string> argv = {"/bin/sh", "-c", "exec \"$@\" 2>\"$0\"", folder + "/err", quorvelProgram()};
    argv.insert(argv.end(), args.begin(), args.end());
    ran.out = runProgram(argv, &ran.status);
    ran.err = readLocal(folder + "/err");
    removeTree(folder);
    return ran;
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

class QuorvelList : public ::testing::Test {
protected:
    void SetUp() override {
        if (quorvelProgram().empty()) GTEST_SKIP() << "quorvel was not built";
    }
};

TEST_F(QuorvelList, ShowsDevicesAsAnAlignedTableSaysWhenThereIsNoneAndPutsErrorsOnStandardError) {
    if (devsim_program().empty()) GTEST_SKIP() << "devsim was not built (DEVSIM_PATH unset)";
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
    std::vector<std::string> shown;
    std::istringstream out(ran.out);
    for (std::string line; std::getline(out, line);) shown.push_back(line);
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

    ASSERT_EQ(sim.control("unplug " + sim.udid(0)), "ok");
    ASSERT_EQ(sim.control("unplug " + sim.udid(1)), "ok");
    ran = runQuorvel({"list"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.out, "No device found.\n");
    EXPECT_EQ(ran.err, "");

    // Nothing listening (devsim puts the address back when it stops).
    std::string address = "UNIX:" + sim.work_dir() + "/nobody.sock";
    setenv("USBMUXD_SOCKET_ADDRESS", address.c_str(), 1);
    ran = runQuorvel({"list"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.out, "") << "nothing on standard output: scripts must not read an error as a device";
    EXPECT_NE(ran.err.find("cannot reach usbmuxd at " + address), std::string::npos) << ran.err;

    Ran help = runQuorvel({"list", "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("usage: quorvel list"), std::string::npos);
    EXPECT_NE(help.out.find("USBMUXD_SOCKET_ADDRESS"), std::string::npos);
    Ran stray = runQuorvel({"list", "--bogus"});
    EXPECT_EQ(stray.status, 2);
    EXPECT_NE(stray.err.find("--bogus"), std::string::npos);
}

} // namespace
