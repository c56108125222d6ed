#include "tarnifs/platform.h"

#include <fuse_lowlevel.h>
#include <signal.h>

#include <atomic>
#include <initializer_list>
#include <cstring>
#include <string>
#include <vector>

namespace {
std::atomic<struct fuse_context *> testFuseContext{nullptr};

std::atomic<struct fuse_session *> stoppableSession{nullptr};
volatile sig_atomic_t stopRequested = 0;

void endSessionOnSignal(int) {
    stopRequested = 1;
    struct fuse_session *session = stoppableSession.load();
    if (session != nullptr) fuse_session_exit(session);
}
} // namespace

void InstallStopSignalHandlers() {
    struct sigaction action {};
    action.sa_handler = endSessionOnSignal;
    sigemptyset(&action.sa_mask);
    for (int sig : {SIGHUP, SIGINT, SIGTERM}) {
        struct sigaction current {};
        // A handler someone else chose (an embedding program) is left alone.
        if (sigaction(sig, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) sigaction(sig, &action, nullptr);
    }
}

void StopSignalsEndSession(struct fuse *fuse) {
    if (fuse == nullptr) return;
    struct fuse_session *session = fuse_get_session(fuse);
    stoppableSession.store(session);
    // A stop asked for while the device was being reached ends the mount now.
    if (stopRequested) fuse_session_exit(session);
}

struct fuse_context *currentFuseContext() {
    struct fuse_context *forTesting = testFuseContext.load();
    if (forTesting != nullptr) return forTesting;
    return fuse_get_context();
}

void SetFuseContextForTesting(struct fuse_context *context) { testFuseContext.store(context); }

namespace {
thread_local int lockedHandlerDepth = 0;
thread_local std::vector<std::string> deferredInvalidations;
} // namespace

void EnterLockedHandler() { ++lockedHandlerDepth; }
void LeaveLockedHandler() { --lockedHandlerDepth; }

void InvalidateKernelView(const char *path) {
    struct fuse_context *fuse = currentFuseContext();
    // Unit tests call handlers without a mount: there is no kernel view then.
    if (fuse == nullptr || fuse->fuse == nullptr || path == nullptr) return;
    if (lockedHandlerDepth > 0) {
        deferredInvalidations.emplace_back(path);
        return;
    }
    // -ENOENT only means the kernel never saw the path: nothing to drop.
    fuse_invalidate_path(fuse->fuse, path);
}

void SendDeferredKernelInvalidations() {
    if (lockedHandlerDepth > 0 || deferredInvalidations.empty()) return;
    std::vector<std::string> paths;
    paths.swap(deferredInvalidations);
    struct fuse_context *fuse = currentFuseContext();
    if (fuse == nullptr || fuse->fuse == nullptr) return;
    for (const std::string &path : paths) fuse_invalidate_path(fuse->fuse, path.c_str());
}

bool IsKernelXattrName(const char *name) {
    return name != nullptr && (strncmp(name, "security.", 9) == 0 || strncmp(name, "system.", 7) == 0);
}
