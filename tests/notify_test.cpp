// The notification pipe, the tray thread and its stop, the dialog thread with
// a recording dialog program, and `quorvel tray` reading the pipe.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tarnifs/mount.h"
#include "tarnifs/notify.h"
#include "tests/support/catalogue_fixture.h"
#include "tests/support/fuse_mount.h"
#include "tests/support/pipe_reader.h"
#include "util/log.h"

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

TEST_F(NotifyTest, TransferRecordsCarryKindSizeAndAShortExtensionInBatchesOfAtMostThirty) {
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

    // Forty-five records leave as batches of thirty and fifteen.
    expected.clear();
    for (uint32_t i = 0; i < 45; ++i) {
        std::string name = "file" + std::to_string(i) + ".e" + std::to_string(i);
        ASSERT_EQ(queueTransferRecord(1 + i % 2, 1000 + i, name.c_str()), 0);
        if (i == 0) expected += batchHeader(30);
        if (i == 30) expected += batchHeader(15);
        expected += transferRecordBytes(1 + i % 2, 1000 + i, "e" + std::to_string(i));
    }
    PipeReader reader;
    ASSERT_TRUE(reader.start(pipePath));

    _CONTEXT ctx;
    ASSERT_EQ(startTrayThread(&ctx), 0);
    EXPECT_TRUE(eventually([&] { return reader.bytes().size() >= 1026; }));
    EXPECT_TRUE(stopTrayThread(&ctx));
    EXPECT_EQ(reader.bytes(), expected);
}

// Busy signals are bare texts and fail quietly without a reader. Only a FIFO
// of the mount's own user gets them and the records: a link at the pipe's
// name, a plain file or another user's FIFO get nothing, and the refusal is
// logged once, not once per message.
TEST_F(NotifyTest, OnlyAFifoOfOurOwnWithAReaderIsWrittenAndARefusalIsLoggedOnce) {
    resetPipeRefusal();
    char batch[kBatchMaxBytes];
    auto sendRecord = [&] {
        queueTransferRecord(kTransferWritten, 12, "notes.txt");
        size_t length = takePipeBatch(batch);
        return sendPipeData(batch, length);
    };
    const std::string refused = "tray pipe refused. path(" + pipePath + ")";

    EXPECT_EQ(sendPipeMsg("-neon"), -ENOENT);
    ASSERT_EQ(mkfifo(pipePath.c_str(), 0600), 0);
    EXPECT_EQ(sendPipeMsg("-neon"), -ENXIO);
    EXPECT_NE(readLocal(QNLogPath()).find("sendPipeMsg open pipe failed. errno : 6\n"), std::string::npos);
    ASSERT_EQ(unlink(pipePath.c_str()), 0);

    // A link to some file, then a plain file at the name: each stays exactly
    // as it was.
    std::string victim = dir + "/victim";
    std::ofstream(victim) << "precious";
    for (bool link : {true, false}) {
        ASSERT_TRUE(link ? symlink(victim.c_str(), pipePath.c_str()) == 0 : bool(std::ofstream(pipePath) << "plain"));
        EXPECT_EQ(sendPipeMsg(link ? "-neon" : "-neoff"), -EPERM);
        EXPECT_EQ(sendRecord(), -EPERM);
        EXPECT_EQ(readLocal(link ? victim : pipePath), link ? "precious" : "plain");
        ASSERT_EQ(unlink(pipePath.c_str()), 0);
    }
    EXPECT_EQ(occurrences(readLocal(QNLogPath()), refused), 1u) << readLocal(QNLogPath());

    // Our own FIFO: everything arrives.
    PipeReader reader;
    ASSERT_TRUE(reader.start(pipePath));
    EXPECT_EQ(sendPipeMsg("-neon"), 0);
    EXPECT_EQ(sendRecord(), 0);
    EXPECT_EQ(sendPipeMsg("-neoff"), 0);
    std::string expected = "-neon" + batchHeader(1) + transferRecordBytes(2, 12, "txt") + "-neoff";
    EXPECT_TRUE(eventually([&] { return reader.bytes().size() >= expected.size(); }));
    EXPECT_EQ(reader.bytes(), expected);

    // Another user's FIFO, read by someone: nothing reaches it. Handing it
    // back to us afterwards shows what came through: only what followed.
    if (chown(pipePath.c_str(), 65534, 65534) != 0)
        GTEST_SKIP() << "handing the FIFO to another user (uid 65534) needs root";
    EXPECT_EQ(sendPipeMsg("-neon"), -EPERM);
    EXPECT_EQ(sendRecord(), -EPERM);
    ASSERT_EQ(chown(pipePath.c_str(), geteuid(), getegid()), 0);
    EXPECT_EQ(sendPipeMsg("-neoff"), 0);
    EXPECT_TRUE(eventually([&] { return reader.bytes().size() >= expected.size() + 6; }));
    EXPECT_EQ(reader.bytes(), expected + "-neoff");
    EXPECT_EQ(occurrences(readLocal(QNLogPath()), refused), 1u);
}

