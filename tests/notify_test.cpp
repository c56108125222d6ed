// The notification pipe, the tray thread and its stop, the dialog thread with
// a recording dialog program, and `quorvel tray` reading the pipe.
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
#include <vector>

#include "tarnifs/mount.h"
#include "tarnifs/notify.h"
#include "tests/support/catalogue_fixture.h"
#include "tests/support/pipe_reader.h"
#include "util/log.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

std::string batchHeader(uint32_t count) {
    std::string out("-ncdat", 6);
    out.append(8, '\0');
    for (int i = 0; i < 4; ++i) out += static_cast<char>((count >> (8 * i)) & 0xff);
    return out;
}

// Every test gets a private folder holding the pipe and the log.
class NotifyTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = makeTempDir("quorvel-notify-");
        ASSERT_FALSE(dir.empty());
        pipePath = dir + "/pipe";
        setenv("QUORVEL_PIPE", pipePath.c_str(), 1);
        setenv("QUORVEL_LOG_DIR", dir.c_str(), 1);
        unsetenv("QUORVEL_LOGLEVEL");
        QNLogInit();
        drainQueue();
    }
    void TearDown() override {
        drainQueue();
        unsetenv("QUORVEL_PIPE");
        removeTree(dir);
    }
    std::string dir;
    std::string pipePath;
};

// Reads the test FIFO in its own thread; can hang up after some bytes, as a
// tray helper that dies in the middle of the stream.
struct FifoReader {
    explicit FifoReader(const std::string &path, size_t hangUpAfter = SIZE_MAX) {
        fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
        thread = std::thread([this, hangUpAfter] {
            char chunk[4096];
            while (!stop && fd >= 0) {
                struct pollfd readable = {fd, POLLIN, 0};
                if (poll(&readable, 1, 5) <= 0) continue;
                ssize_t got = read(fd, chunk, sizeof(chunk));
                if (got <= 0) continue;
                std::lock_guard<std::mutex> guard(lock);
                bytes.append(chunk, static_cast<size_t>(got));
                if (bytes.size() >= hangUpAfter) {
                    close(fd);
                    fd = -1;
                }
            }
        });
    }
    ~FifoReader() {
        stop = true;
        thread.join();
        if (fd >= 0) close(fd);
    }
    std::string received() {
        std::lock_guard<std::mutex> guard(lock);
        return bytes;
    }
    int fd;
    std::atomic<bool> stop{false};
    std::mutex lock;
    std::string bytes;
    std::thread thread;
};

TEST_F(NotifyTest, TransferRecordsCarryKindSizeAndAShortExtension) {
    ASSERT_EQ(queueTransferRecord(kTransferRead, 1048576, "movie.mp4"), 0);
    ASSERT_EQ(queueTransferRecord(kTransferWritten, 7, "x.abcdefghijkl"), 0);      // 12 characters: first 9
    ASSERT_EQ(queueTransferRecord(kTransferWritten, 8, "x.abcdefgh"), 0);          // exactly 8: whole
    ASSERT_EQ(queueTransferRecord(kTransferRead, 9, "README"), 0);                 // no dot: the name
    ASSERT_EQ(queueTransferRecord(kTransferRead, 10, "averyverylongname"), 0);     // no dot, cut to 9
    ASSERT_EQ(queueTransferRecord(kTransferRead, 11, "backup.tar.gz"), 0);         // after the last dot
    ASSERT_EQ(queueTransferRecord(kTransferRead, 12, "/Storage/v1.2/notes"), 0);   // a dotted folder is not the name

    char batch[kBatchMaxBytes];
    ASSERT_EQ(takePipeBatch(batch), 18u + 22u * 7);
    std::string expected = batchHeader(7) + transferRecordBytes(1, 1048576, "mp4") + transferRecordBytes(2, 7, "abcdefghi") +
                           transferRecordBytes(2, 8, "abcdefgh") + transferRecordBytes(1, 9, "README") +
                           transferRecordBytes(1, 10, "averyvery") + transferRecordBytes(1, 11, "gz") + transferRecordBytes(1, 12, "notes");
    EXPECT_EQ(std::string(batch, 18 + 22 * 7), expected);
    EXPECT_EQ(takePipeBatch(batch), 0u);
}

