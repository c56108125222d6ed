// mkdir, rmdir and unlink called directly, without a device: the refusals
// and answers that never reach one, and the record of a file removed while
// open, which must outlive every handle that points at it. Then what every
// handler does without a mount context, and the one lock they all hold.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "tarnifs/catalogue.h"
#include "tarnifs/filedata.h"
#include "tarnifs/listing.h"
#include "tarnifs/names.h"
#include "tarnifs/namespace.h"
#include "tarnifs/notify.h"
#include "tests/support/catalogue_fixture.h"

namespace {

class NamespaceUnitTest : public MountContextTest {
protected:
    void SetUp() override {
        MountContextTest::SetUp();
        drainQueue();
        context.device_info.free_capacity = 1000;
        for (const char *path : {"/", "/Storage", "/Apps", "/Media", "/Media/Music", "/Apps/Notes", "/Storage/full"})
            folder(path);
        EditExtras(FindObject("/Apps/Notes")).app_id = CopyString("com.example.notes");
        file("/Storage/full/x.txt", 10);
        noDialog();
    }
    void TearDown() override {
        drainQueue();
        MountContextTest::TearDown();
    }
};

TEST_F(NamespaceUnitTest, MakingOrRemovingOutsideTheWritablePlacesIsRefusedAndHousekeepingFoldersAreNotThere) {
    for (const auto &refused : {std::make_pair("/Media/Music/x", "/Media/Music"), std::make_pair("/Apps/NewApp", "/Apps"),
                                std::make_pair("/Media", "/"), std::make_pair("/newtop", "/"),
                                std::make_pair("/Storage", "/"), std::make_pair("/Storagex", "/")}) {
        noDialog();
        EXPECT_EQ(tarnifs_mkdir(refused.first, 0755), -ECANCELED) << refused.first;
        EXPECT_EQ(dialogText(), std::string("This folder is read only. You can not write or modify.\n") + refused.second);
        EXPECT_EQ(dialogTitle(), "Quorvel Notification");
        EXPECT_TRUE(logContains(std::string("tarnifs_mkdir make directory not supported. path : ") + refused.first));
    }
    EXPECT_EQ(FindObject("/Media/Music/x"), nullptr);
    EXPECT_EQ(FindObject("/Apps/NewApp"), nullptr);
    EXPECT_EQ(FindObject("/newtop"), nullptr);

    for (const char *path : {"/Storage", "/Apps", "/Apps/Notes", "/Media", "/Media/Music", "/", "/Storagex"}) {
        noDialog();
        EXPECT_EQ(tarnifs_rmdir(path), -ECANCELED) << path;
        EXPECT_EQ(dialogText(), std::string("You can not remove this folder.\n") + path);
        EXPECT_EQ(dialogTitle(), "Quorvel Notification");
        EXPECT_TRUE(logContains(std::string("tarnifs_rmdir rmdir not supported. path : ") + path + " "));
    }
    EXPECT_NE(FindObject("/Apps/Notes"), nullptr);
    EXPECT_NE(FindObject("/Storage"), nullptr);

    file("/Media/Music/song.mp3", 5);
    for (const char *path : {"/Media/Music/song.mp3", "/top.txt", "/Apps/Notes", "/Apps/loose.txt"}) {
        noDialog();
        EXPECT_EQ(tarnifs_unlink(path), -ECANCELED) << path;
        EXPECT_EQ(dialogText(), std::string("You can not remove this file.\n") + path);
        EXPECT_EQ(dialogTitle(), "Quorvel Notification");
        EXPECT_TRUE(logContains(std::string("tarnifs_unlink unlink not supported. path : ") + path));
    }
    EXPECT_TRUE(logContains("UnlinkAppsContents unlink not supported. path : /Apps/Notes "));
    EXPECT_NE(FindObject("/Media/Music/song.mp3"), nullptr);
    EXPECT_EQ(UnlinkAppsContents(&context, "/Apps/Notes"), 1);

    // Housekeeping folders are not there, and nothing is shown.
    noDialog();
    for (const char *path : {"/.Trashes", "/.TemporaryItems", "/.fseventsd"})
        EXPECT_EQ(tarnifs_mkdir(path, 0755), -ENOENT) << path;
    for (const char *path : {"/.Trashes", "/.TemporaryItems"}) EXPECT_EQ(tarnifs_rmdir(path), -ENOENT) << path;
    EXPECT_EQ(dialogText(), "");
    // rmdir knows only two of them: the third is an ordinary refusal.
    EXPECT_EQ(tarnifs_rmdir("/.fseventsd"), -ECANCELED);
    EXPECT_EQ(dialogText(), "You can not remove this folder.\n/.fseventsd");
}

TEST_F(NamespaceUnitTest, AFolderWithCataloguedChildrenIsNotEmptyAndUnknownPathsAreDoneAlready) {
    EXPECT_EQ(tarnifs_rmdir("/Storage/full"), -ENOTEMPTY);
    EXPECT_EQ(dialogText(), "") << "no dialog for a folder that is not empty";
    EXPECT_NE(FindObject("/Storage/full/x.txt"), nullptr);
    folder("/Apps/Notes/in");
    EditExtras(FindObject("/Apps/Notes/in")).app_id = CopyString("com.example.notes");
    file("/Apps/Notes/in/n.txt", 3);
    EXPECT_EQ(tarnifs_rmdir("/Apps/Notes/in"), -ENOTEMPTY);

    // Nothing in the catalogue: nothing is asked of the device (there is none here).
    EXPECT_EQ(tarnifs_rmdir("/Storage/full/nothing"), 0);
    EXPECT_EQ(tarnifs_unlink("/Storage/full/nothing.txt"), 0);
    EXPECT_TRUE(logContains("UnlinkStorageContents Target not exitst! path(/Storage/full/nothing.txt)"));
    EXPECT_EQ(tarnifs_unlink("/Apps/Notes/in/nothing.txt"), 0);
    EXPECT_TRUE(logContains("UnlinkAppsContents Target not exitst! path(/Apps/Notes/in/nothing.txt)"));
    EXPECT_EQ(dialogText(), "");
    EXPECT_EQ(context.device_info.free_capacity, 1000u);
    // A folder with nothing in it has nothing to clean.
    EXPECT_EQ(CleanupSubFiles(&context, "/Apps/Notes", folder("/Apps/Notes/empty")), 0);
}

TEST_F(NamespaceUnitTest, AFileRemovedWhileOpenLivesUntilItsLastHandleIsReleased) {
    _KTL_OBJECT *open = file("/Storage/full/open.txt", 42);
    EditExtras(open).open_count = 2;
    struct fuse_file_info first {}, second {};
    first.fh = second.fh = reinterpret_cast<uint64_t>(open);
    // What a successful device removal of an open file leaves.
    KeepUntilLastRelease(open, "/Storage/full/open.txt");
    EXPECT_EQ(FindObject("/Storage/full/open.txt"), nullptr) << "the name is free";
    auto entry = Object_list.find("/Storage/full/open.txt");
    EXPECT_TRUE(entry == Object_list.end() || entry->second == 0) << "a missed lookup may leave an empty entry";
    _KTL_OBJECT *full = FindObject("/Storage/full");
    EXPECT_EQ(full->child_list.next, &FindObject("/Storage/full/x.txt")->sibling);
    EXPECT_EQ(full->child_list.next->next, &full->child_list) << "no longer listed";

    // A new file under the same name is another record.
    _KTL_OBJECT *fresh = file("/Storage/full/open.txt", 1);
    EXPECT_NE(fresh, open);

    // libfuse gives the old handles a null path; they still reach their file.
    std::string path;
    EXPECT_EQ(RemovedOpenObject(first.fh, &path), open);
    EXPECT_EQ(path, "/Storage/full/open.txt");
    EXPECT_EQ(RemovedOpenObject(reinterpret_cast<uint64_t>(fresh), nullptr), nullptr);
    struct stat st;
    ASSERT_EQ(tarnifs_fgetattr(nullptr, &st, &first), 0);
    EXPECT_EQ(st.st_size, 42);
    EXPECT_EQ(st.st_nlink, 0u);

    EXPECT_EQ(tarnifs_release(nullptr, &first), 0);
    EXPECT_EQ(RemovedOpenObject(second.fh, nullptr), open) << "one handle is still open";
    EXPECT_EQ(tarnifs_release(nullptr, &second), 0);
    EXPECT_EQ(RemovedOpenObject(second.fh, nullptr), nullptr) << "freed with the last release";
    EXPECT_EQ(Extras(fresh).open_count, 0u) << "the new file was never touched";
    EXPECT_EQ(fresh->size, 1u);
    // A handle the catalogue does not know is answered, never followed.
    struct fuse_file_info stranger {};
    stranger.fh = 0x1234;
    EXPECT_EQ(tarnifs_release(nullptr, &stranger), 0);
    EXPECT_EQ(tarnifs_fgetattr(nullptr, &st, &stranger), -ENOENT);
    char buffer[4];
    EXPECT_EQ(tarnifs_read(nullptr, buffer, sizeof(buffer), 0, &stranger), -ECANCELED);

    // One still open at unmount is freed with the catalogue.
    _KTL_OBJECT *left = file("/Storage/full/left-open.txt", 1);
    EditExtras(left).open_count = 1;
    KeepUntilLastRelease(left, "/Storage/full/left-open.txt");
    FreeAllObjects(nullptr);  // the sanitizer build reports a leak otherwise
    EXPECT_EQ(RemovedOpenObject(reinterpret_cast<uint64_t>(left), nullptr), nullptr);
}

// A mount whose start-up could not reach the device has no context and no
// name buffer (start-up freed it). Every operation of the table must then
// answer the missing-context error without touching the catalogue: reaching
// it would write through the freed buffer and end the process.
int countEntries(void *buffer, const char *, const struct stat *, off_t, enum fuse_fill_dir_flags) {
    ++*static_cast<int *>(buffer);
    return 0;
}

class MissingContextTest : public MountContextTest {
protected:
    void SetUp() override {
        MountContextTest::SetUp();
        GetObjectWithFileName("/Storage/kept.txt")->size = 5;
        // What a failed start-up leaves: no context, the name buffer gone.
        fuse.private_data = nullptr;
        savedBuffer = gEncodedPath;
        gEncodedPath = nullptr;
    }
    void TearDown() override {
        gEncodedPath = savedBuffer;
        MountContextTest::TearDown();
    }
    char *savedBuffer = nullptr;
};

TEST_F(MissingContextTest, EveryOperationAnswersTheMissingContextErrorAndTouchesNothing) {
    const int missing = -ENOSYS;
    const char *path = "/Storage/kept.txt";
    struct stat st;
    struct fuse_file_info open {};
    EXPECT_EQ(tarni_opers.getattr(path, &st, nullptr), missing);
    EXPECT_EQ(tarni_opers.getattr(path, &st, &open), missing);
    EXPECT_EQ(tarni_opers.chmod("/", 0700, nullptr), missing);
    EXPECT_EQ(tarni_opers.chmod(path, 0700, nullptr), missing);
    EXPECT_EQ(tarni_opers.chown(path, 1, 1, nullptr), missing);
    EXPECT_EQ(tarni_opers.truncate(path, 1, &open), missing);
    EXPECT_EQ(tarni_opers.utimens(path, nullptr, nullptr), missing);
    char value[8];
    EXPECT_EQ(tarni_opers.getxattr("/", "user.a", value, sizeof(value)), missing);
    EXPECT_EQ(tarni_opers.getxattr(path, "user.a", value, sizeof(value)), missing);
    EXPECT_EQ(tarni_opers.setxattr("/", "user.a", "v", 1, 0), missing);
    EXPECT_EQ(tarni_opers.setxattr(path, "user.a", "v", 1, 0), missing);
    EXPECT_EQ(tarni_opers.removexattr(path, "user.a"), missing);
    EXPECT_EQ(tarni_opers.access(path, R_OK), missing);
    EXPECT_EQ(tarni_opers.mkdir("/Storage/new", 0755), missing);
    EXPECT_EQ(tarni_opers.mkdir("/Apps/Notes/new", 0755), missing);
    EXPECT_EQ(tarni_opers.rmdir("/Storage/kept.txt"), missing);
    EXPECT_EQ(tarni_opers.rmdir("/Apps/Notes/in"), missing);
    EXPECT_EQ(tarni_opers.unlink(path), missing);
    EXPECT_EQ(tarni_opers.unlink("/Media/Music/x.mp3"), missing);
    // A rename fails the way every other rename failure does.
    EXPECT_EQ(tarni_opers.rename(path, "/Storage/other.txt", 0), -ECANCELED);
    struct statvfs volume;
    EXPECT_EQ(tarni_opers.statfs("/", &volume), missing);
    int entries = 0;
    ASSERT_EQ(tarni_opers.opendir("/Storage", &open), 0);
    EXPECT_EQ(tarni_opers.readdir("/Storage", &entries, countEntries, 0, &open, FUSE_READDIR_PLUS), missing);
    EXPECT_EQ(entries, 0);
    EXPECT_EQ(tarni_opers.releasedir("/Storage", &open), 0);

    // The catalogue is as it was: nothing was made, changed or attached.
    gEncodedPath = savedBuffer;
    _KTL_OBJECT *kept = FindObject(path);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->size, 5u);
    EXPECT_EQ(Extras(kept).xattr_list, nullptr);
    EXPECT_EQ(FindObject("/Storage/other"), nullptr);
    EXPECT_EQ(FindObject("/Storage/other.txt"), nullptr);
    for (const char *line : {"getContext pContext is NULL!!", "tarnifs_setattr_x getContext failed. ret : -38",
                             "tarnifs_statfs pContext is NULL!", "tarnifs_rename getContext failed"})
        EXPECT_TRUE(logContains(line)) << line;
}

