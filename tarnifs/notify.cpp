#include "tarnifs/notify.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <thread>

#include "tarnifs/mount.h"
#include "util/log.h"

extern char **environ;

// Never destroyed: a tray thread that outlived its 2-second join may still be
// polling them while the process exits.
std::deque<PKTL_PIPE_DATA_BOX> &gQueue = *new std::deque<PKTL_PIPE_DATA_BOX>();
std::mutex &gQueueLock = *new std::mutex();

char ErrMsg[512];

namespace {

const char kDefaultPipePath[] = "/tmp/QNNOTIPIPE";
const char kDialogButton[] = "Confirm";

const char kTitleNotification[] = "Quorvel Notification";
const char kTitleWarning[] = "Quorvel Warnning!";
const char kTitleError[] = "Quorvel Error!!";
const char kTitleUnknown[] = "Quorvel Unknown";

// Set once a refusal of the pipe is in the log: a pipe that is not ours is
// refused for every message, and one line per mount says so.
std::atomic<bool> pipeRefusalLogged{false};

// The pipe is ours only as a FIFO of the mount's user: a link there could
// point the records at any file, and another user's FIFO would hand them
// every busy signal and transfer record.
bool isOurFifo(const struct stat &st) { return S_ISFIFO(st.st_mode) && st.st_uid == geteuid(); }

int refusePipe(const char *caller, const char *path) {
    if (!pipeRefusalLogged.exchange(true))
        QNLog(3, "%s tray pipe refused. path(%s) is not a FIFO owned by uid %u (a link, another kind of file or "
                 "another user's); nothing is written to it while mounted",
              caller, path, static_cast<unsigned>(geteuid()));
    return -EPERM;
}

int writeToPipe(const char *caller, const char *buf, size_t len) {
    const char *path = notifyPipePath();
    // Looked at before opening, so that nothing but our FIFO is ever opened
    // (opening a device node can have effects of its own).
    struct stat st;
    if (lstat(path, &st) == 0 && !isOurFifo(st)) return refusePipe(caller, path);
    // Never through a link, never created, never waiting for a reader.
    int fd = open(path, O_WRONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        if (err == ELOOP) return refusePipe(caller, path);  // became a link since
        QNLog(3, "%s open pipe failed. errno : %d", caller, err);
        return -err;
    }
    // What was opened is what counts: the name may have been replaced since.
    if (fstat(fd, &st) != 0 || !isOurFifo(st)) {
        close(fd);
        return refusePipe(caller, path);
    }
    // A short wait for the reader; only a failure of the wait itself counts.
    // poll rather than select: a busy file system may hold descriptors beyond
    // FD_SETSIZE, which select cannot take.
    struct pollfd waitFor = {fd, POLLIN, 0};
    if (poll(&waitFor, 1, 10) < 0) {
        int err = errno;
        close(fd);
        QNLog(3, "%s select failed. errno : %d", caller, err);
        return -err;
    }
    ssize_t written = writeWithoutSigpipe(fd, buf, len);
    int err = errno;
    close(fd);
    if (written < 0) {
        QNLog(3, "%s write error. errno : %d", caller, err);
        return -err;
    }
    return 0;  // a short write still counts as sent
}

// Shared between the tray thread and whoever stops it. The thread keeps its
// own reference, so a thread left detached at unmount still finds its flag
// and its end marker after the context is gone.
struct TrayShared {
    std::atomic<uint8_t> run{1};
    std::mutex lock;
    std::condition_variable ended;
    bool finished = false;
};

} // namespace

struct TrayThread {
    std::shared_ptr<TrayShared> shared;
    std::thread thread;
};

const char *notifyPipePath() {
    const char *configured = getenv("QUORVEL_PIPE");
    if (configured != nullptr && *configured != '\0') return configured;
    return kDefaultPipePath;
}

void resetPipeRefusal() { pipeRefusalLogged = false; }

int sendPipeMsg(const char *msg) { return writeToPipe(__func__, msg, strlen(msg)); }

int sendPipeData(const char *buf, size_t len) { return writeToPipe(__func__, buf, len); }