TEST_F(NotifyTest, FortyFiveRecordsLeaveAsBatchesOfThirtyAndFifteen) {
    std::string expected;
    for (uint32_t i = 0; i < 45; ++i) {
        std::string name = "file" + std::to_string(i) + ".e" + std::to_string(i);
        ASSERT_EQ(queueTransferRecord(1 + i % 2, 1000 + i, name.c_str()), 0);
        if (i == 0) expected += batchHeader(30);
        if (i == 30) expected += batchHeader(15);
        expected += transferRecordBytes(1 + i % 2, 1000 + i, "e" + std::to_string(i));
    }
    ASSERT_EQ(mkfifo(pipePath.c_str(), 0600), 0);
    FifoReader reader(pipePath);

    _CONTEXT ctx;
    ASSERT_EQ(startTrayThread(&ctx), 0);
    EXPECT_TRUE(eventually([&] { return reader.received().size() >= 1026; }));
    EXPECT_TRUE(stopTrayThread(&ctx));
    EXPECT_EQ(reader.received(), expected);

    // The same split, write by write: 678 bytes, then 348, then nothing.
    for (uint32_t i = 0; i < 45; ++i) queueTransferRecord(1, i, "a.b");
    char batch[kBatchMaxBytes];
    EXPECT_EQ(takePipeBatch(batch), 678u);
    EXPECT_EQ(takePipeBatch(batch), 348u);
    EXPECT_EQ(takePipeBatch(batch), 0u);
}

TEST_F(NotifyTest, BusySignalsAreBareTextsAndFailQuietlyWithoutAReader) {
    EXPECT_EQ(sendPipeMsg("-neon"), -ENOENT);
    ASSERT_EQ(mkfifo(pipePath.c_str(), 0600), 0);
    EXPECT_EQ(sendPipeMsg("-neon"), -ENXIO);
    EXPECT_NE(readLocal(QNLogPath()).find("sendPipeMsg open pipe failed. errno : 6\n"), std::string::npos);

    FifoReader reader(pipePath);
    EXPECT_EQ(sendPipeMsg("-neon"), 0);
    EXPECT_EQ(sendPipeMsg("-neoff"), 0);
    EXPECT_TRUE(eventually([&] { return reader.received().size() >= 11; }));
    EXPECT_EQ(reader.received(), "-neon-neoff");
}

size_t countOf(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

// Only a FIFO of the mount's own user gets busy signals and records: a link
// at the pipe's name, a plain file or another user's FIFO get nothing, and
// the refusal is logged once, not once per message.
TEST_F(NotifyTest, OnlyAFifoOfOurOwnIsWrittenAndARefusalIsLoggedOnce) {
    resetPipeRefusal();
    char batch[kBatchMaxBytes];
    auto sendRecord = [&] {
        queueTransferRecord(kTransferWritten, 12, "notes.txt");
        size_t length = takePipeBatch(batch);
        return sendPipeData(batch, length);
    };
    const std::string refused = "tray pipe refused. path(" + pipePath + ")";

    // A link to some file: the file stays exactly as it was.
    std::string victim = dir + "/victim";
    std::ofstream(victim) << "precious";
    ASSERT_EQ(symlink(victim.c_str(), pipePath.c_str()), 0);
    EXPECT_EQ(sendPipeMsg("-neon"), -EPERM);
    EXPECT_EQ(sendRecord(), -EPERM);
    EXPECT_EQ(readLocal(victim), "precious");
    ASSERT_EQ(unlink(pipePath.c_str()), 0);

    // A plain file at the name.
    std::ofstream(pipePath) << "plain";
    EXPECT_EQ(sendPipeMsg("-neoff"), -EPERM);
    EXPECT_EQ(sendRecord(), -EPERM);
    EXPECT_EQ(readLocal(pipePath), "plain");
    ASSERT_EQ(unlink(pipePath.c_str()), 0);
    EXPECT_EQ(countOf(readLocal(QNLogPath()), refused), 1u) << readLocal(QNLogPath());

    // Our own FIFO: everything arrives.
    ASSERT_EQ(mkfifo(pipePath.c_str(), 0600), 0);
    {
        FifoReader reader(pipePath);
        EXPECT_EQ(sendPipeMsg("-neon"), 0);
        EXPECT_EQ(sendRecord(), 0);
        std::string expected = "-neon" + batchHeader(1) + transferRecordBytes(2, 12, "txt");
        EXPECT_TRUE(eventually([&] { return reader.received().size() >= expected.size(); }));
        EXPECT_EQ(reader.received(), expected);
    }

    // Another user's FIFO, read by someone: nothing reaches it. Handing it
    // back to us afterwards shows what came through: only what followed.
    if (chown(pipePath.c_str(), 65534, 65534) != 0)
        GTEST_SKIP() << "handing the FIFO to another user (uid 65534) needs root";
    FifoReader reader(pipePath);
    EXPECT_EQ(sendPipeMsg("-neon"), -EPERM);
    EXPECT_EQ(sendRecord(), -EPERM);
    ASSERT_EQ(chown(pipePath.c_str(), geteuid(), getegid()), 0);
    EXPECT_EQ(sendPipeMsg("-neoff"), 0);
    EXPECT_TRUE(eventually([&] { return reader.received().size() >= 6; }));
    EXPECT_EQ(reader.received(), "-neoff");
    EXPECT_EQ(countOf(readLocal(QNLogPath()), refused), 1u);
}

TEST_F(NotifyTest, WritingToAPipeWhoseReaderIsGoneFailsWithEpipe) {
    signal(SIGPIPE, SIG_DFL);  // what a careless write would die of
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    errno = 0;
    EXPECT_EQ(writeWithoutSigpipe(ends[1], "-neon", 5), -1);
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0) << "the SIGPIPE of the write must not stay pending";
}

