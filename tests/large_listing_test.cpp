// Large first listings ask their entries' information on a stream, hundreds
// of requests in flight: the walk itself must stay what a one-request-at-a-time
// walk is. The
// listing functions are called directly, with a mount context connected to
// the simulated device, so that what an interrupted Storage walk leaves in
// the catalogue can be looked at.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/info_queries.h"
#include "tarnifs/listing.h"
#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"

namespace {

int collectName(void *buffer, const char *name, const struct stat *, off_t, enum fuse_fill_dir_flags) {
    static_cast<std::vector<std::string> *>(buffer)->emplace_back(name);
    return 0;
}

class LargeListingTest : public ConnectedContextTest {
protected:
    void SetUp() override {
        ConnectedContextTest::SetUp();
        // The tray pipe is nobody's here: busy messages are only logged.
        setenv("QUORVEL_PIPE", (tempDir + "/no-tray").c_str(), 1);
    }

    void TearDown() override {
        ConnectedContextTest::TearDown();
        unsetenv("QUORVEL_PIPE");
    }

    // Starts devsim and connects the mount context as start-up does.
    void connect(const DevsimImage &image) {
        connectTo(image);
        if (HasFatalFailure()) return;
        std::vector<std::string> names;
        for (const char *folder : {"/", "/Storage", "/Apps"})
            ASSERT_EQ(listFolder(&context, folder, &names, collectName, 0), 0) << folder;
        // Start-up's own short-lived connections are gone before counting:
        // lockdown, the media connection and the installation proxy stay.
        ASSERT_TRUE(eventually([&] { return connections("") == 3; })) << connections("");
    }

