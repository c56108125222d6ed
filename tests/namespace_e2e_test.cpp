// mkdir, rmdir and rm through a real mount, each step compared with the
// device image folder and with what stat answers right after it; the
// refusals with their notices; device failures that change nothing; and a
// file removed while a program still has it open.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

bool listed(const std::string &folder, const std::string &name) {
    std::vector<std::string> names = namesIn(folder);
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Another local user, as a mount with allow_other lets in.
constexpr uid_t kOtherUser = 65534;
// A location id of its own: the work folder is "/tmp/" + id.
constexpr uint32_t kSharedLocation = 9101;

// Runs each step in a child process as kOtherUser; a step answers 0, or the
// errno it met (-1 when what it read was wrong). The answers, in order.
std::vector<int> asOtherUser(const std::vector<std::function<int()>> &steps) {
    int ends[2];
    if (pipe(ends) != 0) return {};
    pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        if (setgroups(0, nullptr) != 0 || setresgid(kOtherUser, kOtherUser, kOtherUser) != 0 ||
            setresuid(kOtherUser, kOtherUser, kOtherUser) != 0)
            _exit(2);
        for (const auto &step : steps) {
            errno = 0;
            int answer = step();
            if (write(ends[1], &answer, sizeof(answer)) != sizeof(answer)) _exit(3);
        }
        _exit(0);
    }
    close(ends[1]);
    std::vector<int> answers;
    int answer = 0;
    while (read(ends[0], &answer, sizeof(answer)) == sizeof(answer)) answers.push_back(answer);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return answers;
}

int errnoOf(int result) { return result == 0 ? 0 : errno; }

// A new file written whole: 0 or the errno.
int writeNew(const std::string &path, const std::string &bytes) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) return errno;
    ssize_t written = write(fd, bytes.data(), bytes.size());
    int error = written == static_cast<ssize_t>(bytes.size()) ? 0 : errno;
    return close(fd) == 0 ? error : errno;
}

int readsAs(const std::string &path, const std::string &expected) {
    errno = 0;
    std::string bytes = readLocal(path);
    if (errno != 0 && bytes.empty()) return errno;
    return bytes == expected ? 0 : -1;
}

// The image's files and folders below `folder`, each with its bytes.
std::vector<std::string> treeOf(const std::string &folder) {
    std::vector<std::string> tree;
    for (const std::string &name : namesIn(folder)) {
        std::string path = folder + "/" + name;
        if (isFolder(path)) {
            tree.push_back(name + "/");
            for (const std::string &below : treeOf(path)) tree.push_back(name + "/" + below);
        } else {
            tree.push_back(name + " = " + readLocal(path));
        }
    }
    std::sort(tree.begin(), tree.end());
    return tree;
}

