// Volume statistics and access.
#include <sys/statvfs.h>

#include <cstring>

#include "tarnifs/catalogue.h"
#include "tarnifs/listing.h"
#include "tarnifs/mount.h"
#include "util/log.h"

unsigned long long CalibrateVolumeSize(unsigned long long bytes) {
    // Whole binary units re-expressed in decimal ones, so that file managers
    // counting in 1000s show the figures the device itself reports; the factor
    // 100 keeps about two digits of precision.
    unsigned long long value = bytes * 100;
    int units = 0;
    while (value > 102400) {
        ++units;
        value >>= 10;
    }
    for (int i = 0; i < units; ++i) value *= 1000;
    return value / 100;
}

int tarnifs_statfs(const char *path, struct statvfs *st) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) {
        QNLog(3, "%s pContext is NULL!", "tarnifs_statfs");
        return result;
    }
    // Every path of the volume answers with the volume's figures: programs
    // ask for the folder they write into, and divide by what they get.
    (void)path;
    const libiusb_device_info &info = ctx->device_info;
    // Start-up always fills the block size; a zero is answered with no figures.
    if (info.block_size == 0) return 0;
    st->f_bsize = info.block_size;
    st->f_frsize = info.block_size;
    st->f_blocks = CalibrateVolumeSize(info.total_capacity) / info.block_size;
    st->f_bfree = CalibrateVolumeSize(info.free_capacity) / info.block_size;
    st->f_bavail = st->f_bfree;
    st->f_ffree = 0;
    st->f_namemax = 255;
    return 0;
}

int tarnifs_access(const char *path, int) {
    TarniLock lock;
    // Without a context there is no catalogue to look in (start-up failed).
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    // Every existing path is accessible in every mode.
    if (strcmp(path, "/") == 0 || FindObject(path) != nullptr) return 0;
    // Nothing listed this path's folder yet: list it, then look again.
    if (listFoldersAbove(ctx, path) == 0 && FindObject(path) != nullptr) return 0;
    return -1;
}
