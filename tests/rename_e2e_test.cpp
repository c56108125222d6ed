// Rename through a real mount: mv of files and folders in /Storage and inside
// one app folder, each step compared with the device image and with what
// stat and listings answer right after it; renames over existing names and
// safe saves leave exactly the new bytes; the refusals with their notices;
// device failures that change nothing; and real programs (rsync, git) that
// write temporaries and rename them into place.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

// Location ids no other test uses: a mount's work folder is "/tmp/" + id,
// and unmounting removes it. The safe-save test, which looks into its work
// folder, has an id of its own, since ctest runs test cases side by side.
constexpr uint32_t kLocation = 8117;
constexpr uint32_t kSafeSaveLocation = 8118;
constexpr uint32_t kBusyFolderLocation = 9201;
constexpr uint32_t kStagingLocation = 9152;
constexpr uint32_t kTwoMountsLocation = 9154;

// A temporary as macOS's safe save names it: "<name>.sb-" + 8 hex digits +
// "-" + 6 letters or digits, beside <name>.
std::string safeSaveTemporary(const std::string &name) { return name + ".sb-" + "1f3e5d7c-aB3xZ9"; }
constexpr uint32_t kSourceStaysLocation = 9102;
constexpr uint32_t kPartialCopyLocation = 9103;

std::vector<std::string> sortedNamesIn(const std::string &path) {
    std::vector<std::string> names = namesIn(path);
    std::sort(names.begin(), names.end());
    return names;
}

void writeLocal(const std::string &path, const std::string &bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string randomBytes(size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char &byte : bytes) byte = static_cast<char>(generator() & 0xff);
    return bytes;
}

int run(const std::vector<std::string> &argv, std::string *output = nullptr) {
    int status = -1;
    std::string out = runProgram(argv, &status);
    if (output != nullptr) *output = out;
    return status;
}

bool haveProgram(const std::string &name) { return !runProgram({"sh", "-c", "command -v " + name}).empty(); }

