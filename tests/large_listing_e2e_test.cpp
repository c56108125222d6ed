// Large folders through the mount: their first listing asks the device over
// several connections, and must show exactly what a one-connection listing
// shows, fail the same way, and leave no connection behind at unmount.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

const char kComposed[] = "caf\xC3\xA9.txt";
const char kDecomposed[] = "cafe\xCC\x81.txt";

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

class LargeListingTest : public MountedDeviceTest {
protected:
    static constexpr uint32_t kLocation = 51;

    DevsimImage largeImage(size_t storageEntries, size_t appEntries) {
        DevsimImage image;
        image.name = "Crowded";
        image.location_id = kLocation;
        image.apps = {{"com.example.reader", "Reader", true}};
        fillFolder(image, "media/general_storage/many", storageEntries, "photo");
        image.files.push_back({std::string("media/general_storage/many/") + kComposed, "composed"});
        image.files.push_back({std::string("media/general_storage/many/") + kDecomposed, "decomposed"});
        fillFolder(image, "apps/com.example.reader/Documents", appEntries, "page");
        return image;
    }


    // A folder's names in the order any listing must keep: devsim lists an
    // image folder's names sorted.
    static std::vector<std::string> deviceOrder(const std::string &imageFolder) {
        std::vector<std::string> names = namesIn(imageFolder);
        std::sort(names.begin(), names.end());
        return names;
    }

    int connections(const std::string &service = "") { return sim.connections(0, service); }

    // Every name shown stats as its image entry: kind, size, modification time.
    void expectImageAttributes(const std::string &image, const std::string &mounted,
                               const std::vector<std::string> &names) {
        for (const std::string &name : names) {
            struct stat original, seen;
            ASSERT_EQ(lstat((image + "/" + name).c_str(), &original), 0) << name;
            ASSERT_EQ(stat((mounted + "/" + name).c_str(), &seen), 0) << name;
            EXPECT_EQ(S_ISDIR(seen.st_mode), S_ISDIR(original.st_mode)) << name;
            EXPECT_EQ(seen.st_mtime, original.st_mtime) << name;
            if (!S_ISDIR(original.st_mode)) {
                EXPECT_EQ(seen.st_size, original.st_size) << name;
            }
        }
    }

    int countLogStarting(const std::string &prefix) {
        int count = 0;
        for (const std::string &line : mount.logMessages()) count += line.rfind(prefix, 0) == 0;
        return count;
    }
};

