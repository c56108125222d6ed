// A hostile device through a real mount: names that would alias other paths,
// sizes that lie, folders 1000 deep, replies cut half-way and reply headers
// whose lengths lie. The mount never crashes, never hangs, shows only names a
// path can reach, and after a broken connection still answers.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

class HostileMountTest : public MountedDeviceTest {
protected:
    bool startHostile(uint32_t location) {
        DevsimImage phone;
        phone.location_id = location;
        phone.hostile = {"names", "sizes", "deep", "half", "oversize"};
        phone.files = {{"media/general_storage/outside.txt", "outside\n"}};
        return startDevice({phone}) && mountDevice(location);
    }
    std::string hostile(const std::string &below) const { return inMount("/Storage/Hostile/" + below); }
};

// Runs `step` and waits a generous while: a guard against hanging, not a
// measure of speed.
template <typename T> bool answers(std::function<T()> step, T *result) {
    auto done = std::async(std::launch::async, step);
    if (done.wait_for(std::chrono::seconds(30)) != std::future_status::ready) return false;
    *result = done.get();
    return true;
}

std::vector<std::string> sortedNamesIn(const std::string &folder) {
    std::vector<std::string> names = namesIn(folder);
    std::sort(names.begin(), names.end());
    return names;
}

// The dialogs shown once no more arrive: a failed read may be tried again by
// the kernel (readahead), each try with its dialog.
std::vector<RecordedDialog> settledDialogs(const DialogRecorder &dialogs) {
    std::vector<RecordedDialog> shown = dialogs.dialogs();
    for (size_t settled = 0; settled < 5;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        size_t before = shown.size();
        shown = dialogs.dialogs();
        settled = shown.size() == before ? settled + 1 : 0;
    }
    return shown;
}

int exitStatusOf(std::vector<std::string> argv) {
    int status = -1;
    runProgram(argv, &status);
    return status;
}

TEST_F(HostileMountTest, OnlyNamesAPathCanReachAreShownAndNoneAliasesAnother) {
    ASSERT_TRUE(startHostile(82));
    std::vector<std::string> names;
    ASSERT_TRUE(answers<std::vector<std::string>>([&] { return namesIn(hostile("names")); }, &names));
    std::set<std::string> shown(names.begin(), names.end());
    // Written out by hand from the device's listing: ".", "..", "../escape.txt",
    // "a/b", "/absolute.txt", "", the 256- and 5000-byte names are gone.
    std::set<std::string> expected = {"a",
                                      "bad\xff\xfeutf8.txt",
                                      "control\x01.txt",
                                      "line\nbreak.txt",
                                      std::string(255, 'n'),
                                      "plain.txt",
                                      "tab\there.txt"};
    EXPECT_EQ(shown, expected);
    EXPECT_EQ(names.size(), expected.size()) << "each name once";

    // Every shown name reads as the device's record of that very name.
    for (const std::string &name : expected) {
        if (name == "a") continue;
        EXPECT_EQ(readLocal(hostile("names/") + name), "hostile name\n") << name;
    }
    // The device's "a/b" did not become a record of its own: a/b is the file
    // b in the folder a, and the folder holds only it.
    EXPECT_TRUE(isFolder(hostile("names/a")));
    EXPECT_EQ(namesIn(hostile("names/a")), std::vector<std::string>{"b"});
    EXPECT_EQ(readLocal(hostile("names/a/b")), "the real a/b\n");
    // Nothing named "escape.txt" or "absolute.txt" appeared anywhere.
    EXPECT_EQ(statError(inMount("/Storage/escape.txt")), ENOENT);
    EXPECT_EQ(statError(inMount("/Storage/Hostile/escape.txt")), ENOENT);
    EXPECT_EQ(statError(hostile("names/absolute.txt")), ENOENT);
    EXPECT_EQ(sortedNamesIn(inMount("/Storage")), (std::vector<std::string>{"Hostile", "outside.txt"}));
    EXPECT_EQ(readLocal(inMount("/Storage/outside.txt")), "outside\n");
}

