// Browsing a mounted device: the root layout, /Storage, /Apps and /Media,
// compared with the device image the simulated device serves; large folders,
// whose first listing asks the device over several connections, must show
// exactly what a one-connection listing shows, fail the same way, and leave
// no connection behind at unmount.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

const char kComposed[] = "caf\xC3\xA9.txt";
const char kDecomposed[] = "cafe\xCC\x81.txt";

// Every name shown stats as its image entry: kind, size, modification time.
void expectImageAttributes(const std::string &image, const std::string &mounted,
                           const std::vector<std::string> &names) {
    for (const std::string &name : names) {
        struct stat original, seen;
        ASSERT_EQ(lstat((image + "/" + name).c_str(), &original), 0) << name;
        ASSERT_EQ(stat((mounted + "/" + name).c_str(), &seen), 0) << mounted << "/" << name;
        EXPECT_EQ(S_ISDIR(seen.st_mode), S_ISDIR(original.st_mode)) << name;
        EXPECT_EQ(seen.st_mtime, original.st_mtime) << name;
        if (!S_ISDIR(original.st_mode)) {
            EXPECT_EQ(seen.st_size, original.st_size) << name;
        }
    }
}

// Walks an image folder and its mounted counterpart together: the same
// visible names, kinds, sizes and modification times at every level.
void expectSameTree(const std::string &image, const std::string &mounted) {
    std::vector<std::string> expected = sorted(namesIn(image));
    ASSERT_EQ(sorted(namesIn(mounted)), expected) << mounted;
    expectImageAttributes(image, mounted, expected);
    for (const std::string &name : expected)
        if (isFolder(image + "/" + name)) expectSameTree(image + "/" + name, mounted + "/" + name);
}

// The two spellings of one name meet in one record, shown once, under the
// name the device gave first.
std::vector<std::string> shownOnce(const std::vector<std::string> &order) {
    std::vector<std::string> names;
    bool spellingSeen = false;
    for (const std::string &name : order) {
        bool spelling = name == kComposed || name == kDecomposed;
        if (!spelling || !spellingSeen) names.push_back(name);
        spellingSeen = spellingSeen || spelling;
    }
    return names;
}

// Files of many sizes, sub-folders holding a file, and dot names, with
// modification times an hour apart.
void fillFolder(DevsimImage &image, const std::string &folder, size_t count, const char *prefix) {
    image.files.push_back({folder + "/.hidden", "a dot name, listed"});
    image.files.push_back({folder + "/._" + prefix, "a dot name, listed"});
    for (size_t i = 0; i < count; ++i) {
        if (i % 11 == 5)
            image.files.push_back({folder + "/" + numbered("dir", i) + "/inside.txt", "inside"});
        else
            image.files.push_back({folder + "/" + numbered(prefix, i), std::string(i * 37 % 3001, 'q')});
    }
}