class NamespaceTest : public MountedDeviceTest {
protected:
    DevsimImage image(uint32_t location = 61) {
        DevsimImage phone;
        phone.name = "Remover";
        phone.location_id = location;
        phone.apps = {{"com.example.notes", "Notes", true}};
        phone.folders = {"media/general_storage/empty", "media/general_storage/tree/a/b",
                         "apps/com.example.notes/Documents/in"};
        phone.files = {{"media/general_storage/keep.txt", "keep me"},
                       {"media/general_storage/full/x.txt", "x"},
                       {"media/general_storage/tree/top.txt", "top"},
                       {"media/general_storage/tree/a/mid.txt", "mid"},
                       {"media/general_storage/tree/a/b/deep.txt", "deep"},
                       {"apps/com.example.notes/Documents/in/n.txt", "note"},
                       {"apps/com.example.notes/Documents/gone.txt", "gone"}};
        return phone;
    }
    void mountFresh() {
        ASSERT_TRUE(mountDevice(61));
        runProgram({"ls", inMount("/Storage"), inMount("/Apps/Notes")});
    }
    // A dialog shown while another waits replaces it, so each refusal or
    // failure is checked before the next is provoked: the one new dialog
    // since *seen says `text` and is of `kind`.
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

TEST_F(NamespaceTest, FoldersAndFilesAreMadeAndRemovedOnTheDeviceAndStatAgreesAtOnce) {
    ASSERT_TRUE(startDevice({image()}));
    mountFresh();

    // mkdir -p in Storage and inside an app.
    ASSERT_EQ(runStatus({"mkdir", "-p", inMount("/Storage/new/deeper/deepest")}), 0);
    EXPECT_TRUE(isFolder(storageImage() + "/new/deeper/deepest"));
    EXPECT_TRUE(isFolder(inMount("/Storage/new/deeper/deepest")));
    EXPECT_EQ(namesIn(inMount("/Storage")).back(), "new") << "a new folder is listed last";
    ASSERT_EQ(runStatus({"mkdir", "-p", inMount("/Apps/Notes/made/inner")}), 0);
    EXPECT_TRUE(isFolder(appImage() + "/made/inner"));
    EXPECT_TRUE(isFolder(inMount("/Apps/Notes/made/inner")));
    EXPECT_TRUE(namesIn(inMount("/Apps/Notes/made/inner")).empty());
    // A file can go into a folder made through the mount.
    std::ofstream(inMount("/Apps/Notes/made/inner/hello.txt")) << "hello";
    EXPECT_TRUE(exists(appImage() + "/made/inner/hello.txt"));

    // rmdir of an empty folder.
    ASSERT_EQ(rmdir(inMount("/Storage/new/deeper/deepest").c_str()), 0) << strerror(errno);
    EXPECT_FALSE(exists(storageImage() + "/new/deeper/deepest"));
    EXPECT_TRUE(exists(storageImage() + "/new/deeper"));
    EXPECT_EQ(statError(inMount("/Storage/new/deeper/deepest")), ENOENT);
    ASSERT_EQ(rmdir(inMount("/Storage/empty").c_str()), 0) << strerror(errno);
    EXPECT_FALSE(exists(storageImage() + "/empty"));
    EXPECT_FALSE(listed(inMount("/Storage"), "empty"));

    // rm of single files, in Storage and in an app, each while a program
    // still has it open.
    for (const auto &file : {std::make_pair(std::string("/Storage/keep.txt"), storageImage() + "/keep.txt"),
                             std::make_pair(std::string("/Apps/Notes/in/n.txt"), appImage() + "/in/n.txt")}) {
        int fd = open(inMount(file.first).c_str(), O_RDONLY);
        ASSERT_GE(fd, 0) << file.first;
        ASSERT_EQ(unlink(inMount(file.first).c_str()), 0) << strerror(errno);
        EXPECT_FALSE(exists(file.second)) << "removed on the device at once";
        size_t slash = file.first.rfind('/');
        EXPECT_FALSE(listed(inMount(file.first.substr(0, slash)), file.first.substr(slash + 1)));
        EXPECT_EQ(statError(inMount(file.first)), ENOENT);
        // The open handle still reads what the file held. (fstat is asked
        // by path, which libfuse no longer has: it answers ESTALE.)
        char buffer[16] = {0};
        ssize_t got = pread(fd, buffer, sizeof(buffer), 0);
        EXPECT_GT(got, 0) << file.first;
        // A new file may take the name while the old one is still open.
        std::ofstream(inMount(file.first)) << "new";
        EXPECT_TRUE(exists(file.second));
        EXPECT_EQ(close(fd), 0);
        struct stat fresh;
        ASSERT_EQ(stat(inMount(file.first).c_str(), &fresh), 0) << "closing the old handle leaves the new file alone";
        EXPECT_EQ(fresh.st_size, 3);
    }
    EXPECT_TRUE(exists(appImage() + "/in"));

    // rm -r of whole trees, nothing beside them touched.
    ASSERT_EQ(runStatus({"rm", "-r", inMount("/Storage/tree")}), 0);
    EXPECT_FALSE(exists(storageImage() + "/tree"));
    EXPECT_EQ(statError(inMount("/Storage/tree")), ENOENT);
    EXPECT_EQ(statError(inMount("/Storage/tree/a/b/deep.txt")), ENOENT);
    ASSERT_EQ(runStatus({"rm", "-r", inMount("/Apps/Notes/made")}), 0);
    EXPECT_FALSE(exists(appImage() + "/made"));
    EXPECT_EQ(statError(inMount("/Apps/Notes/made/inner")), ENOENT);
    EXPECT_TRUE(exists(storageImage() + "/full/x.txt"));
    EXPECT_TRUE(exists(storageImage() + "/new/deeper"));
    EXPECT_TRUE(exists(appImage() + "/gone.txt"));

    // A name removed can be made again at once.
    ASSERT_EQ(mkdir(inMount("/Storage/tree").c_str(), 0755), 0) << strerror(errno);
    EXPECT_TRUE(isFolder(storageImage() + "/tree"));
    EXPECT_TRUE(isFolder(inMount("/Storage/tree")));
    EXPECT_TRUE(dialogs.dialogs().empty());
    EXPECT_EQ(unmountDevice(), 0);
}

// Refusals and device failures on one mount, each checked before the next
// is provoked: the notice or error, and nothing changed.
TEST_F(NamespaceTest, RefusalsAndDeviceFailuresAreShownAndChangeNothing) {
    ASSERT_TRUE(startDevice({image()}));
    std::string udid = sim.udid(0);
    mountFresh();
    size_t seen = 0;

    // Read-only places.
    for (const auto &refused : {std::make_pair("/Media/Music/x", "/Media/Music"), std::make_pair("/Apps/NewApp", "/Apps"),
                                std::make_pair("/newtop", "/")}) {
        EXPECT_EQ(errnoOf(mkdir(inMount(refused.first).c_str(), 0755)), ECANCELED) << refused.first;
        expectDialog(&seen, std::string("This folder is read only. You can not write or modify.\n") + refused.second,
                     "notification");
    }
    EXPECT_EQ(mount.countLog("tarnifs_mkdir make directory not supported. path : /Apps/NewApp"), 1);
    for (const char *path : {"/Storage", "/Apps/Notes", "/Apps", "/Media/Music"}) {
        EXPECT_EQ(errnoOf(rmdir(inMount(path).c_str())), ECANCELED) << path;
        expectDialog(&seen, std::string("You can not remove this folder.\n") + path, "notification");
    }
    EXPECT_EQ(mount.countLog("tarnifs_rmdir rmdir not supported. path : /Apps/Notes "), 1);
    EXPECT_TRUE(isFolder(inMount("/Apps/Notes")));
    EXPECT_TRUE(isFolder(appImage()));

    // A folder whose contents are catalogued is not empty: no dialog, and
    // once the contents are gone it goes too.
    EXPECT_TRUE(listed(inMount("/Storage/full"), "x.txt"));
    EXPECT_EQ(errnoOf(rmdir(inMount("/Storage/full").c_str())), ENOTEMPTY);
    EXPECT_TRUE(exists(storageImage() + "/full/x.txt"));
    // Never listed before: it is listed first, and answers the same.
    EXPECT_EQ(errnoOf(rmdir(inMount("/Apps/Notes/in").c_str())), ENOTEMPTY);
    ASSERT_EQ(unlink(inMount("/Storage/full/x.txt").c_str()), 0);
    ASSERT_EQ(rmdir(inMount("/Storage/full").c_str()), 0);
    EXPECT_FALSE(exists(storageImage() + "/full"));
    // Names that are not there.
    EXPECT_EQ(errnoOf(rmdir(inMount("/Storage/nothing").c_str())), ENOENT);
    EXPECT_EQ(errnoOf(unlink(inMount("/Storage/nothing.txt").c_str())), ENOENT);
    EXPECT_EQ(dialogs.dialogs().size(), seen);

    // The device refuses.
    ASSERT_EQ(sim.control("afc-error " + udid + " /general_storage/keep.txt permission-denied"), "ok");
    EXPECT_EQ(errnoOf(unlink(inMount("/Storage/keep.txt").c_str())), ECANCELED);
    expectDialog(&seen, "Could not remove a file.\nError Code : -3", "error");
    EXPECT_EQ(mount.countLog(
                  "UnlinkStorageContents libiusb_afc_file_remove failed. path(/general_storage/keep.txt). ret : -3"),
              1);
    EXPECT_TRUE(exists(storageImage() + "/keep.txt"));
    EXPECT_TRUE(listed(inMount("/Storage"), "keep.txt"));
    EXPECT_EQ(statError(inMount("/Storage/keep.txt")), 0);

    ASSERT_EQ(sim.control("afc-error " + udid + " /general_storage/blocked permission-denied"), "ok");
    EXPECT_EQ(errnoOf(mkdir(inMount("/Storage/blocked").c_str(), 0755)), ECANCELED);
    expectDialog(&seen, "Could not make a directory.\nError Code : -3", "error");
    EXPECT_EQ(mount.countLog("tarnifs_mkdir libiusb_afc_make_directory failed. path(/general_storage/blocked), error : -3"),
              1);
    EXPECT_EQ(statError(inMount("/Storage/blocked")), ENOENT);
    EXPECT_FALSE(listed(inMount("/Storage"), "blocked"));

    EXPECT_TRUE(namesIn(inMount("/Storage/empty")).empty());  // listed before the fault
    ASSERT_EQ(sim.control("afc-error " + udid + " /general_storage/empty permission-denied"), "ok");
    EXPECT_EQ(errnoOf(rmdir(inMount("/Storage/empty").c_str())), ECANCELED);
    expectDialog(&seen, "Could not remove a Directory.\nError Code : -3", "error");
    EXPECT_EQ(mount.countLog("tarnifs_rmdir libiusb_afc_file_remove failed. path(/general_storage/empty). error : -3"), 1);
    EXPECT_TRUE(listed(inMount("/Storage"), "empty"));
    EXPECT_TRUE(isFolder(inMount("/Storage/empty")));
    ASSERT_EQ(sim.control("clear " + udid), "ok");

    // The connection is gone: the lost-connection text, nothing forgotten.
    ASSERT_EQ(sim.control("drop-now " + udid), "ok");
    EXPECT_EQ(errnoOf(unlink(inMount("/Storage/keep.txt").c_str())), ECANCELED);
    expectDialog(&seen, "Lost USB connection.\nFile remove aborted.", "error");
    EXPECT_EQ(mount.countLog(
                  "UnlinkStorageContents libiusb_afc_file_remove failed. path(/general_storage/keep.txt). ret : -32"),
              1);
    EXPECT_TRUE(listed(inMount("/Storage"), "keep.txt"));
    EXPECT_EQ(statError(inMount("/Storage/keep.txt")), 0);
    EXPECT_TRUE(exists(storageImage() + "/keep.txt"));
    // The device is still attached: the next request opens the connection again.
    EXPECT_EQ(mkdir(inMount("/Storage/later").c_str(), 0755), 0) << strerror(errno);
    EXPECT_TRUE(isFolder(storageImage() + "/later"));

    // A file already gone on the device is removed without a dialog.
    ASSERT_EQ(unlink((storageImage() + "/keep.txt").c_str()), 0);
    ASSERT_EQ(unlink((appImage() + "/gone.txt").c_str()), 0);
    EXPECT_EQ(unlink(inMount("/Storage/keep.txt").c_str()), 0) << strerror(errno);
    EXPECT_EQ(unlink(inMount("/Apps/Notes/gone.txt").c_str()), 0) << strerror(errno);
    EXPECT_EQ(mount.countLog("UnlinkStorageContents libiusb_afc_file_remove return LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND"),
              1);
    EXPECT_EQ(statError(inMount("/Storage/keep.txt")), ENOENT);
    EXPECT_FALSE(listed(inMount("/Apps/Notes"), "gone.txt"));
    EXPECT_EQ(dialogs.dialogs().size(), seen);
}

// With allow_other every local user sees the volume; only the mounting user
// may change it, unless that user opens it up with umask=000.
TEST_F(NamespaceTest, OtherUsersMayReadButNotChangeAVolumeSharedWithAllowOther) {
    if (geteuid() != 0) GTEST_SKIP() << "acting as another user (uid 65534) needs root";
    ASSERT_TRUE(startDevice({image(kSharedLocation)}));
    // The other user must be able to reach the mount point.
    ASSERT_EQ(chmod(tempDir.c_str(), 0711), 0);
    ASSERT_TRUE(mount.start(kSharedLocation, {"-o", "allow_other"}));
    std::vector<std::string> storageBefore = treeOf(storageImage());
    std::vector<std::string> appBefore = treeOf(appImage());

    // The mounting user owns everything; others may read.
    struct stat st;
    ASSERT_EQ(stat(inMount("/Storage/keep.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, geteuid());
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    ASSERT_EQ(stat(inMount("/Storage").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);

    const std::string keep = inMount("/Storage/keep.txt");
    std::vector<int> answers = asOtherUser({
        [&] { return readsAs(keep, "keep me"); },
        [&] { return readsAs(inMount("/Apps/Notes/in/n.txt"), "note"); },
        [&] { return namesIn(inMount("/Storage")).empty() ? -1 : 0; },
        [&] { return writeNew(inMount("/Storage/theirs.txt"), "theirs"); },
        [&] { return writeNew(inMount("/Apps/Notes/theirs.txt"), "theirs"); },
        [&] { return errnoOf(truncate(keep.c_str(), 0)); },
        [&] {
            int fd = open(keep.c_str(), O_WRONLY | O_APPEND);
            if (fd >= 0) close(fd);
            return fd >= 0 ? 0 : errno;
        },
        [&] { return errnoOf(unlink(keep.c_str())); },
        [&] { return errnoOf(unlink(inMount("/Apps/Notes/gone.txt").c_str())); },
        [&] { return errnoOf(rename(keep.c_str(), inMount("/Storage/moved.txt").c_str())); },
        [&] { return errnoOf(rename(keep.c_str(), inMount("/Apps/Notes/moved.txt").c_str())); },
        [&] { return errnoOf(mkdir(inMount("/Storage/made").c_str(), 0755)); },
        [&] { return errnoOf(rmdir(inMount("/Storage/empty").c_str())); },
    });
    EXPECT_EQ(answers, (std::vector<int>{0, 0, 0, EACCES, EACCES, EACCES, EACCES, EACCES, EACCES, EACCES, EACCES,
                                         EACCES, EACCES}));
    EXPECT_EQ(treeOf(storageImage()), storageBefore);
    EXPECT_EQ(treeOf(appImage()), appBefore);
    EXPECT_TRUE(dialogs.dialogs().empty());
    ASSERT_EQ(unmountDevice(), 0);

    // The mounting user opens it up: the other user may write.
    ASSERT_TRUE(mount.start(kSharedLocation, {"-o", "allow_other,umask=000"}));
    answers = asOtherUser({
        [&] { return writeNew(inMount("/Storage/theirs.txt"), "theirs"); },
        [&] { return errnoOf(rename(keep.c_str(), inMount("/Storage/moved.txt").c_str())); },
    });
    EXPECT_EQ(answers, (std::vector<int>{0, 0}));
    EXPECT_EQ(readLocal(storageImage() + "/theirs.txt"), "theirs");
    EXPECT_EQ(readLocal(storageImage() + "/moved.txt"), "keep me");
    EXPECT_EQ(unmountDevice(), 0);
}

} // namespace