TEST_F(HostileMountTest, FilesWhoseSizesLieReadAsTheBytesTheDeviceGave) {
    ASSERT_TRUE(startHostile(83));
    struct Case {
        const char *name;
        char fill;
        size_t given;  // bytes a device read gives
    };
    for (const Case &c : {Case{"more.bin", 'm', 100}, Case{"fewer.bin", 'f', 5000}, Case{"negative.bin", 'n', 100},
                          Case{"wrapped.bin", 'w', 100}, Case{"garbage.bin", 'g', 100}, Case{"honest.bin", 'h', 100}}) {
        SCOPED_TRACE(c.name);
        std::string file = hostile("sizes/") + c.name;
        struct stat st;
        int statResult = -1;
        ASSERT_TRUE(answers<int>([&] { return stat(file.c_str(), &st); }, &statResult)) << "stat hung";
        ASSERT_EQ(statResult, 0) << "stat failed: " << errno;
        EXPECT_GE(st.st_size, 0);
        std::string bytes;
        ASSERT_TRUE(answers<std::string>([&] { return readLocal(file); }, &bytes)) << "cat hung";
        // What a read gives is never more than the device sent and never
        // anything it did not send; the kernel stops at the size it was told.
        EXPECT_LE(bytes.size(), c.given);
        EXPECT_EQ(bytes, std::string(bytes.size(), c.fill));
        if (st.st_size >= static_cast<off_t>(c.given)) {
            EXPECT_EQ(bytes.size(), c.given) << "all the device had";
        }
    }
    struct stat st;
    ASSERT_EQ(stat(hostile("sizes/negative.bin").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, INT64_MAX) << "-1 is taken as too big to say";
}

TEST_F(HostileMountTest, FoldersAThousandDeepAreWalkedToTheBottom) {
    ASSERT_TRUE(startHostile(84));
    std::string found;
    ASSERT_TRUE(answers<std::string>(
        [&] { return runProgram({"find", hostile("deep"), "-maxdepth", "50"}); }, &found))
        << "find hung";
    EXPECT_EQ(std::count(found.begin(), found.end(), '\n'), 51) << "deep and 50 folders below it";
    std::string bottom = hostile("deep");
    for (int level = 0; level < 1000; ++level) bottom += "/d";
    bottom += "/bottom.txt";
    std::string bytes;
    ASSERT_TRUE(answers<std::string>([&] { return readLocal(bottom); }, &bytes)) << "reading the bottom hung";
    EXPECT_EQ(bytes, "the bottom\n");
}

TEST_F(HostileMountTest, AReplyCutHalfWayIsALostConnectionAndTheMountStillAnswers) {
    ASSERT_TRUE(startHostile(85));
    ASSERT_EQ(namesIn(hostile("half")), (std::vector<std::string>{"cut-listing", "cut-read.bin", "whole.txt"}));
    int status = 0;
    ASSERT_TRUE(answers<int>([&] { return exitStatusOf({"cat", hostile("half/cut-read.bin")}); }, &status))
        << "cat hung";
    EXPECT_NE(status, 0) << "half a file is not handed over as the whole";
    std::vector<RecordedDialog> shown = dialogs.waitForDialogs(1);
    ASSERT_FALSE(shown.empty());
    EXPECT_EQ(shown.back().message, "Lost USB connection.\nReading aborted.");
    size_t seen = settledDialogs(dialogs).size();

    // The mount answers: what was listed is still there, and the next
    // requests open the connection the device closed again, without a dialog.
    EXPECT_TRUE(isFuseMountPoint(mount.mountPoint));
    EXPECT_EQ(namesIn(hostile("half")), (std::vector<std::string>{"cut-listing", "cut-read.bin", "whole.txt"}));
    ASSERT_TRUE(answers<int>([&] { return exitStatusOf({"ls", hostile("sizes")}); }, &status)) << "ls hung";
    EXPECT_EQ(status, 0);
    std::string whole;
    ASSERT_TRUE(answers<std::string>([&] { return readLocal(hostile("half/whole.txt")); }, &whole)) << "cat hung";
    EXPECT_FALSE(whole.empty());
    EXPECT_EQ(settledDialogs(dialogs).size(), seen);
}

TEST_F(HostileMountTest, AListingCutHalfWayIsALostConnection) {
    ASSERT_TRUE(startHostile(86));
    int status = 0;
    ASSERT_TRUE(answers<int>([&] { return exitStatusOf({"ls", hostile("half/cut-listing")}); }, &status))
        << "ls hung";
    EXPECT_NE(status, 0);
    std::vector<RecordedDialog> shown = dialogs.waitForDialogs(1);
    ASSERT_FALSE(shown.empty());
    EXPECT_EQ(shown.back().message, "Lost USB Connection.\nDirectory reading aborted.");
    EXPECT_TRUE(isFuseMountPoint(mount.mountPoint));
    EXPECT_EQ(sortedNamesIn(mount.mountPoint), (std::vector<std::string>{"Apps", "Media", "Storage"}));
}

TEST_F(HostileMountTest, ReplyHeadersWhoseLengthsLieAreALostConnection) {
    DevsimImage phone;
    phone.location_id = 87;
    phone.hostile = {"oversize"};
    phone.folders = {"media/general_storage"};
    ASSERT_TRUE(startDevice({phone}));
    size_t seen = 0;
    for (const char *folder : {"entire-beyond", "entire-huge", "entire-negative", "this-beyond-entire"}) {
        SCOPED_TRACE(folder);
        // A fresh mount for each: the lie ends its connection.
        ASSERT_TRUE(mountDevice(87));
        ASSERT_EQ(namesIn(hostile("oversize")).size(), 5u);
        int status = 0;
        ASSERT_TRUE(answers<int>([&] { return exitStatusOf({"ls", hostile(std::string("oversize/") + folder)}); },
                                 &status))
            << "ls hung";
        EXPECT_NE(status, 0);
        std::vector<RecordedDialog> shown = dialogs.waitForDialogs(seen + 1);
        ASSERT_GT(shown.size(), seen);
        EXPECT_EQ(shown.back().message, "Lost USB Connection.\nDirectory reading aborted.");
        seen = settledDialogs(dialogs).size();
        EXPECT_TRUE(isFuseMountPoint(mount.mountPoint)) << "the mount stays up";
        EXPECT_EQ(sortedNamesIn(mount.mountPoint), (std::vector<std::string>{"Apps", "Media", "Storage"}));
        EXPECT_EQ(unmountDevice(), 0) << "quorvelfs ends cleanly";
    }
}

} // namespace
