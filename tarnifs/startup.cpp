// Start-up and shut-down of a mount: connect to the device whose location id
// came on the command line, start the dialog and tray threads, and tear it all
// down again at unmount.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>

#include "tarnifs/catalogue.h"
#include "tarnifs/filedata.h"
#include "tarnifs/info_queries.h"
#include "tarnifs/jpeg_views.h"
#include "tarnifs/mount.h"
#include "tarnifs/names.h"
#include "tarnifs/notify.h"
#include "util/log.h"

namespace {

constexpr int kConnectionAttempts = 11;
constexpr int kTrustAttempts = 10;

// Opens `path` as a real folder of ours (not a link) and takes its lock, so
// that no other mount uses it while we do. The open folder, or -1.
int lockOurPrivateFolder(const char *path) {
    int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() || fchmod(fd, 0700) != 0 ||
        flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// "/tmp/" + id when it is (or can be made) a real folder of ours, private to
// us, and no other mount (of this device, in another process) uses it;
// otherwise a fresh private folder is used. Staged files are thus never seen,
// nor removed at unmount, by another mount.
void prepareWorkFolder(_CONTEXT *ctx) {
    char path[256];
    memset(path, 0, sizeof(path));
    snprintf(path, sizeof(path), "/tmp/%s", ctx->pLocationId);
    mkdir(path, 0700);
    ctx->work_dir_lock = lockOurPrivateFolder(path);
    if (ctx->work_dir_lock >= 0) {
        snprintf(ctx->work_dir, sizeof(ctx->work_dir), "%s", path);
        return;
    }
    QNLog(3, "%s %s is not a private folder of ours, using a fresh one", "tarnifs_init", path);
    char pattern[256];
    snprintf(pattern, sizeof(pattern), "/tmp/quorvel-%s-XXXXXX", ctx->pLocationId);
    if (mkdtemp(pattern) != nullptr) {
        snprintf(ctx->work_dir, sizeof(ctx->work_dir), "%s", pattern);
        ctx->work_dir_lock = lockOurPrivateFolder(pattern);
    } else {
        QNLog(3, "%s mkdtemp failed. errno : %d", "tarnifs_init", errno);
    }
}

void releaseWorkFolderLock(_CONTEXT *ctx) {
    if (ctx->work_dir_lock >= 0) close(ctx->work_dir_lock);
    ctx->work_dir_lock = -1;
}

void removeWorkFolder(_CONTEXT *ctx) {
    if (ctx->work_dir[0] == '\0') return;
    std::error_code error;
    // remove_all does not follow links: only the folder's own contents go.
    std::filesystem::remove_all(ctx->work_dir, error);
    if (error) QNLog(3, "%s remove %s failed. error : %d", "tarnifs_destroy", ctx->work_dir, error.value());
    ctx->work_dir[0] = '\0';
    // Only once it is gone: a mount starting now makes it afresh for itself.
    releaseWorkFolderLock(ctx);
}

void closeDatabases(_CONTEXT *ctx) {
    for (sqlite3 **db : {&ctx->media_db, &ctx->photo_db, &ctx->record_db}) {
        if (*db != nullptr) sqlite3_close(*db);
        *db = nullptr;
    }
}

} // namespace

int getBundlePath(char *dst) {
    // The folder of the executable stands for the application bundle here.
    char exe[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (length <= 0) {
        QNLog(3, "%s readlink /proc/self/exe failed", "getBundlePath");
        return -1;
    }
    exe[length] = '\0';
    std::string folder = std::filesystem::path(exe).parent_path().string();
    if (folder.size() >= sizeof(gBundlePath)) {
        QNLog(3, "%s bundle path too long", "getBundlePath");
        return -1;
    }
    QNLog(3, "%s Bundle path is %s\n", "getBundlePath", folder.c_str());
    strcpy(dst, folder.c_str());
    return 0;
}

int device_init(_CONTEXT *ctx, libiusb_context *libctx, unsigned int locationId) {
    libiusb_device_handle *device = nullptr;
    libiusb_afc *afc = nullptr;
    libiusb_instproxy *instproxy = nullptr;
    libiusb_device_info info;
    int result = 0;

    for (;;) {
        libiusb_device **list = nullptr;
        result = libiusb_device_get_list(libctx, &list);
        if (result != 0) {
            QNLog(3, "%s libiusb_device_get_list failed. code : %d", "device_init", result);
            goto cleanup;
        }
        libiusb_device *chosen = nullptr;
        for (int index = 0; list != nullptr && list[index] != nullptr; ++index) {
            memset(&info, 0, sizeof(info));
            result = libiusb_device_get_info(list[index], &info);
            if (result != 0) {
                QNLog(3, "%s libiusb_device_get_info failed. %d", "device_init", result);
                goto cleanup;
            }
            if (info.location_id == locationId) {
                chosen = list[index];
                QNLog(3, "%s ============================================", "device_init");
                QNLog(3, "%s Connected device %d : %p", "device_init", index,
                      reinterpret_cast<void *>(static_cast<uintptr_t>(info.location_id)));
                QNLog(3, "%s Device Name : %s", "device_init", info.device_name);
                QNLog(3, "%s Device iOS Version : %s", "device_init", info.ios_version);
                QNLog(3, "%s ============================================\n", "device_init");
                break;
            }
        }
        if (chosen == nullptr) {
            QNLog(3, "%s no devices.", "device_init");
            return result != 0 ? result : LIBIUSB_ERROR_NO_DEVICE;
        }

        bool trustWaited = false;
        bool pairedAgain = false;
        for (int attempt = 0; attempt < kTrustAttempts; ++attempt) {
            result = libiusb_device_open(chosen, &device);
            if (result == LIBIUSB_ERROR_PAIRING_REJECTED && !pairedAgain) {
                // The device was reset or forgot this computer: pair afresh, once.
                QNLog(3, "%s the device no longer accepts the pairing record: pairing again", "device_init");
                pairedAgain = true;
                if (libiusb_device_forget_pairing(chosen) == 0) {
                    trustWaited = true;
                    continue;
                }
            }
            if (result != LIBIUSB_ERROR_TRUST_PENDING && result != LIBIUSB_ERROR_PASSWORD_PROTECTED) break;
            QNLog(3, "%s libiusb fail cause trust dialog. retry(%d/%d)", "device_init", attempt, kTrustAttempts);
            sleep(3);
            trustWaited = true;
        }
        if (result != 0) {
            QNLog(3, "%s libiusb_device_open failed. code : %d", "device_init", result);
            goto cleanup;
        }
        if (!trustWaited) break;
        // The device was just trusted: look at it afresh, as its list entry
        // may have changed while the prompt was up.
        libiusb_device_close(device);
        device = nullptr;
        usleep(200000);
    }

    result = libiusb_afc_init(device, &afc);
    if (result != 0) {
        QNLog(3, "%s libiusb_afc_init failed. code : %d", "device_init", result);
        goto cleanup;
    }
    if (afc == nullptr) {
        QNLog(3, "%s libiusb_afc_init succeed, but afc_handle is invalid. code : %d", "device_init", result);
        result = -1;
        goto cleanup;
    }
    result = libiusb_instproxy_init(device, &instproxy);
    if (result != 0) {
        QNLog(3, "%s libiusb_instproxy_int failed. code : %d", "device_init", result);
        goto cleanup;
    }
    if (instproxy == nullptr) {
        QNLog(3, "%s libiusb_instproxy_int succeed, but instproxy_handle is invalid. code : %d", "device_init", result);
        result = -1;
        goto cleanup;
    }
    memset(&info, 0, sizeof(info));
    result = libiusb_device_get_info(device, &info);
    if (result != 0) {
        QNLog(3, "%s libiusb_device_get_info failed. code : %d", "device_init", result);
        goto cleanup;
    }
    ctx->device_info = info;
    ctx->device_handle = device;
    ctx->afc_handle = afc;
    ctx->instproxy_handle = instproxy;
    return 0;

cleanup:
    if (instproxy != nullptr) libiusb_instproxy_exit(instproxy);
    if (afc != nullptr) libiusb_afc_exit(afc);
    if (device != nullptr) libiusb_device_close(device);
    return result;
}

void *tarnifs_init(struct fuse_conn_info *conn) {
#ifdef __APPLE__
    FUSE_ENABLE_CASE_INSENSITIVE(conn);
    FUSE_ENABLE_SETVOLNAME(conn);
    FUSE_ENABLE_XTIMES(conn);
#else
    (void)conn;  // Linux offers none of these capabilities.
#endif
    struct fuse_context *fuse = currentFuseContext();
    unsigned int locationId =
        fuse != nullptr && fuse->private_data != nullptr ? *static_cast<unsigned int *>(fuse->private_data) : 0;

    QNLogInit();
    resetPipeRefusal();  // each mount says once that the pipe is not ours
    pthread_mutex_lock(&tarni_mutex);

    gEncodedPath = static_cast<char *>(calloc(kEncodedPathSize, 1));
    memset(gBundlePath, 0, sizeof(gBundlePath));
    if (getBundlePath(gBundlePath) != 0) QNLog(3, "%s getBundlePath failed", "tarnifs_init");

    _CONTEXT *ctx = new (std::nothrow) _CONTEXT();
    libiusb_context *libctx = nullptr;
    int result = 0;
    char resources[1024];
    if (ctx == nullptr) {
        QNLog(3, "%s pContext alloc failed", "tarnifs_init");
        goto failure;
    }
    // Room for every 32-bit id (ten digits), not only eight.
    ctx->pLocationId = static_cast<char *>(calloc(11, 1));
    snprintf(ctx->pLocationId, 11, "%u", locationId);
    prepareWorkFolder(ctx);

    snprintf(resources, sizeof(resources), "%s/Contents/Resources", gBundlePath);
    result = libiusb_init_ex(resources, 1);
    if (result != 0) {
        QNLog(3, "%s libiusb_init failed. code : %d", "tarnifs_init", result);
        goto failure;
    }

    for (int attempt = 0;; ++attempt) {
        result = libiusb_context_init(&libctx);
        if (result != 0) {
            QNLog(3, "%s libiusb_context_init failed. code : %d", "tarnifs_init", result);
            goto failure;
        }
        if (libctx == nullptr) {
            QNLog(3, "%s libiusb_context_init succeed, but libiusb_context is null. code : %d", "tarnifs_init", result);
            goto failure;
        }
        ctx->context = libctx;
        usleep(100000);
        result = device_init(ctx, libctx, locationId);
        if (result == 0) break;
        if (result == LIBIUSB_ERROR_NO_DEVICE && attempt + 1 < kConnectionAttempts) {
            libiusb_context_exit(libctx);
            libctx = nullptr;
            ctx->context = nullptr;
            continue;
        }
        goto failure;
    }

    startDialogThread(ctx, "tarnifs_init");
    FreeAllObjects(nullptr);
    startTrayThread(ctx, "tarnifs_init");
    sendPipeMsg("-neoff");
    pthread_mutex_unlock(&tarni_mutex);
    return ctx;

failure:
    sendPipeMsg("-neoff");
    pthread_mutex_unlock(&tarni_mutex);
    free(gEncodedPath);
    gEncodedPath = nullptr;
    if (ctx != nullptr) {
        // Nothing was staged yet; an empty private folder is not left behind.
        if (ctx->work_dir[0] != '\0') rmdir(ctx->work_dir);
        releaseWorkFolderLock(ctx);
        free(ctx->pLocationId);
        closeDatabases(ctx);
        if (ctx->afc_handle != nullptr) libiusb_afc_exit(ctx->afc_handle);
        if (ctx->instproxy_handle != nullptr) libiusb_instproxy_exit(ctx->instproxy_handle);
        if (ctx->device_handle != nullptr) libiusb_device_close(ctx->device_handle);
        stopDialogThread(ctx);
        if (ctx->context != nullptr) libiusb_context_exit(ctx->context);
        delete ctx;
    }
    return nullptr;
}

void tarnifs_destroy(void *private_data) {
    _CONTEXT *ctx = static_cast<_CONTEXT *>(private_data);
    if (ctx == nullptr) return;

    pthread_mutex_lock(&tarni_mutex);
    free(gEncodedPath);
    gEncodedPath = nullptr;
    closeDatabases(ctx);
    // The converter's workers and connection go before the device and the
    // work folder that holds its files.
    StopJpegViews();
    // What a program wrote must not go with the work folder: a temporary
    // still staged (its upload at release failed, or it is still open) goes
    // to the device under its own name first.
    UploadEveryStagedFile(ctx);
    FreeAllObjects(ctx->afc_handle);
    removeWorkFolder(ctx);
    memset(&ctx->device_info, 0, sizeof(ctx->device_info));

    // The installation proxy may have been closed to make room under the
    // device's service limit (it is opened again when /Apps is next listed):
    // a mount that had to do so is still whole.
    if (ctx->instproxy_handle != nullptr) libiusb_instproxy_exit(ctx->instproxy_handle);
    ctx->instproxy_handle = nullptr;
    // The listing stream is the device's too: it goes before the main connection.
    closeStorageInfoStream(ctx);
    assert(ctx->afc_handle && "pContext->afc_handle");
    libiusb_afc_exit(ctx->afc_handle);
    ctx->afc_handle = nullptr;
    assert(ctx->device_handle && "pContext->device_handle");
    libiusb_device_close(ctx->device_handle);
    ctx->device_handle = nullptr;
    assert(ctx->context && "pContext->context");
    libiusb_context_exit(ctx->context);
    ctx->context = nullptr;
    assert(ctx->pLocationId && "pContext->pLocationId");
    free(ctx->pLocationId);
    ctx->pLocationId = nullptr;

    stopDialogThread(ctx);
    stopTrayThread(ctx);
    drainQueue();
    delete ctx;
    pthread_mutex_unlock(&tarni_mutex);
    pthread_mutex_destroy(&tarni_mutex);
    // A later mount in the same process (tests do this) starts with a fresh lock.
    pthread_mutex_init(&tarni_mutex, nullptr);
}
