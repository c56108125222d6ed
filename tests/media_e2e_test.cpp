// /Media through a real mount: libraries described row by row, and every
// listing compared with names worked out by hand from the naming rules (not
// by the code under test): duplicates, cuts, live-photo pairs, hidden and
// trashed assets, the three photo database families, broken databases.
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <string>
#include <vector>

#include "tests/support/media_images.h"

namespace {

using devsim::MediaLibrary;
using devsim::MediaPhoto;
using devsim::MediaRecording;
using devsim::MediaSong;
using devsim::PhotoFamily;

// A photo of this subtype (2 live, 1 panorama, 10 screenshot; 0 none).
MediaPhoto photo(const std::string &directory, const std::string &file, std::vector<int64_t> albums,
                 unsigned seed, int subtype = 0) {
    MediaPhoto made = mediaPhoto(directory, file, std::move(albums), seed, 3000 + seed * 17, 500000000);
    made.subtype = subtype;
    return made;
}

MediaSong song(std::optional<std::string> artist, std::optional<std::string> title, const std::string &location,
               unsigned seed, int kind = 1) {
    MediaSong made;
    made.artist = std::move(artist);
    made.title = std::move(title);
    made.location = location;
    made.base_path = "iTunes_Control/Music/F0" + std::to_string(seed % 10);
    made.media_kind = kind;
    made.bytes = randomBytes(2000 + seed * 13, seed + 100);
    return made;
}

// The photo library every family is listed from; the families differ only in
// how their queries read it. Album 1 is the camera roll.
MediaLibrary photoLibrary(PhotoFamily family) {
    MediaLibrary library;
    library.photo_family = family;
    library.write_music_db = false;
    library.write_record_db = false;
    library.albums = {mediaAlbum(1, std::nullopt, 1000), mediaAlbum(2, "Trip"), mediaAlbum(3, "Trip"), mediaAlbum(4, "My Panoramas"),
                      mediaAlbum(5, "Shared by Ann", 1500), mediaAlbum(6, "Nothing in it"), mediaAlbum(7, "Thrown away"),
                      mediaAlbum(8, "Import in progress"), mediaAlbum(9, ".."), mediaAlbum(10, "AC/DC"),
                      mediaAlbum(11, std::string(300, 'L'))};
    library.albums[8].cached_count = 1;   // a name that would alias the parent folder
    library.albums[10].cached_count = 1;  // a name past NAME_MAX
    library.albums[5].cached_count = 0;
    library.albums[6].trashed = 1;
    const std::string dcim = "DCIM/100APPLE";
    std::vector<MediaPhoto> &p = library.photos;
    p.push_back(photo(dcim, "IMG_0001.JPG", {1, 2, 10}, 1));
    p.push_back(photo("DCIM/101APPLE", "IMG_0001.JPG", {1}, 2));  // same recorded name
    p.push_back(photo(dcim, "IMG_0005.JPG", {1, 3}, 3, 2));       // live, video present
    p.back().live_video_bytes = randomBytes(9000, 33);
    p.push_back(photo(dcim, "IMG_0006.JPG", {1}, 4, 2));  // live, video missing
    p.push_back(photo(dcim, "IMG_0007.JPG", {1, 4}, 5, 1));  // panorama
    p.push_back(photo(dcim, "IMG_0008.PNG", {1}, 6, 10));  // screenshot
    p.push_back(photo(dcim, "IMG_0009.MOV", {1}, 7));  // video
    p.back().kind = 1;
    p.push_back(photo(dcim, "IMG_0010.JPG", {1}, 8));  // hidden
    p.back().visibility = 1;
    p.push_back(photo(dcim, "IMG_0011.JPG", {1}, 9));  // in the trash
    p.back().trashed = 1;
    p.push_back(photo(dcim, "IMG_0012.JPG", {1, 5}, 10));  // the database's size is stale
    p.back().db_file_size = static_cast<int64_t>(p.back().bytes.size()) + 5;
    p.push_back(photo(dcim, "IMG_0013.JPG", {1}, 11));  // front camera
    p.back().camera_capture_device = 1;
    p.push_back(photo(dcim, "IMG_0014.JPG", {1}, 12));  // burst pick
    p.back().avalanche_pick_type = 52;
    p.push_back(photo(dcim, "IMG_0015.JPG", {1}, 13));  // not an asset of the asset entity
    p.back().entity = library.entities.generic_asset;
    p.push_back(photo(dcim, "IMG_0016.JPG", {1}, 14));  // no size recorded
    p.back().db_file_size = 0;
    p.push_back(photo(dcim, "IMG_0017.JPG", {1}, 15));  // recorded name holds a slash
    p.back().original_filename = "Holiday/Beach.JPG";
    p.push_back(photo(dcim, "IMG_0018.JPG", {1}, 16));  // no recorded name
    p.back().original_filename = std::nullopt;
    p.push_back(photo(dcim, "IMG_0020.JPG", {1}, 18));  // a recorded name past NAME_MAX
    p.back().original_filename = std::string(252, 'P') + ".JPG";
    p.push_back(photo(dcim, "IMG_0019.JPG", {1}, 17));  // visibility 2: shown by older libraries only
    p.back().visibility = 2;
    return library;
}

// A cloud library: files come from the cloud resources, only what is kept
// on the device.
MediaLibrary cloudLibrary() {
    MediaLibrary library;
    library.photo_family = PhotoFamily::cloud;
    library.write_music_db = false;
    library.write_record_db = false;
    library.albums = {mediaAlbum(1, std::nullopt, 1000), mediaAlbum(2, "Trip"), mediaAlbum(3, "Friends")};
    auto cloudPhoto = [](const std::string &name, std::vector<int64_t> albums, unsigned seed, int subtype = 0) {
        MediaPhoto made = photo("DCIM/100APPLE", name, std::move(albums), seed, subtype);
        made.cloud_original_filename = name;
        devsim::MediaCloudResource resource;
        resource.file_path = "/var/mobile/Media/DCIM/100APPLE/" + name;
        resource.bytes = made.bytes;
        made.cloud_resources.push_back(resource);
        made.write_file = false;  // the resource is the file
        return made;
    };
    std::vector<MediaPhoto> &p = library.photos;
    p.push_back(cloudPhoto("IMG_0100.JPG", {1, 2}, 40));
    p.push_back(cloudPhoto("IMG_0101.JPG", {1}, 41));  // a second resource of the same master
    devsim::MediaCloudResource thumbnail;
    thumbnail.file_path = "/var/mobile/Media/PhotoData/Thumbs/IMG_0101.JPG";
    thumbnail.bytes = randomBytes(700, 42);
    thumbnail.type = 1;
    p.back().cloud_resources.push_back(thumbnail);
    p.push_back(cloudPhoto("IMG_0102.JPG", {1}, 43));  // kept in the cloud only
    p.back().cloud_resources[0].locally_available = 0;
    p.push_back(cloudPhoto("IMG_0103.JPG", {1}, 44));  // stale size: not shown
    p.back().cloud_resources[0].db_file_size = static_cast<int64_t>(p.back().bytes.size()) + 1;
    p.push_back(cloudPhoto("IMG_0104.JPG", {1, 2, 3}, 45, 1));  // a panorama in three albums
    p.push_back(cloudPhoto("IMG_0105.JPG", {1}, 46, 2));  // live: its video is the same master again
    p.back().live_video_bytes = randomBytes(5000, 47);
    p.push_back(cloudPhoto("IMG_0106.MOV", {1}, 48));
    p.back().kind = 1;
    return library;
}

// Songs, podcasts, movies and voice memos, without a photo database.
MediaLibrary musicLibrary() {
    MediaLibrary library;
    library.write_photo_db = false;
    std::vector<MediaSong> &s = library.songs;
    s.push_back(song("Ann", "Blue", "AAAA.mp3", 1));
    s.push_back(song("Ann", "Blue", "AAAB.mp3", 2));  // same artist and title
    s.push_back(song(std::nullopt, "Alone", "AAAC.m4a", 3));
    s.push_back(song("Bo", std::nullopt, "AAAD.mp3", 4));
    s.push_back(song("Cy", "My Song wlrtitdb 1 ", "AAAE.mp3", 5));
    s.push_back(song("Di", std::string(200, 'x'), "AAAF.mp3", 6));
    s.push_back(song("Ed", "Two dots", "AAAG.b.mp3", 7));
    s.push_back(song("Fay", "AC/DC cover", "AAAH.mp3", 8));
    s.push_back(song("Gus", "Stale", "AAAI.mp3", 9));  // one byte off: hidden
    s.back().db_file_size = static_cast<int64_t>(s.back().bytes.size()) + 1;
    s.push_back(song("Hal", std::string("Bad \xff\xfe name"), "AAAJ.mp3", 10));  // not UTF-8
    s.push_back(song("Ivy", "Nowhere", "AAAK.mp3", 11));
    s.back().location = std::nullopt;
    s.push_back(song("Jo", "Gone", "AAAL.mp3", 12));
    s.back().write_file = false;
    s.push_back(song("Pod", "Episode 1", "AAAM.mp3", 13, 4));
    s.push_back(song("Studio", "The Film", "AAAN.m4v", 14, 2048));
    MediaRecording talk;
    talk.label = "Talk";
    talk.path = "/var/mobile/Media/Recordings/rec1.m4a";
    talk.date = 400000000;
    talk.bytes = randomBytes(4000, 60);
    MediaRecording unlabelled = talk;
    unlabelled.label = std::nullopt;
    unlabelled.path = "/var/mobile/Media/Recordings/rec2.m4a";
    MediaRecording tooShort = talk;
    tooShort.path = "/short";
    tooShort.write_file = false;
    library.recordings = {talk, unlabelled, tooShort};
    return library;
}

class MediaTest : public MountedDeviceTest {
protected:
    // Writes a device image with this library into tempDir/image<location
    // id>; the phone gets a udid of its own from that id.
    std::string writePhone(DevsimImage phone, const MediaLibrary &library) {
        std::string dir = tempDir + "/image" + std::to_string(phone.location_id);
        phone.udid = "00008101-" + std::string(15, '0') + std::to_string(phone.location_id);
        EXPECT_EQ(writeMediaImage(dir, phone, library), "");
        return dir;
    }
    bool mountPhone(uint32_t locationId) {
        imageDir = tempDir + "/image" + std::to_string(locationId);
        return mountAfresh(locationId);
    }
    std::vector<std::string> photoFolder(const std::string &name) {
        return sorted(namesIn(inMount("/Media/Photo/" + name)));
    }
    void expectPhotoFolders(const std::vector<std::pair<std::string, std::vector<std::string>>> &folders) {
        for (const auto &[folder, names] : folders) EXPECT_EQ(photoFolder(folder), sorted(names)) << folder;
    }
    // A listed photo reads as the device file it stands for.
    void expectSameBytes(const std::string &volumePath, const std::string &devicePath) {
        std::string copy = copiedBy(inMount(volumePath), tempDir + "/copy");
        EXPECT_EQ(copy, readLocal(imageDir + "/media/" + devicePath)) << volumePath;
        EXPECT_FALSE(copy.empty()) << volumePath;
    }