    int connections(const std::string &service) { return sim.connections(0, service); }
    // How many names a whole listing of `path` emitted; -1 when it failed.
    long listed(const char *path) {
        std::vector<std::string> names;
        return listFolder(&context, path, &names, collectName, 0) == 0 ? static_cast<long>(names.size()) : -1;
    }
};

// Folders on both sides of the size from which a stream is used, counting
// the two dot names each has (listed like any), with sub-folders among its
// files.
const size_t kFolderSizes[] = {40, kStreamedListingEntries - 2, kStreamedListingEntries - 1, 1500};

TEST_F(LargeListingTest, WalksStayWhatAOneConnectionWalkIsWhateverTheDeviceDoes) {
    DevsimImage image;
    image.location_id = 41;
    for (size_t size : kFolderSizes) {
        std::string folder = "media/general_storage/" + numbered("f", size) + "/";
        image.files.push_back({folder + ".hidden", "a dot name, listed"});
        image.files.push_back({folder + "._resource", "a dot name, listed"});
        for (size_t i = 0; i < size; ++i) {
            if (i % 7 == 3)
                image.folders.push_back(folder + numbered("sub", i));
            else
                image.files.push_back({folder + numbered("file", i), std::string(i % 50, 'x')});
        }
    }
    image.apps = {{"com.example.writer", "Writer", true}};
    for (size_t i = 0; i < 300; ++i) {
        image.files.push_back({"media/general_storage/ring/" + numbered("file", i), std::string(i, 'r')});
        image.files.push_back({"media/general_storage/big/" + numbered("file", i), "s"});
        image.files.push_back({"media/general_storage/again/" + numbered("file", i), "s"});
        image.files.push_back({"apps/com.example.writer/Documents/" + numbered("doc", i), "d"});
    }
    connect(image);

    // A Storage entry that cannot be read ends the walk there.
    std::string failedLine = "enumStorage libiusb_afc_file_get_info failed. code : -30";
    for (size_t size : kFolderSizes) {
        SCOPED_TRACE("folder of " + std::to_string(size));
        std::string devicePath = "/general_storage/" + numbered("f", size);
        std::string path = "/Storage/" + numbered("f", size);
        // Device order: devsim lists an image folder's names sorted.
        std::vector<std::string> order = sorted(namesIn(sim.image_dir(0) + "/media" + devicePath));
        ASSERT_EQ(order.size(), size + 2);  // and the two dot names
        size_t failing = size / 2;
        ASSERT_EQ(sim.control("afc-error " + sim.udid(0) + " " + devicePath + "/" + order[failing] + " io-error"), "ok");
        int linesBefore = logCount(failedLine);

        std::vector<std::string> emitted;
        EXPECT_EQ(enumStorage(&context, path.c_str(), &emitted, collectName, 0), LIBIUSB_ERROR_IO);
        std::vector<std::string> before(order.begin(), order.begin() + static_cast<long>(failing));
        EXPECT_EQ(emitted, before);
        EXPECT_EQ(childNames(path.c_str()), before);
        EXPECT_EQ(logCount(failedLine), linesBefore + 1);
        // Nothing after the failing entry got a record either.
        for (size_t i = failing; i < order.size(); ++i) EXPECT_EQ(FindObject((path + "/" + order[i]).c_str()), nullptr) << order[i];
        // The stream is kept for the next large listing; small ones never open it.
        int expected = order.size() > kStreamedListingEntries ? 2 : 1;
        EXPECT_TRUE(eventually([&] { return connections("afc") == expected; })) << connections("afc");

        // Once the device answers, the folder is listed again and whole.
        ASSERT_EQ(sim.control("clear " + sim.udid(0)), "ok");
        emitted.clear();
        EXPECT_EQ(listFolder(&context, path.c_str(), &emitted, collectName, 0), 0);
        ASSERT_GE(emitted.size(), 2u);
        EXPECT_EQ(std::vector<std::string>(emitted.begin() + 2, emitted.end()), order);
        EXPECT_EQ(childNames(path.c_str()), order);
        // Each with its own size: what the failed walk left owed on the
        // stream is not taken for this one's answers.
        for (const std::string &name : order) {
            const _KTL_OBJECT *child = FindObject((path + "/" + name).c_str());
            struct stat image;
            ASSERT_EQ(stat((sim.image_dir(0) + "/media" + devicePath + "/" + name).c_str(), &image), 0);
            EXPECT_TRUE(child != nullptr && (S_ISDIR(image.st_mode) || child->size == uint64_t(image.st_size))) << name;
        }
    }

    // Listings go on with the connections the device gives. Lockdown, AFC and
    // the installation proxy are open: one more, the stream, may start.
    ASSERT_EQ(sim.control("service-limit " + sim.udid(0) + " 4"), "ok");
    EXPECT_EQ(listed("/Storage/big"), 302);
    EXPECT_TRUE(eventually([&] { return connections("afc") == 2; })) << connections("afc");
    // The app's own connection needs a slot: the idle stream and the
    // installation proxy give theirs up, and the app's stream takes the other.
    EXPECT_EQ(listed("/Apps/Writer"), 302);
    EXPECT_EQ(logCount("CloseIdleConnections closed 2 idle connections: the device opens no more services"), 1);
    EXPECT_TRUE(eventually([&] { return connections("house_arrest") == 0; })) << connections("house_arrest");
    EXPECT_TRUE(eventually([&] { return connections("afc") == 1; })) << connections("afc");
    // With no slot for a stream the listing's own connection asks alone;
    // without the limit the next one has its stream.
    ASSERT_EQ(sim.control("service-limit " + sim.udid(0) + " 2"), "ok");
    EXPECT_EQ(listed("/Storage/again"), 302);
    EXPECT_EQ(logCount("storageInfoStream libiusb_afc_info_stream_open failed. code : -48"), 1);
    ASSERT_EQ(sim.control("service-limit " + sim.udid(0) + " 0"), "ok");
    EXPECT_EQ(listed("/Storage/ring"), 302);
    EXPECT_TRUE(eventually([&] { return connections("afc") == 2; })) << connections("afc");
}

} // namespace
