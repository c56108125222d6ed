// Folder listings: the fixed root and /Media layout, and the /Storage and
// /Apps areas listed from the device into the catalogue.
#pragma once

#include <sys/types.h>

#include <string>

#include "tarnifs/mount.h"

// Emits every name with a null stat and offset 0, "." and ".." first; a null
// filler only fills the catalogue.
int tarnifs_readdir(const char *path, void *buffer, fuse_fill_dir_t filler, off_t offset, struct fuse_file_info *fi);

// What the kernel calls: an open folder keeps the names tarnifs_readdir gave,
// and each page hands them on with the catalogue's attributes.
int opendirForListing(const char *path, struct fuse_file_info *fi);
int readdirWithAttributes(const char *path, void *buffer, fuse_fill_dir_t filler, off_t offset,
                          struct fuse_file_info *fi, enum fuse_readdir_flags flags);
int releasedirOfListing(const char *path, struct fuse_file_info *fi);

int enumStorage(_CONTEXT *ctx, const char *path, void *buffer, fuse_fill_dir_t filler, off_t offset);
int enumApps(_CONTEXT *ctx, const char *path, void *buffer, fuse_fill_dir_t filler);

// The body of a listing, for callers that already hold tarni_mutex; a null
// filler only fills the catalogue.
int listFolder(_CONTEXT *ctx, const char *path, void *buffer, fuse_fill_dir_t filler, off_t offset);

// Lists, from the root down, every folder above `path` that was not listed
// yet, so that a path is found even when nothing listed its folder before.
// Folders already listed are left as they are. Called under tarni_mutex.
// 0, or the error of a listing that failed (its dialog already shown).
int listFoldersAbove(_CONTEXT *ctx, const char *path);

// Whether a name from a device listing is shown: it must be one path component
// (not empty, no "/", not "." or ".."), no longer than NAME_MAX. Other names
// beginning with "." are shown like any name.
bool IsListableDeviceName(const char *name);

// A last component longer than NAME_MAX (what statfs reports): refused with
// ENAMETOOLONG before anything is asked of the device, as Linux file systems
// refuse it, never with a dialog.
bool LastNameTooLong(const char *path);

// Device paths of volume paths: "/Storage/a/b" -> "/general_storage/a/b";
// "/Apps/<app>/x/y" -> "/Documents/x/y" inside the app's sandbox.
std::string StorageDevicePath(const char *path);
std::string AppSandboxPath(const char *path);
// "/Apps/Notes/a/b.txt" -> "Notes", as messages name an app (at most 511 bytes).
std::string AppFolderName(const char *path);
// The folder a read-only notice names: the path up to its last "/", or "/".
std::string ParentFolderOf(const char *path);

// Folder listings larger than this are announced to the tray helper as busy.
constexpr uint32_t kBusyListingEntries = 30000;
