// The catalogue: one record per volume path the file system has shown, in a
// map from full path to record, and linked into a tree of child lists so that
// folders can be listed and removed with their contents.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "tarnifs/object_path_map.h"
#include "tarnifs/platform.h"

struct libiusb_afc;

// A circular doubly-linked list: a head, or a member's link.
struct _KTL_LIST_ENTRY {
    _KTL_LIST_ENTRY *next;
    _KTL_LIST_ENTRY *previous;
};

struct _KTL_XATTR {
    _KTL_XATTR *next;
    char *name;
    char *value;  // the stored bytes followed by one NUL
};

enum {
    KTL_MODE_FILE = 0x8000,
    KTL_MODE_FOLDER = 0x4000,
};

enum {
    KTL_TYPE_ORDINARY = 0,
    KTL_TYPE_TEMPORARY = 2,
    KTL_TYPE_DEVICE_FOLDER = 3,
    KTL_TYPE_DEVICE_FILE = 4,
    KTL_TYPE_STAGED = 5,
    // A short text the file system writes itself (the photos kept only in
    // iCloud); read from the work folder, never from the device.
    KTL_TYPE_NOTE = 6,
};

// What only some records need: the device handles and position of an open
// file, the app and device path of app and media entries, extended
// attributes. Kept apart, and made the first time one of its fields is set,
// so that an entry of a listed folder that is never opened costs its record
// alone: a listed folder of a million entries holds a million records.
struct _KTL_OBJECT_EXTRAS {
    libiusb_afc *hhandle;  // house-arrest connection; also the AFC connection of file_handle when set
    uint64_t file_handle;
    char *app_id;
    char *device_path;
    _KTL_XATTR *xattr_list;
    uint64_t read_offset;
    uint32_t open_count;
    uint8_t writing;
    uint8_t reading;
    // The device handle in file_handle was opened for writing too ("r+"),
    // not only for reading ("r").
    uint8_t device_writable;
    // A JPEG view of the HEIC still at device_path (mount option "jpeg"):
    // 1 while its size is not known (no conversion yet), 2 once it is exact.
    // While open, file_handle is the cached JPEG's descriptor + 1.
    uint8_t jpeg_view;
};

// Fields are ordered widest first so that none pads, and a short display name
// is kept in the same allocation, after the fields.
struct _KTL_OBJECT {
    _KTL_LIST_ENTRY child_list;
    _KTL_LIST_ENTRY sibling;
    uint64_t size;
    int64_t birth_time;
    int64_t modify_time;
    int64_t access_time;
    char *file_name;  // display name, as first given; may point at name_tail
    _KTL_OBJECT_EXTRAS *extras;  // null until needed: read through Extras()
    uint32_t type;
    uint32_t sub_type;
    uint16_t mode;  // file-type bits only
    uint8_t enumerated;
    uint8_t name_room;  // bytes name_tail has room for, NUL included
    // The record is allocated long enough for the name it was made under to
    // be kept here, after the fields.
    char name_tail[4];
};

// The record's extras for reading: all zero (no handle, no app, nothing open)
// when it has none.
inline const _KTL_OBJECT_EXTRAS &Extras(const _KTL_OBJECT *object) {
    static const _KTL_OBJECT_EXTRAS none{};
    return object->extras != nullptr ? *object->extras : none;
}
// The record's extras for changing, made zeroed on first use.
inline _KTL_OBJECT_EXTRAS &EditExtras(_KTL_OBJECT *object) {
    if (object->extras == nullptr) object->extras = new _KTL_OBJECT_EXTRAS();
    return *object->extras;
}

// Full volume path -> record address; 0 (an entry a missed lookup left
// behind) means no record.
extern ObjectPathMap Object_list;

_KTL_OBJECT *GetObject(const char *path);
_KTL_OBJECT *GetObjectWithFileName(const char *path);
_KTL_OBJECT *FindObject(const char *path);
_KTL_OBJECT *GetParentObject(const char *path);
void DeleteObject(_KTL_OBJECT *object, const char *path);
void DeleteChildObject(_KTL_OBJECT *object, const char *path);
void CleanupTmpObject(const char *path, _KTL_LIST_ENTRY *list_head);
// A rename: the record of `from`, and every record below it, moves to the
// same place under `to` (name and map keys change, the records stay), so
// handles open on them stay good. `to` must have no record of its own.
void MoveObject(_KTL_OBJECT *object, const char *from, const char *to);