// SIGPIPE is blocked around the write in this thread only, and a SIGPIPE the
// write raised is taken back before the mask is restored. The process-wide
// disposition belongs to the program that hosts us (FUSE, a tool, a test), so
// it is left alone.
ssize_t writeWithoutSigpipe(int fd, const void *buf, size_t len) {
    sigset_t pipeOnly, previous, pending;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly, &previous);
    sigemptyset(&pending);
    sigpending(&pending);
    bool alreadyPending = sigismember(&pending, SIGPIPE) == 1;

    ssize_t written = write(fd, buf, len);
    int err = errno;
    if (written < 0 && err == EPIPE && !alreadyPending) {
        struct timespec noWait = {0, 0};
        while (sigtimedwait(&pipeOnly, nullptr, &noWait) < 0 && errno == EINTR) {
        }
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    errno = err;
    return written;
}

void copyTransferExtension(char out[10], const char *fileName) {
    memset(out, 0, 10);
    if (fileName == nullptr) return;
    const char *slash = strrchr(fileName, '/');
    const char *name = slash != nullptr ? slash + 1 : fileName;
    const char *dot = strrchr(name, '.');
    const char *extension = dot != nullptr ? dot + 1 : name;
    size_t length = strlen(extension);
    if (length > 8) length = 9;  // the tenth byte stays NUL
    memcpy(out, extension, length);
}

int queueTransferRecord(uint32_t kind, uint64_t size, const char *fileName) {
    auto box = static_cast<PKTL_PIPE_DATA_BOX>(malloc(sizeof(_KTL_PIPE_DATA_BOX_FS_VALUE)));
    if (box == nullptr) {
        QNLog(3, "%s PKTL_PIPE_DATA_BOX alloc failed", __func__);
        return -ENOMEM;
    }
    memset(box, 0, sizeof(_KTL_PIPE_DATA_BOX_FS_VALUE));
    box->kind = kind;
    box->size = size;
    copyTransferExtension(box->extension, fileName);
    try {
        std::lock_guard<std::mutex> guard(gQueueLock);
        gQueue.push_back(box);
    } catch (const std::bad_alloc &) {
        free(box);
        QNLog(3, "%s PKTL_PIPE_DATA_BOX alloc failed", __func__);
        return -ENOMEM;
    }
    return 0;
}

size_t takePipeBatch(char buffer[kBatchMaxBytes]) {
    memset(buffer, 0, kBatchMaxBytes);
    memcpy(buffer, "-ncdat", 6);
    uint32_t count = 0;
    while (count < kBatchMaxRecords) {
        PKTL_PIPE_DATA_BOX box = nullptr;
        {
            std::lock_guard<std::mutex> guard(gQueueLock);
            if (gQueue.empty()) break;
            box = gQueue.front();
            gQueue.pop_front();
        }
        memcpy(buffer + kBatchHeaderBytes + count * sizeof(*box), box, sizeof(*box));
        free(box);
        ++count;
    }
    memcpy(buffer + kBatchCountOffset, &count, sizeof(count));
    if (count == 0) return 0;
    return kBatchHeaderBytes + count * sizeof(_KTL_PIPE_DATA_BOX_FS_VALUE);
}

void runTrayLoop(const std::atomic<uint8_t> &run) {
    char buffer[kBatchMaxBytes];
    memset(buffer, 0, sizeof(buffer));
    if (run == 0) return;
    while (run == 1) {
        size_t length = takePipeBatch(buffer);
        if (length == 0) {
            usleep(1000);
            continue;
        }
        // A batch that cannot be written is lost; the failure is in the log.
        sendPipeData(buffer, length);
        usleep(300);
    }
}

void sendDataToTheTrayThread(_CONTEXT *ctx) { runTrayLoop(ctx->tray_run); }

int startTrayThreadRunning(_CONTEXT *ctx, void (*body)(const std::atomic<uint8_t> &run), const char *caller) {
    if (ctx->tray_thread != nullptr) stopTrayThread(ctx);
    auto shared = std::make_shared<TrayShared>();
    ctx->tray_run = 1;
    std::thread thread;
    try {
        thread = std::thread([shared, body] {
            body(shared->run);
            std::lock_guard<std::mutex> guard(shared->lock);
            shared->finished = true;
            shared->ended.notify_all();
        });
    } catch (const std::system_error &error) {
        QNLog(3, "%s tray thread create fail. errno : %d", caller, error.code().value());
        ctx->tray_run = 0;
        return -1;
    }
    ctx->tray_thread = new TrayThread{shared, std::move(thread)};
    return 0;
}

