// Every handler holds the one global lock for its whole run, so two
// operations never interleave: while the lock is held elsewhere, a handler
// called from another thread does not finish.
#include <sys/statvfs.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "tarnifs/catalogue.h"
#include "tarnifs/listing.h"
#include "tests/support/catalogue_fixture.h"

namespace {

class HandlerLockTest : public MountContextTest {
protected:
    void SetUp() override {
        MountContextTest::SetUp();
        context.device_info.block_size = 4096;
        _KTL_OBJECT *root = GetObject("/");
        root->enumerated = 1;
        _KTL_OBJECT *file = GetObjectWithFileName("/Storage");
        file->mode = KTL_MODE_FOLDER;
        file->enumerated = 1;
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