// Every handler holds the one global lock for its whole run, so two
// operations never interleave: while the lock is held elsewhere, a handler
// called from another thread does not finish.
class HandlerLockTest : public MountContextTest {
protected:
    void SetUp() override {
        MountContextTest::SetUp();
        context.device_info.block_size = 4096;
        GetObject("/")->enumerated = 1;
        folder("/Storage");
    }

    // Runs `handler` in another thread while this thread holds the lock;
    // true when it waited for the lock instead of running alongside.
    bool waitsForTheLock(const std::function<void()> &handler) {
        std::atomic<bool> finished{false};
        pthread_mutex_lock(&tarni_mutex);
        std::thread other([&] {
            handler();
            finished = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        bool finishedWhileHeld = finished;
        pthread_mutex_unlock(&tarni_mutex);
        other.join();
        return !finishedWhileHeld && finished;
    }
};

TEST_F(HandlerLockTest, EveryHandlerWaitsWhileAnotherOperationRuns) {
    struct statvfs vfs;
    struct stat st;
    char value[16];
    EXPECT_TRUE(waitsForTheLock([&] { tarnifs_statfs("/", &vfs); })) << "statfs";
    EXPECT_TRUE(waitsForTheLock([&] { tarnifs_access("/Storage", 0); })) << "access";
    EXPECT_TRUE(waitsForTheLock([&] { tarnifs_getattr("/Storage", &st); })) << "getattr";
    EXPECT_TRUE(waitsForTheLock([&] { tarnifs_fgetattr("/Storage", &st, nullptr); })) << "fgetattr";
    EXPECT_TRUE(waitsForTheLock([&] { tarnifs_readdir("/Storage", nullptr, nullptr, 0, nullptr); })) << "readdir";
    EXPECT_TRUE(waitsForTheLock([&] { tarnifs_truncate("/Storage/x", 1, nullptr); })) << "truncate";
    EXPECT_TRUE(waitsForTheLock([&] { tarnifs_setxattr("/Storage", "user.a", "v", 1, 0); })) << "setxattr";
    EXPECT_TRUE(waitsForTheLock([&] { tarnifs_getxattr("/Storage", "user.a", value, sizeof(value)); })) << "getxattr";
    EXPECT_TRUE(waitsForTheLock([&] { tarnifs_removexattr("/Storage", "user.a"); })) << "removexattr";
}

TEST_F(HandlerLockTest, ConcurrentCallsLeaveTheCatalogueConsistent) {
    // Many threads creating, naming and querying records at once: with the
    // lock held by every handler, nothing is lost and nothing breaks.
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 300; ++i) {
                std::string path = "/Storage/t" + std::to_string(t) + "-" + std::to_string(i);
                tarnifs_truncate(path.c_str(), i, nullptr);
                struct stat st;
                tarnifs_getattr(path.c_str(), &st);
                tarnifs_setxattr(path.c_str(), "user.n", "v", 1, 0);
                struct statvfs vfs;
                tarnifs_statfs("/", &vfs);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < 300; ++i) {
            std::string path = "/Storage/t" + std::to_string(t) + "-" + std::to_string(i);
            struct stat st;
            ASSERT_EQ(tarnifs_getattr(path.c_str(), &st), 0) << path;
            EXPECT_EQ(st.st_size, i);
            EXPECT_EQ(tarnifs_getxattr(path.c_str(), "user.n", nullptr, 0), 1);
        }
    }
}

} // namespace