int startTrayThread(_CONTEXT *ctx, const char *caller) { return startTrayThreadRunning(ctx, runTrayLoop, caller); }

bool stopTrayThread(_CONTEXT *ctx) {
    ctx->tray_run = 0;
    TrayThread *tray = ctx->tray_thread;
    if (tray == nullptr) return true;
    ctx->tray_thread = nullptr;
    tray->shared->run = 0;
    bool ended;
    {
        // Measured on the monotonic clock, so a wall-clock step during
        // unmount can neither cut the wait short nor stretch it.
        std::unique_lock<std::mutex> wait(tray->shared->lock);
        ended = tray->shared->ended.wait_until(wait, std::chrono::steady_clock::now() + std::chrono::seconds(2),
                                               [&] { return tray->shared->finished; });
    }
    if (tray->thread.joinable()) {
        if (ended) {
            tray->thread.join();
        } else {
            QNLog(3, "%s tray thread did not stop in 2 seconds; left detached", __func__);
            tray->thread.detach();
        }
    }
    delete tray;
    return ended;
}

void drainQueue() {
    std::lock_guard<std::mutex> guard(gQueueLock);
    while (!gQueue.empty()) {
        free(gQueue.front());
        gQueue.pop_front();
    }
}

// ---- Message dialogs -------------------------------------------------------

const char *getMsgTypeString(int kind) {
    switch (kind) {
    case kMsgNotification: return kTitleNotification;
    case kMsgWarning: return kTitleWarning;
    case kMsgError: return kTitleError;
    default: return kTitleUnknown;
    }
}

void ShowMessageBox(int kind, const char *format, ...) {
    _CONTEXT *ctx = nullptr;
    int ret = getContext(&ctx);
    if (ret != 0 || ctx == nullptr) {
        QNLog(3, "%s getContext failed. ret : %d", __func__, ret);
        QNLog(3, "%s Error. ret : %d", __func__, ret);
        return;
    }
    _DIALOG_BLOCK &block = ctx->dialog;
    {
        std::lock_guard<std::mutex> guard(block.message_lock);
        block.dialog_pending = 1;
        block.dialog_title = getMsgTypeString(kind);
        memset(block.dialog_message, 0, sizeof(block.dialog_message));
        va_list args;
        va_start(args, format);
        vsnprintf(block.dialog_message, sizeof(block.dialog_message), format, args);
        va_end(args);
        block.dialog_button = kDialogButton;
    }
    if (ctx->dialog_thread_started) pthread_kill(ctx->dialog_thread, SIGUSR1);
}

namespace {

// The kind handed to a QUORVEL_DIALOG program, read back from the title.
const char *dialogKindName(const char *title) {
    if (strcmp(title, kTitleNotification) == 0) return "notification";
    if (strcmp(title, kTitleWarning) == 0) return "warning";
    if (strcmp(title, kTitleError) == 0) return "error";
    return "unknown";
}

const char *zenityKindOption(const char *title) {
    if (strcmp(title, kTitleWarning) == 0) return "--warning";
    if (strcmp(title, kTitleError) == 0) return "--error";
    return "--info";
}

bool isExecutableInPath(const char *program) {
    const char *path = getenv("PATH");
    if (path == nullptr) return false;
    std::string folders = path;
    size_t start = 0;
    while (start <= folders.size()) {
        size_t end = folders.find(':', start);
        if (end == std::string::npos) end = folders.size();
        std::string folder = folders.substr(start, end - start);
        if (folder.empty()) folder = ".";
        std::string candidate = folder + "/" + program;
        struct stat st;
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(candidate.c_str(), X_OK) == 0)
            return true;
        start = end + 1;
    }
    return false;
}

// zenity expands backslash escapes in --text; doubling each backslash keeps
// the text as it was written.
std::string keepBackslashes(const char *text) {
    std::string out;
    for (const char *p = text; *p != '\0'; ++p) {
        if (*p == '\\') out += '\\';
        out += *p;
    }
    return out;
}

// Starts the program with exactly these arguments (no shell in between) and
// waits for it: the dialog is modal. False when it could not be started.
bool runAndWait(char *const argv[]) {
    posix_spawnattr_t attributes;
    if (posix_spawnattr_init(&attributes) != 0) return false;
    // The dialog thread blocks SIGUSR1 and FUSE ignores SIGPIPE; neither
    // should be passed on to the dialog program.
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGUSR1);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    pid_t child = -1;
    int result = posix_spawnp(&child, argv[0], nullptr, &attributes, argv, environ);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) {
        QNLog(3, "%s could not start %s. errno : %d", __func__, argv[0], result);
        return false;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return true;
}

