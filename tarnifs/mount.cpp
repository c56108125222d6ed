// Process entry, the operation table, the global lock and the mount context.
#include "tarnifs/mount.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "tarnifs/catalogue.h"
#include "tarnifs/listing.h"
#include "util/log.h"

pthread_mutex_t tarni_mutex = PTHREAD_MUTEX_INITIALIZER;
char gBundlePath[512];

namespace {

struct fuse_operations makeOperationTable() {
    struct fuse_operations ops;
    memset(&ops, 0, sizeof(ops));
    ops.init = tarnifs_init;
    ops.destroy = tarnifs_destroy;
    ops.statfs = tarnifs_statfs;
    ops.access = tarnifs_access;
    ops.getattr = tarnifs_getattr;
    ops.readdir = tarnifs_readdir;
    ops.fgetattr = tarnifs_fgetattr;
    ops.getxattr = tarnifs_getxattr;
    ops.setxattr = tarnifs_setxattr;
    ops.removexattr = tarnifs_removexattr;
#ifdef __APPLE__
    ops.setattr_x = tarnifs_setattr_x;
    ops.fsetattr_x = tarnifs_fsetattr_x;
#else
    // Linux has no setattr_x: its pieces arrive one by one.
    ops.chmod = tarnifs_chmod;
    ops.chown = tarnifs_chown;
    ops.truncate = tarnifs_truncate;
    ops.ftruncate = tarnifs_ftruncate;
    ops.utimens = tarnifs_utimens;
#endif
    return ops;
}

} // namespace

struct fuse_operations tarni_opers = makeOperationTable();

int getContext(_CONTEXT **out) {
    struct fuse_context *fuse = currentFuseContext();
    if (fuse == nullptr) {
        QNLog(3, "%s FUSE_CONTEXT is NULL!!", "getContext");
        return -ENOSYS;
    }
    *out = static_cast<_CONTEXT *>(fuse->private_data);
    if (*out == nullptr) {
        QNLog(3, "%s pContext is NULL!!", "getContext");
        return -ENOSYS;
    }
    return 0;
}

int takeDevopt(int argc, char **argv, int *locationId) {
    *locationId = 0;
    for (int i = 0; i < argc; ++i) {
        if (argv[i] != nullptr && strcmp(argv[i], "-devopt") == 0) {
            // The launcher always puts "-devopt <id>" last; a missing value reads as 0.
            *locationId = argv[i + 1] != nullptr ? atoi(argv[i + 1]) : 0;
            argv[i] = nullptr;
            argv[i + 1] = nullptr;
            break;
        }
    }
    // Always two fewer, found or not: the pair is expected to be the last two
    // arguments, and without it the last two are dropped.
    return argc - 2;
}

int tarnifs_main(int argc, char **argv) {
    umask(0);
    int locationId = 0;
    int fuseArgc = takeDevopt(argc, argv, &locationId);
    return fuse_main_real(fuseArgc, argv, &tarni_opers, sizeof(tarni_opers), &locationId);
}
