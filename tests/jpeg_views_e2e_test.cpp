// HEIC stills shown as JPEG files (mount option "jpeg"), through a real
// mount: what `cp -r` of the Camera Roll gives is checked with the tools
// people use (file, ImageMagick, exiftool) against libheif's own
// heif-convert, not against the code under test.
#include <sys/stat.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "tests/support/media_images.h"

namespace {

using devsim::MediaLibrary;
using devsim::MediaPhoto;

constexpr uint32_t kLocation = 9471;

struct Still {
    const char *directory;
    const char *file;
    int orientation;  // Exif orientation, also the HEIC's irot/imir
    bool live;
    const char *shown;  // its name with -o jpeg
};

// A quarter turn (shown 48x64), a mirror, a half turn, and a view whose name
// is taken by a JPEG still of the library.
const Still kStills[] = {
    {"DCIM/100APPLE", "IMG_0001.HEIC", 1, false, "IMG_0001.JPG"},
    {"DCIM/100APPLE", "IMG_0002.HEIC", 6, true, "IMG_0002.JPG"},
    {"DCIM/100APPLE", "IMG_0003.heif", 2, false, "IMG_0003.JPG"},
    {"DCIM/101APPLE", "IMG_0004.HEIC", 3, false, "IMG_0004 (2).JPG"},
};

MediaPhoto asset(const std::string &directory, const std::string &file, unsigned seed) {
    return mediaPhoto(directory, file, {}, seed, 0, 600000000);
}

std::string dateOf(unsigned seed) { return "2021:07:0" + std::to_string(seed) + " 09:15:3" + std::to_string(seed); }

MediaLibrary library() {
    MediaLibrary library;
    library.photo_family = devsim::PhotoFamily::modern;
    library.write_music_db = false;
    library.write_record_db = false;
    // Listed before the HEIC of the same name: that one's view gets " (2)".
    library.photos.push_back(asset("DCIM/100APPLE", "IMG_0004.JPG", 9));
    library.photos.back().bytes = devsim::make_jpeg(32, 24, 9);
    unsigned seed = 1;
    for (const Still &still : kStills) {
        devsim::HeicStill heic;
        heic.seed = seed;
        heic.orientation = still.orientation;
        heic.date_taken = dateOf(seed);
        library.photos.push_back(asset(still.directory, still.file, seed++));
        library.photos.back().bytes = devsim::make_heic(heic);
        if (still.live) {
            library.photos.back().subtype = 2;
            library.photos.back().live_video_bytes = randomBytes(5000, 41);
        }
    }
    library.photos.push_back(asset("DCIM/100APPLE", "IMG_0005.PNG", 20));
    library.photos.back().subtype = 10;
    library.photos.back().bytes = randomBytes(900, 20);
    return library;
}

// The tools the checks read the copies with, and the packages they come in.
std::string missingTool() {
    const std::pair<const char *, const char *> tools[] = {
        {"file", "file"}, {"identify", "imagemagick"}, {"convert", "imagemagick"},
        {"exiftool", "libimage-exiftool-perl"}, {"heif-convert", "libheif-examples"}, {"rsync", "rsync"}};
    for (const auto &[tool, package] : tools)
        if (runStatus({"sh", "-c", std::string("command -v ") + tool}) != 0)
            return std::string(tool) + " (Debian package " + package + ")";
    return std::string();
}

// What exiftool prints, without its last line end.
std::string exif(const std::vector<std::string> &arguments) {
    std::vector<std::string> argv = {"exiftool", "-s3"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::string text = runProgram(argv);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    return text;
}

// A file's size as stat gives it, -1 when stat fails.
class JpegViewsTest : public MountedDeviceTest {};

TEST_F(JpegViewsTest, CameraRollCopiesAsUprightJpegsWithTheirExifAndExactSizes) {
    std::string missing = missingTool();
    if (!missing.empty()) GTEST_SKIP() << "needs " << missing;
    DevsimImage phone;
    phone.location_id = kLocation;
    phone.ios_version = devsim::modern_ios_version(17);
    std::string image = tempDir + "/image";
    MediaLibrary made = library();
    for (const MediaPhoto &photo : made.photos) ASSERT_FALSE(photo.bytes.empty()) << "libheif could not encode";
    ASSERT_EQ(writeMediaImage(image, phone, made), "");
    ASSERT_TRUE(sim.start_with_dirs({image})) << sim.error();
    std::string roll = "/Media/Photo/Camera Roll/";

    // Without the option the stills show as the device keeps them (the
    // modern photo listing's test reads them so).
    ASSERT_TRUE(mount.start(kLocation, {"-o", "jpeg"}));
    std::vector<std::string> shown = sorted(namesIn(inMount(roll)));
    EXPECT_EQ(shown, (std::vector<std::string>{"IMG_0001.JPG", "IMG_0002.JPG", "IMG_0002.MOV", "IMG_0003.JPG",
                                               "IMG_0004 (2).JPG", "IMG_0004.JPG", "IMG_0005.PNG"}));
    // Sizes asked before anything is read are the sizes copied.
    std::map<std::string, off_t> statSize;
    for (const std::string &name : shown) {
        statSize[name] = sizeOf(inMount(roll + name));
        EXPECT_GT(statSize[name], 0) << name;
    }
    std::string copy = tempDir + "/copy";
    int status = -1;
    runProgram({"cp", "-r", inMount("/Media/Photo/Camera Roll"), copy}, &status);
    ASSERT_EQ(status, 0);
    for (const std::string &name : shown) EXPECT_EQ(sizeOf(copy + "/" + name), statSize[name]) << name;
    // What is not an HEIC still is the device's file, byte for byte.
    EXPECT_EQ(readLocal(copy + "/IMG_0002.MOV"), made.photos[2].live_video_bytes.value_or(""));
    EXPECT_EQ(readLocal(copy + "/IMG_0004.JPG"), made.photos[0].bytes);
    EXPECT_EQ(readLocal(copy + "/IMG_0005.PNG"), made.photos.back().bytes);

    unsigned seed = 1;
    for (const Still &still : kStills) {
        SCOPED_TRACE(still.shown);
        std::string jpeg = copy + "/" + still.shown;
        std::string reference = tempDir + "/reference-" + std::to_string(seed) + ".jpg";
        ASSERT_EQ(runStatus({"heif-convert", image + "/media/" + still.directory + "/" + still.file, reference}), 0);
        EXPECT_NE(runProgram({"file", "-b", jpeg}).find("JPEG image data"), std::string::npos);
        std::string size = runProgram({"identify", "-format", "%wx%h", jpeg});
        EXPECT_EQ(size, runProgram({"identify", "-format", "%wx%h", reference}));
        // Stored 64x48: a quarter turn is shown upright, 48 wide.
        EXPECT_EQ(size, still.orientation == 6 ? "48x64" : "64x48");
        double psnr = atof(runProgram({"convert", jpeg, reference, "-metric", "PSNR", "-compare", "-format",
                                       "%[distortion]", "info:"})
                               .c_str());
        EXPECT_GE(psnr, 40.0);
        EXPECT_EQ(exif({"-n", "-DateTimeOriginal", "-Orientation", "-Model", jpeg}), dateOf(seed) + "\n1\niPhone 12");
        EXPECT_NE(exif({"-GPSLatitude", jpeg}), "");
        EXPECT_EQ(exif({"-ProfileDescription", jpeg}), "Display P3 (devsim)");
        ++seed;
    }
    // A second copy is served from the work folder's cache, the same bytes.
    EXPECT_EQ(copiedBy(inMount(roll + "IMG_0002.JPG"), tempDir + "/again.jpg"),
              readLocal(copy + "/IMG_0002.JPG"));
    EXPECT_EQ(namesIn("/tmp/" + std::to_string(kLocation) + "/jpeg").size(), 4u);
    // Moved into Storage, the JPEG is what lands on the device; the still stays.
    runProgram({"mv", inMount(roll + "IMG_0001.JPG"), inMount("/Storage/")}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readLocal(storageImage() + "/IMG_0001.JPG"), readLocal(copy + "/IMG_0001.JPG"));
    ASSERT_EQ(unmountDevice(), 0);

    // A cache bound of nothing keeps at most the JPEG made last: every other
    // one is dropped as the next is made (those open keep their bytes), and
    // made again, the same, when asked for again.
    mount.extraEnvironment.push_back("QUORVEL_JPEG_CACHE_MB=0");
    ASSERT_TRUE(mount.start(kLocation, {"-o", "jpeg"}));
    // Asked for before anything listed its folder: the exact size all the same.
    EXPECT_EQ(sizeOf(inMount(roll + "IMG_0002.JPG")), statSize["IMG_0002.JPG"]);
    // rsync takes every size first, then sends exactly that many bytes.
    std::string recopy = tempDir + "/recopy";
    runProgram({"rsync", "-r", inMount("/Media/Photo/Camera Roll") + "/", recopy}, &status);
    ASSERT_EQ(status, 0);
    EXPECT_EQ(copiedBy(inMount(roll + "IMG_0003.JPG"), recopy + "/again.JPG"),
              readLocal(copy + "/IMG_0003.JPG"));
    for (const Still &still : kStills)
        EXPECT_EQ(readLocal(recopy + "/" + still.shown), readLocal(copy + "/" + still.shown)) << still.shown;
    EXPECT_LE(namesIn("/tmp/" + std::to_string(kLocation) + "/jpeg").size(), 1u);
}

} // namespace
