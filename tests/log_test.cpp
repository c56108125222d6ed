#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/catalogue_fixture.h"
#include "util/log.h"

namespace {

// Each test runs in its own process (ctest), so every one starts before QNLogInit.
class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = makeTempDir("quorvel-log-");
        ASSERT_FALSE(dir.empty());
        setenv("QUORVEL_LOG_DIR", dir.c_str(), 1);
        unsetenv("QUORVEL_LOGLEVEL");
    }
    void TearDown() override { removeTree(dir); }
    std::vector<std::string> messages() { return readLogMessages(QNLogPath()); }
    std::string dir;
};

const std::vector<std::string> kFirstFour = {"[LOG_EMERG] Enabled", "[LOG_ALERT] Enabled", "[LOG_CRIT] Enabled",
                                             "[LOG_ERR] Enabled"};

TEST_F(LogTest, BeforeInitStandardErrorOnlyThenLevelsZeroToThreeInTodaysFileCutAt2047CharsAndMadeAgain) {
    testing::internal::CaptureStderr();
    QNLog(3, "%s too early", "x");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("open log failed"), std::string::npos) << err;
    EXPECT_TRUE(std::filesystem::is_empty(dir));

    QNLogInit();
    char expected[64];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(expected, sizeof(expected), "/Quorvelfs%mM%dD.log", &local);
    EXPECT_EQ(std::string(QNLogPath()), dir + expected);
    EXPECT_EQ(messages(), kFirstFour);

    QNLog(3, "%s getContext failed", "tarnifs_statfs");
    QNLog(4, "%s not written", "x");
    std::ifstream in(QNLogPath());
    std::string line, last;
    while (std::getline(in, line)) last = line;
    std::regex shape("\\[\\d\\dH\\d\\dM\\d\\dS\\]\\[" + std::to_string(getpid()) + "\\]tarnifs_statfs getContext failed");
    EXPECT_TRUE(std::regex_match(last, shape)) << last;

    QNLog(3, "%s", std::string(3000, 'q').c_str());
    std::vector<std::string> lines = messages();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines.back(), std::string(2047, 'q'));

    ASSERT_EQ(unlink(QNLogPath()), 0);
    QNLog(3, "%s again", "x");
    EXPECT_EQ(messages(), (std::vector<std::string>{"x again"}));
}

// Each start reads the threshold afresh: above three it is three, lower
// levels keep the file system's own messages out, a negative one silences
// everything (no file at all), and what is not a number leaves the default.
TEST_F(LogTest, ConfiguredLevelIsClampedLowersOrSilencesAndANonNumberKeepsTheDefault) {
    const struct {
        const char *level;
        int probe;  // the level of a message that must not be written
        std::vector<std::string> lines;
    } rows[] = {
        {"7", 4, kFirstFour},
        {"1", 3, {"[LOG_EMERG] Enabled", "[LOG_ALERT] Enabled"}},
        {"-1", 0, {}},
        {"loud", 4, kFirstFour},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string("QUORVEL_LOGLEVEL=") + row.level);
        setenv("QUORVEL_LOGLEVEL", row.level, 1);
        QNLogInit();
        QNLog(row.probe, "%s suppressed", "x");
        EXPECT_EQ(messages(), row.lines);
        EXPECT_EQ(access(QNLogPath(), F_OK) == 0, !row.lines.empty());
        unlink(QNLogPath());
    }
}

} // namespace