    std::string imageDir;
};

const std::vector<std::string> kPhotoRoot = {"Camera Roll", "Trip",        "Trip (2)",  "My Panoramas",
                                             "My Photo Stream", "AC:DC", "Recorded Videos", "Panoramas",
                                             "Screenshots", "Selfies",     "Bursts"};

// One device per library: the same photo library read through each family's
// queries, a cloud library, a music library, broken and missing databases,
// and a small phone to copy out of /Media into.
TEST_F(MediaTest, LibrariesListAsOnThePhoneBrokenOnesLeaveTheRestAndCopiesOutLeaveThemAsTheyWere) {
    MediaLibrary withSong = photoLibrary(PhotoFamily::ios10);
    withSong.write_music_db = true;
    withSong.songs.push_back(song("Ann", "Blue", "AAAA.mp3", 1));
    constexpr long long kSongBytes = 2000000;
    withSong.songs.back().bytes = randomBytes(kSongBytes, 7);
    MediaLibrary none;
    none.write_music_db = false;
    none.write_photo_db = false;
    none.write_record_db = false;
    DevsimImage phone;
    phone.location_id = 66;
    std::string broken = writePhone(phone, withSong);
    phone.location_id = 67;
    std::string empty = writePhone(phone, none);
    // A small device: its figures keep a few kilobytes of precision.
    phone.location_id = 68;
    phone.capacity_bytes = 50000000;
    phone.apps = {{"com.example.notes", "Notes", true}};
    std::string small = writePhone(phone, withSong);
    // The photo library cut short after its first page.
    const std::string db = broken + "/media/PhotoData/Photos.sqlite";
    ASSERT_GT(readLocal(db).size(), 4096u);
    ASSERT_TRUE(writeLocal(db, readLocal(db).substr(0, 1024) + std::string(3072, 'Z')));
    // One device per library, iOS version and location id; the music phone
    // (65) is served last.
    std::vector<std::string> dirs = {broken, empty, small};
    for (const auto &[library, iosVersion, locationId] : std::vector<std::tuple<MediaLibrary, const char *, uint32_t>>{
             {photoLibrary(PhotoFamily::ios10), "10.3.3", 61}, {photoLibrary(PhotoFamily::older), "9.2.1", 62},
             {photoLibrary(PhotoFamily::older), "8.4.1", 63}, {cloudLibrary(), "9.3.5", 64},
             {musicLibrary(), "10.3.3", 65}}) {
        DevsimImage plain;
        plain.location_id = locationId;
        plain.ios_version = iosVersion;
        dirs.push_back(writePhone(plain, library));
    }
    ASSERT_TRUE(sim.start_with_dirs(dirs)) << sim.error();
    ASSERT_TRUE(mountPhone(61));
    EXPECT_EQ(namesIn(inMount("/Media")), (std::vector<std::string>{"Music", "Movies", "Photo"}));
    EXPECT_EQ(namesIn(inMount("/Media/Photo")), kPhotoRoot);
    // Photos of the asset entity only, visible now, not in the trash; the
    // live photo with its video and the one whose video is missing.
    std::vector<std::string> roll = {"IMG_0001.JPG", "IMG_0001 (2).JPG", "IMG_0005.JPG", "IMG_0005.MOV",
                                     "IMG_0006.JPG", "IMG_0007.JPG", "IMG_0008.PNG", "IMG_0012.JPG",
                                     "IMG_0013.JPG", "IMG_0014.JPG", "Holiday:Beach.JPG"};
    EXPECT_EQ(photoFolder("Camera Roll"), sorted(roll));
    // An album whose name holds a kind ("My Panoramas") shows that kind.
    expectPhotoFolders({{"Recorded Videos", {"IMG_0009.MOV"}}, {"Panoramas", {"IMG_0007.JPG"}},
                        {"My Panoramas", {"IMG_0007.JPG"}}, {"Screenshots", {"IMG_0008.PNG"}},
                        {"Selfies", {"IMG_0013.JPG"}}, {"Bursts", {"IMG_0014.JPG"}}, {"Trip", {"IMG_0001.JPG"}},
                        {"Trip (2)", {"IMG_0005.JPG", "IMG_0005.MOV"}}, {"My Photo Stream", {"IMG_0012.JPG"}},
                        {"AC:DC", {"IMG_0001.JPG"}}});
    EXPECT_GT(mount.countLogStarting("enumMedia file : (..) has no usable name, row skipped."), 0);

    expectSameBytes("/Media/Photo/Camera Roll/IMG_0005.MOV", "DCIM/100APPLE/IMG_0005.MOV");
    expectSameBytes("/Media/Photo/Trip/IMG_0001.JPG", "DCIM/100APPLE/IMG_0001.JPG");
    // A stale database size is logged and the device's size shown.
    struct stat st;
    ASSERT_EQ(stat(inMount("/Media/Photo/My Photo Stream/IMG_0012.JPG").c_str(), &st), 0);
    EXPECT_EQ(static_cast<size_t>(st.st_size), readLocal(imageDir + "/media/DCIM/100APPLE/IMG_0012.JPG").size());
    expectSameBytes("/Media/Photo/My Photo Stream/IMG_0012.JPG", "DCIM/100APPLE/IMG_0012.JPG");
    EXPECT_GT(mount.countLogStarting("GetPhotoFromDevice file : (IMG_0012.JPG), database file size : "), 0);
    EXPECT_GT(mount.countLogStarting("GetPhotoFromDevice file : (IMG_0006.JPG) get info failed. ret ; "), 0);
    // The moment date (seconds since 2001) is the photo's birth, shown in 1970 terms.
    EXPECT_EQ(st.st_mtime, 978307200 + 500000100 + 10);

    // Older, without cloud masters: the album of kind 1000 decides; the
    // entity and a visibility of 2 do not.
    ASSERT_TRUE(mountPhone(62));
    EXPECT_EQ(namesIn(inMount("/Media/Photo")), kPhotoRoot);
    roll.insert(roll.end(), {"IMG_0015.JPG", "IMG_0019.JPG"});
    expectPhotoFolders({{"Camera Roll", roll}, {"Recorded Videos", {"IMG_0009.MOV"}}, {"My Panoramas", {"IMG_0007.JPG"}},
                        {"Trip (2)", {"IMG_0005.JPG", "IMG_0005.MOV"}}, {"Selfies", {"IMG_0013.JPG"}}});
    expectSameBytes("/Media/Photo/Camera Roll/IMG_0019.JPG", "DCIM/100APPLE/IMG_0019.JPG");

    // Before 9 the Selfies and Bursts folders come only from subtypes.
    ASSERT_TRUE(mountPhone(63));
    EXPECT_EQ(namesIn(inMount("/Media/Photo")),
              (std::vector<std::string>{"Camera Roll", "Trip", "Trip (2)", "My Panoramas", "My Photo Stream",
                                        "AC:DC", "Recorded Videos", "Panoramas", "Screenshots"}));

    // Each local cloud master once however many rows name it.
    ASSERT_TRUE(mountPhone(64));
    EXPECT_EQ(namesIn(inMount("/Media/Photo")),
              (std::vector<std::string>{"Camera Roll", "Trip", "Friends", "Recorded Videos", "Panoramas"}));
    expectPhotoFolders({{"Camera Roll", {"IMG_0100.JPG", "IMG_0101.JPG", "IMG_0104.JPG", "IMG_0105.JPG"}},
                        {"Panoramas", {"IMG_0104.JPG"}}, {"Trip", {"IMG_0100.JPG", "IMG_0104.JPG"}},
                        {"Recorded Videos", {"IMG_0106.MOV"}}});
    expectSameBytes("/Media/Photo/Camera Roll/IMG_0101.JPG", "DCIM/100APPLE/IMG_0101.JPG");

    // Music, podcasts, movies and voice memos are named by artist, title and label.
    ASSERT_TRUE(mountPhone(65));
    EXPECT_EQ(namesIn(inMount("/Media")),
              (std::vector<std::string>{"Podcast", "Voice Memos", "Music", "Movies", "Photo"}));
    const std::string cut = "Di-" + std::string(129, 'x');  // 132 bytes
    EXPECT_EQ(namesIn(inMount("/Media/Music")),
              (std::vector<std::string>{"Ann-Blue.mp3", "Ann-Blue (2).mp3", "Alone.m4a", "Bo-.mp3", "Cy-My Song.mp3",
                                        cut + ".mp3", "Ed-Two dots.b.mp3", "Fay-AC:DC cover.mp3"}));
    EXPECT_EQ(namesIn(inMount("/Media/Podcast")), (std::vector<std::string>{"Pod-Episode 1.mp3"}));
    EXPECT_EQ(namesIn(inMount("/Media/Movies")), (std::vector<std::string>{"Studio-The Film.m4v"}));
    EXPECT_EQ(namesIn(inMount("/Media/Voice Memos")), (std::vector<std::string>{"Talk_rec1.m4a"}));
    expectSameBytes("/Media/Music/Ann-Blue (2).mp3", "iTunes_Control/Music/F02/AAAB.mp3");
    expectSameBytes("/Media/Voice Memos/Talk_rec1.m4a", "Recordings/rec1.m4a");
    ASSERT_EQ(stat(inMount("/Media/Voice Memos/Talk_rec1.m4a").c_str(), &st), 0);
    EXPECT_EQ(st.st_mtime, 978307200 + 400000000);
    EXPECT_GT(mount.countLogStarting("enumMedia file : (AAAI.mp3), database file size : "), 0);
    EXPECT_GT(mount.countLogStarting("enumMedia getUTF8MACName failed."), 0);

    // The media connection drops with the phone still attached: the read that
    // meets the drop may fail, the next one opens the connection again.
    ASSERT_EQ(sim.control("drop-now " + sim.udid(dirs.size() - 1)), "ok");
    runProgram({"cat", inMount("/Media/Podcast/Pod-Episode 1.mp3")});
    expectSameBytes("/Media/Podcast/Pod-Episode 1.mp3", "iTunes_Control/Music/F03/AAAM.mp3");

    // Broken and missing databases: /Media still lists, each failure is
    // logged, and nothing is shown that the device does not have.
    ASSERT_TRUE(mountPhone(66));
    EXPECT_EQ(namesIn(inMount("/Media")), (std::vector<std::string>{"Music", "Movies", "Photo"}));
    EXPECT_EQ(namesIn(inMount("/Media/Music")), (std::vector<std::string>{"Ann-Blue.mp3"}));
    EXPECT_EQ(namesIn(inMount("/Media/Photo")), (std::vector<std::string>{"Camera Roll"}));
    EXPECT_GT(mount.countLogStarting("DownloadDBandOpen libiusb_afc_file_get_info failed. code : "), 0);
    EXPECT_GT(mount.countLogStarting("opendb target db not exist"), 0);
    EXPECT_GT(mount.countLogStarting("enumMedia photodb : "), 0);
    EXPECT_TRUE(exists(inMount("/Storage")));

    // Without any database the three kind folders (the listing test's root)
    // show empty.
    ASSERT_TRUE(mountPhone(67));
    EXPECT_TRUE(namesIn(inMount("/Media/Music")).empty());
    EXPECT_TRUE(namesIn(inMount("/Media/Movies")).empty());
    EXPECT_EQ(namesIn(inMount("/Media/Photo")), (std::vector<std::string>{"Camera Roll"}));
    EXPECT_TRUE(dialogs.dialogs().empty());

    // Dragging out of /Media copies: the item lands in /Storage or an app
    // whole, and stays where the library shows it; the free figure df shows
    // loses the copy's size.
    ASSERT_TRUE(mountPhone(68));
    const std::string storage = imageDir + "/media/general_storage";
    const std::string notes = imageDir + "/apps/com.example.notes/Documents";
    const std::string song = readLocal(imageDir + "/media/iTunes_Control/Music/F01/AAAA.mp3");
    const std::string live = readLocal(imageDir + "/media/DCIM/100APPLE/IMG_0005.MOV");
    ASSERT_FALSE(song.empty());
    auto freeBytes = [&] {
        struct statvfs st;
        EXPECT_EQ(statvfs(mount.mountPoint.c_str(), &st), 0);
        return static_cast<long long>(st.f_bfree) * static_cast<long long>(st.f_frsize);
    };
    long long before = freeBytes();
    int status = -1;

    // Nothing listed /Media yet: the move finds the song all the same.
    runProgram({"mv", inMount("/Media/Music/Ann-Blue.mp3"), inMount("/Storage/")}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readLocal(storage + "/Ann-Blue.mp3"), song);
    // The figures are re-expressed in decimal units (each 1024 counted as
    // 1000), so the size shows a few per cent smaller.
    long long copied = freeBytes();
    EXPECT_GT(before - copied, kSongBytes * 9 / 10) << "free " << before << " before the copy, " << copied << " after";
    EXPECT_LE(before - copied, kSongBytes);
    // A move between areas, whose source goes once copied, leaves it there.
    runProgram({"mv", inMount("/Storage/Ann-Blue.mp3"), inMount("/Apps/Notes/")}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(freeBytes(), copied);
    EXPECT_EQ(readLocal(notes + "/Ann-Blue.mp3"), song);
    runProgram({"cp", "-r", inMount("/Media/Photo/Trip"), inMount("/Apps/Notes/")}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readLocal(notes + "/Trip/IMG_0001.JPG"), readLocal(imageDir + "/media/DCIM/100APPLE/IMG_0001.JPG"));
    runProgram({"mv", inMount("/Media/Photo/Camera Roll/IMG_0005.MOV"), inMount("/Apps/Notes/live.mov")}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readLocal(notes + "/live.mov"), live);

    // The library is untouched and still lists everything.
    EXPECT_EQ(readLocal(imageDir + "/media/iTunes_Control/Music/F01/AAAA.mp3"), song);
    EXPECT_EQ(readLocal(imageDir + "/media/DCIM/100APPLE/IMG_0005.MOV"), live);
    EXPECT_EQ(namesIn(inMount("/Media/Music")), (std::vector<std::string>{"Ann-Blue.mp3"}));
    EXPECT_TRUE(exists(inMount("/Media/Photo/Camera Roll/IMG_0005.MOV")));
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/live.mov")), live);
    // Nothing half-copied was left beside the targets.
    EXPECT_EQ(sorted(namesIn(notes)), sorted({"Ann-Blue.mp3", "Trip", "live.mov"}));
    EXPECT_TRUE(dialogs.dialogs().empty());
}

// The tray hears of a long listing only above each threshold: database
// copies over 3000000 bytes, music folders over 300 rows, photo folders over
// 500. One device sits exactly at every threshold, the other one above.
TEST_F(MediaTest, TheBusySignalComesAboveEachThresholdAndNeverAtIt) {
    auto device = [&](uint32_t locationId, int extra) {
        MediaLibrary library;
        library.write_record_db = false;
        library.albums = {mediaAlbum(1, std::nullopt, 1000)};
        for (int i = 0; i < 300 + extra; ++i) {
            library.songs.push_back(song("Band", "Song " + std::to_string(i), "S" + std::to_string(i) + ".mp3", 1));
            library.songs.back().bytes = "song " + std::to_string(i);
        }
        for (int i = 0; i < 500 + extra; ++i) {
            library.photos.push_back(photo("DCIM/100APPLE", "IMG_" + std::to_string(1000 + i) + ".JPG", {1}, 1));
            library.photos.back().bytes = "photo " + std::to_string(i);
        }
        DevsimImage phone;
        phone.location_id = locationId;
        std::string dir = writePhone(phone, library);
        // The recordings database makes up the total: not a database at all,
        // which only costs the Voice Memos folder.
        size_t sum = readLocal(dir + "/media/iTunes_Control/iTunes/MediaLibrary.sqlitedb").size() +
                     readLocal(dir + "/media/PhotoData/Photos.sqlite").size();
        ASSERT_LT(sum, 3000000u);
        std::string padding(3000000 - sum + static_cast<size_t>(extra), 'r');
        ASSERT_TRUE(writeLocal(dir + "/media/Recordings/Recordings.db", padding));
    };
    device(71, 0);
    device(72, 1);
    ASSERT_TRUE(sim.start_with_dirs({tempDir + "/image71", tempDir + "/image72"})) << sim.error();

    ASSERT_TRUE(mountPhone(71));
    EXPECT_EQ(namesIn(inMount("/Media")), (std::vector<std::string>{"Music", "Movies", "Photo"}));
    EXPECT_EQ(namesIn(inMount("/Media/Music")).size(), 300u);
    EXPECT_EQ(namesIn(inMount("/Media/Photo/Camera Roll")).size(), 500u);
    ASSERT_TRUE(mountPhone(72));
    // Start-up clears the indicator with a "-neoff" of its own; only whole
    // pairs count here.
    auto pairsHeard = [&](size_t wanted) {
        eventually([&] { return occurrences(tray.bytes(), "-neon-neoff") >= wanted; }, 10);
        return occurrences(tray.bytes(), "-neon-neoff");
    };
    EXPECT_EQ(namesIn(inMount("/Media")), (std::vector<std::string>{"Music", "Movies", "Photo"}));
    EXPECT_EQ(pairsHeard(1), 1u) << "the database copy of 3000001 bytes is announced";
    EXPECT_EQ(namesIn(inMount("/Media/Music")).size(), 301u);
    EXPECT_EQ(pairsHeard(2), 2u) << "301 songs are announced";
    EXPECT_EQ(namesIn(inMount("/Media/Photo/Camera Roll")).size(), 501u);
    EXPECT_EQ(pairsHeard(3), 3u) << "501 photos are announced";
    // Nothing came from the device sitting at the thresholds.
    EXPECT_EQ(occurrences(tray.bytes(), "-neon"), 3u) << tray.bytes();
}

} // namespace