// Unmount must end the tray thread whatever the listener does, while records
// keep arriving: none there, one reading, one that dies mid-stream. A write
// to a pipe whose reader is gone fails with EPIPE instead of killing us.
TEST_F(NotifyTest, StoppingTheTrayThreadReturnsWhateverTheListenerDoesAndAGoneReaderIsEpipe) {
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

    for (const std::string listener : {"none", "reading", "dying"}) {
        SCOPED_TRACE("listener: " + listener);
        PipeReader reader;
        int dying = -1;
        if (listener == "reading") {
            ASSERT_TRUE(reader.start(pipePath));
        }
        if (listener == "dying") {
            ASSERT_EQ(mkfifo(pipePath.c_str(), 0600), 0);
            dying = open(pipePath.c_str(), O_RDONLY | O_NONBLOCK);
        }
        std::atomic<bool> producing{true};
        std::thread producer([&] {
            while (producing) {
                queueTransferRecord(2, 4096, "photo.jpg");
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
        _CONTEXT ctx;
        EXPECT_EQ(startTrayThread(&ctx), 0);
        if (listener == "reading") {
            EXPECT_TRUE(eventually([&] { return reader.bytes().size() > 2000; }));
        }
        if (listener == "dying") {
            size_t got = 0;
            EXPECT_TRUE(eventually([&] {
                char chunk[100];
                ssize_t now = read(dying, chunk, sizeof(chunk) - got);
                got += now > 0 ? static_cast<size_t>(now) : 0;
                return got >= sizeof(chunk);
            }));
            close(dying);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // batches now meet what the listener left
        auto began = Clock::now();
        stopTrayThread(&ctx);
        EXPECT_LT(Clock::now() - began, std::chrono::seconds(30)) << "stopping the tray thread hung";
        EXPECT_EQ(ctx.tray_thread, nullptr);
        EXPECT_EQ(ctx.tray_run, 0);
        producing = false;
        producer.join();
        if (listener == "none") {
            EXPECT_NE(readLocal(QNLogPath()).find("sendPipeData open pipe failed. errno : 2"), std::string::npos);
        }
        reader.stop();
        unlink(pipePath.c_str());
    }
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

// Installs the recorder at `path`, recording into `dir`.
void installRecorder(const std::string &path, const std::string &dir) {
    std::string script = kRecorder;
    script.replace(script.find("@DIR@"), 5, dir);
    writeLocal(path, script);
    chmod(path.c_str(), 0700);
}

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
        installRecorder(dir + "/record-dialog", dir);
        setenv("QUORVEL_DIALOG", (dir + "/record-dialog").c_str(), 1);
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
};

TEST_F(DialogTest, TitlesTextsAndButtonReachTheProgramAsSeparateLiteralArgumentsCutTo511Characters) {
    // Quotes, dollars and backquotes are shown as they are and run nothing.
    std::string quoted = "'\"$(touch " + dir + "/quoted)\" `touch " + dir + "/backquoted` $(touch " + dir + "/dollar)";
    std::string longText;
    for (int i = 0; i < 600; ++i) longText += static_cast<char>('a' + i % 26);
    const struct {
        int kind;
        std::string text;
        std::vector<std::string> arguments;
    } rows[] = {
        {0, "This folder is read only. You can not write or modify.\n/Media/Music",
         {"notification", "Quorvel Notification", "This folder is read only. You can not write or modify.\n/Media/Music",
          "Confirm"}},
        {1, "Not enough space on device.", {"warning", "Quorvel Warnning!", "Not enough space on device.", "Confirm"}},
        {2, "Could not read a file.\nError Code : -5",
         {"error", "Quorvel Error!!", "Could not read a file.\nError Code : -5", "Confirm"}},
        {7, "Lost USB connection.\nReading aborted.",
         {"unknown", "Quorvel Unknown", "Lost USB connection.\nReading aborted.", "Confirm"}},
        {2, quoted, {"error", "Quorvel Error!!", quoted, "Confirm"}},
        {2, longText, {"error", "Quorvel Error!!", longText.substr(0, 511), "Confirm"}},
    };
    int n = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.arguments[2].substr(0, 40));
        ShowMessageBox(row.kind, "%s", row.text.c_str());
        ASSERT_TRUE(shown(n));
        EXPECT_EQ(arguments(n++), row.arguments);
    }
    for (const char *made : {"/quoted", "/backquoted", "/dollar"}) EXPECT_FALSE(fs::exists(dir + made)) << made;
}

// A refresh request is honoured only when none is running; messages raised
// while a dialog is on screen merge into one showing the last.
TEST_F(DialogTest, FinderRefreshWaitsForTheRunningOneAndMessagesRaisedDuringADialogMergeIntoTheLast) {
    ctx->dialog.refresh_busy = 1;  // one is under way
    requestFinderRefresh(ctx);
    ShowMessageBox(0, "after the busy refresh");
    ASSERT_TRUE(shown(0));
    EXPECT_EQ(ctx->dialog.finder_refresh, 1);
    ctx->dialog.refresh_busy = 0;
    requestFinderRefresh(ctx);
    EXPECT_TRUE(eventually([&] { return ctx->dialog.finder_refresh == 0; }));
    EXPECT_EQ(ctx->dialog.refresh_busy, 0);

    std::ofstream(dir + "/hold").close();
    ShowMessageBox(2, "first");
    ASSERT_TRUE(eventually([&] { return fs::exists(show(1) + "/argc"); }));
    ShowMessageBox(2, "second");
    ShowMessageBox(2, "third");
    fs::remove(dir + "/hold");
    ASSERT_TRUE(shown(2));
    stopDialogThread(ctx);
    EXPECT_EQ(arguments(1)[2], "first");
    EXPECT_EQ(arguments(2)[2], "third");
    EXPECT_FALSE(fs::exists(show(3)));
}

// Without a context nothing is shown and two lines are logged. Without a
// dialog program, zenity shows the dialog where there is a display; with
// neither, standard error does.
TEST_F(NotifyTest, WithoutAContextNothingWithoutADialogProgramZenityOnADisplayOrElseStandardErrorShowsIt) {
    struct fuse_context empty {};
    SetFuseContextForTesting(&empty);
    ShowMessageBox(2, "never shown");
    SetFuseContextForTesting(nullptr);
    std::string log = readLocal(QNLogPath());
    EXPECT_NE(log.find("ShowMessageBox getContext failed. ret : "), std::string::npos);
    EXPECT_NE(log.find("ShowMessageBox Error. ret : "), std::string::npos);

    std::string bin = dir + "/bin";
    installRecorder(bin + "/zenity", dir);
    std::string oldPath = getenv("PATH") ? getenv("PATH") : "";
    setenv("PATH", (bin + ":" + oldPath).c_str(), 1);
    setenv("DISPLAY", ":99", 1);
    unsetenv("QUORVEL_DIALOG");
    testing::internal::CaptureStderr();
    showDialogNow("Quorvel Error!!", "C:\\new <b>&amp;", "Confirm");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "shown by zenity, so not on standard error";
    setenv("PATH", oldPath.c_str(), 1);
    unsetenv("DISPLAY");
    EXPECT_EQ(recordedArguments(dir + "/show.0"),
              (std::vector<std::string>{"--error", "--title", "Quorvel Error!!", "--text", "C:\\\\new <b>&amp;",
                                        "--ok-label", "Confirm", "--no-markup"}));

    unsetenv("WAYLAND_DISPLAY");
    testing::internal::CaptureStderr();
    showDialogNow("Quorvel Notification", "You can not remove this file.\n/Apps", "Confirm");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Quorvel Notification\nYou can not remove this file.\n/Apps\n[Confirm]\n");
}

// ---- the tray command --------------------------------------------------------

// `quorvel tray` as the user runs it, its standard output in a file; fed by
// the file system's own pipe writers.
class TrayCommandTest : public NotifyTest {
protected:
    void SetUp() override {
        if (quorvelProgram().empty()) GTEST_SKIP() << "the quorvel program was not built";
        NotifyTest::SetUp();
    }
    void TearDown() override {
        if (tray > 0) stop(SIGKILL);
        NotifyTest::TearDown();
    }
    void start() {
        output = dir + "/tray" + std::to_string(++runs) + ".out";
        tray = startProgram({"/bin/sh", "-c", "exec \"$0\" tray 2>/dev/null", quorvelProgram()}, output);
    }
    // True once the tray has printed exactly `lines`.
    bool printed(const std::string &lines) {
        return eventually([&] { return readLocal(output) == lines; });
    }
    // True once the listener holds the pipe open for reading.
    bool listening() {
        return eventually([&] {
            int fd = open(pipePath.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) close(fd);
            return fd >= 0;
        });
    }
    // Its exit status once `sig` (0: none) ended it, or -1 when it did not end in time.
    int stop(int sig) {
        int status = exitStatusOf(tray, sig, 20);
        tray = -1;
        return status;
    }
    pid_t tray = -1;
    int runs = 0;
    std::string output;
};

TEST_F(TrayCommandTest, PrintsBusySignalsAndRecordsAcrossWritersComingAndGoingOnlyFromAFifo) {
    // Not a FIFO: refused, left as it was, nothing printed.
    std::ofstream(pipePath) << "keep me";
    start();
    EXPECT_EQ(stop(0), 1);
    EXPECT_EQ(readLocal(output), "");
    EXPECT_EQ(readLocal(pipePath), "keep me");
    ASSERT_EQ(unlink(pipePath.c_str()), 0);

    // A FIFO that is there already is used and left in place.
    ASSERT_EQ(mkfifo(pipePath.c_str(), 0600), 0);
    start();
    ASSERT_TRUE(listening());
    EXPECT_EQ(sendPipeMsg("-neoff"), 0);
    EXPECT_TRUE(printed("busy off\n")) << readLocal(output);
    EXPECT_EQ(stop(SIGINT), 0);
    struct stat st;
    ASSERT_EQ(lstat(pipePath.c_str(), &st), 0);
    EXPECT_TRUE(S_ISFIFO(st.st_mode));
    ASSERT_EQ(unlink(pipePath.c_str()), 0);

    start();
    ASSERT_TRUE(listening());
    EXPECT_EQ(sendPipeMsg("-neon"), 0);
    queueTransferRecord(kTransferRead, 1048576, "movie.mp4");
    queueTransferRecord(kTransferWritten, 12, "notes.txt");
    char batch[kBatchMaxBytes];
    size_t length = takePipeBatch(batch);
    EXPECT_EQ(sendPipeData(batch, length), 0);
    EXPECT_EQ(sendPipeMsg("-neoff"), 0);
    std::string lines = "busy on\nread 1048576 bytes .mp4\nwritten 12 bytes .txt\nbusy off\n";
    EXPECT_TRUE(printed(lines)) << readLocal(output);

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
    EXPECT_TRUE(printed(lines += "busy on\n")) << readLocal(output);

    // The tray thread of a mounted file system, started after the listener.
    _CONTEXT ctx;
    ASSERT_EQ(startTrayThread(&ctx), 0);
    queueTransferRecord(kTransferWritten, 3, "README");
    EXPECT_TRUE(printed(lines += "written 3 bytes .README\n")) << readLocal(output);
    stopTrayThread(&ctx);

    EXPECT_EQ(stop(SIGTERM), 0);
    EXPECT_FALSE(fs::exists(pipePath)) << "the FIFO it created is removed";
}

} // namespace
