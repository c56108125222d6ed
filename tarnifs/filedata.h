// File data: opening, reading, writing, releasing, creating and uploading
// files. Every byte goes to and from the device itself; the only local copy
// is the staging file of a safe save, kept in the private work folder until
// the rename that replaces the original uploads it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "tarnifs/catalogue.h"
#include "tarnifs/mount.h"

int tarnifs_open(const char *path, struct fuse_file_info *fi);
int tarnifs_read(const char *path, char *buf, size_t size, off_t offset, struct fuse_file_info *fi);
int tarnifs_write(const char *path, const char *buf, size_t size, off_t offset, struct fuse_file_info *fi);
int tarnifs_release(const char *path, struct fuse_file_info *fi);
// Each close of a file: a staged temporary goes to the device here.
int tarnifs_flush(const char *path, struct fuse_file_info *fi);
int tarnifs_create(const char *path, mode_t mode, struct fuse_file_info *fi);

// The record an open handle stands for: the record of a file removed while
// open (then *removedPath is the volume path it had), else the path's record.
// The handle's path is null once its file was removed. Lock held.
_KTL_OBJECT *objectOfHandle(const char *path, const struct fuse_file_info *fi, std::string *removedPath);

// Converts the JPEG view at `path` when its size is not known yet, waiting
// for it without holding the lock; the record then has its exact size.
// Called before getattr and open answer (nothing for other paths). 1 when
// it converted, 0 when there was nothing to do, or -EIO when the still could
// not be read or converted: no size is reported for it then, rather than
// one the kernel would keep.
int SettleJpegView(const char *path);

// Opens the device file of a new object (created empty); the lock is held.
// 0, a device error code, or -ECANCELED.
int CreateFileHandle(const char *path);
// Copies the staging file work folder + `from` to the device path `to` in
// 65535-byte chunks through `afc`; `remove_after` deletes the staging file
// once it is on the device. 0 or an error code.
int uploadfile(_CONTEXT *ctx, const char *from, const char *to, libiusb_afc *afc, bool remove_after);
// The same, appending to the device file through the mount's AFC connection.
int uploadfileappend(_CONTEXT *ctx, const char *from, const char *to);
// Makes the staging counterpart (folder or empty file) of a volume path.
int MakeTmpPath(_CONTEXT *ctx, const char *path, mode_t mode);

// A size change (truncate, ftruncate, a setattr of the size) reaches the
// device file, not only the catalogue. Called under the lock by the attribute
// handlers before they record the new size. 0, or -ECANCELED after a dialog.
int ChangeFileSizeOnDevice(_CONTEXT *ctx, const char *path, _KTL_OBJECT *object, uint64_t size,
                           struct fuse_file_info *fi);

// The Storage area is "/Storage" and what is below "/Storage/": a name such
// as "/Storagex.txt" is a top-level name, never the device's
// "/general_storagex.txt".
inline bool IsInStorage(const char *path) { return strncmp(path, "/Storage/", 9) == 0; }

// A safe-save temporary's bytes wait in the work folder under this name (the
// staging folder + the whole volume path): keyed by full path, so that two
// temporaries of one name in different folders never meet.
std::string StagingNameOf(const char *path);
// Puts a staged file's bytes on the device under its own name and removes
// the staging file; the record is then an ordinary file. The lock is held.
// 0, or the error (logged under `caller`; the file stays staged).
int UploadStagedFile(_CONTEXT *ctx, const char *path, _KTL_OBJECT *object, const char *caller);
// At unmount: every file still staged goes to the device under its own name.
void UploadEveryStagedFile(_CONTEXT *ctx);

// Bytes a program should move per read or write: the largest request the
// kernel hands a FUSE file system, so a copy costs one device round trip per
// mebibyte.
constexpr uint32_t kPreferredTransferBytes = 1u << 20;
