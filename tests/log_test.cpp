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

TEST_F(LogTest, DefaultThresholdWritesLevelsZeroToThreeInTodaysFile) {
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
}

TEST_F(LogTest, ConfiguredLevelIsClampedToThree) {
    setenv("QUORVEL_LOGLEVEL", "7", 1);
    QNLogInit();
    EXPECT_EQ(messages(), kFirstFour);
}

TEST_F(LogTest, LowerLevelSuppressesTheFileSystemsOwnMessages) {
    setenv("QUORVEL_LOGLEVEL", "1", 1);
    QNLogInit();
    QNLog(3, "%s suppressed", "x");
    EXPECT_EQ(messages(), (std::vector<std::string>{"[LOG_EMERG] Enabled", "[LOG_ALERT] Enabled"}));
}

TEST_F(LogTest, NegativeLevelSilencesEverything) {
    setenv("QUORVEL_LOGLEVEL", "-1", 1);
    QNLogInit();
    QNLog(0, "%s nothing", "x");
    EXPECT_NE(access(QNLogPath(), F_OK), 0);
}

TEST_F(LogTest, NonNumericLevelKeepsTheDefault) {
    setenv("QUORVEL_LOGLEVEL", "loud", 1);
    QNLogInit();
    EXPECT_EQ(messages(), kFirstFour);
}

TEST_F(LogTest, LongMessagesAreCutAt2047Characters) {
    QNLogInit();
    std::string text(3000, 'q');
    QNLog(3, "%s", text.c_str());
    std::vector<std::string> lines = messages();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines.back(), std::string(2047, 'q'));
}

TEST_F(LogTest, LoggingBeforeInitGoesToStandardErrorOnly) {
    testing::internal::CaptureStderr();
    QNLog(3, "%s too early", "x");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("open log failed"), std::string::npos) << err;
    EXPECT_TRUE(std::filesystem::is_empty(dir));
}

TEST_F(LogTest, DeletedLogFileIsCreatedAgain) {
    QNLogInit();
    ASSERT_EQ(unlink(QNLogPath()), 0);
    QNLog(3, "%s again", "x");
    EXPECT_EQ(messages(), (std::vector<std::string>{"x again"}));
}

} // namespace