// rename(2) through the mount: 0, or the errno it failed with.
int renameError(const std::string &from, const std::string &to) {
    errno = 0;
    return rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

class RenameTest : public MountedDeviceTest {
protected:
    DevsimImage image(uint32_t location = kLocation) {
        DevsimImage phone;
        phone.name = "Mover";
        phone.location_id = location;
        this->location = location;
        phone.apps = {{"com.example.notes", "Notes", true}, {"com.example.other", "Other", true}};
        phone.folders = {"media/general_storage/empty", "apps/com.example.notes/Documents/sub",
                         "apps/com.example.other/Documents"};
        phone.files = {{"media/general_storage/a.txt", "old a"},
                       {"media/general_storage/b.txt", "bee"},
                       {"media/general_storage/keep.txt", "keep me"},
                       {"media/general_storage/big.bin", randomBytes(3000001, 5)},
                       {"media/general_storage/dir/one.txt", "one"},
                       {"media/general_storage/dir/inner/two.txt", "two"},
                       {"apps/com.example.notes/Documents/n.txt", "note"},
                       {"apps/com.example.notes/Documents/over.txt", "over old"},
                       {"apps/com.example.notes/Documents/folder/f.txt", "eff"}};
        return phone;
    }
    std::string storageImage() { return sim.image_dir(0) + "/media/general_storage"; }
    std::string appImage() { return sim.image_dir(0) + "/apps/com.example.notes/Documents"; }
    std::string otherImage() { return sim.image_dir(0) + "/apps/com.example.other/Documents"; }
    std::string workFolder() { return "/tmp/" + std::to_string(location); }
    void mountFresh() {
        ASSERT_TRUE(mountDevice(location));
        runProgram({"ls", inMount("/Storage"), inMount("/Apps/Notes")});
    }
    uint32_t location = kLocation;
    // The one new dialog since *seen says `text` and is of `kind`.
    void expectDialog(size_t *seen, const std::string &text, const std::string &kind) {
        std::vector<RecordedDialog> shown = dialogs.waitForDialogs(*seen + 1);
        ASSERT_GT(shown.size(), *seen) << "no dialog for: " << text;
        std::string all;
        for (const RecordedDialog &dialog : shown) all += "[" + dialog.kind + "] " + dialog.message + "\n";
        ASSERT_EQ(shown.size(), *seen + 1) << all;
        EXPECT_EQ(shown.back().message, text);
        EXPECT_EQ(shown.back().kind, kind) << text;
        *seen = shown.size();
    }
};

TEST_F(RenameTest, FilesAndFoldersMoveOnTheDeviceAndStatAgreesAtOnce) {
    ASSERT_TRUE(startDevice({image()}));
    mountFresh();

    // A file, to a new name in another folder.
    ASSERT_EQ(run({"mv", inMount("/Storage/keep.txt"), inMount("/Storage/empty/kept.txt")}), 0);
    EXPECT_FALSE(exists(storageImage() + "/keep.txt"));
    EXPECT_EQ(readLocal(storageImage() + "/empty/kept.txt"), "keep me");
    EXPECT_EQ(statError(inMount("/Storage/keep.txt")), ENOENT);
    EXPECT_EQ(readLocal(inMount("/Storage/empty/kept.txt")), "keep me");
    EXPECT_EQ(sortedNamesIn(inMount("/Storage/empty")), std::vector<std::string>{"kept.txt"});

    // A folder whose contents were listed (and looked up) before.
    EXPECT_EQ(sortedNamesIn(inMount("/Storage/dir")), (std::vector<std::string>{"inner", "one.txt"}));
    EXPECT_EQ(readLocal(inMount("/Storage/dir/inner/two.txt")), "two");
    ASSERT_EQ(run({"mv", inMount("/Storage/dir"), inMount("/Storage/moved")}), 0);
    EXPECT_FALSE(exists(storageImage() + "/dir"));
    EXPECT_EQ(readLocal(storageImage() + "/moved/inner/two.txt"), "two");
    EXPECT_EQ(statError(inMount("/Storage/dir")), ENOENT);
    EXPECT_EQ(statError(inMount("/Storage/dir/inner/two.txt")), ENOENT);
    EXPECT_EQ(sortedNamesIn(inMount("/Storage/moved")), (std::vector<std::string>{"inner", "one.txt"}));
    EXPECT_EQ(readLocal(inMount("/Storage/moved/inner/two.txt")), "two");
    EXPECT_EQ(readLocal(inMount("/Storage/moved/one.txt")), "one");
    // What is below the moved folder can be changed under its new name.
    std::ofstream(inMount("/Storage/moved/inner/three.txt")) << "three";
    EXPECT_EQ(readLocal(storageImage() + "/moved/inner/three.txt"), "three");
    ASSERT_EQ(unlink(inMount("/Storage/moved/one.txt").c_str()), 0) << strerror(errno);
    EXPECT_FALSE(exists(storageImage() + "/moved/one.txt"));
    // And it moves back.
    ASSERT_EQ(renameError(inMount("/Storage/moved"), inMount("/Storage/dir")), 0);
    EXPECT_EQ(sortedNamesIn(storageImage() + "/dir/inner"), (std::vector<std::string>{"three.txt", "two.txt"}));
    EXPECT_EQ(sortedNamesIn(inMount("/Storage/dir/inner")), (std::vector<std::string>{"three.txt", "two.txt"}));

    // Onto an existing name: exactly the new bytes, the old name gone.
    ASSERT_EQ(renameError(inMount("/Storage/b.txt"), inMount("/Storage/a.txt")), 0);
    EXPECT_EQ(readLocal(storageImage() + "/a.txt"), "bee");
    EXPECT_FALSE(exists(storageImage() + "/b.txt"));
    EXPECT_EQ(readLocal(inMount("/Storage/a.txt")), "bee");
    struct stat st;
    ASSERT_EQ(stat(inMount("/Storage/a.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 3);
    EXPECT_EQ(statError(inMount("/Storage/b.txt")), ENOENT);

    // Onto a folder with contents: not empty, nothing changes, no dialog.
    ASSERT_EQ(mkdir(inMount("/Storage/other").c_str(), 0755), 0);
    EXPECT_EQ(renameError(inMount("/Storage/other"), inMount("/Storage/dir")), ENOTEMPTY);
    EXPECT_TRUE(isFolder(storageImage() + "/other"));
    EXPECT_TRUE(exists(storageImage() + "/dir/inner/two.txt"));
    // Onto an empty folder: replaced.
    ASSERT_EQ(renameError(inMount("/Storage/dir"), inMount("/Storage/other")), 0);
    EXPECT_EQ(readLocal(storageImage() + "/other/inner/two.txt"), "two");
    EXPECT_EQ(statError(inMount("/Storage/dir")), ENOENT);

    // A large file moves in the one step too.
    ASSERT_EQ(renameError(inMount("/Storage/big.bin"), inMount("/Storage/big2.bin")), 0);
    EXPECT_EQ(stat((storageImage() + "/big2.bin").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, 3000001);
    EXPECT_TRUE(dialogs.dialogs().empty());
}

TEST_F(RenameTest, InsideOneAppFolderARenameIsOneDeviceStep) {
    ASSERT_TRUE(startDevice({image()}));
    mountFresh();
    ASSERT_TRUE(tray.waitFor("-neoff"));
    size_t neonBefore = 0;
    for (size_t at = tray.bytes().find("-neon"); at != std::string::npos; at = tray.bytes().find("-neon", at + 1))
        ++neonBefore;

    ASSERT_EQ(renameError(inMount("/Apps/Notes/n.txt"), inMount("/Apps/Notes/sub/n2.txt")), 0);
    EXPECT_FALSE(exists(appImage() + "/n.txt"));
    EXPECT_EQ(readLocal(appImage() + "/sub/n2.txt"), "note");
    EXPECT_EQ(statError(inMount("/Apps/Notes/n.txt")), ENOENT);
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/sub/n2.txt")), "note");
    EXPECT_EQ(sortedNamesIn(inMount("/Apps/Notes/sub")), std::vector<std::string>{"n2.txt"});

    // Over an existing file.
    ASSERT_EQ(renameError(inMount("/Apps/Notes/sub/n2.txt"), inMount("/Apps/Notes/over.txt")), 0);
    EXPECT_EQ(readLocal(appImage() + "/over.txt"), "note");
    EXPECT_FALSE(exists(appImage() + "/sub/n2.txt"));
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/over.txt")), "note");

    // A folder, listed before; it is a long move for the tray.
    EXPECT_EQ(sortedNamesIn(inMount("/Apps/Notes/folder")), std::vector<std::string>{"f.txt"});
    ASSERT_EQ(run({"mv", inMount("/Apps/Notes/folder"), inMount("/Apps/Notes/sub/folder2")}), 0);
    EXPECT_EQ(readLocal(appImage() + "/sub/folder2/f.txt"), "eff");
    EXPECT_FALSE(exists(appImage() + "/folder"));
    EXPECT_EQ(statError(inMount("/Apps/Notes/folder/f.txt")), ENOENT);
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/sub/folder2/f.txt")), "eff");
    EXPECT_TRUE(tray.waitFor("-neon"));
    size_t neonAfter = 0;
    for (size_t at = tray.bytes().find("-neon"); at != std::string::npos; at = tray.bytes().find("-neon", at + 1))
        ++neonAfter;
    EXPECT_GT(neonAfter, neonBefore);
    EXPECT_TRUE(dialogs.dialogs().empty());
}

TEST_F(RenameTest, SafeSavesReplaceTheOriginalWithExactlyTheNewBytes) {
    ASSERT_TRUE(startDevice({image(kSafeSaveLocation)}));
    mountFresh();

    // A temporary written beside the file and renamed over it.
    std::string fresh = randomBytes(200000, 9);
    writeLocal(inMount("/Storage/a.txt.tmp"), fresh);
    ASSERT_EQ(renameError(inMount("/Storage/a.txt.tmp"), inMount("/Storage/a.txt")), 0);
    EXPECT_EQ(readLocal(storageImage() + "/a.txt"), fresh);
    EXPECT_FALSE(exists(storageImage() + "/a.txt.tmp"));
    EXPECT_EQ(readLocal(inMount("/Storage/a.txt")), fresh);

    // A ".sb-" safe save: its data waits in the work folder, then goes to
    // the device under its own name at its close, and the rename replaces
    // the original in one step.
    std::string saved = "saved through a staging file\n";
    const std::string temporary = safeSaveTemporary("b.txt");
    writeLocal(inMount("/Storage/" + temporary), saved);
    EXPECT_EQ(readLocal(storageImage() + "/" + temporary), saved) << "on the device at its close";
    EXPECT_EQ(readLocal(storageImage() + "/b.txt"), "bee") << "the original untouched until the rename";
    ASSERT_EQ(renameError(inMount("/Storage/" + temporary), inMount("/Storage/b.txt")), 0);
    EXPECT_EQ(readLocal(storageImage() + "/b.txt"), saved);
    EXPECT_FALSE(exists(storageImage() + "/" + temporary));
    EXPECT_FALSE(exists(workFolder() + "/staging/Storage/" + temporary)) << "no staging file left behind";
    EXPECT_EQ(readLocal(inMount("/Storage/b.txt")), saved);
    struct stat st;
    ASSERT_EQ(stat(inMount("/Storage/b.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, static_cast<off_t>(saved.size()));
    EXPECT_EQ(statError(inMount("/Storage/" + temporary)), ENOENT);

    // The same inside an app folder.
    const std::string appTemporary = safeSaveTemporary("over.txt");
    writeLocal(inMount("/Apps/Notes/" + appTemporary), saved);
    EXPECT_EQ(readLocal(appImage() + "/over.txt"), "over old");
    ASSERT_EQ(renameError(inMount("/Apps/Notes/" + appTemporary), inMount("/Apps/Notes/over.txt")), 0);
    EXPECT_EQ(readLocal(appImage() + "/over.txt"), saved);
    EXPECT_FALSE(exists(appImage() + "/" + appTemporary));
    EXPECT_FALSE(exists(workFolder() + "/staging/Apps/Notes/" + appTemporary));
    EXPECT_TRUE(dialogs.dialogs().empty());
}

TEST_F(RenameTest, NothingWrittenStaysOnlyInTheWorkFolder) {
    DevsimImage phone = image(kStagingLocation);
    phone.files.push_back({"media/general_storage/report.txt", "the report"});
    phone.folders.push_back("media/general_storage/music");
    ASSERT_TRUE(startDevice({phone}));
    mountFresh();

    // Names that only contain ".sb-" are a user's files: on the device at once.
    ASSERT_EQ(mkdir(inMount("/Storage/music.sb-old").c_str(), 0755), 0) << strerror(errno);
    for (const std::string &name : {std::string("report.txt.sb-copy"), std::string("music.sb-old/x")}) {
        int fd = open(inMount("/Storage/" + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0) << name << ": " << strerror(errno);
        ASSERT_EQ(write(fd, "mine", 4), 4);
        EXPECT_EQ(readLocal(storageImage() + "/" + name), "mine") << name << " before its close";
        close(fd);
        EXPECT_EQ(readLocal(storageImage() + "/" + name), "mine") << name;
    }

    // A real temporary: staged while open, under its whole path (not beside
    // the first content), emptied by a second open that truncates.
    const std::string temporary = safeSaveTemporary("report.txt");
    int fd = open(inMount("/Storage/" + temporary).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << strerror(errno);
    ASSERT_EQ(write(fd, "a first and longer draft", 24), 24);
    EXPECT_EQ(readLocal(workFolder() + "/staging/Storage/" + temporary), "a first and longer draft");
    EXPECT_EQ(readLocal(storageImage() + "/" + temporary), "") << "staged, not yet on the device";
    int again = open(inMount("/Storage/" + temporary).c_str(), O_WRONLY | O_TRUNC);
    ASSERT_GE(again, 0) << strerror(errno);
    ASSERT_EQ(write(again, "final", 5), 5);
    close(again);
    close(fd);
    EXPECT_EQ(readLocal(storageImage() + "/" + temporary), "final") << "on the device at its last close";
    // And the same once the first content is on the device.
    writeLocal(inMount("/Storage/" + temporary), "second");
    ASSERT_EQ(renameError(inMount("/Storage/" + temporary), inMount("/Storage/report.txt")), 0);
    EXPECT_EQ(readLocal(storageImage() + "/report.txt"), "second");
    EXPECT_EQ(readLocal(inMount("/Storage/report.txt")), "second");

    // A temporary never renamed is on the device after the unmount.
    const std::string abandoned = safeSaveTemporary("a.txt");
    fd = open(inMount("/Storage/" + abandoned).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << strerror(errno);
    ASSERT_EQ(write(fd, "never renamed", 13), 13);
    close(fd);
    EXPECT_EQ(unmountDevice(), 0);
    EXPECT_EQ(readLocal(storageImage() + "/" + abandoned), "never renamed");
    EXPECT_EQ(readLocal(storageImage() + "/a.txt"), "old a");
    EXPECT_TRUE(dialogs.dialogs().empty());
}

TEST_F(RenameTest, TwoMountsOfOneDeviceKeepTheirStagingApart) {
    ASSERT_TRUE(startDevice({image(kTwoMountsLocation)}));
    mountFresh();
    // A program of its own stages a temporary through the first mount and
    // keeps it open (a descriptor of this process would be closed, and so
    // flushed, by every program started meanwhile).
    // It writes through its standard output only: every other descriptor
    // of the file it closed (as a redirection does) would flush it.
    const std::string temporary = safeSaveTemporary("b.txt");
    const std::string staged = workFolder() + "/staging/Storage/" + temporary;
    pid_t holder = startProgram({"/bin/sh", "-c", "exec >\"$0\" && printf 'staged by the first mount' && exec sleep 600",
                                 inMount("/Storage/" + temporary)},
                                tempDir + "/holder.out");
    ASSERT_GT(holder, 0);
    for (int wait = 0; wait < 400 && readLocal(staged).empty(); ++wait) usleep(50000);
    EXPECT_EQ(readLocal(staged), "staged by the first mount");

    // A second mount of the same device comes and goes.
    QuorvelMount second;
    second.mountPoint = tempDir + "/mnt2";
    second.logDir = tempDir + "/log2";
    second.extraEnvironment = mount.extraEnvironment;
    mkdir(second.mountPoint.c_str(), 0755);
    mkdir(second.logDir.c_str(), 0700);
    bool mounted = second.start(location);
    if (mounted) {
        EXPECT_EQ(readLocal(second.mountPoint + "/Storage/b.txt"), "bee");
    }
    EXPECT_EQ(second.stop(), 0);
    EXPECT_TRUE(mounted);

    // Its unmount took nothing of the first mount's: the temporary reaches
    // the device whole when its program closes it.
    EXPECT_EQ(readLocal(staged), "staged by the first mount");
    kill(holder, SIGTERM);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(readLocal(storageImage() + "/" + temporary), "staged by the first mount");
    EXPECT_TRUE(dialogs.dialogs().empty());
}

TEST_F(RenameTest, RefusalsShowTheirNoticesAndChangeNothing) {
    ASSERT_TRUE(startDevice({image()}));
    mountFresh();
    size_t seen = 0;

    // Out of Storage to the root.
    EXPECT_EQ(renameError(inMount("/Storage/keep.txt"), inMount("/keep.txt")), ECANCELED);
    expectDialog(&seen, "You can not rename this file.\n/Storage/keep.txt", "notification");
    EXPECT_EQ(mount.countLog("tarnifs_rename rename not supported. path from : /Storage/keep.txt, to : /keep.txt"), 1);
    // The area folder itself.
    EXPECT_EQ(renameError(inMount("/Storage"), inMount("/Store")), ECANCELED);
    expectDialog(&seen, "You can not rename this folder.\n/Storage", "notification");
    // Into /Apps itself.
    EXPECT_EQ(renameError(inMount("/Storage/keep.txt"), inMount("/Apps/keep.txt")), ECANCELED);
    expectDialog(&seen, "This folder is read only. You can not write or modify.\n/Apps", "notification");
    EXPECT_EQ(mount.countLog("tarnifs_rename rename not supported. "), 1);
    EXPECT_EQ(mount.countLog("tarnifs_rename create not supported. path : /Apps/keep.txt"), 1);
    // Into the media views.
    EXPECT_EQ(renameError(inMount("/Storage/keep.txt"), inMount("/Media/Music/keep.txt")), ECANCELED);
    expectDialog(&seen, "This folder is read only. You can not write or modify.\n/Media/Music", "notification");
    // An app folder.
    EXPECT_EQ(renameError(inMount("/Apps/Notes"), inMount("/Apps/Notes2")), ECANCELED);
    expectDialog(&seen, "You can not rename this folder.\n/Apps/Notes", "notification");
    EXPECT_EQ(mount.countLog("tarnifs_rename rename not supported. path from : /Apps/Notes, to : /Apps/Notes2"), 1);
    // A media folder within its own folder, and to another.
    EXPECT_EQ(renameError(inMount("/Media/Music"), inMount("/Media/Songs")), ECANCELED);
    expectDialog(&seen, "You can not rename this folder.\n/Media/Music", "notification");
    EXPECT_EQ(renameError(inMount("/Media/Music"), inMount("/Media/Movies/Music")), ECANCELED);
    expectDialog(&seen, "This folder is read only. You can not write or modify.\n/Media/Movies", "notification");
    EXPECT_TRUE(exists(storageImage() + "/keep.txt"));
    EXPECT_TRUE(isFolder(inMount("/Apps/Notes")));
    EXPECT_EQ(dialogs.dialogs().size(), seen);
}

// An area's own folder moves what it holds and stays: the whole Apps area
// into Storage, one app's documents, and Storage into an app.
TEST_F(RenameTest, AreaFoldersMoveTheirContentsAndStayInPlace) {
    ASSERT_TRUE(startDevice({image(kLocation + 7)}));
    mountFresh();
    int status = -1;
    runProgram({"mv", inMount("/Apps"), inMount("/Storage/backup")}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readLocal(storageImage() + "/backup/Notes/n.txt"), "note");
    EXPECT_EQ(readLocal(storageImage() + "/backup/Notes/folder/f.txt"), "eff");
    EXPECT_TRUE(isFolder(storageImage() + "/backup/Notes/sub"));
    EXPECT_TRUE(isFolder(storageImage() + "/backup/Other"));
    // The apps and their Documents folders stay, emptied.
    EXPECT_TRUE(isFolder(appImage()));
    EXPECT_TRUE(namesIn(appImage()).empty());
    EXPECT_EQ(namesIn(inMount("/Apps")), (std::vector<std::string>{"Notes", "Other"}));
    EXPECT_TRUE(namesIn(inMount("/Apps/Notes")).empty());
    EXPECT_EQ(readLocal(inMount("/Storage/backup/Notes/over.txt")), "over old");

    runProgram({"cp", inMount("/Storage/b.txt"), inMount("/Apps/Other/b.txt")}, &status);
    runProgram({"mv", inMount("/Apps/Other"), inMount("/Storage/")}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readLocal(storageImage() + "/Other/b.txt"), "bee");
    EXPECT_TRUE(isFolder(otherImage()));
    EXPECT_TRUE(namesIn(otherImage()).empty());

    runProgram({"mv", inMount("/Storage"), inMount("/Apps/Notes/Storage")}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(readLocal(appImage() + "/Storage/keep.txt"), "keep me");
    EXPECT_EQ(readLocal(appImage() + "/Storage/big.bin"), randomBytes(3000001, 5));
    EXPECT_EQ(readLocal(appImage() + "/Storage/backup/Notes/n.txt"), "note");
    EXPECT_TRUE(isFolder(storageImage()));
    EXPECT_TRUE(namesIn(storageImage()).empty());
    EXPECT_TRUE(namesIn(inMount("/Storage")).empty());
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/Storage/dir/inner/two.txt")), "two");
    EXPECT_TRUE(dialogs.dialogs().empty());
}

TEST_F(RenameTest, MovesBetweenStorageAndAppsCopyThenRemoveTheSource) {
    ASSERT_TRUE(startDevice({image()}));
    mountFresh();
    std::string big = readLocal(storageImage() + "/big.bin");

    // A file from Storage into an app: one rename, the source gone after.
    ASSERT_EQ(renameError(inMount("/Storage/keep.txt"), inMount("/Apps/Notes/sub/keep.txt")), 0);
    EXPECT_EQ(readLocal(appImage() + "/sub/keep.txt"), "keep me");
    EXPECT_FALSE(exists(storageImage() + "/keep.txt"));
    EXPECT_EQ(statError(inMount("/Storage/keep.txt")), ENOENT);
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/sub/keep.txt")), "keep me");
    EXPECT_EQ(sortedNamesIn(inMount("/Apps/Notes/sub")), std::vector<std::string>{"keep.txt"});

    // A large file over an existing one in an app: exactly the new bytes.
    ASSERT_EQ(renameError(inMount("/Storage/big.bin"), inMount("/Apps/Notes/over.txt")), 0);
    EXPECT_EQ(readLocal(appImage() + "/over.txt"), big);
    EXPECT_FALSE(exists(storageImage() + "/big.bin"));
    struct stat st;
    ASSERT_EQ(stat(inMount("/Apps/Notes/over.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_size, static_cast<off_t>(big.size()));

    // A folder with contents, listed before, from Storage into an app.
    EXPECT_EQ(sortedNamesIn(inMount("/Storage/dir")), (std::vector<std::string>{"inner", "one.txt"}));
    ASSERT_EQ(run({"mv", inMount("/Storage/dir"), inMount("/Apps/Notes/dir")}), 0);
    EXPECT_EQ(readLocal(appImage() + "/dir/inner/two.txt"), "two");
    EXPECT_EQ(readLocal(appImage() + "/dir/one.txt"), "one");
    EXPECT_FALSE(exists(storageImage() + "/dir"));
    EXPECT_EQ(statError(inMount("/Storage/dir/inner/two.txt")), ENOENT);
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/dir/inner/two.txt")), "two");

    // From an app into Storage, a folder never listed.
    ASSERT_EQ(renameError(inMount("/Apps/Notes/folder"), inMount("/Storage/folder")), 0);
    EXPECT_EQ(readLocal(storageImage() + "/folder/f.txt"), "eff");
    EXPECT_FALSE(exists(appImage() + "/folder"));
    EXPECT_EQ(sortedNamesIn(inMount("/Storage/folder")), std::vector<std::string>{"f.txt"});
    EXPECT_EQ(statError(inMount("/Apps/Notes/folder")), ENOENT);

    // From one app to another.
    ASSERT_EQ(renameError(inMount("/Apps/Notes/n.txt"), inMount("/Apps/Other/n.txt")), 0);
    EXPECT_EQ(readLocal(otherImage() + "/n.txt"), "note");
    EXPECT_FALSE(exists(appImage() + "/n.txt"));
    EXPECT_EQ(readLocal(inMount("/Apps/Other/n.txt")), "note");
    ASSERT_EQ(run({"mv", inMount("/Apps/Notes/dir"), inMount("/Apps/Other/dir")}), 0);
    EXPECT_EQ(readLocal(otherImage() + "/dir/inner/two.txt"), "two");
    EXPECT_FALSE(exists(appImage() + "/dir"));

    // No staging copy is left anywhere.
    for (const std::string &folder : {storageImage(), appImage(), otherImage(), otherImage() + "/dir"})
        for (const std::string &name : sortedNamesIn(folder))
            EXPECT_EQ(name.find("quorvel-move"), std::string::npos) << folder << "/" << name;
    EXPECT_TRUE(dialogs.dialogs().empty());
}

TEST_F(RenameTest, AMoveThatFailsKeepsItsSourceWhole) {
    ASSERT_TRUE(startDevice({image()}));
    std::string udid = sim.udid(0);
    mountFresh();
    size_t seen = 0;
    std::string big = readLocal(storageImage() + "/big.bin");

    // The device refuses the copy.
    ASSERT_EQ(sim.control("afc-error " + udid + " *.quorvel-move io-error"), "ok");
    EXPECT_EQ(renameError(inMount("/Storage/big.bin"), inMount("/Apps/Notes/big.bin")), ECANCELED);
    std::vector<RecordedDialog> shown = dialogs.waitForDialogs(seen + 1);
    ASSERT_EQ(shown.size(), seen + 1);
    EXPECT_EQ(shown.back().kind, "error");
    EXPECT_EQ(shown.back().message.find("Could not rename or move the contents.\nError Code : "), 0u)
        << shown.back().message;
    seen = shown.size();
    EXPECT_EQ(readLocal(storageImage() + "/big.bin"), big);
    EXPECT_FALSE(exists(appImage() + "/big.bin"));
    EXPECT_EQ(sortedNamesIn(appImage()), (std::vector<std::string>{"folder", "n.txt", "over.txt", "sub"}));
    EXPECT_EQ(statError(inMount("/Storage/big.bin")), 0);
    EXPECT_EQ(statError(inMount("/Apps/Notes/big.bin")), ENOENT);
    ASSERT_EQ(sim.control("clear " + udid), "ok");

    // The connection drops in the middle of the copy.
    ASSERT_EQ(sim.control("drop-after-bytes " + udid + " 1048576"), "ok");
    EXPECT_EQ(renameError(inMount("/Storage/big.bin"), inMount("/Apps/Notes/big.bin")), ECANCELED);
    expectDialog(&seen, "Lost USB connection.\nRenaming or moving aborted.", "error");
    EXPECT_EQ(readLocal(storageImage() + "/big.bin"), big);
    EXPECT_FALSE(exists(appImage() + "/big.bin"));
    // The partial copy is removed through a fresh connection.
    EXPECT_FALSE(exists(appImage() + "/.big.bin.quorvel-move"));

    // No room for the copy: refused before anything is written.
    ASSERT_EQ(sim.control("clear " + udid), "ok");
    ASSERT_EQ(sim.control("capacity " + udid + " 3500000"), "ok");
    ASSERT_EQ(unmountDevice(), 0);
    mountFresh();
    EXPECT_EQ(renameError(inMount("/Storage/big.bin"), inMount("/Apps/Notes/big.bin")), ECANCELED);
    expectDialog(&seen, "Not enough space on device.", "error");
    EXPECT_EQ(readLocal(storageImage() + "/big.bin"), big);
    EXPECT_EQ(sortedNamesIn(appImage()), (std::vector<std::string>{"folder", "n.txt", "over.txt", "sub"}));
}

// A source the device will not remove once its copy is whole and in place
// stays where it was: the move has succeeded, and the routine that moved it
// logs the removal in its own words.
TEST_F(RenameTest, ASourceThatCannotBeRemovedAfterAWholeCopyStaysAndTheMoveSucceeds) {
    ASSERT_TRUE(startDevice({image(kSourceStaysLocation)}));
    std::string udid = sim.udid(0);
    mountFresh();
    std::string big = readLocal(storageImage() + "/big.bin");
    for (const char *path : {"/general_storage/big.bin", "/Documents/n.txt", "/Documents/over.txt"})
        ASSERT_EQ(sim.control("afc-error " + udid + " " + path + " permission-denied remove"), "ok");
    auto logged = [&](const std::string &start) {
        for (const std::string &line : mount.logMessages())
            if (line.compare(0, start.size(), start) == 0) return line;
        return std::string("(not logged: ") + start + ")";
    };

    // Storage into an app.
    EXPECT_EQ(run({"mv", inMount("/Storage/big.bin"), inMount("/Apps/Notes/big.bin")}), 0);
    EXPECT_EQ(readLocal(appImage() + "/big.bin"), big);
    EXPECT_EQ(readLocal(storageImage() + "/big.bin"), big);
    EXPECT_EQ(mount.countLog("movetoapps libiusb_afc_file_remove failed, ret : -3"), 1);

    // An app into Storage.
    EXPECT_EQ(run({"mv", inMount("/Apps/Notes/n.txt"), inMount("/Storage/n.txt")}), 0);
    EXPECT_EQ(readLocal(storageImage() + "/n.txt"), "note");
    EXPECT_EQ(readLocal(appImage() + "/n.txt"), "note");
    std::string line = logged("movetostorage  libiusb_afc_file_remove failed, ret : -3, hhandle : 0x");
    EXPECT_EQ(line.substr(line.size() - 25), ", path : /Documents/n.txt") << line;

    // One app into another.
    EXPECT_EQ(run({"mv", inMount("/Apps/Notes/over.txt"), inMount("/Apps/Other/over.txt")}), 0);
    EXPECT_EQ(readLocal(otherImage() + "/over.txt"), "over old");
    EXPECT_EQ(readLocal(appImage() + "/over.txt"), "over old");
    EXPECT_EQ(mount.countLog("movetoapps libiusb_afc_file_remove failed. path(/Documents/over.txt), error : -3"), 1);

    // Each source is still there, through the mount too.
    EXPECT_EQ(readLocal(inMount("/Storage/big.bin")), big);
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/n.txt")), "note");
    EXPECT_EQ(readLocal(inMount("/Apps/Other/over.txt")), "over old");
    EXPECT_TRUE(dialogs.dialogs().empty());
}

// A move cut short (the connection dropped, or no room left) removes its
// hidden partial copy before it returns, and its source stays whole.
TEST_F(RenameTest, AMoveCutShortLeavesNoHiddenPartialCopy) {
    ASSERT_TRUE(startDevice({image(kPartialCopyLocation)}));
    std::string udid = sim.udid(0);
    std::string bytes = randomBytes(3000001, 9);
    writeLocal(appImage() + "/large.bin", bytes);
    std::string big = readLocal(storageImage() + "/big.bin");
    mountFresh();
    size_t seen = 0;
    auto hiddenIn = [](const std::string &folder) {
        std::vector<std::string> hidden;
        for (const std::string &name : sortedNamesIn(folder))
            if (name[0] == '.') hidden.push_back(name);
        return hidden;
    };

    // From an app into Storage: the copy in Storage goes through the
    // mount's own connection, which the drop takes with it.
    ASSERT_EQ(sim.control("drop-after-bytes " + udid + " 1048576"), "ok");
    EXPECT_EQ(renameError(inMount("/Apps/Notes/large.bin"), inMount("/Storage/large.bin")), ECANCELED);
    expectDialog(&seen, "Lost USB connection.\nRenaming or moving aborted.", "error");
    EXPECT_EQ(readLocal(appImage() + "/large.bin"), bytes);
    EXPECT_FALSE(exists(storageImage() + "/large.bin"));
    EXPECT_EQ(hiddenIn(storageImage()), std::vector<std::string>{});
    ASSERT_EQ(unmountDevice(), 0);

    // The device runs out of room while the copy is written.
    ASSERT_EQ(sim.control("afc-error " + udid + " *.quorvel-move no-space write"), "ok");
    mountFresh();
    EXPECT_EQ(renameError(inMount("/Storage/big.bin"), inMount("/Apps/Notes/big.bin")), ECANCELED);
    expectDialog(&seen, "Not enough space on device.", "error");
    EXPECT_EQ(readLocal(storageImage() + "/big.bin"), big);
    EXPECT_FALSE(exists(appImage() + "/big.bin"));
    EXPECT_EQ(hiddenIn(appImage()), std::vector<std::string>{});
}

// Faults in the middle of a folder move: every file ends whole at its source
// or whole at its target, never half in both; a file the catalogue never saw
// keeps its folder at the source, which is only logged.
TEST_F(RenameTest, AFolderMoveCutShortLeavesEveryFileWholeOnOneSide) {
    ASSERT_TRUE(startDevice({image(kLocation + 8)}));
    std::string udid = sim.udid(0);
    std::vector<std::string> contents;
    for (int i = 0; i < 20; ++i) {
        contents.push_back(randomBytes(100000, 200 + static_cast<unsigned>(i)));
        std::string name = storageImage() + "/many/f" + std::to_string(10 + i) + ".bin";
        mkdir((storageImage() + "/many").c_str(), 0755);
        FILE *out = fopen(name.c_str(), "wb");
        ASSERT_NE(out, nullptr);
        fwrite(contents.back().data(), 1, contents.back().size(), out);
        fclose(out);
    }
    mkdir((storageImage() + "/withhidden").c_str(), 0755);
    for (const char *name : {"/withhidden/a.txt", "/withhidden/.hidden"}) {
        FILE *out = fopen((storageImage() + name).c_str(), "wb");
        ASSERT_NE(out, nullptr);
        fputs(name, out);
        fclose(out);
    }
    mountFresh();
    size_t seen = 0;

    // About a megabyte in, the connection goes: some files were carried.
    ASSERT_EQ(sim.control("drop-after-bytes " + udid + " 1000000"), "ok");
    EXPECT_EQ(renameError(inMount("/Storage/many"), inMount("/Apps/Notes/many")), ECANCELED);
    expectDialog(&seen, "Lost USB connection.\nRenaming or moving aborted.", "error");
    size_t moved = 0, stayed = 0;
    for (int i = 0; i < 20; ++i) {
        std::string name = "/f" + std::to_string(10 + i) + ".bin";
        bool atSource = exists(storageImage() + "/many" + name);
        bool atTarget = exists(appImage() + "/many" + name);
        EXPECT_NE(atSource, atTarget) << name << " must be on exactly one side";
        std::string whole = readLocal((atSource ? storageImage() : appImage()) + "/many" + name);
        EXPECT_EQ(whole, contents[static_cast<size_t>(i)]) << name;
        // Files are carried in listing order: the first ones went, the rest stayed.
        EXPECT_TRUE(atSource || stayed == 0) << name << " moved after one that stayed";
        moved += atTarget;
        stayed += atSource;
    }
    EXPECT_GT(moved, 0u);
    EXPECT_GT(stayed, 0u);
    ASSERT_EQ(sim.control("clear " + udid), "ok");

    // A dot name travels with its folder like any name, and the folder goes.
    ASSERT_EQ(unmountDevice(), 0);
    mountFresh();
    EXPECT_EQ(renameError(inMount("/Storage/withhidden"), inMount("/Apps/Notes/withhidden")), 0);
    EXPECT_EQ(readLocal(appImage() + "/withhidden/a.txt"), "/withhidden/a.txt");
    EXPECT_EQ(readLocal(appImage() + "/withhidden/.hidden"), "/withhidden/.hidden");
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/withhidden/.hidden")), "/withhidden/.hidden");
    EXPECT_FALSE(exists(storageImage() + "/withhidden"));
    EXPECT_EQ(dialogs.dialogs().size(), seen);
}

TEST_F(RenameTest, FilesOpenWhileRenamedOrMovedStayUsableThroughTheirHandles) {
    ASSERT_TRUE(startDevice({image()}));
    mountFresh();

    // Renamed within Storage, with its folder: the handle writes on.
    EXPECT_EQ(sortedNamesIn(inMount("/Storage/dir/inner")), std::vector<std::string>{"two.txt"});
    int fd = open(inMount("/Storage/dir/inner/two.txt").c_str(), O_RDWR);
    ASSERT_GE(fd, 0) << strerror(errno);
    ASSERT_EQ(renameError(inMount("/Storage/dir"), inMount("/Storage/dir2")), 0);
    ASSERT_EQ(pwrite(fd, "TWO", 3, 0), 3);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(readLocal(storageImage() + "/dir2/inner/two.txt"), "TWO");
    EXPECT_EQ(readLocal(inMount("/Storage/dir2/inner/two.txt")), "TWO");

    // Moved into an app while open for reading: the old handle still reads
    // what it had, and closing it leaves the moved file alone.
    fd = open(inMount("/Storage/a.txt").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << strerror(errno);
    ASSERT_EQ(renameError(inMount("/Storage/a.txt"), inMount("/Apps/Notes/a.txt")), 0);
    char buffer[16] = {0};
    EXPECT_EQ(pread(fd, buffer, sizeof(buffer), 0), 5);
    EXPECT_STREQ(buffer, "old a");
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(readLocal(appImage() + "/a.txt"), "old a");
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/a.txt")), "old a");
    EXPECT_EQ(statError(inMount("/Storage/a.txt")), ENOENT);

    // Renamed over, and removed, while open: the handle reads the old bytes
    // and fstat answers (link count 0); the device holds exactly the new
    // file, and no hidden name ever reaches it.
    fd = open(inMount("/Storage/keep.txt").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << strerror(errno);
    ASSERT_EQ(renameError(inMount("/Storage/b.txt"), inMount("/Storage/keep.txt")), 0);
    EXPECT_EQ(readLocal(storageImage() + "/keep.txt"), "bee");
    EXPECT_EQ(readLocal(inMount("/Storage/keep.txt")), "bee");
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0) << strerror(errno);
    EXPECT_EQ(st.st_size, 7);
    EXPECT_EQ(st.st_nlink, 0u);
    memset(buffer, 0, sizeof(buffer));
    EXPECT_EQ(pread(fd, buffer, sizeof(buffer), 0), 7);
    EXPECT_STREQ(buffer, "keep me");
    EXPECT_EQ(lseek(fd, 0, SEEK_END), 7);
    int removed = open(inMount("/Storage/keep.txt").c_str(), O_RDONLY);
    ASSERT_GE(removed, 0) << strerror(errno);
    ASSERT_EQ(unlink(inMount("/Storage/keep.txt").c_str()), 0) << strerror(errno);
    EXPECT_FALSE(exists(storageImage() + "/keep.txt"));
    ASSERT_EQ(fstat(removed, &st), 0) << strerror(errno);
    EXPECT_EQ(st.st_size, 3);
    EXPECT_EQ(close(removed), 0);
    EXPECT_EQ(close(fd), 0);
    for (const std::string &name : sortedNamesIn(storageImage()))
        EXPECT_EQ(name.find(".fuse_hidden"), std::string::npos) << name;
    EXPECT_EQ(sortedNamesIn(inMount("/Storage")), sortedNamesIn(storageImage()));
    EXPECT_TRUE(dialogs.dialogs().empty());
    EXPECT_EQ(unmountDevice(), 0);
}

// A file manager making thumbnails while the user renames their folder: the
// kernel's cached pages of the files below are dropped at each rename while
// reads and writes of those very pages wait for the mount. Every program
// must end, and every byte be right. Should the mount hang, the connection
// is aborted so the test fails instead of hanging.
TEST_F(RenameTest, AFolderRenamedWhileFilesInsideAreReadAndWrittenNeverHangs) {
    DevsimImage phone = image(kBusyFolderLocation);
    const std::string readBytes = randomBytes(1 << 20, 11);
    const std::string writeBytes = randomBytes(300000, 12);
    phone.files.push_back({"media/general_storage/dirB/read.bin", readBytes});
    ASSERT_TRUE(startDevice({phone}));
    mountFresh();
    struct stat mounted;
    ASSERT_EQ(stat(inMount("").c_str(), &mounted), 0);
    const std::string names[2] = {inMount("/Storage/dirB"), inMount("/Storage/dirC")};

    std::atomic<bool> stop{false};
    std::atomic<int> running{3}, renames{0}, reads{0}, writes{0}, badReads{0};
    auto inEither = [&](const char *name, int flags) {
        for (int attempt = 0; attempt < 1000 && !stop; ++attempt) {
            for (const std::string &folder : names) {
                int fd = open((folder + name).c_str(), flags, 0644);
                if (fd >= 0) return fd;
            }
        }
        return -1;
    };
    std::vector<std::thread> programs;
    programs.emplace_back([&] {
        while (!stop) {
            if (renameError(names[0], names[1]) == 0 && renameError(names[1], names[0]) == 0) ++renames;
        }
        --running;
    });
    programs.emplace_back([&] {
        std::string got(readBytes.size() + 1, '\0');
        while (!stop) {
            int fd = inEither("/read.bin", O_RDONLY);
            if (fd < 0) continue;
            ssize_t total = 0, n = 0;
            while ((n = pread(fd, &got[total], got.size() - total, total)) > 0) total += n;
            close(fd);
            if (got.compare(0, static_cast<size_t>(total), readBytes) != 0 || total != ssize_t(readBytes.size()))
                ++badReads;
            ++reads;
        }
        --running;
    });
    programs.emplace_back([&] {
        while (!stop) {
            int fd = inEither("/written.bin", O_WRONLY | O_CREAT | O_TRUNC);
            if (fd < 0) continue;
            for (size_t at = 0; at < writeBytes.size(); at += 65536)
                pwrite(fd, writeBytes.data() + at, std::min<size_t>(65536, writeBytes.size() - at), at);
            close(fd);
            ++writes;
        }
        --running;
    });
    std::this_thread::sleep_for(std::chrono::seconds(15));
    stop = true;
    for (int tenth = 0; running > 0 && tenth < 600; ++tenth) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    bool hung = running > 0;
    if (hung) {
        // Frees the programs stuck in the kernel: only an abort through the
        // FUSE control file system can (the mount's own thread waits in the
        // kernel too, so not even SIGKILL ends it).
        const std::string control = "/sys/fs/fuse/connections";
        if (!exists(control + "/" + std::to_string(minor(mounted.st_dev))))
            ::mount("fusectl", control.c_str(), "fusectl", 0, nullptr);
        std::ofstream abort(control + "/" + std::to_string(minor(mounted.st_dev)) + "/abort");
        abort << "1";
    }
    for (std::thread &program : programs) program.join();
    ASSERT_FALSE(hung) << "the mount hung after " << renames << " renames, " << reads << " reads, " << writes
                       << " writes";
    std::printf("in 15 s: %d renames there and back, %d whole reads, %d whole writes\n", renames.load(), reads.load(),
                writes.load());
    EXPECT_GT(renames, 0);
    EXPECT_GT(reads, 0);
    EXPECT_GT(writes, 0);
    EXPECT_EQ(badReads, 0);
    // The mount answers, and the device holds exactly the bytes written.
    EXPECT_EQ(sortedNamesIn(names[0]), (std::vector<std::string>{"read.bin", "written.bin"}));
    EXPECT_EQ(readLocal(storageImage() + "/dirB/read.bin"), readBytes);
    EXPECT_EQ(readLocal(storageImage() + "/dirB/written.bin"), writeBytes);
    EXPECT_EQ(readLocal(names[0] + "/written.bin"), writeBytes);
    EXPECT_TRUE(dialogs.dialogs().empty());
}

TEST_F(RenameTest, ADeviceFailureIsShownAndLeavesDeviceAndCatalogueAsTheyWere) {
    ASSERT_TRUE(startDevice({image()}));
    std::string udid = sim.udid(0);
    mountFresh();
    size_t seen = 0;

    ASSERT_EQ(sim.control("afc-error " + udid + " /general_storage/keep.txt permission-denied"), "ok");
    EXPECT_EQ(renameError(inMount("/Storage/keep.txt"), inMount("/Storage/k2.txt")), ECANCELED);
    expectDialog(&seen, "Could not rename or move the contents.\nError Code : -3", "error");
    EXPECT_EQ(mount.countLog("tarnifs_rename libiusb_afc_rename failed. from(/general_storage/keep.txt) "
                             "to(/general_storage/k2.txt). error : -3"),
              1);
    EXPECT_EQ(readLocal(storageImage() + "/keep.txt"), "keep me");
    EXPECT_FALSE(exists(storageImage() + "/k2.txt"));
    EXPECT_EQ(statError(inMount("/Storage/keep.txt")), 0);
    EXPECT_EQ(statError(inMount("/Storage/k2.txt")), ENOENT);
    EXPECT_EQ(sortedNamesIn(inMount("/Storage")), sortedNamesIn(storageImage()));
    ASSERT_EQ(sim.control("clear " + udid), "ok");

    // Inside an app, the same, with its own log line.
    ASSERT_EQ(sim.control("afc-error " + udid + " /Documents/n.txt permission-denied"), "ok");
    EXPECT_EQ(renameError(inMount("/Apps/Notes/n.txt"), inMount("/Apps/Notes/n2.txt")), ECANCELED);
    expectDialog(&seen, "Could not rename or move the contents.\nError Code : -3", "error");
    EXPECT_EQ(mount.countLog("movetoapps libiusb_afc_rename filed, from(/Documents/n.txt), to(/Documents/n2.txt), "
                             "ret : -3"),
              1);
    EXPECT_EQ(readLocal(appImage() + "/n.txt"), "note");
    EXPECT_EQ(statError(inMount("/Apps/Notes/n.txt")), 0);
    EXPECT_EQ(statError(inMount("/Apps/Notes/n2.txt")), ENOENT);
    ASSERT_EQ(sim.control("clear " + udid), "ok");

    // The connection is gone: the lost-connection text, nothing forgotten.
    ASSERT_EQ(sim.control("drop-now " + udid), "ok");
    EXPECT_EQ(renameError(inMount("/Storage/a.txt"), inMount("/Storage/b.txt")), ECANCELED);
    expectDialog(&seen, "Lost USB connection.\nRenaming or moving aborted.", "error");
    EXPECT_EQ(mount.countLog("tarnifs_rename libiusb_afc_rename failed. from(/general_storage/a.txt) "
                             "to(/general_storage/b.txt). error : -32"),
              1);
    EXPECT_EQ(readLocal(storageImage() + "/a.txt"), "old a");
    EXPECT_EQ(readLocal(storageImage() + "/b.txt"), "bee");
    EXPECT_EQ(statError(inMount("/Storage/a.txt")), 0);
    EXPECT_EQ(statError(inMount("/Storage/b.txt")), 0);
}

// A tree of a few hundred files in nested folders, with odd names.
void makeTree(const std::string &root) {
    mkdir(root.c_str(), 0755);
    for (int folder = 0; folder < 6; ++folder) {
        std::string dir = root + "/d" + std::to_string(folder);
        mkdir(dir.c_str(), 0755);
        mkdir((dir + "/deeper").c_str(), 0755);
        for (int file = 0; file < 30; ++file) {
            size_t size = static_cast<size_t>((folder * 37 + file * 1013) % 70000);
            writeLocal(dir + "/f" + std::to_string(file) + ".bin",
                       randomBytes(size, static_cast<unsigned>(folder * 100 + file)));
            writeLocal(dir + "/deeper/g " + std::to_string(file) + ".txt", "file " + std::to_string(file) + "\n");
        }
    }
}

TEST_F(RenameTest, RsyncCopiesATreeInAndBackThroughItsTemporaries) {
    if (!haveProgram("rsync")) GTEST_SKIP() << "rsync is not installed (package rsync)";
    ASSERT_TRUE(startDevice({image()}));
    mountFresh();
    std::string tree = tempDir + "/tree";
    makeTree(tree);
    std::string output;
    ASSERT_EQ(run({"rsync", "-a", tree + "/", inMount("/Storage/synced/")}, &output), 0) << output;
    ASSERT_EQ(run({"diff", "-r", tree, storageImage() + "/synced"}, &output), 0) << output;
    ASSERT_EQ(run({"rsync", "-a", inMount("/Storage/synced/"), tempDir + "/back/"}, &output), 0) << output;
    EXPECT_EQ(run({"diff", "-r", tree, tempDir + "/back"}, &output), 0) << output;
    // A second run over changed files renames over what is there.
    writeLocal(tree + "/d2/f3.bin", "changed");
    ASSERT_EQ(run({"rsync", "-a", tree + "/", inMount("/Storage/synced/")}, &output), 0) << output;
    EXPECT_EQ(readLocal(storageImage() + "/synced/d2/f3.bin"), "changed");
    EXPECT_EQ(run({"diff", "-r", tree, inMount("/Storage/synced")}, &output), 0) << output;
    EXPECT_TRUE(dialogs.dialogs().empty());
}

TEST_F(RenameTest, GitRepositoriesWorkInStorage) {
    if (!haveProgram("git")) GTEST_SKIP() << "git is not installed (package git)";
    ASSERT_TRUE(startDevice({image()}));
    mountFresh();
    const std::vector<std::string> git = {"git", "-c", "user.name=Quorvel Test", "-c", "user.email=test@example.com",
                                          "-c", "init.defaultBranch=main"};
    auto inRepo = [&](const std::string &repo, std::vector<std::string> args) {
        std::vector<std::string> argv = git;
        argv.push_back("-C");
        argv.push_back(repo);
        argv.insert(argv.end(), args.begin(), args.end());
        return argv;
    };
    std::string output;

    // A repository made and committed to in Storage.
    std::string repo = inMount("/Storage/repo");
    ASSERT_EQ(run(inRepo(inMount("/Storage"), {"init", "-q", "repo"}), &output), 0) << output;
    for (int commit = 0; commit < 3; ++commit) {
        writeLocal(repo + "/file" + std::to_string(commit) + ".txt", "commit " + std::to_string(commit) + "\n");
        writeLocal(repo + "/changing.txt", "version " + std::to_string(commit) + "\n");
        ASSERT_EQ(run(inRepo(repo, {"add", "-A"}), &output), 0) << output;
        ASSERT_EQ(run(inRepo(repo, {"commit", "-q", "-m", "commit " + std::to_string(commit)}), &output), 0)
            << output;
    }
    EXPECT_EQ(run(inRepo(repo, {"fsck", "--full"}), &output), 0) << output;
    ASSERT_EQ(run(inRepo(repo, {"status", "--porcelain"}), &output), 0);
    EXPECT_EQ(output, "");
    ASSERT_EQ(run(inRepo(repo, {"rev-list", "--count", "HEAD"}), &output), 0);
    EXPECT_EQ(output, "3\n");

    // A local repository cloned into Storage.
    std::string source = tempDir + "/source";
    ASSERT_EQ(run(inRepo(tempDir, {"init", "-q", "source"}), &output), 0) << output;
    makeTree(source + "/tree");
    ASSERT_EQ(run(inRepo(source, {"add", "-A"}), &output), 0) << output;
    ASSERT_EQ(run(inRepo(source, {"commit", "-q", "-m", "tree"}), &output), 0) << output;
    ASSERT_EQ(run(inRepo(tempDir, {"clone", "-q", "--no-local", source, inMount("/Storage/clone")}), &output), 0)
        << output;
    EXPECT_EQ(run(inRepo(inMount("/Storage/clone"), {"fsck", "--full"}), &output), 0) << output;
    ASSERT_EQ(run(inRepo(inMount("/Storage/clone"), {"status", "--porcelain"}), &output), 0);
    EXPECT_EQ(output, "");
    EXPECT_EQ(run({"diff", "-r", source + "/tree", storageImage() + "/clone/tree"}, &output), 0) << output;

    // Mounted again, both are still repositories: their ".git" folders are
    // ordinary names here, listed and read like any.
    writeLocal(inMount("/Storage/repo/.env"), "SECRET=kept\n");
    ASSERT_EQ(unmountDevice(), 0);
    mountFresh();
    EXPECT_EQ(readLocal(inMount("/Storage/repo/.env")), "SECRET=kept\n");
    for (const std::string &again : {repo, inMount("/Storage/clone")}) {
        EXPECT_EQ(run(inRepo(again, {"fsck", "--full"}), &output), 0) << again << ": " << output;
        ASSERT_EQ(run(inRepo(again, {"status", "--porcelain"}), &output), 0) << again << ": " << output;
        EXPECT_EQ(output, again == repo ? "?? .env\n" : "") << again;
    }
    ASSERT_EQ(run(inRepo(repo, {"rev-list", "--count", "HEAD"}), &output), 0);
    EXPECT_EQ(output, "3\n");
    EXPECT_TRUE(dialogs.dialogs().empty());
}

} // namespace
