// Namespace changes: making folders and removing folders and files, in the
// two writable places, /Storage (the device's "/general_storage" through the
// mount's AFC connection) and the inside of an app folder (the app's
// "/Documents" through a house-arrest connection kept on the parent folder's
// record). Everything else is read-only and refused with a notice. The
// catalogue changes only after the device did.
#pragma once

#include <sys/types.h>

#include "tarnifs/catalogue.h"
#include "tarnifs/mount.h"

int tarnifs_mkdir(const char *path, mode_t mode);
int tarnifs_rmdir(const char *path);
int tarnifs_unlink(const char *path);

// A file removed while open keeps a path in libfuse: it is renamed to a
// hidden name (".fuse_hidden" + digits, in its folder) instead of being
// removed, and that name is removed at its last close. The hidden name never
// reaches the device: the rename removes the file there as an unlink does,
// and its record, kept for the open handles, takes the hidden name.
bool IsHiddenRemovedName(const char *path);
int HideRemovedOpenFile(_CONTEXT *ctx, const char *from, const char *to);

// Removes a /Storage file on the device and then its record. 0 (also when the
// device no longer had it) or the device error; the record stays on an error.
int UnlinkStorageContents(_CONTEXT *ctx, const char *path);
// The same inside an app folder; 1 when `path` is not inside an app.
int UnlinkAppsContents(_CONTEXT *ctx, const char *path);
// Removes on the device, depth first, everything below the catalogued
// `folder` whose volume path is `path`, and the records of what it removed.
// 0, or the device error that stopped the walk. Nothing calls it at present.
int CleanupSubFiles(_CONTEXT *ctx, const char *path, _KTL_OBJECT *folder);
