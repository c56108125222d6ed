// Browsing a mounted device: the root layout, /Storage, /Apps and /Media,
// compared with the device image the simulated device serves.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <string>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

const char kComposed[] = "caf\xC3\xA9.txt";
const char kDecomposed[] = "cafe\xCC\x81.txt";

// The names of a folder without "." and "..", sorted.
std::vector<std::string> sortedVisible(std::vector<std::string> names) {
    names.erase(std::remove_if(names.begin(), names.end(), [](const std::string &n) { return n == "." || n == ".."; }),
                names.end());
    std::sort(names.begin(), names.end());
    return names;
}

// Walks an image folder and its mounted counterpart together: the same
// visible names, kinds, sizes and modification times at every level.
void expectSameTree(const std::string &image, const std::string &mounted) {
    std::vector<std::string> expected = sortedVisible(entriesIn(image));
    std::vector<std::string> shown = sortedVisible(entriesIn(mounted));
    ASSERT_EQ(shown, expected) << mounted;
    for (const std::string &name : expected) {
        struct stat original, seen;
        ASSERT_EQ(lstat((image + "/" + name).c_str(), &original), 0);
        ASSERT_EQ(stat((mounted + "/" + name).c_str(), &seen), 0) << mounted << "/" << name;
        EXPECT_EQ(S_ISDIR(seen.st_mode), S_ISDIR(original.st_mode)) << name;
        EXPECT_EQ(seen.st_mtime, original.st_mtime) << name;
        if (S_ISDIR(original.st_mode))
            expectSameTree(image + "/" + name, mounted + "/" + name);
        else
            EXPECT_EQ(seen.st_size, original.st_size) << name;
    }
}

class ListingTest : public MountedDeviceTest {};