// Gives each entry of an image folder its own modification time.
void stampTimes(const std::string &folder) {
    DIR *dir = opendir(folder.c_str());
    ASSERT_NE(dir, nullptr) << folder;
    long hour = 0;
    while (struct dirent *entry = readdir(dir)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        struct timespec times[2] = {{1400000000 + 3600 * hour, 0}, {1400000000 + 3600 * hour, 0}};
        ++hour;
        ASSERT_EQ(utimensat(AT_FDCWD, (folder + "/" + name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << name;
    }
    closedir(dir);
}

class ListingTest : public MountedDeviceTest {};

constexpr uint32_t kCrowded = 51;

// Apps and the phone's owner change files while the device is mounted: the
// next listing shows it. Odd app names get folders a path can reach, and two
// spellings of one name never mix one file's size with the other's bytes.
// Then a second phone, served alongside, with folders of thousands.
TEST_F(ListingTest, TreesMatchTheImageFollowThePhoneAnswerOnceUnpluggedAndThousandsListAsOnOneConnection) {
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
    DevsimImage crowded;
    crowded.name = "Crowded";
    crowded.location_id = kCrowded;
    crowded.apps = {{"com.example.reader", "Reader", true}};
    fillFolder(crowded, "media/general_storage/many", 3000, "photo");
    crowded.files.push_back({std::string("media/general_storage/many/") + kComposed, "composed"});
    crowded.files.push_back({std::string("media/general_storage/many/") + kDecomposed, "decomposed"});
    fillFolder(crowded, "apps/com.example.reader/Documents", 2000, "page");
    fillFolder(crowded, "media/general_storage/more", 800, "clip");
    fillFolder(crowded, "media/general_storage/broken", 2000, "photo");
    fillFolder(crowded, "media/general_storage/lost", 2000, "photo");
    crowded.apps.push_back({"com.example.broken", "Broken", true});
    fillFolder(crowded, "apps/com.example.broken/Documents", 1500, "page");
    for (int app = 0; app < 10; ++app) {
        std::string id = "com.example.app" + std::to_string(app);
        crowded.apps.push_back({id, "App " + std::to_string(app), true});
        fillFolder(crowded, "apps/" + id + "/Documents", 80, "note");
    }
    ASSERT_TRUE(startDevice({image, crowded}));
    const std::string crowdedStorage = sim.image_dir(1) + "/media/general_storage";
    auto crowdedApp = [&](const std::string &bundle) { return sim.image_dir(1) + "/apps/" + bundle + "/Documents"; };
    auto connections = [&](const std::string &service = "") { return sim.connections(1, service); };
    stampTimes(crowdedStorage + "/many");
    stampTimes(crowdedApp("com.example.reader"));
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
    EXPECT_EQ(namesIn(inMount("/Storage/locked"), &error), std::vector<std::string>{"inside.txt"});
    EXPECT_EQ(error, 0);
    // A device that went away has the lost-connection text; once it is back
    // (devsim gives it its old id again), the next listing opens a new
    // connection and lists.
    ASSERT_EQ(sim.control("unplug " + sim.udid(0)), "ok");
    entriesIn(inMount("/Storage/empty"), &error);
    EXPECT_EQ(error, ECANCELED);
    ASSERT_EQ(sim.control("plug " + sim.udid(0)), "ok");
    EXPECT_EQ(namesIn(inMount("/Storage/empty"), &error), std::vector<std::string>{});
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
    // Dot names are ordinary names below the root (hiding them is the viewer's job).
    EXPECT_EQ(readLocal(inMount("/Storage/._resource")), "and another");
    EXPECT_EQ(readLocal(inMount("/Apps/Reader/.cache")), "dot name in an app");

    // Either spelling of a name reaches the one entry.
    for (const char *spelling : {kComposed, kDecomposed}) {
        ASSERT_EQ(stat(inMount(std::string("/Storage/") + spelling).c_str(), &st), 0) << spelling;
        EXPECT_EQ(st.st_size, static_cast<off_t>(strlen("decomposed on the device"))) << spelling;
    }

    // Apps that share files, duplicates numbered in the device's order; apps
    // named ".", ".." or with a "/" get folders of their own.
    EXPECT_EQ(sorted(namesIn(inMount("/Apps"))),
              (std::vector<std::string>{"Notes", "Notes (2)", "Notes (3)", "Reader", "Work:Home", "com.example.dot",
                                        "com.example.dotdot"}));
    const std::pair<std::string, std::string> appFiles[] = {
        {"Notes", "first.txt"}, {"Notes (2)", "second.txt"}, {"Notes (3)", "third.txt"}};
    for (const auto &[app, file] : appFiles)
        EXPECT_EQ(namesIn(inMount("/Apps/" + app)), std::vector<std::string>{file}) << app;
    EXPECT_EQ(readLocal(inMount("/Apps/com.example.dot/d.txt")), "in the app called .");
    EXPECT_EQ(readLocal(inMount("/Apps/com.example.dotdot/dd.txt")), "in the app called ..");
    EXPECT_EQ(readLocal(inMount("/Apps/Work:Home/s.txt")), "in Work/Home");
    expectSameTree(appImage("com.example.reader"), inMount("/Apps/Reader"));

    // Folders are open to everyone, as `ls -l` shows them.
    ASSERT_EQ(stat(inMount("/Storage/a/b").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0777u);

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
    std::vector<std::string> twins = sorted(namesIn(inMount("/Apps/com.example.dot/twins")));
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
    // promptly, with its lost-connection dialog when it needed the device
    // (a listing's is checked above).
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
        {"cp in", {"cp", local, inMount("/Storage/new.txt")}, "Lost USB connection.\nCreate a file aborted."},
        {"mkdir", {"mkdir", inMount("/Storage/folder")}, "Lost USB connection.\nDirectory making aborted."},
        {"rm", {"rm", inMount("/Storage/top.txt")}, "Lost USB connection.\nFile remove aborted."},
        {"cat in an app", {"cat", inMount("/Apps/Notes/first.txt")}, nullptr},
        {"ls of a listed folder", {"ls", inMount("/Storage")}, nullptr},
        {"df", {"df", mount.mountPoint}, nullptr},
    };
    size_t seen = 2;
    for (const Step &step : steps) {
        // Killed after 30 s (-1): a guard against hanging, not a measure of speed.
        int result = run_program(step.argv, nullptr, 30);
        ASSERT_NE(result, -1) << step.what << " hung";
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

    // Unmounted without its phone, it ends cleanly and takes its work folder with it.
    EXPECT_EQ(unmountDevice(), 0);
    EXPECT_EQ(statError("/tmp/12"), ENOENT);

    // Folders of thousands, on a second phone: the first listing asks on a
    // stream and must show what a one-request-at-a-time listing shows.
    ASSERT_TRUE(mountAfresh(kCrowded));

    std::vector<std::string> order = sorted(namesIn(crowdedStorage + "/many"));
    ASSERT_EQ(order.size(), 3004u);  // with two dot names and two spellings of one name
    std::vector<std::string> expected = shownOnce(order);
    std::vector<std::string> listed = namesIn(inMount("/Storage/many"));
    EXPECT_EQ(listed, expected);
    EXPECT_EQ(namesIn(inMount("/Storage/many")), listed) << "the second listing comes from memory, the same";
    std::vector<std::string> plain = expected;
    plain.erase(std::remove_if(plain.begin(), plain.end(),
                               [](const std::string &n) { return n == kComposed || n == kDecomposed; }),
                plain.end());
    expectImageAttributes(crowdedStorage + "/many", inMount("/Storage/many"), plain);
    EXPECT_EQ(namesIn(inMount("/Storage/many/" + numbered("dir", 5))), std::vector<std::string>{"inside.txt"});

    std::vector<std::string> pages = sorted(namesIn(crowdedApp("com.example.reader")));
    EXPECT_EQ(namesIn(inMount("/Apps/Reader")), pages);
    expectImageAttributes(crowdedApp("com.example.reader"), inMount("/Apps/Reader"), pages);

    // Storage keeps its stream for the next large listing; an app listing
    // closes all of its own connections.
    EXPECT_TRUE(eventually([&] { return connections("house_arrest") == 0; })) << connections("house_arrest");
    EXPECT_TRUE(eventually([&] { return connections("afc") == 2; })) << connections("afc");
    EXPECT_EQ(namesIn(inMount("/Storage/more")), sorted(namesIn(crowdedStorage + "/more")));
    EXPECT_TRUE(eventually([&] { return connections("afc") == 2; })) << connections("afc");

    EXPECT_TRUE(dialogs.dialogs().empty());
    for (const char *caller : {"enumStorage libiusb", "enumApps libiusb", "storageInfoStream", "infoOf"})
        EXPECT_EQ(mount.countLogStarting(caller), 0) << caller;

    // An unreadable entry in the middle fails a Storage listing and is left
    // out of an app one.
    order = sorted(namesIn(crowdedStorage + "/broken"));
    pages = sorted(namesIn(crowdedApp("com.example.broken")));
    ASSERT_EQ(order.size(), 2002u);
    ASSERT_EQ(pages.size(), 1502u);
    ASSERT_EQ(sim.control("afc-error " + sim.udid(1) + " /general_storage/broken/" + order[1000] + " io-error"), "ok");
    // In an app, entries near its start, middle and end.
    for (size_t failing : {size_t(1499), size_t(700), size_t(5)}) {
        ASSERT_EQ(sim.control("afc-error " + sim.udid(1) + " /Documents/" + pages[failing] + " io-error"), "ok");
        pages.erase(pages.begin() + static_cast<long>(failing));
    }
    namesIn(inMount("/Storage/broken"), &error);
    EXPECT_EQ(error, ECANCELED);
    std::vector<RecordedDialog> failed = dialogs.waitForDialogs(1);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].title, "Quorvel Error!!");
    EXPECT_EQ(failed[0].message, "Could not read directory.\nError Code : -30");
    EXPECT_EQ(mount.countLog("enumStorage libiusb_afc_file_get_info failed. code : -30"), 1);
    EXPECT_EQ(mount.countLog("tarnifs_readdir enumStorage failed. error : -30"), 1);
    // In an app the entries are only missing, nothing is shown, and what was
    // listed belongs to the app.
    EXPECT_EQ(namesIn(inMount("/Apps/Broken"), &error), pages);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(mount.countLog("enumApps libiusb_afc_file_get_info failed. error : -30"), 3);
    EXPECT_EQ(readLocal(inMount("/Apps/Broken/" + numbered("dir", 5) + "/inside.txt")), "inside");
    EXPECT_TRUE(eventually([&] { return connections("house_arrest") == 0; })) << connections("house_arrest");
    // Once the device answers, the Storage folder lists whole.
    ASSERT_EQ(sim.control("clear " + sim.udid(1)), "ok");
    EXPECT_EQ(namesIn(inMount("/Storage/broken"), &error), order);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(dialogs.dialogs().size(), 1u);

    // A device lost in the middle of a large listing fails it once. A few
    // requests go to the folder itself first; the drop falls among the entries.
    ASSERT_EQ(sim.control("drop-after-requests " + sim.udid(1) + " 600"), "ok");
    namesIn(inMount("/Storage/lost"), &error);
    EXPECT_EQ(error, ECANCELED);
    EXPECT_EQ(dialogs.waitForDialogs(2).size(), 2u);
    EXPECT_EQ(mount.countLogStarting("enumStorage libiusb_afc_file_get_info failed. code : "), 2);
    EXPECT_EQ(mount.countLogStarting("tarnifs_readdir enumStorage failed. error : "), 2);
    EXPECT_EQ(unmountDevice(), 0);
    EXPECT_TRUE(eventually([&] { return connections() == 0; })) << connections() << " connections left";

    // A phone that opens only three services at once (lockdown and the media
    // connection take two): every folder still lists and every app file reads,
    // one after another, the stream giving up its idle connection, and the user
    // sees no dialog. Lockdown, the media connection and the installation
    // proxy fill the three: the first app folder's connection needs the
    // proxy's slot.
    ASSERT_EQ(sim.control("service-limit " + sim.udid(1) + " 3"), "ok");
    ASSERT_TRUE(mountDevice(kCrowded));
    EXPECT_EQ(namesIn(inMount("/Apps")).size(), 12u);
    EXPECT_EQ(namesIn(inMount("/Storage/many")), shownOnce(sorted(namesIn(crowdedStorage + "/many"))));
    for (int app = 0; app < 10; ++app) {
        std::string id = "com.example.app" + std::to_string(app);
        std::string folder = inMount("/Apps/App " + std::to_string(app));
        EXPECT_EQ(namesIn(folder), sorted(namesIn(crowdedApp(id)))) << folder;
        EXPECT_EQ(readLocal(folder + "/" + numbered("note", 7)), readLocal(crowdedApp(id) + "/" + numbered("note", 7)));
        EXPECT_EQ(namesIn(inMount("/Storage/many/" + numbered("dir", 5 + 11 * app))), std::vector<std::string>{"inside.txt"});
    }
    EXPECT_EQ(dialogs.dialogs().size(), 2u) << "only the two failures above";
    EXPECT_EQ(mount.countLogStarting("CloseIdleConnections closed 1 idle connections"), 1);
    EXPECT_EQ(unmountDevice(), 0);
    EXPECT_TRUE(eventually([&] { return connections() == 0; })) << connections() << " connections left";
}

} // namespace
