// Process entry, the operation table, the global lock and the mount context.
#include "tarnifs/mount.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/filedata.h"
#include "tarnifs/jpeg_views.h"
#include "tarnifs/listing.h"
#include "tarnifs/namespace.h"
#include "tarnifs/rename.h"
#include "util/log.h"

pthread_mutex_t tarni_mutex = PTHREAD_MUTEX_INITIALIZER;
bool gOtherUsersReadOnly = false;
char gBundlePath[512];

namespace {

// libfuse 3 hands getattr the open file when there is one (fstat); it then
// answers as getattr does.
int getattrOfPathOrFile(const char *path, struct stat *st, struct fuse_file_info *fi) {
    if (fi != nullptr) return tarnifs_fgetattr(path, st, fi);
    // A JPEG view reports its exact size, so it is converted first; one in
    // a folder that only this getattr listed, right after.
    int settled = gJpegViews ? SettleJpegView(path) : 0;
    if (settled < 0) return settled;
    int result = tarnifs_getattr(path, st);
    if (result != 0 || !gJpegViews || settled != 0 || !S_ISREG(st->st_mode) || st->st_size != 0) return result;
    settled = SettleJpegView(path);
    return settled < 0 ? settled : settled == 0 ? 0 : tarnifs_getattr(path, st);
}

int openSettlingJpegView(const char *path, struct fuse_file_info *fi) {
    int settled = gJpegViews ? SettleJpegView(path) : 0;
    return settled < 0 ? settled : tarnifs_open(path, fi);
}

// "-o jpeg" is ours, not FUSE's: taken out of the option lists (an emptied
// "-o" goes too). The strings of rewritten lists live in `kept`.
std::vector<char *> withoutOption(const std::vector<char *> &args, const char *name, std::vector<std::string> &kept) {
    std::vector<char *> out;
    kept.reserve(args.size());
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == nullptr || strncmp(args[i], "-o", 2) != 0) {
            out.push_back(args[i]);
            continue;
        }
        bool joined = args[i][2] != '\0';
        if (!joined && i + 1 >= args.size()) {
            out.push_back(args[i]);
            continue;
        }
        std::string list = joined ? args[i] + 2 : args[++i];
        std::string rest;
        size_t start = 0;
        while (start <= list.size()) {
            size_t end = list.find(',', start);
            if (end == std::string::npos) end = list.size();
            std::string option = list.substr(start, end - start);
            if (option != name) rest += (rest.empty() ? "" : ",") + option;
            start = end + 1;
        }
        if (rest.empty()) continue;
        kept.push_back("-o" + rest);
        out.push_back(&kept.back()[0]);
    }
    return out;
}

// Start-up, with the kernel cache settings libfuse 3 takes from init.
void *initWithKernelCache(struct fuse_conn_info *conn, struct fuse_config *cfg) {
    cfg->entry_timeout = kKernelCacheSeconds;
    cfg->attr_timeout = kKernelCacheSeconds;
    // A name that is not there is asked again: the device may gain it.
    cfg->negative_timeout = 0;
    // A file removed while open keeps a path in libfuse (a hidden name it
    // gives it), so fstat and seeks on it keep working: with hard_remove
    // libfuse answers every path-based request on it with ESTALE. The
    // hidden name never reaches the device (tarnifs_rename removes the file
    // there at once, see HideRemovedOpenFile).
    cfg->hard_remove = 0;
    // Every page of a listing carries its entries' attributes, not only the
    // first: `ls -l` of a large folder then asks nothing per entry.
    conn->want &= ~FUSE_CAP_READDIRPLUS_AUTO;
    // Reads and writes of up to 1 MiB in one request (libfuse asks the
    // kernel for the matching max_pages), so a large copy costs one device
    // round trip per mebibyte.
    conn->max_write = kPreferredTransferBytes;
    void *context = tarnifs_init(conn);
    struct fuse_context *fuse = currentFuseContext();
    if (fuse != nullptr) StopSignalsEndSession(fuse->fuse);
    return context;
}

int getxattrOutsideKernelNames(const char *path, const char *name, char *value, size_t size) {
    if (IsKernelXattrName(name)) return -EOPNOTSUPP;
    return tarnifs_getxattr(path, name, size == 0 ? nullptr : value, size);
}

int setxattrOutsideKernelNames(const char *path, const char *name, const char *value, size_t size, int flags) {
    if (IsKernelXattrName(name)) return -EOPNOTSUPP;
    return tarnifs_setxattr(path, name, value, size, flags);
}

