// The mount context, the global lock and the operation table.
#pragma once

#include <pthread.h>
#include <signal.h>
#include <sqlite3.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <vector>

#include "device/libiusb.h"
#include "tarnifs/platform.h"

struct TrayThread;  // the tray notification thread, owned by the notify module

// What the dialog thread is handed: the dialog to show and the refresh request.
struct _DIALOG_BLOCK {
    std::atomic<uint8_t> dialog_run{0};
    std::atomic<uint8_t> dialog_pending{0};
    std::atomic<uint8_t> finder_refresh{0};
    const char *dialog_title = nullptr;
    char dialog_message[512] = {0};
    const char *dialog_button = nullptr;
    sigset_t dialog_sigset{};
    std::atomic<int32_t> refresh_busy{0};
    // Guards title, message and button: an operation may write them while the
    // dialog thread copies them out (the last writer wins).
    std::mutex message_lock;
};

struct _CONTEXT {
    libiusb_context *context = nullptr;
    libiusb_device_handle *device_handle = nullptr;
    libiusb_device_info device_info{};
    libiusb_afc *afc_handle = nullptr;
    // The information stream of large Storage listings
    // (tarnifs/info_queries.h): made at the first one, kept for the next,
    // closed at unmount before afc_handle.
    libiusb_afc_info_stream *listing_stream = nullptr;
    libiusb_instproxy *instproxy_handle = nullptr;
    char *pLocationId = nullptr;
    // The private work folder: "/tmp/" + location id, or a fresh private
    // folder when that name is taken by something that is not ours.
    char work_dir[256] = {0};
    // The work folder, open and locked (flock) for as long as the mount runs:
    // a second mount of the same device finds it taken and uses a fresh one.
    int work_dir_lock = -1;
    sqlite3 *media_db = nullptr;
    sqlite3 *photo_db = nullptr;
    sqlite3 *record_db = nullptr;
    _DIALOG_BLOCK dialog;
    pthread_t dialog_thread{};
    bool dialog_thread_started = false;
    TrayThread *tray_thread = nullptr;
    std::atomic<uint8_t> tray_run{0};
};

extern pthread_mutex_t tarni_mutex;
extern struct fuse_operations tarni_opers;
extern char gBundlePath[512];

// 0 and the mount context, or -ENOSYS (logged) when there is none.
int getContext(_CONTEXT **out);

// Holds tarni_mutex for a handler's whole run, released on every return path.
// What the handler asked the kernel to forget meanwhile is sent once the lock
// is released: the kernel may wait for a read or write of this mount that
// itself waits for the lock (see InvalidateKernelView).
struct TarniLock {
    TarniLock() {
        pthread_mutex_lock(&tarni_mutex);
        EnterLockedHandler();
    }
    ~TarniLock() {
        LeaveLockedHandler();
        pthread_mutex_unlock(&tarni_mutex);
        SendDeferredKernelInvalidations();
    }
    TarniLock(const TarniLock &) = delete;
    TarniLock &operator=(const TarniLock &) = delete;
};

// Takes "-devopt <id>" out of argv (both replaced by null) and returns the
// argument count FUSE is given: always argc - 2.
int takeDevopt(int argc, char **argv, int *locationId);

// Set when the volume is mounted with allow_other: the kernel then checks
// permissions (default_permissions) and the volume reports its files as the
// mounting user's, 0644 and folders 0755, so other users may only read.
extern bool gOtherUsersReadOnly;

// Whether a FUSE option ("-o a,b" or "-oa,b") among argv[1..argc) is `name`.
bool MountOptionGiven(int argc, char **argv, const char *name);

// The process entry, callable from the `quorvel` tool with its own argv.
int tarnifs_main(int argc, char **argv);

void *tarnifs_init(struct fuse_conn_info *conn);
void tarnifs_destroy(void *private_data);
int tarnifs_statfs(const char *path, struct statvfs *st);
int tarnifs_access(const char *path, int mask);
unsigned long long CalibrateVolumeSize(unsigned long long bytes);
int device_init(_CONTEXT *ctx, libiusb_context *libctx, unsigned int locationId);
int getBundlePath(char *dst);
