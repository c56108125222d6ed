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
#include <string>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

// Runs `step` and waits a generous while: a guard against hanging, not a
// measure of speed. Reading a file a thousand folders down walks them all,
// which under the sanitizers on a busy machine has taken more than 30 s.
template <typename T> bool answers(std::function<T()> step, T *result) {
    auto done = std::async(std::launch::async, step);
    if (done.wait_for(std::chrono::seconds(120)) != std::future_status::ready) return false;
    *result = done.get();
    return true;
}

class HostileMountTest : public MountedDeviceTest {
protected:
    std::string hostile(const std::string &below) const { return inMount("/Storage/Hostile/" + below); }
    // `ls` of a folder whose listing breaks the connection fails with the
    // lost-connection dialog (the dialogs shown so far are `seen`), and the
    // mount still answers. A failed request may be tried again by the kernel,
    // each try with its dialog: they are counted once no more arrive.
    void expectListingLost(const std::string &folder, size_t *seen) {
        int status = 0;
        ASSERT_TRUE(answers<int>([&] { return runStatus({"ls", folder}); }, &status)) << "ls hung";
        EXPECT_NE(status, 0);
        std::vector<RecordedDialog> shown = dialogs.waitForDialogs(*seen + 1);
        ASSERT_GT(shown.size(), *seen);
        EXPECT_EQ(shown.back().message, "Lost USB Connection.\nDirectory reading aborted.");
        *seen = dialogs.waitForDialogsToSettle(0, 5).size();
        EXPECT_TRUE(isFuseMountPoint(mount.mountPoint)) << "the mount stays up";
        EXPECT_EQ(sorted(namesIn(mount.mountPoint)), (std::vector<std::string>{"Apps", "Media", "Storage"}));
        // Opening a file asks the device: the connection the lie closed is opened again.
        std::string whole;
        ASSERT_TRUE(answers<std::string>([&] { return readLocal(hostile("half/whole.txt")); }, &whole)) << "cat hung";
        EXPECT_FALSE(whole.empty());
    }
};

TEST_F(HostileMountTest, NamesSizesDepthAndBrokenRepliesNeitherCrashNorHangTheMount) {
    DevsimImage phone;
    phone.location_id = 82;
    phone.hostile = {"names", "sizes", "deep", "half", "oversize"};
    phone.files = {{"media/general_storage/outside.txt", "outside\n"}};
    ASSERT_TRUE(startDevice({phone}) && mountDevice(82));

    // Only names a path can reach are shown, and none aliases another.
    std::vector<std::string> names;
    ASSERT_TRUE(answers<std::vector<std::string>>([&] { return namesIn(hostile("names")); }, &names));
    // Written out by hand from the device's listing: ".", "..", "../escape.txt",
    // "a/b", "/absolute.txt", "", the 256- and 5000-byte names are gone.
    std::vector<std::string> expected = {"a", "bad\xff\xfeutf8.txt", "control\x01.txt", "line\nbreak.txt",
                                         std::string(255, 'n'), "plain.txt", "tab\there.txt"};
    EXPECT_EQ(sorted(names), sorted(expected)) << "each name once";
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
    EXPECT_EQ(sorted(namesIn(inMount("/Storage"))), (std::vector<std::string>{"Hostile", "outside.txt"}));
    EXPECT_EQ(readLocal(inMount("/Storage/outside.txt")), "outside\n");

    // Files whose sizes lie read as the bytes the device gave.
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
    // -1, or a size past the largest offset, is taken as too big to say.
    struct stat st;
    for (const char *name : {"negative.bin", "wrapped.bin"}) {
        ASSERT_EQ(stat((hostile("sizes/") + name).c_str(), &st), 0);
        EXPECT_EQ(st.st_size, INT64_MAX) << name;
    }

    // Folders a thousand deep are walked to the bottom.
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

    // A read reply cut half-way, or whose header claims too much, is a lost
    // connection, never a short file, and the mount still answers.
    size_t seen = dialogs.waitForDialogsToSettle(0, 5).size();
    ASSERT_EQ(namesIn(hostile("half")), (std::vector<std::string>{"cut-listing", "cut-read.bin", "whole.txt"}));
    int status = 0;
    for (const char *file : {"half/cut-read.bin", "oversize/entire-huge.bin"}) {
        SCOPED_TRACE(file);
        ASSERT_TRUE(answers<int>([&] { return runStatus({"cat", hostile(file)}); }, &status)) << "cat hung";
        EXPECT_NE(status, 0) << "part of a file is not handed over as the whole";
        std::vector<RecordedDialog> cut = dialogs.waitForDialogs(seen + 1);
        ASSERT_GT(cut.size(), seen);
        EXPECT_EQ(cut.back().message, "Lost USB connection.\nReading aborted.");
        seen = dialogs.waitForDialogsToSettle(0, 5).size();
    }
    // What was listed is still there, and the next requests open the
    // connection the device closed again, without a dialog.
    EXPECT_TRUE(isFuseMountPoint(mount.mountPoint));
    EXPECT_EQ(namesIn(hostile("half")), (std::vector<std::string>{"cut-listing", "cut-read.bin", "whole.txt"}));
    ASSERT_TRUE(answers<int>([&] { return runStatus({"ls", hostile("sizes")}); }, &status)) << "ls hung";
    EXPECT_EQ(status, 0);
    std::string whole;
    ASSERT_TRUE(answers<std::string>([&] { return readLocal(hostile("half/whole.txt")); }, &whole)) << "cat hung";
    EXPECT_FALSE(whole.empty());
    EXPECT_EQ(dialogs.waitForDialogsToSettle(0, 5).size(), seen);

    // A listing cut half-way, and reply headers whose lengths lie, are lost
    // connections too.
    expectListingLost(hostile("half/cut-listing"), &seen);
    ASSERT_EQ(namesIn(hostile("oversize")).size(), 5u);
    for (const char *folder : {"entire-beyond", "entire-huge", "entire-negative", "this-beyond-entire"}) {
        SCOPED_TRACE(folder);
        expectListingLost(hostile(std::string("oversize/") + folder), &seen);
    }
    EXPECT_EQ(unmountDevice(), 0) << "quorvelfs ends cleanly";
}

} // namespace