int removexattrOutsideKernelNames(const char *path, const char *name) {
    if (IsKernelXattrName(name)) return -EOPNOTSUPP;
    return tarnifs_removexattr(path, name);
}

// renameat2's flags (no-replace, exchange, whiteout) have no device
// counterpart: refused, as file systems without them do.
int renameWithoutFlags(const char *from, const char *to, unsigned int flags) {
    if (flags != 0) return -EINVAL;
    return tarnifs_rename(from, to);
}

// The device keeps no links of either kind: refused as file systems
// without them refuse (EPERM), never with a "not found" that sends users
// looking for a missing file.
int refuseLink(const char *, const char *) { return -EPERM; }

struct fuse_operations makeOperationTable() {
    struct fuse_operations ops;
    memset(&ops, 0, sizeof(ops));
    ops.init = initWithKernelCache;
    ops.destroy = tarnifs_destroy;
    ops.statfs = tarnifs_statfs;
    ops.access = tarnifs_access;
    ops.getattr = getattrOfPathOrFile;
    // Listings reach the kernel with each entry's attributes (readdirplus);
    // the open folder keeps what the listing gave, for the later pages.
    ops.opendir = opendirForListing;
    ops.readdir = readdirWithAttributes;
    ops.releasedir = releasedirOfListing;
    ops.getxattr = getxattrOutsideKernelNames;
    ops.setxattr = setxattrOutsideKernelNames;
    ops.removexattr = removexattrOutsideKernelNames;
    ops.rename = renameWithoutFlags;
    ops.link = refuseLink;
    ops.symlink = refuseLink;
    ops.open = openSettlingJpegView;
    ops.read = tarnifs_read;
    ops.write = tarnifs_write;
    ops.release = tarnifs_release;
    ops.flush = tarnifs_flush;
    ops.create = tarnifs_create;
    ops.mkdir = tarnifs_mkdir;
    ops.rmdir = tarnifs_rmdir;
    ops.unlink = tarnifs_unlink;
#ifdef __APPLE__
    ops.setattr_x = tarnifs_setattr_x;
    ops.fsetattr_x = tarnifs_fsetattr_x;
#else
    // Linux has no setattr_x: its pieces arrive one by one.
    ops.chmod = tarnifs_chmod;
    ops.chown = tarnifs_chown;
    ops.truncate = tarnifs_truncate;
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

bool MountOptionGiven(int argc, char **argv, const char *name) {
    for (int i = 1; i < argc; ++i) {
        if (argv[i] == nullptr || strncmp(argv[i], "-o", 2) != 0) continue;
        // "-o a,b" or "-oa,b"
        const char *list = argv[i][2] != '\0' ? argv[i] + 2 : (i + 1 < argc ? argv[++i] : nullptr);
        if (list == nullptr) continue;
        size_t length = strlen(name);
        for (const char *start = list; *start != '\0';) {
            const char *end = strchr(start, ',');
            size_t size = end != nullptr ? static_cast<size_t>(end - start) : strlen(start);
            if (size == length && strncmp(start, name, length) == 0) return true;
            if (end == nullptr) break;
            start = end + 1;
        }
    }
    return false;
}

int tarnifs_main(int argc, char **argv) {
    umask(0);
    int locationId = 0;
    int fuseArgc = takeDevopt(argc, argv, &locationId);
    // With "jpeg", HEIC stills of /Media/Photo are shown as JPEG files.
    gJpegViews = MountOptionGiven(fuseArgc, argv, "jpeg");
    static std::vector<std::string> rewritten;
    rewritten.clear();
    std::vector<char *> fuseArgv = withoutOption(std::vector<char *>(argv, argv + fuseArgc), "jpeg", rewritten);
    // A mount other users can see is theirs to read, not to change: the
    // kernel checks the modes we report (the mounting user's files, others
    // may read), and the mounting user may open it up with -o umask=...
    gOtherUsersReadOnly = MountOptionGiven(fuseArgc, argv, "allow_other");
    static char optionFlag[] = "-o";
    static char kernelChecksModes[] = "default_permissions";
    if (gOtherUsersReadOnly) {
        fuseArgv.push_back(optionFlag);
        fuseArgv.push_back(kernelChecksModes);
    }
    fuseArgv.push_back(nullptr);
    InstallStopSignalHandlers();
    return fuse_main_real(static_cast<int>(fuseArgv.size()) - 1, fuseArgv.data(), &tarni_opers, sizeof(tarni_opers),
                          &locationId);
}