// A new[] copy of text, for the strings a record owns (freed with the record).
char *CopyString(const char *text);

// Tree helpers for the code that lists and creates.
void LinkChildObject(_KTL_OBJECT *parent, _KTL_OBJECT *child);  // at the tail
void UnlinkObject(_KTL_OBJECT *object);
_KTL_OBJECT *ObjectFromSibling(_KTL_LIST_ENTRY *link);
std::string ChildPath(const std::string &folder, const char *name);

// Releases every record's device handles, strings and attributes and empties
// the map; unmount calls it. Records kept for open handles are freed too.
void FreeAllObjects(libiusb_afc *afc_handle);

// A file removed while FUSE handles are still open on it. Its record leaves
// the map and its folder's list at once (the name is free for a new file),
// but stays allocated, device handle open, until the last release: every
// open handle's fh points at it. libfuse hands such handles a null path; the
// handlers find the record again through the handle.
void KeepUntilLastRelease(_KTL_OBJECT *object, const char *path);
// The record of a removed file that `fh` (a FUSE handle's fh) points at, or
// null when fh is not one. *path gets the volume path it had, so that its
// folder (and that folder's connection) can still be found.
_KTL_OBJECT *RemovedOpenObject(uint64_t fh, std::string *path);
// Frees a removed file's record once its last handle is released; its device
// handle must already be closed.
void FreeRemovedObject(_KTL_OBJECT *object);
// The record of a removed, still open file that is now known by `path` (the
// hidden name libfuse gave it), or null. RenameRemovedObject gives it that name.
_KTL_OBJECT *RemovedObjectAt(const char *path);
void RenameRemovedObject(_KTL_OBJECT *object, const char *path);

// Attributes and extended attributes, answered from the catalogue alone.
#ifndef __APPLE__
// The macOS attribute-change record, kept so that chmod, chown, truncate,
// ftruncate and utimens share one code path on Linux.
struct setattr_x {
    int32_t valid;
    mode_t mode;
    uid_t uid;
    gid_t gid;
    off_t size;
    struct timespec acctime;
    struct timespec modtime;
    struct timespec crtime;
    struct timespec chgtime;
    struct timespec bkuptime;
    uint32_t flags;
};
#define SETATTR_WANTS_MODE(attr) ((attr)->valid & (1 << 0))
#define SETATTR_WANTS_UID(attr) ((attr)->valid & (1 << 1))
#define SETATTR_WANTS_GID(attr) ((attr)->valid & (1 << 2))
#define SETATTR_WANTS_SIZE(attr) ((attr)->valid & (1 << 3))
#define SETATTR_WANTS_ACCTIME(attr) ((attr)->valid & (1 << 4))
#define SETATTR_WANTS_MODTIME(attr) ((attr)->valid & (1 << 5))
#define SETATTR_WANTS_CRTIME(attr) ((attr)->valid & (1 << 28))
#endif

int tarnifs_getattr(const char *path, struct stat *st);
int tarnifs_fgetattr(const char *path, struct stat *st, struct fuse_file_info *fi);
int tarnifs_setattr_x(const char *path, struct setattr_x *attr);
int tarnifs_fsetattr_x(const char *path, struct setattr_x *attr, struct fuse_file_info *fi);
int tarnifs_getxattr(const char *path, const char *name, char *value, size_t size);
int tarnifs_setxattr(const char *path, const char *name, const char *value, size_t size, int flags);
int tarnifs_removexattr(const char *path, const char *name);
_KTL_XATTR *FindXattr(_KTL_XATTR *list_head, const char *name);

// What getattr reports of a record; listings hand the same to the kernel.
void StatFromObject(const _KTL_OBJECT *object, struct stat *st);

#ifndef __APPLE__
// Linux delivers attribute changes one by one, with the open file when the
// change came through one (ftruncate, fchmod, futimens); each enters
// tarnifs_setattr_x, or tarnifs_fsetattr_x when a file is given.
int tarnifs_chmod(const char *path, mode_t mode, struct fuse_file_info *fi);
int tarnifs_chown(const char *path, uid_t uid, gid_t gid, struct fuse_file_info *fi);
int tarnifs_truncate(const char *path, off_t size, struct fuse_file_info *fi);
int tarnifs_utimens(const char *path, const struct timespec tv[2], struct fuse_file_info *fi);
#endif
