// `quorvel tray` as the user runs it, fed by the file system's own pipe
// writers, and the tray thread's stop when that listener is killed.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "tarnifs/mount.h"
#include "tarnifs/notify.h"
#include "util/log.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

// A running `quorvel tray` whose standard output the test reads line by line.
struct TrayListener {
    bool start() {
#ifdef QUORVEL_PATH
        int out[2];
        if (pipe(out) != 0) return false;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        char *argv[] = {const_cast<char *>(QUORVEL_PATH), const_cast<char *>("tray"), nullptr};
        int result = posix_spawn(&pid, QUORVEL_PATH, &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        outFd = out[0];
        return result == 0;
#else
        return false;
#endif
    }
    // The next line of output, or "<timeout>" after a generous wait.
    std::string nextLine() {
        auto deadline = Clock::now() + std::chrono::seconds(20);
        while (buffered.find('\n') == std::string::npos) {
            if (Clock::now() > deadline) return "<timeout>";
            struct pollfd readable = {outFd, POLLIN, 0};
            if (poll(&readable, 1, 50) <= 0) continue;
            char chunk[512];
            ssize_t got = read(outFd, chunk, sizeof(chunk));
            if (got <= 0) return "<closed>";
            buffered.append(chunk, static_cast<size_t>(got));
        }
        size_t end = buffered.find('\n');
        std::string line = buffered.substr(0, end);
        buffered.erase(0, end + 1);
        return line;
    }
    // Exit status after the signal, or -1 when it did not end in time.
    int stop(int sig) {
        if (pid <= 0) return -1;
        kill(pid, sig);
        int status = 0;
        for (int i = 0; i < 2000; ++i) {
            if (waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return status;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        pid = -1;
        return -1;
    }
    ~TrayListener() {
        if (pid > 0) stop(SIGKILL);
        if (outFd >= 0) close(outFd);
    }
    pid_t pid = -1;
    int outFd = -1;
    std::string buffered;
};

class TrayCommandTest : public ::testing::Test {
protected:
    void SetUp() override {
#ifndef QUORVEL_PATH
        GTEST_SKIP() << "the quorvel program was not built";
#endif
        char pattern[] = "/tmp/quorvel-tray-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        pipePath = dir + "/pipe";
        setenv("QUORVEL_PIPE", pipePath.c_str(), 1);
        setenv("QUORVEL_LOG_DIR", dir.c_str(), 1);
        QNLogInit();
        drainQueue();
    }
    void TearDown() override {
        drainQueue();
        unsetenv("QUORVEL_PIPE");
        if (!dir.empty()) fs::remove_all(dir);
    }
    // True once the listener holds the pipe open for reading.
    bool listening() {
        auto deadline = Clock::now() + std::chrono::seconds(20);
        while (Clock::now() < deadline) {
            int fd = open(pipePath.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) {
                close(fd);
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    std::string dir;
    std::string pipePath;
};

TEST_F(TrayCommandTest, PrintsBusySignalsAndRecordsAcrossWritersComingAndGoing) {
    TrayListener tray;
    ASSERT_TRUE(tray.start());
    ASSERT_TRUE(listening());

    EXPECT_EQ(sendPipeMsg("-neon"), 0);
    queueTransferRecord(kTransferRead, 1048576, "movie.mp4");
    queueTransferRecord(kTransferWritten, 12, "notes.txt");
    char batch[kBatchMaxBytes];
    size_t length = takePipeBatch(batch);
    EXPECT_EQ(sendPipeData(batch, length), 0);
    EXPECT_EQ(sendPipeMsg("-neoff"), 0);
    EXPECT_EQ(tray.nextLine(), "busy on");
    EXPECT_EQ(tray.nextLine(), "read 1048576 bytes .mp4");
    EXPECT_EQ(tray.nextLine(), "written 12 bytes .txt");
    EXPECT_EQ(tray.nextLine(), "busy off");

    // A writer that goes away halfway through a message, then a new one.
    int first = open(pipePath.c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(first, 0);
    ASSERT_EQ(write(first, "-ne", 3), 3);
    close(first);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    int second = open(pipePath.c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(second, 0);
    ASSERT_EQ(write(second, "on", 2), 2);
    close(second);
    EXPECT_EQ(tray.nextLine(), "busy on");

    // The tray thread of a mounted file system, started after the listener.
    _CONTEXT ctx;
    ASSERT_EQ(startTrayThread(&ctx), 0);
    queueTransferRecord(kTransferWritten, 3, "README");
    EXPECT_EQ(tray.nextLine(), "written 3 bytes .README");
    stopTrayThread(&ctx);

    int status = tray.stop(SIGTERM);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_FALSE(fs::exists(pipePath)) << "the FIFO it created is removed";
}

TEST_F(TrayCommandTest, UsesAnExistingFifoAndLeavesItInPlace) {
    ASSERT_EQ(mkfifo(pipePath.c_str(), 0600), 0);
    TrayListener tray;
    ASSERT_TRUE(tray.start());
    ASSERT_TRUE(listening());
    EXPECT_EQ(sendPipeMsg("-neoff"), 0);
    EXPECT_EQ(tray.nextLine(), "busy off");
    int status = tray.stop(SIGINT);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    struct stat st;
    ASSERT_EQ(lstat(pipePath.c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

TEST_F(TrayCommandTest, RefusesAPathThatIsNotAFifo) {
    std::ofstream(pipePath) << "keep me";
    TrayListener tray;
    ASSERT_TRUE(tray.start());
    EXPECT_EQ(tray.nextLine(), "<closed>");
    int status = 0;
    ASSERT_EQ(waitpid(tray.pid, &status, 0), tray.pid);
    tray.pid = -1;
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    std::ifstream in(pipePath);
    std::string content;
    std::getline(in, content);
    EXPECT_EQ(content, "keep me");
}

TEST_F(TrayCommandTest, TrayThreadStopsWhenTheListenerIsKilledMidStream) {
    signal(SIGPIPE, SIG_DFL);
    TrayListener tray;
    ASSERT_TRUE(tray.start());
    ASSERT_TRUE(listening());
    _CONTEXT ctx;
    ASSERT_EQ(startTrayThread(&ctx), 0);
    std::atomic<bool> producing{true};
    std::thread producer([&] {
        while (producing) {
            queueTransferRecord(kTransferRead, 5, "clip.mov");
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    EXPECT_EQ(tray.nextLine(), "read 5 bytes .mov");
    tray.stop(SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto began = Clock::now();
    stopTrayThread(&ctx);
    EXPECT_LT(Clock::now() - began, std::chrono::seconds(30)) << "stopping the tray thread hung";
    producing = false;
    producer.join();
}

} // namespace