// Unmount must end the tray thread whatever the listener does.
class TrayStopTest : public NotifyTest {
protected:
    // Records keep arriving while the tray thread runs, until stopped.
    void startProducing() {
        producer = std::thread([this] {
            while (!stopProducing) {
                queueTransferRecord(2, 4096, "photo.jpg");
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    }
    void stopAndCheck() {
        auto began = Clock::now();
        stopTrayThread(&ctx);
        EXPECT_LT(Clock::now() - began, std::chrono::seconds(30)) << "stopping the tray thread hung";
        EXPECT_EQ(ctx.tray_thread, nullptr);
        EXPECT_EQ(ctx.tray_run, 0);
        stopProducing = true;
        producer.join();
    }
    _CONTEXT ctx;
    std::atomic<bool> stopProducing{false};
    std::thread producer;
};

TEST_F(TrayStopTest, ReturnsWithNoListener) {
    startProducing();
    ASSERT_EQ(startTrayThread(&ctx), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    stopAndCheck();
    EXPECT_NE(readLocal(QNLogPath()).find("sendPipeData open pipe failed. errno : 2"), std::string::npos);
}

TEST_F(TrayStopTest, ReturnsWithAListenerReading) {
    ASSERT_EQ(mkfifo(pipePath.c_str(), 0600), 0);
    FifoReader reader(pipePath);
    startProducing();
    ASSERT_EQ(startTrayThread(&ctx), 0);
    EXPECT_TRUE(eventually([&] { return reader.received().size() > 2000; }));
    stopAndCheck();
}

TEST_F(TrayStopTest, ReturnsWhenTheListenerDiesMidStream) {
    signal(SIGPIPE, SIG_DFL);
    ASSERT_EQ(mkfifo(pipePath.c_str(), 0600), 0);
    FifoReader reader(pipePath, 100);
    startProducing();
    ASSERT_EQ(startTrayThread(&ctx), 0);
    EXPECT_TRUE(eventually([&] { return reader.received().size() >= 100; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // batches now meet a closed pipe
    stopAndCheck();
}

std::atomic<bool> stubbornBodyDone{false};
std::atomic<int> stubbornBodySawRun{-1};

void stubbornTrayBody(const std::atomic<uint8_t> &run) {
    std::this_thread::sleep_for(std::chrono::seconds(3));
    stubbornBodySawRun = run.load();  // after the context is gone
    stubbornBodyDone = true;
}

TEST_F(NotifyTest, ATrayThreadThatOutlivesItsStopIsLeftSafelyDetached) {
    auto *ctx = new _CONTEXT();
    ASSERT_EQ(startTrayThreadRunning(ctx, stubbornTrayBody), 0);
    EXPECT_FALSE(stopTrayThread(ctx));
    EXPECT_EQ(ctx->tray_thread, nullptr);
    delete ctx;
    EXPECT_TRUE(eventually([] { return stubbornBodyDone.load(); }));
    EXPECT_EQ(stubbornBodySawRun, 0);
}

// ---- dialogs ---------------------------------------------------------------

// A dialog program that records its arguments in show.N/arg.K and stays
// "on screen" while the file `hold` exists.
const char kRecorder[] = R"(#!/bin/sh
d='@DIR@'
i=0
while ! mkdir "$d/show.$i" 2>/dev/null; do i=$((i+1)); done
n=0
for a in "$@"; do n=$((n+1)); printf '%s' "$a" > "$d/show.$i/arg.$n"; done
echo "$n" > "$d/show.$i/argc"
while [ -e "$d/hold" ]; do sleep 0.02; done
: > "$d/show.$i/done"
)";

std::vector<std::string> recordedArguments(const std::string &showFolder) {
    std::vector<std::string> out;
    std::string count = readLocal(showFolder + "/argc");
    if (count.empty()) return out;
    for (int k = 1; k <= std::stoi(count); ++k) out.push_back(readLocal(showFolder + "/arg." + std::to_string(k)));
    return out;
}

class DialogTest : public NotifyTest {
protected:
    void SetUp() override {
        NotifyTest::SetUp();
        std::string script = kRecorder;
        script.replace(script.find("@DIR@"), 5, dir);
        recorder = dir + "/record-dialog";
        std::ofstream(recorder) << script;
        chmod(recorder.c_str(), 0700);
        setenv("QUORVEL_DIALOG", recorder.c_str(), 1);
        fuse.private_data = ctx;
        SetFuseContextForTesting(&fuse);
        ASSERT_EQ(startDialogThread(ctx), 0);
    }
    void TearDown() override {
        fs::remove(dir + "/hold");
        stopDialogThread(ctx);
        SetFuseContextForTesting(nullptr);
        delete ctx;
        unsetenv("QUORVEL_DIALOG");
        NotifyTest::TearDown();
    }
    std::string show(int n) { return dir + "/show." + std::to_string(n); }
    std::vector<std::string> arguments(int n) { return recordedArguments(show(n)); }
    bool shown(int n) {
        return eventually([&] { return fs::exists(show(n) + "/done"); });
    }
    _CONTEXT *ctx = new _CONTEXT();
    struct fuse_context fuse {};
    std::string recorder;
};

TEST_F(DialogTest, TitlesTextsAndButtonReachTheProgramAsSeparateArguments) {
    ShowMessageBox(0, "This folder is read only. You can not write or modify.\n%s", "/Media/Music");
    ASSERT_TRUE(shown(0));
    ShowMessageBox(1, "Not enough space on device.");
    ASSERT_TRUE(shown(1));
    snprintf(ErrMsg, sizeof(ErrMsg), "Could not read a file.\nError Code : %d", -5);
    ShowMessageBox(2, "%s", ErrMsg);
    ASSERT_TRUE(shown(2));
    ShowMessageBox(7, "Lost USB connection.\nReading aborted.");
    ASSERT_TRUE(shown(3));

    using Args = std::vector<std::string>;
    EXPECT_EQ(arguments(0), (Args{"notification", "Quorvel Notification",
                                  "This folder is read only. You can not write or modify.\n/Media/Music", "Confirm"}));
    EXPECT_EQ(arguments(1), (Args{"warning", "Quorvel Warnning!", "Not enough space on device.", "Confirm"}));
    EXPECT_EQ(arguments(2), (Args{"error", "Quorvel Error!!", "Could not read a file.\nError Code : -5", "Confirm"}));
    EXPECT_EQ(arguments(3), (Args{"unknown", "Quorvel Unknown", "Lost USB connection.\nReading aborted.", "Confirm"}));
}

TEST_F(DialogTest, QuotesDollarsAndBackquotesAreShownLiterallyAndRunNothing) {
    bool pwnedBefore = fs::exists("/tmp/quorvel-pwned");
    std::string text = "'\"$(touch /tmp/quorvel-pwned)\" `touch " + dir + "/backquoted` $(touch " + dir + "/dollar)";
    ShowMessageBox(2, "%s", text.c_str());
    ASSERT_TRUE(shown(0));
    EXPECT_EQ(arguments(0)[2], text);
    EXPECT_FALSE(fs::exists(dir + "/backquoted"));
    EXPECT_FALSE(fs::exists(dir + "/dollar"));
    if (!pwnedBefore) {
        EXPECT_FALSE(fs::exists("/tmp/quorvel-pwned"));
    }
}

TEST_F(DialogTest, ALongTextIsCutTo511Characters) {
    std::string text;
    for (int i = 0; i < 600; ++i) text += static_cast<char>('a' + i % 26);
    ShowMessageBox(2, "%s", text.c_str());
    ASSERT_TRUE(shown(0));
    EXPECT_EQ(arguments(0)[2], text.substr(0, 511));
}

TEST_F(DialogTest, MessagesRaisedDuringADialogMergeIntoOneShowingTheLast) {
    std::ofstream(dir + "/hold").close();
    ShowMessageBox(2, "first");
    ASSERT_TRUE(eventually([&] { return fs::exists(show(0) + "/argc"); }));
    ShowMessageBox(2, "second");
    ShowMessageBox(2, "third");
    fs::remove(dir + "/hold");
    ASSERT_TRUE(shown(1));
    stopDialogThread(ctx);
    EXPECT_EQ(arguments(0)[2], "first");
    EXPECT_EQ(arguments(1)[2], "third");
    EXPECT_FALSE(fs::exists(show(2)));
}

TEST_F(DialogTest, FinderRefreshRequestIsHonouredOnlyWhenNoneIsRunning) {
    ctx->dialog.refresh_busy = 1;  // one is under way
    requestFinderRefresh(ctx);
    ShowMessageBox(0, "after the busy refresh");
    ASSERT_TRUE(shown(0));
    EXPECT_EQ(ctx->dialog.finder_refresh, 1);
    ctx->dialog.refresh_busy = 0;
    requestFinderRefresh(ctx);
    EXPECT_TRUE(eventually([&] { return ctx->dialog.finder_refresh == 0; }));
    EXPECT_EQ(ctx->dialog.refresh_busy, 0);
}

TEST_F(NotifyTest, WithoutAContextNothingIsShownAndTwoLinesAreLogged) {
    struct fuse_context empty {};
    SetFuseContextForTesting(&empty);
    ShowMessageBox(2, "never shown");
    SetFuseContextForTesting(nullptr);
    std::string log = readLocal(QNLogPath());
    EXPECT_NE(log.find("ShowMessageBox getContext failed. ret : "), std::string::npos);
    EXPECT_NE(log.find("ShowMessageBox Error. ret : "), std::string::npos);
}

TEST_F(NotifyTest, WithADisplayZenityGetsTheDialogAsArguments) {
    std::string bin = dir + "/bin";
    fs::create_directory(bin);
    std::string script = kRecorder;
    script.replace(script.find("@DIR@"), 5, dir);
    std::ofstream(bin + "/zenity") << script;
    chmod((bin + "/zenity").c_str(), 0700);
    std::string oldPath = getenv("PATH") ? getenv("PATH") : "";
    setenv("PATH", (bin + ":" + oldPath).c_str(), 1);
    setenv("DISPLAY", ":99", 1);
    unsetenv("QUORVEL_DIALOG");

    showDialogNow("Quorvel Error!!", "C:\\new <b>&amp;", "Confirm");

    setenv("PATH", oldPath.c_str(), 1);
    unsetenv("DISPLAY");
    EXPECT_EQ(recordedArguments(dir + "/show.0"),
              (std::vector<std::string>{"--error", "--title", "Quorvel Error!!", "--text", "C:\\\\new <b>&amp;",
                                        "--ok-label", "Confirm", "--no-markup"}));
}

TEST_F(NotifyTest, WithNeitherProgramNorDisplayTheDialogGoesToStandardError) {
    unsetenv("QUORVEL_DIALOG");
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    testing::internal::CaptureStderr();
    showDialogNow("Quorvel Notification", "You can not remove this file.\n/Apps", "Confirm");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Quorvel Notification\nYou can not remove this file.\n/Apps\n[Confirm]\n");
}

// ---- the tray command --------------------------------------------------------

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

// `quorvel tray` as the user runs it, fed by the file system's own pipe writers.
class TrayCommandTest : public NotifyTest {
protected:
    void SetUp() override {
#ifndef QUORVEL_PATH
        GTEST_SKIP() << "the quorvel program was not built";
#endif
        NotifyTest::SetUp();
    }
    // True once the listener holds the pipe open for reading.
    bool listening() {
        return eventually([&] {
            int fd = open(pipePath.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) close(fd);
            return fd >= 0;
        });
    }
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

} // namespace