// Apps and the phone's owner change files while the device is mounted: the
// next listing shows it. Odd app names get folders a path can reach, and two
// spellings of one name never mix one file's size with the other's bytes.
TEST_F(ListingTest, TheTreeMatchesTheImageFollowsThePhonesOwnChangesAnnouncesHugeFoldersAndAnswersOnceUnplugged) {
    DevsimImage image;
    image.name = "Lister";
    image.location_id = 12;
    image.apps = {{"com.example.notes", "Notes", true},   {"com.example.jotter", "Notes", true},
                  {"com.example.scribble", "Notes", true}, {"com.example.secret", "Vault", false},
                  {"com.example.reader", "Reader", true},  {"com.example.dot", ".", true},
                  {"com.example.dotdot", "..", true},      {"com.example.slash", "Work/Home", true}};
    image.folders = {"media/general_storage/empty", "media/general_storage/a/b/c"};
    image.files = {
        {"media/general_storage/top.txt", "top level"},
        {"media/general_storage/.hidden", "a dot name, listed like any"},
        {"media/general_storage/._resource", "and another"},
        {std::string("media/general_storage/") + kDecomposed, "decomposed on the device"},
        {"media/general_storage/it's \"quoted\" $(touch x).txt", "odd name"},
        {"media/general_storage/a/b/deep.bin", std::string(5000, 'x')},
        {"media/general_storage/a/b/c/deeper.txt", "three levels down"},
        {"media/general_storage/locked/inside.txt", "behind a refusal"},
        {"apps/com.example.notes/Documents/first.txt", "notes"},
        {"apps/com.example.jotter/Documents/second.txt", "jotter"},
        {"apps/com.example.scribble/Documents/third.txt", "scribble"},
        {"apps/com.example.reader/Documents/books/novel.epub", std::string(1234, 'b')},
        {"apps/com.example.reader/Documents/.cache", "dot name in an app"},
        {"apps/com.example.dot/Documents/d.txt", "in the app called ."},
        {"apps/com.example.dotdot/Documents/dd.txt", "in the app called .."},
        {"apps/com.example.slash/Documents/s.txt", "in Work/Home"},
        {std::string("apps/com.example.dot/Documents/twins/") + kComposed, "composed"},
        {std::string("apps/com.example.dot/Documents/twins/") + kDecomposed, "the decomposed one, longer"},
    };
    ASSERT_TRUE(startDevice({image}));
    ASSERT_TRUE(mountDevice(12));

    // Paths are found straight after mounting, without a listing.
    struct stat st;
    ASSERT_EQ(stat(inMount("/Storage/a/b/c/deeper.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, static_cast<off_t>(strlen("three levels down")));
    EXPECT_EQ(access(inMount("/Apps/Reader/books").c_str(), F_OK), 0);
    EXPECT_EQ(statError(inMount("/Storage/a/missing")), ENOENT);

    // A failed listing shows its dialog and is tried again.
    ASSERT_EQ(sim.control("afc-error " + sim.udid(0) + " /general_storage/locked permission-denied"), "ok");
    int error = 0;
    entriesIn(inMount("/Storage/locked"), &error);
    EXPECT_EQ(error, ECANCELED);
    std::vector<RecordedDialog> shown = dialogs.waitForDialogs(1);
    ASSERT_EQ(shown.size(), 1u);
    EXPECT_EQ(shown[0].title, "Quorvel Error!!");
    EXPECT_EQ(shown[0].message, "Could not read directory.\nError Code : -3");
    EXPECT_EQ(shown[0].button, "Confirm");
    EXPECT_EQ(mount.countLog("tarnifs_readdir enumStorage failed. error : -3"), 1);
    ASSERT_EQ(sim.control("clear " + sim.udid(0)), "ok");
    EXPECT_EQ(sortedVisible(entriesIn(inMount("/Storage/locked"), &error)), std::vector<std::string>{"inside.txt"});
    EXPECT_EQ(error, 0);
    // A device that went away has the lost-connection text; once it is back
    // (devsim gives it its old id again), the next listing opens a new
    // connection and lists.
    ASSERT_EQ(sim.control("unplug " + sim.udid(0)), "ok");
    entriesIn(inMount("/Storage/empty"), &error);
    EXPECT_EQ(error, ECANCELED);
    ASSERT_EQ(sim.control("plug " + sim.udid(0)), "ok");
    EXPECT_EQ(sortedVisible(entriesIn(inMount("/Storage/empty"), &error)), std::vector<std::string>{});
    EXPECT_EQ(error, 0);
    EXPECT_EQ(mount.countLog("tarnifs_readdir enumStorage failed. error : -32"), 1);
    shown = dialogs.waitForDialogs(2);
    ASSERT_EQ(shown.size(), 2u);
    EXPECT_EQ(shown.back().message, "Lost USB Connection.\nDirectory reading aborted.");
    EXPECT_EQ(shown.back().title, "Quorvel Error!!");

    EXPECT_EQ(entriesIn(mount.mountPoint), (std::vector<std::string>{".", "..", "Media", "Apps", "Storage"}));
    // The second listing is answered from memory, identically.
    EXPECT_EQ(entriesIn(mount.mountPoint), (std::vector<std::string>{".", "..", "Media", "Apps", "Storage"}));
    // Without media databases the media root holds the three kind folders.
    EXPECT_EQ(entriesIn(inMount("/Media")), (std::vector<std::string>{".", "..", "Music", "Movies", "Photo"}));

    expectSameTree(storageImage(), inMount("/Storage"));
    std::vector<std::string> storage = entriesIn(inMount("/Storage"));
    // Dot names are ordinary names below the root (hiding them is the viewer's job).
    EXPECT_EQ(std::count(storage.begin(), storage.end(), ".hidden"), 1);
    EXPECT_EQ(readLocal(inMount("/Storage/._resource")), "and another");
    EXPECT_EQ(readLocal(inMount("/Apps/Reader/.cache")), "dot name in an app");

    // Either spelling of a name reaches the one entry.
    struct stat viaComposed, viaDecomposed;
    ASSERT_EQ(stat(inMount(std::string("/Storage/") + kComposed).c_str(), &viaComposed), 0);
    ASSERT_EQ(stat(inMount(std::string("/Storage/") + kDecomposed).c_str(), &viaDecomposed), 0);
    EXPECT_EQ(viaComposed.st_size, viaDecomposed.st_size);
    EXPECT_EQ(viaComposed.st_size, static_cast<off_t>(strlen("decomposed on the device")));

    // Apps that share files, duplicates numbered in the device's order; apps
    // named ".", ".." or with a "/" get folders of their own.
    EXPECT_EQ(sortedVisible(entriesIn(inMount("/Apps"))),
              (std::vector<std::string>{"Notes", "Notes (2)", "Notes (3)", "Reader", "Work:Home", "com.example.dot",
                                        "com.example.dotdot"}));
    std::map<std::string, std::string> expectedFile = {
        {"Notes", "first.txt"}, {"Notes (2)", "second.txt"}, {"Notes (3)", "third.txt"}};
    for (const auto &entry : expectedFile)
        EXPECT_EQ(sortedVisible(entriesIn(inMount("/Apps/" + entry.first))),
                  std::vector<std::string>{entry.second})
            << entry.first;
    EXPECT_EQ(readLocal(inMount("/Apps/com.example.dot/d.txt")), "in the app called .");
    EXPECT_EQ(readLocal(inMount("/Apps/com.example.dotdot/dd.txt")), "in the app called ..");
    EXPECT_EQ(readLocal(inMount("/Apps/Work:Home/s.txt")), "in Work/Home");
    expectSameTree(appImage("com.example.reader"), inMount("/Apps/Reader"));

    // `ls -la` agrees with the image on a nested folder.
    std::string listing = runProgram({"ls", "-la", "--time-style=+%s", inMount("/Storage/a/b")});
    struct stat deep;
    ASSERT_EQ(stat((storageImage() + "/a/b/deep.bin").c_str(), &deep), 0);
    EXPECT_NE(listing.find(" 5000 " + std::to_string(deep.st_mtime) + " deep.bin"), std::string::npos) << listing;
    EXPECT_NE(listing.find("drwxrwxrwx"), std::string::npos) << listing;

    // Behind the mount's back: files and a folder added, files removed.
    std::ofstream(storageImage() + "/from the phone.txt") << "added on the phone";
    std::ofstream(storageImage() + "/.env") << "KEY=1";
    ASSERT_EQ(remove((storageImage() + "/top.txt").c_str()), 0);
    ASSERT_EQ(mkdir((storageImage() + "/new folder").c_str(), 0755), 0);
    std::ofstream(appImage("com.example.reader") + "/saved by the app.txt") << "app data";
    ASSERT_EQ(remove((appImage("com.example.reader") + "/.cache").c_str()), 0);
    expectSameTree(storageImage(), inMount("/Storage"));
    expectSameTree(appImage("com.example.reader"), inMount("/Apps/Reader"));
    EXPECT_EQ(readLocal(inMount("/Storage/from the phone.txt")), "added on the phone");
    EXPECT_EQ(statError(inMount("/Storage/top.txt")), ENOENT);
    EXPECT_EQ(readLocal(inMount("/Apps/Reader/saved by the app.txt")), "app data");
    EXPECT_EQ(statError(inMount("/Apps/Reader/.cache")), ENOENT);
    // A name gone and back again is a new file, with its new bytes.
    std::ofstream(storageImage() + "/top.txt") << "back, and longer than before";
    expectSameTree(storageImage(), inMount("/Storage"));
    EXPECT_EQ(readLocal(inMount("/Storage/top.txt")), "back, and longer than before");

    // Two device files whose names differ only in Unicode form are one entry;
    // through either spelling its size and bytes are one file's.
    std::vector<std::string> twins = sortedVisible(entriesIn(inMount("/Apps/com.example.dot/twins")));
    ASSERT_EQ(twins.size(), 1u);
    for (const char *spelling : {kComposed, kDecomposed}) {
        std::string path = inMount(std::string("/Apps/com.example.dot/twins/") + spelling);
        ASSERT_EQ(stat(path.c_str(), &st), 0) << spelling;
        std::string bytes = readLocal(path);
        EXPECT_EQ(bytes.size(), static_cast<size_t>(st.st_size)) << spelling;
        EXPECT_EQ(bytes, readLocal(appImage("com.example.dot") + "/twins/" + twins[0])) << spelling;
    }
    EXPECT_EQ(dialogs.dialogs().size(), 2u) << "only the two failures above";

    // Only folders of more than 30000 entries are announced as busy.
    for (const char *folder : {"exact", "over"}) {
        int count = std::string(folder) == "exact" ? 29998 : 29999;  // plus "." and ".."
        std::string dir = storageImage() + "/" + folder;
        ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
        for (int i = 0; i < count; ++i) std::ofstream(dir + "/f" + std::to_string(i)).close();
    }
    std::ofstream(storageImage() + "/over/f7") << "seven";
    entriesIn(inMount("/Storage"));
    std::string before = tray.bytes();
    EXPECT_EQ(entriesIn(inMount("/Storage/exact")).size(), 29998u + 2);
    EXPECT_EQ(tray.bytes(), before) << "30000 entries are not announced";
    EXPECT_EQ(entriesIn(inMount("/Storage/over")).size(), 29999u + 2);
    ASSERT_TRUE(tray.waitFor(before + "-neon-neoff"));
    // Each entry's attributes are there when asked for.
    ASSERT_EQ(stat(inMount("/Storage/over/f7").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 5);
    EXPECT_TRUE(S_ISREG(st.st_mode));

    // A phone unplugged while mounted: every later request comes back
    // promptly, with its lost-connection dialog when it needed the device.
    // The folder made behind the mount's back is known but not listed yet.
    ASSERT_EQ(mkdir((storageImage() + "/later").c_str(), 0755), 0);
    storage = entriesIn(inMount("/Storage"));
    EXPECT_EQ(std::count(storage.begin(), storage.end(), "later"), 1);
    EXPECT_EQ(statError("/tmp/12"), 0) << "the mount's private work folder";
    std::string local = tempDir + "/local.txt";
    std::ofstream(local) << "local";
    ASSERT_EQ(sim.control("unplug " + sim.udid(0)), "ok");
    struct Step {
        const char *what;
        std::vector<std::string> argv;
        const char *dialog;  // what the user is told, or null when the answer needs no device
    };
    const Step steps[] = {
        {"cat", {"cat", inMount("/Storage/top.txt")}, "Lost USB connection.\nOpening file(top.txt) aborted."},
        {"ls of a folder not listed yet", {"ls", inMount("/Storage/later")},
         "Lost USB Connection.\nDirectory reading aborted."},
        {"cp in", {"cp", local, inMount("/Storage/new.txt")}, "Lost USB connection.\nCreate a file aborted."},
        {"mkdir", {"mkdir", inMount("/Storage/folder")}, "Lost USB connection.\nDirectory making aborted."},
        {"rm", {"rm", inMount("/Storage/top.txt")}, "Lost USB connection.\nFile remove aborted."},
        {"cat in an app", {"cat", inMount("/Apps/Notes/first.txt")}, nullptr},
        {"ls of a listed folder", {"ls", inMount("/Storage")}, nullptr},
        {"df", {"df", mount.mountPoint}, nullptr},
    };
    size_t seen = 2;
    for (const Step &step : steps) {
        auto done = std::async(std::launch::async, [&] { return runStatus(step.argv); });
        // A guard against hanging, not a measure of speed.
        ASSERT_EQ(done.wait_for(std::chrono::seconds(30)), std::future_status::ready) << step.what << " hung";
        int result = done.get();
        if (step.dialog == nullptr) continue;
        EXPECT_NE(result, 0) << step.what;
        shown = dialogs.waitForDialogs(seen + 1);
        ASSERT_GT(shown.size(), seen) << "no dialog after: " << step.what;
        EXPECT_EQ(shown.back().message, step.dialog) << step.what;
        EXPECT_EQ(shown.back().title, "Quorvel Error!!");
        // A dialog still on its way arrives before the next step counts.
        seen = dialogs.waitForDialogsToSettle(seen + 1, 5).size();
    }
    EXPECT_GE(mount.countLog("tarnifs_open libiusb_afc_file_open failed. path(/general_storage/top.txt) ret : -32"), 1);
    EXPECT_EQ(readLocal(storageImage() + "/top.txt"), "back, and longer than before") << "the device file is whole";

#ifdef QUORVEL_PATH
    // quorvel unmount ends it; the process goes and takes its work folder with it.
    int status = -1;
    std::string said = runProgram({QUORVEL_PATH, "unmount", mount.mountPoint}, &status);
    EXPECT_EQ(status, 0) << said;
    EXPECT_FALSE(isFuseMountPoint(mount.mountPoint));
    EXPECT_EQ(mount.stop(), 0) << "quorvelfs ends with status 0";
    EXPECT_EQ(statError("/tmp/12"), ENOENT) << "the work folder is removed";
#endif
}

} // namespace
