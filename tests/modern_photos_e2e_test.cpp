// Photo libraries of iOS 14 and later through a real mount, on libraries
// imitating two releases whose entity numbers and link tables differ. The
// expected listings are written by hand from the rules in docs/media.md and
// docs/modern-photos.md, not computed by the code under test.
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/media_images.h"

namespace {

using devsim::MediaLibrary;
using devsim::MediaPhoto;

// A photo of this subtype (2 live, 1 panorama, 10 screenshot; 0 none).
MediaPhoto photo(const std::string &file, std::vector<int64_t> albums, unsigned seed, int subtype = 0) {
    MediaPhoto made = mediaPhoto("DCIM/100APPLE", file, std::move(albums), seed, 2000 + seed * 11, 600000000);
    made.subtype = subtype;
    return made;
}

MediaLibrary modernLibrary(int version) {
    MediaLibrary library;
    library.photo_family = devsim::PhotoFamily::modern;
    library.modern_version = version;
    library.write_music_db = false;
    library.write_record_db = false;
    library.albums = {mediaAlbum(1, "Trip"), mediaAlbum(2, "Trip"), mediaAlbum(3, "Shared with Bo", 1505),
                      mediaAlbum(4, "Favourites", 1602), mediaAlbum(5, "Old", 2, 1), mediaAlbum(6, "My Panoramas")};
    std::vector<MediaPhoto> &p = library.photos;
    p.push_back(photo("IMG_0001.HEIC", {1}, 1));
    p.push_back(photo("IMG_0002.HEIC", {2}, 2, 2));  // live, its video beside it
    p.back().live_video_bytes = randomBytes(7000, 77);
    p.push_back(photo("IMG_0003.JPG", {}, 3, 2));  // live, video missing
    p.push_back(photo("IMG_0004.HEIC", {1}, 4));  // hidden
    p.back().hidden = true;
    p.push_back(photo("IMG_0005.HEIC", {1}, 5));  // in Recently Deleted
    p.back().trashed = 1;
    p.push_back(photo("IMG_0006.HEIC", {1}, 6));  // only in iCloud
    p.back().cloud_only = true;
    p.push_back(photo("IMG_0007.HEIC", {}, 7));  // only in iCloud
    p.back().cloud_only = true;
    p.push_back(photo("IMG_0008.MOV", {}, 8));  // a video
    p.back().kind = 1;
    p.push_back(photo("IMG_0009.HEIC", {6}, 9, 1));  // panorama
    p.push_back(photo("IMG_0010.PNG", {}, 10, 10));  // screenshot
    p.push_back(photo("IMG_0011.HEIC", {}, 11));  // front camera
    p.back().camera_capture_device = 1;
    p.push_back(photo("IMG_0012.HEIC", {}, 12));  // the burst's key photo
    p.back().avalanche_pick_type = 16;
    p.push_back(photo("IMG_0013.HEIC", {}, 13));  // a burst frame not picked
    p.back().visibility = 2;
    p.push_back(photo("IMG_0014.HEIC", {2}, 14, 2));  // a live photo only in iCloud
    p.back().cloud_only = true;
    p.back().live_video_bytes = randomBytes(3000, 78);
    return library;
}

class ModernPhotosTest : public MountedDeviceTest {
protected:
    std::vector<std::string> folder(const std::string &name) {
        return sorted(namesIn(inMount("/Media/Photo/" + name)));
    }
};

// Both releases are served together and mounted in turn.
TEST_F(ModernPhotosTest, ListsAlbumsKindsAndLivePairsAndCountsWhatIsOnlyInICloud) {
    auto imageOf = [&](int version) { return tempDir + "/image" + std::to_string(version); };
    for (int version : {14, 17}) {
        DevsimImage phone;
        phone.location_id = 90 + static_cast<uint32_t>(version);
        phone.ios_version = devsim::modern_ios_version(version);
        ASSERT_EQ(writeMediaImage(imageOf(version), phone, modernLibrary(version)), "");
    }
    ASSERT_TRUE(sim.start_with_dirs({imageOf(14), imageOf(17)})) << sim.error();
    for (int version : {14, 17}) {
        SCOPED_TRACE(version);
        std::string image = imageOf(version);
        ASSERT_TRUE(mountAfresh(90 + static_cast<uint32_t>(version)));
        EXPECT_EQ(namesIn(inMount("/Media/Photo")),
                  (std::vector<std::string>{"Camera Roll", "Trip", "Trip (2)", "My Panoramas", "Recorded Videos",
                                            "Panoramas", "Screenshots", "Selfies", "Bursts",
                                            "Not on this device.txt"}));
        // Photos shown on the phone and kept on it; each live pair once, its
        // video only where the device has it.
        const std::pair<const char *, std::vector<std::string>> folders[] = {
            {"Camera Roll", {"IMG_0001.HEIC", "IMG_0002.HEIC", "IMG_0002.MOV", "IMG_0003.JPG", "IMG_0009.HEIC",
                             "IMG_0010.PNG", "IMG_0011.HEIC", "IMG_0012.HEIC"}},
            {"Recorded Videos", {"IMG_0008.MOV"}}, {"Trip", {"IMG_0001.HEIC"}},
            {"Trip (2)", {"IMG_0002.HEIC", "IMG_0002.MOV"}}, {"My Panoramas", {"IMG_0009.HEIC"}},
            {"Panoramas", {"IMG_0009.HEIC"}}, {"Screenshots", {"IMG_0010.PNG"}},
            {"Selfies", {"IMG_0011.HEIC"}}, {"Bursts", {"IMG_0012.HEIC"}}};
        for (const auto &[name, names] : folders) EXPECT_EQ(folder(name), sorted(names)) << name;

        std::string note = readLocal(inMount("/Media/Photo/Not on this device.txt"));
        EXPECT_EQ(note.find("3 photos and videos are kept only in iCloud"), 0u) << note;
        EXPECT_NE(note.find("Download and Keep Originals"), std::string::npos) << note;
        const std::string left = "EnumModernContents /Media/Photo/";
        EXPECT_EQ(mount.countLog(left + "Camera Roll: 3 photos only in iCloud, left out"), 1);
        EXPECT_EQ(mount.countLog(left + "Trip (2): 1 photos only in iCloud, left out"), 1);

        // Listed files read as the device's bytes; the note and the library are read only.
        for (std::string name : {"IMG_0002.MOV", "IMG_0002.HEIC", "IMG_0010.PNG"})
            EXPECT_EQ(copiedBy(inMount("/Media/Photo/Camera Roll/" + name), tempDir + "/copy"),
                      readLocal(image + "/media/DCIM/100APPLE/" + name)) << name;
        int status = -1;
        runProgram({"sh", "-c", "echo x >> '" + inMount("/Media/Photo/Not on this device.txt") + "'"}, &status);
        EXPECT_NE(status, 0);
        EXPECT_EQ(readLocal(inMount("/Media/Photo/Not on this device.txt")), note);

        // The whole photo tree dragged into Storage: every folder and file,
        // the note among them, and the library as it was.
        runProgram({"mv", inMount("/Media/Photo"), inMount("/Storage/photos")}, &status);
        EXPECT_EQ(status, 0);
        std::string storage = image + "/media/general_storage/photos";
        EXPECT_EQ(readLocal(storage + "/Not on this device.txt"), note);
        EXPECT_EQ(sorted(namesIn(storage + "/Trip (2)")), sorted({"IMG_0002.HEIC", "IMG_0002.MOV"}));
        EXPECT_EQ(readLocal(storage + "/Camera Roll/IMG_0002.MOV"),
                  readLocal(image + "/media/DCIM/100APPLE/IMG_0002.MOV"));
        EXPECT_EQ(namesIn(storage).size(), 10u);
        EXPECT_EQ(folder("Trip (2)"), sorted({"IMG_0002.HEIC", "IMG_0002.MOV"}));
        EXPECT_TRUE(dialogs.dialogs().size() <= 1u);  // the refused append above, nothing more

        // A photo that goes from the phone after the listing: a clear dialog.
        ASSERT_EQ(unlink((image + "/media/DCIM/100APPLE/IMG_0011.HEIC").c_str()), 0);
        std::string selfie = inMount("/Media/Photo/Selfies/IMG_0011.HEIC");
        std::string output = runProgram({"sh", "-c", "cat '" + selfie + "' 2>&1"}, &status);
        EXPECT_NE(status, 0);
        EXPECT_NE(output.find("Operation canceled"), std::string::npos) << output;
        std::vector<RecordedDialog> shown = dialogs.waitForDialogs(2);
        ASSERT_FALSE(shown.empty());
        EXPECT_EQ(shown.back().message, "Could not open a file(IMG_0011.HEIC).\nError Code : -70");
    }
}

} // namespace
