// Rename, mkdir, rmdir and rm through a real mount: files and folders in
// /Storage, inside one app folder and between them, each step compared with
// the device image and with what stat and listings answer right after it;
// renames over existing names and safe saves leave exactly the new bytes;
// the refusals with their notices; device failures that change nothing;
// files removed or renamed while open; other users of a shared volume; and
// real programs (rsync, git) that write temporaries and rename them into place.
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
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/mount_fixture.h"

namespace {

// Location ids no other test uses: a mount's work folder is "/tmp/" + id,
// and unmounting removes it. Tests that look into their work folder have an
// id of their own, since ctest runs test cases side by side.
constexpr uint32_t kLocation = 8117;
constexpr uint32_t kSafeSaveLocation = 8118;
constexpr uint32_t kFaultsLocation = 9102;
constexpr uint32_t kSharedLocation = 9101;

// A temporary as macOS's safe save names it: "<name>.sb-" + 8 hex digits +
// "-" + 6 letters or digits, beside <name>.
std::string safeSaveTemporary(const std::string &name) { return name + ".sb-" + "1f3e5d7c-aB3xZ9"; }

bool haveProgram(const std::string &name) { return !runProgram({"sh", "-c", "command -v " + name}).empty(); }

// rename(2) through the mount: 0, or the errno it failed with.
int renameError(const std::string &from, const std::string &to) {
    errno = 0;
    return rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

bool listed(const std::string &folder, const std::string &name) {
    std::vector<std::string> names = namesIn(folder);
    return std::find(names.begin(), names.end(), name) != names.end();
}

int errnoOf(int result) { return result == 0 ? 0 : errno; }

// Runs a shell command as another local user (uid 65534), as a mount with
// allow_other lets in: what it printed on either output.
std::string asOtherUser(const std::string &command) {
    std::string output;
    run_program({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "sh", "-c", command}, &output);
    return output;
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

class RenameTest : public MountedDeviceTest {
protected:
    DevsimImage image(uint32_t location = kLocation) {
        DevsimImage phone;
        phone.name = "Mover";
        phone.location_id = location;
        this->location = location;
        phone.apps = {{"com.example.notes", "Notes", true}, {"com.example.other", "Other", true}};
        phone.folders = {"media/general_storage/empty", "media/general_storage/tree/a/b",
                         "apps/com.example.notes/Documents/sub", "apps/com.example.notes/Documents/in",
                         "apps/com.example.other/Documents"};
        phone.files = {{"media/general_storage/a.txt", "old a"},
                       {"media/general_storage/b.txt", "bee"},
                       {"media/general_storage/keep.txt", "keep me"},
                       {"media/general_storage/big.bin", randomBytes(3000001, 5)},
                       {"media/general_storage/dir/one.txt", "one"},
                       {"media/general_storage/dir/inner/two.txt", "two"},
                       {"apps/com.example.notes/Documents/n.txt", "note"},
                       {"apps/com.example.notes/Documents/over.txt", "over old"},
                       {"apps/com.example.notes/Documents/folder/f.txt", "eff"},
                       {"apps/com.example.notes/Documents/unlisted/u.txt", "you"},
                       {"media/general_storage/full/x.txt", "x"},
                       {"media/general_storage/tree/top.txt", "top"},
                       {"media/general_storage/tree/a/mid.txt", "mid"},
                       {"media/general_storage/tree/a/b/deep.txt", "deep"},
                       {"apps/com.example.notes/Documents/in/n.txt", "note"},
                       {"apps/com.example.notes/Documents/gone.txt", "gone"}};
        return phone;
    }
    std::string otherImage() { return appImage("com.example.other"); }
    std::string workFolder() { return "/tmp/" + std::to_string(location); }
    // Where the device image keeps a path of the volume.
    std::string onDevice(const std::string &volumePath) {
        for (const auto &area : {std::make_pair(std::string("/Storage"), storageImage()),
                                 std::make_pair(std::string("/Apps/Notes"), appImage()),
                                 std::make_pair(std::string("/Apps/Other"), otherImage())})
            if (volumePath.compare(0, area.first.size(), area.first) == 0)
                return area.second + volumePath.substr(area.first.size());
        return "(not on the device: " + volumePath + ")";
    }
    void mountFresh() {
        ASSERT_TRUE(mountDevice(location));
        runProgram({"ls", inMount("/Storage"), inMount("/Apps/Notes")});
    }
    uint32_t location = kLocation;
    // The one new dialog since *seen says `text` (or begins with what comes
    // before a last "*") and is of `kind`.
    void expectDialog(size_t *seen, const std::string &text, const std::string &kind) {
        std::vector<RecordedDialog> shown = dialogs.waitForDialogs(*seen + 1);
        std::string all;
        for (const RecordedDialog &dialog : shown) all += "[" + dialog.kind + "] " + dialog.message + "\n";
        ASSERT_EQ(shown.size(), *seen + 1) << "expected: " << text << "\nshown:\n" << all;
        if (text.back() == '*')
            EXPECT_EQ(shown.back().message.compare(0, text.size() - 1, text, 0, text.size() - 1), 0) << all;
        else
            EXPECT_EQ(shown.back().message, text);
        EXPECT_EQ(shown.back().kind, kind) << text;
        *seen = shown.size();
    }
    // Renames `from` to `to` through the mount: then the device and the
    // mount hold `bytes` at `to` + `below` (stat telling their size at
    // once), and neither has `from` any more.
    void expectMoved(const std::string &from, const std::string &to, const std::string &below,
                     const std::string &bytes) {
        SCOPED_TRACE(from + " -> " + to);
        ASSERT_EQ(renameError(inMount(from), inMount(to)), 0);
        EXPECT_FALSE(exists(onDevice(from)));
        EXPECT_EQ(statError(inMount(from)), ENOENT);
        struct stat st;
        ASSERT_EQ(stat(inMount(to + below).c_str(), &st), 0);
        EXPECT_EQ(st.st_size, static_cast<off_t>(bytes.size()));
        EXPECT_EQ(readLocal(onDevice(to + below)), bytes);
        EXPECT_EQ(readLocal(inMount(to + below)), bytes);
    }
};

// One walk over one device: a folder renamed while busy, then within
// Storage, within an app, between the areas, the area folders themselves,
// then rsync and git, each step starting from what the one before left.
TEST_F(RenameTest, FilesAndFoldersMoveOnTheDeviceAndStatAgreesAtOnce) {
    DevsimImage phone = image();
    const std::string readBytes = randomBytes(1 << 20, 11);
    const std::string writeBytes = randomBytes(300000, 12);
    phone.files.push_back({"media/general_storage/dirB/read.bin", readBytes});
    ASSERT_TRUE(startDevice({phone}));
    mountFresh();

    // A file manager making thumbnails while the user renames their
    // folder: the kernel's cached pages of the files below are dropped at
    // each rename while reads and writes of those very pages wait for the
    // mount. Every program must end, and every byte be right. Should the
    // mount hang, the connection is aborted so the test fails instead of
    // hanging.
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
    EXPECT_GT(renames, 0);
    EXPECT_GT(reads, 0);
    EXPECT_GT(writes, 0);
    EXPECT_EQ(badReads, 0);
    // The mount answers, and the device holds exactly the bytes written.
    EXPECT_EQ(sorted(namesIn(names[0])), (std::vector<std::string>{"read.bin", "written.bin"}));
    EXPECT_EQ(readLocal(storageImage() + "/dirB/read.bin"), readBytes);
    EXPECT_EQ(readLocal(storageImage() + "/dirB/written.bin"), writeBytes);
    EXPECT_EQ(readLocal(names[0] + "/written.bin"), writeBytes);

    const std::string big = readLocal(storageImage() + "/big.bin");

    // Within Storage: a file, to a new name in another folder.
    expectMoved("/Storage/keep.txt", "/Storage/empty/kept.txt", "", "keep me");
    EXPECT_EQ(namesIn(inMount("/Storage/empty")), std::vector<std::string>{"kept.txt"});

    // A folder whose contents were listed (and looked up) before.
    EXPECT_EQ(sorted(namesIn(inMount("/Storage/dir"))), (std::vector<std::string>{"inner", "one.txt"}));
    EXPECT_EQ(readLocal(inMount("/Storage/dir/inner/two.txt")), "two");
    expectMoved("/Storage/dir", "/Storage/moved", "/inner/two.txt", "two");
    EXPECT_EQ(statError(inMount("/Storage/dir/inner/two.txt")), ENOENT);
    EXPECT_EQ(sorted(namesIn(inMount("/Storage/moved"))), (std::vector<std::string>{"inner", "one.txt"}));
    EXPECT_EQ(readLocal(inMount("/Storage/moved/one.txt")), "one");
    // What is below the moved folder can be changed under its new name.
    std::ofstream(inMount("/Storage/moved/inner/three.txt")) << "three";
    EXPECT_EQ(readLocal(storageImage() + "/moved/inner/three.txt"), "three");
    ASSERT_EQ(unlink(inMount("/Storage/moved/one.txt").c_str()), 0) << strerror(errno);
    EXPECT_FALSE(exists(storageImage() + "/moved/one.txt"));
    // And it moves back.
    ASSERT_EQ(renameError(inMount("/Storage/moved"), inMount("/Storage/dir")), 0);
    EXPECT_EQ(sorted(namesIn(storageImage() + "/dir/inner")), (std::vector<std::string>{"three.txt", "two.txt"}));
    EXPECT_EQ(sorted(namesIn(inMount("/Storage/dir/inner"))), (std::vector<std::string>{"three.txt", "two.txt"}));

    // Onto an existing name: exactly the new bytes, the old name gone.
    expectMoved("/Storage/b.txt", "/Storage/a.txt", "", "bee");

    // Onto a folder with contents: not empty, nothing changes, no dialog.
    ASSERT_EQ(mkdir(inMount("/Storage/other").c_str(), 0755), 0);
    EXPECT_EQ(renameError(inMount("/Storage/other"), inMount("/Storage/dir")), ENOTEMPTY);
    EXPECT_TRUE(isFolder(storageImage() + "/other"));
    EXPECT_TRUE(exists(storageImage() + "/dir/inner/two.txt"));
    // Onto an empty folder: replaced.
    expectMoved("/Storage/dir", "/Storage/other", "/inner/two.txt", "two");

    // A large file moves in the one step too.
    expectMoved("/Storage/big.bin", "/Storage/big2.bin", "", big);

    // Inside one app folder a rename is one device step: a file into a
    // folder, then over an existing file.
    expectMoved("/Apps/Notes/n.txt", "/Apps/Notes/sub/n2.txt", "", "note");
    EXPECT_EQ(namesIn(inMount("/Apps/Notes/sub")), std::vector<std::string>{"n2.txt"});
    expectMoved("/Apps/Notes/sub/n2.txt", "/Apps/Notes/over.txt", "", "note");
    // A folder, listed before; it is a long move for the tray.
    ASSERT_TRUE(tray.waitFor("-neoff"));
    size_t trayBefore = tray.bytes().size();
    EXPECT_EQ(namesIn(inMount("/Apps/Notes/folder")), std::vector<std::string>{"f.txt"});
    expectMoved("/Apps/Notes/folder", "/Apps/Notes/sub/folder2", "/f.txt", "eff");
    EXPECT_TRUE(eventually([&] { return tray.bytes().find("-neon", trayBefore) != std::string::npos; }));

    // Between Storage and the apps a move copies, then removes the source.
    expectMoved("/Storage/empty/kept.txt", "/Apps/Notes/sub/kept.txt", "", "keep me");
    EXPECT_EQ(sorted(namesIn(inMount("/Apps/Notes/sub"))), (std::vector<std::string>{"folder2", "kept.txt"}));
    // A large file over an existing one in an app: exactly the new bytes.
    expectMoved("/Storage/big2.bin", "/Apps/Notes/over.txt", "", big);
    // A folder with contents, listed before, from Storage into an app.
    EXPECT_EQ(namesIn(inMount("/Storage/other")), std::vector<std::string>{"inner"});
    expectMoved("/Storage/other", "/Apps/Notes/dir", "/inner/two.txt", "two");
    EXPECT_EQ(readLocal(appImage() + "/dir/inner/three.txt"), "three");
    EXPECT_EQ(statError(inMount("/Storage/other/inner/two.txt")), ENOENT);
    // From an app into Storage, a folder never listed.
    expectMoved("/Apps/Notes/unlisted", "/Storage/unlisted", "/u.txt", "you");
    EXPECT_EQ(namesIn(inMount("/Storage/unlisted")), std::vector<std::string>{"u.txt"});
    // From one app to another.
    expectMoved("/Apps/Notes/sub/kept.txt", "/Apps/Other/kept.txt", "", "keep me");
    expectMoved("/Apps/Notes/dir", "/Apps/Other/dir", "/inner/two.txt", "two");
    // No staging copy is left anywhere.
    for (const std::string &folder : {storageImage(), appImage(), otherImage(), otherImage() + "/dir"})
        for (const std::string &name : namesIn(folder))
            EXPECT_EQ(name.find("quorvel-move"), std::string::npos) << folder << "/" << name;

    // An area's own folder moves what it holds and stays: the whole Apps
    // area into Storage, one app's documents, and Storage into an app.
    ASSERT_EQ(runStatus({"mv", inMount("/Apps"), inMount("/Storage/backup")}), 0);
    EXPECT_EQ(readLocal(storageImage() + "/backup/Notes/over.txt"), big);
    EXPECT_EQ(readLocal(storageImage() + "/backup/Notes/sub/folder2/f.txt"), "eff");
    EXPECT_EQ(readLocal(storageImage() + "/backup/Other/kept.txt"), "keep me");
    EXPECT_TRUE(isFolder(storageImage() + "/backup/Other/dir/inner"));
    EXPECT_TRUE(isFolder(appImage()));
    EXPECT_TRUE(namesIn(appImage()).empty());
    EXPECT_EQ(namesIn(inMount("/Apps")), (std::vector<std::string>{"Notes", "Other"}));
    EXPECT_TRUE(namesIn(inMount("/Apps/Notes")).empty());
    EXPECT_EQ(readLocal(inMount("/Storage/backup/Other/kept.txt")), "keep me");

    ASSERT_EQ(runStatus({"cp", inMount("/Storage/a.txt"), inMount("/Apps/Other/a.txt")}), 0);
    ASSERT_EQ(runStatus({"mv", inMount("/Apps/Other"), inMount("/Storage/")}), 0);
    EXPECT_EQ(readLocal(storageImage() + "/Other/a.txt"), "bee");
    EXPECT_TRUE(isFolder(otherImage()));
    EXPECT_TRUE(namesIn(otherImage()).empty());

    ASSERT_EQ(runStatus({"mv", inMount("/Storage"), inMount("/Apps/Notes/Storage")}), 0);
    EXPECT_EQ(readLocal(appImage() + "/Storage/a.txt"), "bee");
    EXPECT_EQ(readLocal(appImage() + "/Storage/backup/Notes/over.txt"), big);
    EXPECT_EQ(readLocal(appImage() + "/Storage/unlisted/u.txt"), "you");
    EXPECT_TRUE(isFolder(storageImage()));
    EXPECT_TRUE(namesIn(storageImage()).empty());
    EXPECT_TRUE(namesIn(inMount("/Storage")).empty());
    EXPECT_EQ(readLocal(inMount("/Apps/Notes/Storage/backup/Other/dir/inner/two.txt")), "two");

    // Real programs that write temporaries and rename them into place, in
    // the Storage emptied above: rsync copies a tree in and back, git makes,
    // commits to and clones repositories.
    for (const char *program : {"rsync", "git"})
        if (!haveProgram(program)) GTEST_SKIP() << program << " is not installed (package " << program << ")";
    std::string tree = tempDir + "/tree";
    makeTree(tree);
    std::string output;
    ASSERT_EQ(run_program({"rsync", "-a", tree + "/", inMount("/Storage/synced/")}, &output), 0) << output;
    ASSERT_EQ(run_program({"diff", "-r", tree, storageImage() + "/synced"}, &output), 0) << output;
    ASSERT_EQ(run_program({"rsync", "-a", inMount("/Storage/synced/"), tempDir + "/back/"}, &output), 0) << output;
    EXPECT_EQ(run_program({"diff", "-r", tree, tempDir + "/back"}, &output), 0) << output;
    // A second run over changed files renames over what is there.
    writeLocal(tree + "/d2/f3.bin", "changed");
    ASSERT_EQ(run_program({"rsync", "-a", tree + "/", inMount("/Storage/synced/")}, &output), 0) << output;
    EXPECT_EQ(readLocal(storageImage() + "/synced/d2/f3.bin"), "changed");
    EXPECT_EQ(run_program({"diff", "-r", tree, inMount("/Storage/synced")}, &output), 0) << output;

    // git run in `folder`: what it printed; a failure fails the test.
    auto git = [&](const std::string &folder, const std::vector<std::string> &args) {
        std::vector<std::string> argv = {"git", "-c", "user.name=Quorvel Test", "-c", "user.email=test@example.com",
                                         "-c", "init.defaultBranch=main", "-C", folder};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string printed;
        EXPECT_EQ(run_program(argv, &printed), 0) << folder << ": " << printed;
        return printed;
    };

    // A repository made and committed to in Storage.
    std::string repo = inMount("/Storage/repo");
    git(inMount("/Storage"), {"init", "-q", "repo"});
    for (int commit = 0; commit < 3; ++commit) {
        writeLocal(repo + "/file" + std::to_string(commit) + ".txt", "commit " + std::to_string(commit) + "\n");
        writeLocal(repo + "/changing.txt", "version " + std::to_string(commit) + "\n");
        git(repo, {"add", "-A"});
        git(repo, {"commit", "-q", "-m", "commit " + std::to_string(commit)});
    }
    git(repo, {"fsck", "--full"});
    EXPECT_EQ(git(repo, {"status", "--porcelain"}), "");
    EXPECT_EQ(git(repo, {"rev-list", "--count", "HEAD"}), "3\n");

    // A local repository cloned into Storage.
    std::string source = tempDir + "/source";
    git(tempDir, {"init", "-q", "source"});
    makeTree(source + "/tree");
    git(source, {"add", "-A"});
    git(source, {"commit", "-q", "-m", "tree"});
    git(tempDir, {"clone", "-q", "--no-local", source, inMount("/Storage/clone")});
    git(inMount("/Storage/clone"), {"fsck", "--full"});
    EXPECT_EQ(git(inMount("/Storage/clone"), {"status", "--porcelain"}), "");
    EXPECT_EQ(run_program({"diff", "-r", source + "/tree", storageImage() + "/clone/tree"}, &output), 0) << output;

    // Mounted again, both are still repositories: their ".git" folders are
    // ordinary names here, listed and read like any.
    writeLocal(inMount("/Storage/repo/.env"), "SECRET=kept\n");
    ASSERT_EQ(unmountDevice(), 0);
    mountFresh();
    EXPECT_EQ(readLocal(inMount("/Storage/repo/.env")), "SECRET=kept\n");
    for (const std::string &again : {repo, inMount("/Storage/clone")}) {
        git(again, {"fsck", "--full"});
        EXPECT_EQ(git(again, {"status", "--porcelain"}), again == repo ? "?? .env\n" : "") << again;
    }
    EXPECT_EQ(git(repo, {"rev-list", "--count", "HEAD"}), "3\n");
    EXPECT_TRUE(dialogs.dialogs().empty());
}

// Safe saves replace the original with exactly the new bytes, and nothing
// written stays only in the work folder: not at a close, not at a second
// mount's unmount, not at the unmount.
TEST_F(RenameTest, SafeSavesReplaceTheOriginalAndNothingWrittenStaysOnlyInTheWorkFolder) {
    DevsimImage phone = image(kSafeSaveLocation);
    phone.files.push_back({"media/general_storage/report.txt", "the report"});
    phone.folders.push_back("media/general_storage/music");
    ASSERT_TRUE(startDevice({phone}));
    mountFresh();

    // A temporary written beside the file and renamed over it.
    std::string fresh = randomBytes(200000, 9);
    writeLocal(inMount("/Storage/a.txt.tmp"), fresh);
    expectMoved("/Storage/a.txt.tmp", "/Storage/a.txt", "", fresh);

    // A ".sb-" safe save, in Storage and in an app: its data waits in the
    // work folder, then goes to the device under its own name at its close,
    // and the rename replaces the original in one step.
    const std::string saved = "saved through a staging file\n";
    for (const std::string original : {"/Storage/b.txt", "/Apps/Notes/over.txt"}) {
        const size_t slash = original.rfind('/');
        const std::string temporary = original.substr(0, slash + 1) + safeSaveTemporary(original.substr(slash + 1));
        const std::string before = readLocal(onDevice(original));
        writeLocal(inMount(temporary), saved);
        EXPECT_EQ(readLocal(onDevice(temporary)), saved) << "on the device at its close";
        EXPECT_EQ(readLocal(onDevice(original)), before) << "the original untouched until the rename";
        expectMoved(temporary, original, "", saved);
        EXPECT_FALSE(exists(workFolder() + "/staging" + temporary)) << "no staging file left behind";
    }

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
    const std::string report = safeSaveTemporary("report.txt");
    int fd = open(inMount("/Storage/" + report).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << strerror(errno);
    ASSERT_EQ(write(fd, "a first and longer draft", 24), 24);
    EXPECT_EQ(readLocal(workFolder() + "/staging/Storage/" + report), "a first and longer draft");
    EXPECT_EQ(readLocal(storageImage() + "/" + report), "") << "staged, not yet on the device";
    int again = open(inMount("/Storage/" + report).c_str(), O_WRONLY | O_TRUNC);
    ASSERT_GE(again, 0) << strerror(errno);
    ASSERT_EQ(write(again, "final", 5), 5);
    close(again);
    close(fd);
    EXPECT_EQ(readLocal(storageImage() + "/" + report), "final") << "on the device at its last close";
    // And the same once the first content is on the device.
    writeLocal(inMount("/Storage/" + report), "second");
    expectMoved("/Storage/" + report, "/Storage/report.txt", "", "second");

    // A program of its own stages a temporary through this mount and keeps
    // it open (a descriptor of this process would be closed, and so flushed,
    // by every program started meanwhile). It writes through its standard
    // output only: every other descriptor of the file it closed (as a
    // redirection does) would flush it.
    const std::string held = safeSaveTemporary("keep.txt");
    const std::string staged = workFolder() + "/staging/Storage/" + held;
    pid_t holder = startProgram({"/bin/sh", "-c", "exec >\"$0\" && printf 'staged by the first mount' && exec sleep 600",
                                 inMount("/Storage/" + held)},
                                tempDir + "/holder.out");
    ASSERT_GT(holder, 0);
    EXPECT_TRUE(eventually([&] { return !readLocal(staged).empty(); }));
    EXPECT_EQ(readLocal(staged), "staged by the first mount");
    // A second mount of the same device comes and goes.
    QuorvelMount second;
    second.mountPoint = tempDir + "/mnt2";
    second.logDir = tempDir + "/log2";
    second.extraEnvironment = mount.extraEnvironment;
    mkdir(second.mountPoint.c_str(), 0755);
    mkdir(second.logDir.c_str(), 0700);
    EXPECT_TRUE(second.start(location));
    EXPECT_EQ(readLocal(second.mountPoint + "/Storage/keep.txt"), "keep me");
    EXPECT_EQ(second.stop(), 0);
    // Its unmount took nothing of the first mount's: the temporary reaches
    // the device whole when its program closes it.
    EXPECT_EQ(readLocal(staged), "staged by the first mount");
    kill(holder, SIGTERM);
    waitpid(holder, nullptr, 0);
    EXPECT_EQ(readLocal(storageImage() + "/" + held), "staged by the first mount");

    // A temporary never renamed is on the device after the unmount.
    const std::string abandoned = "/" + safeSaveTemporary("a.txt");
    ASSERT_TRUE(writeLocal(inMount("/Storage" + abandoned), "never renamed"));
    EXPECT_EQ(unmountDevice(), 0);
    EXPECT_EQ(readLocal(storageImage() + abandoned), "never renamed");
    EXPECT_EQ(readLocal(storageImage() + "/a.txt"), fresh);
    EXPECT_TRUE(dialogs.dialogs().empty());
}

// Folders and files made and removed, open ones kept usable; then the
// refusals and device failures, each checked before the next is provoked:
// the notice or error, and nothing changed, or after moves cut short every
// file whole on one side.
TEST_F(RenameTest, FoldersAndFilesAreMadeAndRemovedAndRefusalsAndFailuresChangeNothing) {
    DevsimImage phone = image(kFaultsLocation);
    phone.files.push_back({"media/general_storage/stay.txt", "stay"});
    phone.files.push_back({"apps/com.example.notes/Documents/large.bin", randomBytes(3000001, 9)});
    std::vector<std::string> contents;
    for (int i = 0; i < 20; ++i) {
        contents.push_back(randomBytes(100000, 200 + static_cast<unsigned>(i)));
        phone.files.push_back({"media/general_storage/many/f" + std::to_string(10 + i) + ".bin", contents.back()});
    }
    for (const char *name : {"/withhidden/a.txt", "/withhidden/.hidden"})
        phone.files.push_back({std::string("media/general_storage") + name, name});
    ASSERT_TRUE(startDevice({phone}));
    std::string udid = sim.udid(0);
    mountFresh();
    auto remount = [&] {
        ASSERT_EQ(sim.control("clear " + udid), "ok");
        ASSERT_EQ(unmountDevice(), 0);
        mountFresh();
    };

    // A folder never listed is listed first: not empty.
    EXPECT_EQ(errnoOf(rmdir(inMount("/Apps/Notes/in").c_str())), ENOTEMPTY);

    // mkdir -p in Storage and inside an app.
    for (const std::string made : {"/Storage/new/deeper/deepest", "/Apps/Notes/made/inner"}) {
        ASSERT_EQ(runStatus({"mkdir", "-p", inMount(made)}), 0);
        EXPECT_TRUE(isFolder(onDevice(made))) << made;
        EXPECT_TRUE(isFolder(inMount(made))) << made;
        EXPECT_TRUE(namesIn(inMount(made)).empty()) << made;
    }
    EXPECT_EQ(namesIn(inMount("/Storage")).back(), "new") << "a new folder is listed last";
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
    for (const std::string file : {"/Storage/keep.txt", "/Apps/Notes/in/n.txt"}) {
        int fd = open(inMount(file).c_str(), O_RDONLY);
        ASSERT_GE(fd, 0) << file;
        ASSERT_EQ(unlink(inMount(file).c_str()), 0) << strerror(errno);
        EXPECT_FALSE(exists(onDevice(file))) << "removed on the device at once";
        size_t slash = file.rfind('/');
        EXPECT_FALSE(listed(inMount(file.substr(0, slash)), file.substr(slash + 1)));
        EXPECT_EQ(statError(inMount(file)), ENOENT);
        // The open handle still reads what the file held. (fstat is asked
        // by path, which libfuse no longer has: it answers ESTALE.)
        char buffer[16] = {0};
        ssize_t got = pread(fd, buffer, sizeof(buffer), 0);
        EXPECT_GT(got, 0) << file;
        // A new file may take the name while the old one is still open.
        std::ofstream(inMount(file)) << "newer";
        EXPECT_TRUE(exists(onDevice(file)));
        EXPECT_EQ(close(fd), 0);
        struct stat fresh;
        ASSERT_EQ(stat(inMount(file).c_str(), &fresh), 0) << "closing the old handle leaves the new file alone";
        EXPECT_EQ(fresh.st_size, 5);
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

    // Files open while renamed or moved stay usable through their handles.
    // Renamed within Storage, with its folder: the handle writes on.
    EXPECT_EQ(namesIn(inMount("/Storage/dir/inner")), std::vector<std::string>{"two.txt"});
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
    EXPECT_EQ(st.st_size, 5);
    EXPECT_EQ(st.st_nlink, 0u);
    memset(buffer, 0, sizeof(buffer));
    EXPECT_EQ(pread(fd, buffer, sizeof(buffer), 0), 5);
    EXPECT_STREQ(buffer, "newer");
    EXPECT_EQ(lseek(fd, 0, SEEK_END), 5);
    int removed = open(inMount("/Storage/keep.txt").c_str(), O_RDONLY);
    ASSERT_GE(removed, 0) << strerror(errno);
    ASSERT_EQ(unlink(inMount("/Storage/keep.txt").c_str()), 0) << strerror(errno);
    EXPECT_FALSE(exists(storageImage() + "/keep.txt"));
    ASSERT_EQ(fstat(removed, &st), 0) << strerror(errno);
    EXPECT_EQ(st.st_size, 3);
    EXPECT_EQ(close(removed), 0);
    EXPECT_EQ(close(fd), 0);
    for (const std::string &name : namesIn(storageImage()))
        EXPECT_EQ(name.find(".fuse_hidden"), std::string::npos) << name;
    EXPECT_EQ(sorted(namesIn(inMount("/Storage"))), sorted(namesIn(storageImage())));
    EXPECT_TRUE(dialogs.dialogs().empty());
    size_t seen = 0;

    // Renames, folders made and folders removed out of their place: the
    // notice reaches the user and nothing changes. (RenameUnitTest and
    // NamespaceUnitTest pin every row's text and log line.)
    const struct {
        const char *from, *to, *dialog;
    } renames[] = {
        {"/Storage/stay.txt", "/Apps/stay.txt", "This folder is read only. You can not write or modify.\n/Apps"},
        {"/Storage", "/Store", "You can not rename this folder.\n/Storage"},
        {"/Apps/Notes", "/Apps/Notes2", "You can not rename this folder.\n/Apps/Notes"},
        {"/Media/Music", "/Media/Songs", "You can not rename this folder.\n/Media/Music"},
    };
    for (const auto &refused : renames) {
        EXPECT_EQ(renameError(inMount(refused.from), inMount(refused.to)), ECANCELED) << refused.from;
        expectDialog(&seen, refused.dialog, "notification");
    }
    EXPECT_EQ(errnoOf(mkdir(inMount("/Apps/NewApp").c_str(), 0755)), ECANCELED);
    expectDialog(&seen, "This folder is read only. You can not write or modify.\n/Apps", "notification");
    EXPECT_EQ(errnoOf(rmdir(inMount("/Apps/Notes").c_str())), ECANCELED);
    expectDialog(&seen, "You can not remove this folder.\n/Apps/Notes", "notification");
    EXPECT_TRUE(exists(storageImage() + "/stay.txt"));
    EXPECT_TRUE(isFolder(inMount("/Apps/Notes")));
    EXPECT_TRUE(isFolder(appImage()));

    // A folder whose contents are catalogued is not empty: no dialog, and
    // once the contents are gone it goes too.
    EXPECT_TRUE(listed(inMount("/Storage/full"), "x.txt"));
    EXPECT_EQ(errnoOf(rmdir(inMount("/Storage/full").c_str())), ENOTEMPTY);
    EXPECT_TRUE(exists(storageImage() + "/full/x.txt"));
    ASSERT_EQ(unlink(inMount("/Storage/full/x.txt").c_str()), 0);
    ASSERT_EQ(rmdir(inMount("/Storage/full").c_str()), 0);
    EXPECT_FALSE(exists(storageImage() + "/full"));
    // Names that are not there.
    EXPECT_EQ(errnoOf(rmdir(inMount("/Storage/nothing").c_str())), ENOENT);
    EXPECT_EQ(errnoOf(unlink(inMount("/Storage/nothing.txt").c_str())), ENOENT);
    EXPECT_EQ(dialogs.dialogs().size(), seen);

    // A request the device fails: its error shown and logged, the source
    // whole, and the target, its folder and the catalogue as they were (no
    // hidden partial copy of a move either, its removal going through a
    // fresh connection). Removals and folders made name one path.
    struct Failure {
        std::string fault, from, to, dialog;
        int (*request)(const char *from, const char *to);
        const char *log;
        bool remountAfter;
    };
    auto failed = [&](const Failure &row) {
        SCOPED_TRACE(row.fault + ": " + row.from + " -> " + row.to);
        const std::string source = onDevice(row.from), target = onDevice(row.to);
        const std::string folder = target.substr(0, target.rfind('/'));
        auto held = [](const std::string &path) { return isFolder(path) ? "(a folder)" : readLocal(path); };
        const std::string whole = held(source), was = held(target);
        const bool wasSource = exists(source), there = exists(target);
        const std::vector<std::string> names = sorted(namesIn(folder));
        ASSERT_EQ(sim.control(row.fault), "ok");
        EXPECT_EQ(errnoOf(row.request(inMount(row.from).c_str(), inMount(row.to).c_str())), ECANCELED);
        expectDialog(&seen, row.dialog, "error");
        EXPECT_EQ(row.log == nullptr ? 1 : mount.countLog(row.log), 1);
        EXPECT_EQ(held(source), whole);
        EXPECT_EQ(exists(source), wasSource);
        EXPECT_EQ(exists(target), there);
        EXPECT_EQ(held(target), was);
        EXPECT_EQ(sorted(namesIn(folder)), names);
        EXPECT_EQ(statError(inMount(row.from)), wasSource ? 0 : ENOENT);
        EXPECT_EQ(statError(inMount(row.to)), there ? 0 : ENOENT);
        EXPECT_EQ(sorted(namesIn(inMount(row.to.substr(0, row.to.rfind('/'))))), names);
        if (row.remountAfter) {
            remount();
        } else {
            ASSERT_EQ(sim.control("clear " + udid), "ok");
        }
    };
    const auto removeFile = +[](const char *path, const char *) { return unlink(path); };
    const auto makeFolder = +[](const char *path, const char *) { return mkdir(path, 0755); };
    const auto removeFolder = +[](const char *path, const char *) { return rmdir(path); };
    // Refusals of a removal, a folder made and a folder removed; of a
    // rename in Storage and one inside an app (which logs in its own words;
    // RenameUnitTest pins the Storage one's line); the connection gone; a
    // move between areas whose copy is refused, cut short in the middle of
    // the copy into an app and out of one (that copy goes through the
    // mount's own connection, which the drop takes with it), out of room;
    // last the connection gone while the device stays attached.
    const std::string refused = "Could not rename or move the contents.\nError Code : ", afc = "afc-error " + udid;
    const std::string lost = "Lost USB connection.\nRenaming or moving aborted.", full = "Not enough space on device.";
    const std::string cut = "drop-after-bytes " + udid + " 1048576", stay = "/Storage/stay.txt";
    EXPECT_TRUE(namesIn(inMount("/Storage/tree")).empty());  // listed before its fault
    const Failure failures[] = {
        {afc + " /general_storage/stay.txt permission-denied", stay, stay, "Could not remove a file.\nError Code : -3",
         removeFile, "UnlinkStorageContents libiusb_afc_file_remove failed. path(/general_storage/stay.txt). ret : -3",
         false},
        {afc + " /general_storage/blocked permission-denied", "/Storage/blocked", "/Storage/blocked",
         "Could not make a directory.\nError Code : -3", makeFolder,
         "tarnifs_mkdir libiusb_afc_make_directory failed. path(/general_storage/blocked), error : -3", false},
        {afc + " /general_storage/tree permission-denied", "/Storage/tree", "/Storage/tree",
         "Could not remove a Directory.\nError Code : -3", removeFolder,
         "tarnifs_rmdir libiusb_afc_file_remove failed. path(/general_storage/tree). error : -3", false},
        {afc + " /general_storage/stay.txt permission-denied", stay, "/Storage/k2.txt", refused + "-3", rename, nullptr,
         false},
        {afc + " /Documents/n.txt permission-denied", "/Apps/Notes/n.txt", "/Apps/Notes/n2.txt", refused + "-3", rename,
         "movetoapps libiusb_afc_rename filed, from(/Documents/n.txt), to(/Documents/n2.txt), ret : -3", false},
        {"drop-now " + udid, stay, "/Storage/big.bin", lost, rename, nullptr, true},
        {afc + " *.quorvel-move io-error", "/Storage/big.bin", "/Apps/Notes/big.bin", refused + "*", rename, nullptr,
         false},
        {cut, "/Storage/big.bin", "/Apps/Notes/big.bin", lost, rename, nullptr, true},
        {cut, "/Apps/Notes/large.bin", "/Storage/large.bin", lost, rename, nullptr, true},
        {afc + " *.quorvel-move no-space write", "/Storage/big.bin", "/Apps/Notes/big.bin", full, rename, nullptr,
         false},
        {"drop-now " + udid, stay, stay, "Lost USB connection.\nFile remove aborted.", removeFile,
         "UnlinkStorageContents libiusb_afc_file_remove failed. path(/general_storage/stay.txt). ret : -32", false},
    };
    for (const Failure &row : failures) failed(row);
    // The device is still attached: the next request opens the connection again.
    EXPECT_EQ(mkdir(inMount("/Storage/later").c_str(), 0755), 0) << strerror(errno);
    EXPECT_TRUE(isFolder(storageImage() + "/later"));

    // A file already gone on the device is removed without a dialog.
    ASSERT_EQ(unlink((storageImage() + "/stay.txt").c_str()), 0);
    ASSERT_EQ(unlink((appImage() + "/gone.txt").c_str()), 0);
    EXPECT_EQ(unlink(inMount("/Storage/stay.txt").c_str()), 0) << strerror(errno);
    EXPECT_EQ(unlink(inMount("/Apps/Notes/gone.txt").c_str()), 0) << strerror(errno);
    EXPECT_EQ(mount.countLog("UnlinkStorageContents libiusb_afc_file_remove return LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND"),
              1);
    EXPECT_EQ(statError(inMount("/Storage/stay.txt")), ENOENT);
    EXPECT_FALSE(listed(inMount("/Apps/Notes"), "gone.txt"));

    // A folder move cut short about a megabyte in: every file ends whole at
    // its source or whole at its target, never half in both.
    ASSERT_EQ(sim.control("drop-after-bytes " + udid + " 1000000"), "ok");
    EXPECT_EQ(renameError(inMount("/Storage/many"), inMount("/Apps/Notes/many")), ECANCELED);
    expectDialog(&seen, lost, "error");
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
    remount();
    // A dot name travels with its folder like any name, and the folder goes.
    expectMoved("/Storage/withhidden", "/Apps/Notes/withhidden", "/.hidden", "/withhidden/.hidden");
    EXPECT_EQ(readLocal(appImage() + "/withhidden/a.txt"), "/withhidden/a.txt");

    // A source the device will not remove once its copy is whole and in
    // place stays where it was, on the device and through the mount: the
    // move has succeeded, and the routine that moved it logs the removal in
    // its own words (the whole line, or its start and end).
    const struct {
        const char *devicePath, *from, *to, *log, *end;
    } kept[] = {
        {"/general_storage/big.bin", "/Storage/big.bin", "/Apps/Notes/big.bin",
         "movetoapps libiusb_afc_file_remove failed, ret : -3", ""},
        {"/Documents/n.txt", "/Apps/Notes/n.txt", "/Storage/n.txt",
         "movetostorage  libiusb_afc_file_remove failed, ret : -3, hhandle : 0x", ", path : /Documents/n.txt"},
        {"/Documents/over.txt", "/Apps/Notes/over.txt", "/Apps/Other/over.txt",
         "movetoapps libiusb_afc_file_remove failed. path(/Documents/over.txt), error : -3", ""},
    };
    for (const auto &row : kept) {
        SCOPED_TRACE(row.from);
        const std::string bytes = readLocal(onDevice(row.from));
        ASSERT_EQ(sim.control(afc + " " + row.devicePath + " permission-denied remove"), "ok");
        EXPECT_EQ(runStatus({"mv", inMount(row.from), inMount(row.to)}), 0);
        EXPECT_EQ(readLocal(onDevice(row.to)), bytes);
        EXPECT_EQ(readLocal(inMount(row.to)), bytes);
        EXPECT_EQ(*row.end ? mount.countLogStarting(row.log) : mount.countLog(row.log), 1);
        std::string line = "(not logged)";
        for (const std::string &logged : mount.logMessages())
            if (logged.rfind(row.log, 0) == 0) line = logged;
        const size_t end = strlen(row.end);
        EXPECT_TRUE(line.size() >= end && line.compare(line.size() - end, end, row.end) == 0) << line;
        EXPECT_EQ(readLocal(onDevice(row.from)), bytes);
        EXPECT_EQ(readLocal(inMount(row.from)), bytes);
    }

    // No room for the copy: refused before anything is written (the
    // capacity is read when mounting; "clear" leaves it).
    ASSERT_EQ(sim.control("capacity " + udid + " 3500000"), "ok");
    remount();
    failed({"clear " + udid, "/Storage/big.bin", "/Apps/Notes/big2.bin", full, rename, nullptr, false});
    EXPECT_EQ(dialogs.dialogs().size(), seen);
}

// With allow_other every local user sees the volume; only the mounting user
// may change it, unless that user opens it up with umask=000.
TEST_F(RenameTest, OtherUsersMayReadButNotChangeAVolumeSharedWithAllowOther) {
    if (geteuid() != 0) GTEST_SKIP() << "acting as another user (uid 65534) needs root";
    ASSERT_TRUE(startDevice({image(kSharedLocation)}));
    // The other user must be able to reach the mount point.
    ASSERT_EQ(chmod(tempDir.c_str(), 0711), 0);
    ASSERT_TRUE(mount.start(kSharedLocation, {"-o", "allow_other"}));
    const std::string before = tempDir + "/image-before";
    ASSERT_EQ(runStatus({"cp", "-a", sim.image_dir(0), before}), 0);

    // The mounting user owns everything; others may read.
    struct stat st;
    ASSERT_EQ(stat(inMount("/Storage/keep.txt").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, geteuid());
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    ASSERT_EQ(stat(inMount("/Storage").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0755u);

    // Each command and what it must print: the bytes read, or the refusal.
    const std::string keep = inMount("/Storage/keep.txt"), denied = "Permission denied";
    const std::pair<std::string, std::string> steps[] = {
        {"cat " + keep, "keep me"},
        {"cat " + inMount("/Apps/Notes/in/n.txt"), "note"},
        {"ls " + inMount("/Storage") + " | grep -x keep.txt", "keep.txt\n"},
        {"set -C; echo theirs > " + inMount("/Storage/theirs.txt"), denied},
        {"set -C; echo theirs > " + inMount("/Apps/Notes/theirs.txt"), denied},
        {"truncate -s 0 " + keep, denied},
        {": >> " + keep, denied},
        {"rm " + keep, denied},
        {"rm " + inMount("/Apps/Notes/gone.txt"), denied},
        {"mv " + keep + " " + inMount("/Storage/moved.txt"), denied},
        {"mv " + keep + " " + inMount("/Apps/Notes/moved.txt"), denied},
        {"mkdir " + inMount("/Storage/made"), denied},
        {"rmdir " + inMount("/Storage/empty"), denied},
    };
    for (const auto &step : steps) {
        std::string output = asOtherUser(step.first);
        EXPECT_NE(output.find(step.second), std::string::npos) << step.first << ": " << output;
    }
    std::string output;
    for (const char *area : {"/media", "/apps"})
        EXPECT_EQ(run_program({"diff", "-r", before + area, sim.image_dir(0) + area}, &output), 0) << output;
    EXPECT_TRUE(dialogs.dialogs().empty());
    ASSERT_EQ(unmountDevice(), 0);

    // The mounting user opens it up: the other user may write.
    ASSERT_TRUE(mount.start(kSharedLocation, {"-o", "allow_other,umask=000"}));
    EXPECT_EQ(asOtherUser("echo theirs > " + inMount("/Storage/theirs.txt") + " && mv " + keep + " " +
                          inMount("/Storage/moved.txt")),
              "");
    EXPECT_EQ(readLocal(storageImage() + "/theirs.txt"), "theirs\n");
    EXPECT_EQ(readLocal(storageImage() + "/moved.txt"), "keep me");
    EXPECT_EQ(unmountDevice(), 0);
}

} // namespace
