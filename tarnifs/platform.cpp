#include "tarnifs/platform.h"

#include <atomic>

namespace {
std::atomic<struct fuse_context *> testFuseContext{nullptr};
}

struct fuse_context *currentFuseContext() {
    struct fuse_context *forTesting = testFuseContext.load();
    if (forTesting != nullptr) return forTesting;
    return fuse_get_context();
}

void SetFuseContextForTesting(struct fuse_context *context) { testFuseContext.store(context); }