TEST_F(LargeListingTest, FoldersOfThousandsListAsTheDeviceHasThemEvenUnderAServiceLimitOrFailOnce) {
    DevsimImage image = largeImage(3000, 2000);
    fillFolder(image, "media/general_storage/more", 800, "clip");
    fillFolder(image, "media/general_storage/broken", 2000, "photo");
    fillFolder(image, "media/general_storage/lost", 2000, "photo");
    image.apps.push_back({"com.example.broken", "Broken", true});
    fillFolder(image, "apps/com.example.broken/Documents", 1500, "page");
    for (int app = 0; app < 10; ++app) {
        std::string id = "com.example.app" + std::to_string(app);
        image.apps.push_back({id, "App " + std::to_string(app), true});
        fillFolder(image, "apps/" + id + "/Documents", 80, "note");
    }
    ASSERT_TRUE(startDevice({image}));
    stampTimes(storageImage() + "/many");
    stampTimes(appImage("com.example.reader"));
    ASSERT_TRUE(mountDevice(kLocation));

    std::vector<std::string> order = deviceOrder(storageImage() + "/many");
    ASSERT_EQ(order.size(), 3004u);  // with two dot names and two spellings of one name
    std::vector<std::string> expected = shownOnce(order);
    ASSERT_EQ(expected.size(), 3003u);
    std::vector<std::string> shown = namesIn(inMount("/Storage/many"));
    EXPECT_EQ(shown, expected);
    EXPECT_EQ(namesIn(inMount("/Storage/many")), shown) << "the second listing comes from memory, the same";
    std::vector<std::string> plain(expected.begin(), expected.end());
    plain.erase(std::remove_if(plain.begin(), plain.end(),
                               [](const std::string &n) { return n == kComposed || n == kDecomposed; }),
                plain.end());
    expectImageAttributes(storageImage() + "/many", inMount("/Storage/many"), plain);
    EXPECT_EQ(namesIn(inMount("/Storage/many/" + numbered("dir", 5))), std::vector<std::string>{"inside.txt"});

    std::vector<std::string> pages = deviceOrder(appImage("com.example.reader"));
    ASSERT_EQ(pages.size(), 2002u);
    EXPECT_EQ(namesIn(inMount("/Apps/Reader")), pages);
    expectImageAttributes(appImage("com.example.reader"), inMount("/Apps/Reader"), pages);

    // Storage keeps its extra connections for the next large listing; an
    // app listing closes all of its own.
    EXPECT_TRUE(eventually([&] { return connections("house_arrest") == 0; })) << connections("house_arrest");
    EXPECT_TRUE(eventually([&] { return connections("afc") == 4; })) << connections("afc");
    EXPECT_EQ(namesIn(inMount("/Storage/more")), deviceOrder(storageImage() + "/more"));
    EXPECT_TRUE(eventually([&] { return connections("afc") == 4; })) << connections("afc");

    EXPECT_TRUE(dialogs.dialogs().empty());
    for (const char *caller : {"enumStorage libiusb", "enumApps libiusb", "storageListingConnections",
                               "openAppListingConnections", "closeAppListingConnections"})
        EXPECT_EQ(countLogStarting(caller), 0) << caller;

    // An unreadable entry in the middle fails a Storage listing and is left
    // out of an app one.
    order = deviceOrder(storageImage() + "/broken");
    pages = deviceOrder(appImage("com.example.broken"));
    ASSERT_EQ(order.size(), 2002u);
    ASSERT_EQ(pages.size(), 1502u);
    ASSERT_EQ(sim.control("afc-error " + sim.udid(0) + " /general_storage/broken/" + order[1000] + " io-error"), "ok");
    // In an app, entries near its start, middle and end.
    for (size_t failing : {size_t(1499), size_t(700), size_t(5)}) {
        ASSERT_EQ(sim.control("afc-error " + sim.udid(0) + " /Documents/" + pages[failing] + " io-error"), "ok");
        pages.erase(pages.begin() + static_cast<long>(failing));
    }
    int error = 0;
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
    ASSERT_EQ(sim.control("clear " + sim.udid(0)), "ok");
    EXPECT_EQ(namesIn(inMount("/Storage/broken"), &error), order);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(dialogs.dialogs().size(), 1u);

    // A device lost in the middle of a large listing fails it once. A few
    // requests go to the folder itself first; the drop falls among the entries.
    ASSERT_EQ(sim.control("drop-after-requests " + sim.udid(0) + " 600"), "ok");
    namesIn(inMount("/Storage/lost"), &error);
    EXPECT_EQ(error, ECANCELED);
    EXPECT_EQ(dialogs.waitForDialogs(2).size(), 2u);
    EXPECT_EQ(countLogStarting("enumStorage libiusb_afc_file_get_info failed. code : "), 2);
    EXPECT_EQ(countLogStarting("tarnifs_readdir enumStorage failed. error : "), 2);
    EXPECT_EQ(unmountDevice(), 0);
    EXPECT_TRUE(eventually([&] { return connections() == 0; })) << connections() << " connections left";

    // A phone that opens only three services at once (lockdown and the media
    // connection take two): every folder still lists and every app file reads,
    // one after another, the pool giving up its idle connections, and the user
    // sees no dialog. Lockdown, the media connection and the installation
    // proxy fill the three: the first app folder's connection needs the
    // proxy's slot.
    ASSERT_EQ(sim.control("service-limit " + sim.udid(0) + " 3"), "ok");
    ASSERT_TRUE(mountDevice(kLocation));
    EXPECT_EQ(namesIn(inMount("/Apps")).size(), 12u);
    EXPECT_EQ(namesIn(inMount("/Storage/many")), shownOnce(deviceOrder(storageImage() + "/many")));
    for (int app = 0; app < 10; ++app) {
        std::string id = "com.example.app" + std::to_string(app);
        std::string folder = inMount("/Apps/App " + std::to_string(app));
        EXPECT_EQ(namesIn(folder), deviceOrder(appImage(id))) << folder;
        EXPECT_EQ(readLocal(folder + "/" + numbered("note", 7)), readLocal(appImage(id) + "/" + numbered("note", 7)));
        EXPECT_EQ(namesIn(inMount("/Storage/many/" + numbered("dir", 5 + 11 * app))), std::vector<std::string>{"inside.txt"});
    }
    EXPECT_EQ(dialogs.dialogs().size(), 2u) << "only the two failures above";
    EXPECT_EQ(countLogStarting("CloseIdleConnections closed 1 idle connections"), 1);
    EXPECT_EQ(unmountDevice(), 0);
    EXPECT_TRUE(eventually([&] { return connections() == 0; })) << connections() << " connections left";
}

} // namespace