void showOnStandardError(const char *title, const char *message, const char *button) {
    fprintf(stderr, "%s\n%s\n[%s]\n", title, message, button);
    fflush(stderr);
}

void showPendingDialog(_DIALOG_BLOCK &block) {
    const char *title = nullptr;
    const char *button = nullptr;
    char message[sizeof(block.dialog_message)];
    {
        // Taken and cleared together: a message raised while this dialog is
        // on screen sets the flag again and is shown next, with its own text.
        std::lock_guard<std::mutex> guard(block.message_lock);
        if (block.dialog_pending != 1) return;
        title = block.dialog_title != nullptr ? block.dialog_title : kTitleUnknown;
        button = block.dialog_button != nullptr ? block.dialog_button : kDialogButton;
        memcpy(message, block.dialog_message, sizeof(message));
        message[sizeof(message) - 1] = '\0';
        block.dialog_pending = 0;
    }
    showDialogNow(title, message, button);
}

void refreshIfRequested(_DIALOG_BLOCK &block) {
    if (block.finder_refresh != 1) return;
    int32_t idle = 0;
    if (!block.refresh_busy.compare_exchange_strong(idle, 1)) return;
    // Linux file managers watch their folders themselves: nothing to run.
    block.finder_refresh = 0;
    block.refresh_busy.fetch_add(-1);
}

} // namespace

void showDialogNow(const char *title, const char *message, const char *button) {
    const char *program = getenv("QUORVEL_DIALOG");
    if (program != nullptr && *program != '\0') {
        const char *argv[] = {program, dialogKindName(title), title, message, button, nullptr};
        if (runAndWait(const_cast<char *const *>(argv))) return;
    } else if ((getenv("DISPLAY") != nullptr || getenv("WAYLAND_DISPLAY") != nullptr) &&
               isExecutableInPath("zenity")) {
        std::string text = keepBackslashes(message);
        const char *argv[] = {"zenity", zenityKindOption(title), "--title", title, "--text", text.c_str(),
                              "--ok-label", button, "--no-markup", nullptr};
        if (runAndWait(const_cast<char *const *>(argv))) return;
    }
    showOnStandardError(title, message, button);
}

void *messageDialogThread(void *dialogBlock) {
    auto *block = static_cast<_DIALOG_BLOCK *>(dialogBlock);
    if (block->dialog_run == 0) return nullptr;
    while (block->dialog_run == 1) {
        int received = 0;
        int result = sigwait(&block->dialog_sigset, &received);
        if (result != 0) {
            QNLog(3, "%s sigwait error : %d", __func__, result);
            continue;
        }
        showPendingDialog(*block);
        refreshIfRequested(*block);
    }
    return nullptr;
}

int startDialogThread(_CONTEXT *ctx, const char *caller) {
    _DIALOG_BLOCK &block = ctx->dialog;
    block.dialog_run = 1;
    block.refresh_busy = 0;
    sigemptyset(&block.dialog_sigset);
    sigaddset(&block.dialog_sigset, SIGUSR1);
    if (pthread_sigmask(SIG_BLOCK, &block.dialog_sigset, nullptr) != 0) QNLog(3, "%s pthread_sigmask fail.", caller);
    if (pthread_create(&ctx->dialog_thread, nullptr, messageDialogThread, &block) != 0) {
        QNLog(3, "%s thread create fail.", caller);
        ctx->dialog_thread_started = false;
        return -1;
    }
    ctx->dialog_thread_started = true;
    return 0;
}

void stopDialogThread(_CONTEXT *ctx) {
    if (!ctx->dialog_thread_started) return;
    ctx->dialog.dialog_run = 0;
    pthread_kill(ctx->dialog_thread, SIGUSR1);
    pthread_join(ctx->dialog_thread, nullptr);
    ctx->dialog_thread_started = false;
}

void requestFinderRefresh(_CONTEXT *ctx) {
    ctx->dialog.finder_refresh = 1;
    if (ctx->dialog_thread_started) pthread_kill(ctx->dialog_thread, SIGUSR1);
}
