// Attributes and extended attributes: answered from the catalogue alone,
// never from the device. Extended attributes live in memory only, so that a
// file manager can keep its metadata without errors.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string>

#include "tarnifs/catalogue.h"
#include "tarnifs/filedata.h"
#include "tarnifs/listing.h"
#include "tarnifs/mount.h"
#include "tarnifs/namespace.h"
#include "util/log.h"

namespace {

void fillTimes(struct stat *st, time_t birth, time_t modify, time_t access) {
    (void)birth;  // Linux's stat record has no birth time.
    st->st_mtime = modify;
    st->st_atime = access;
}

// Everything belongs to the user who mounted the volume. Open to all unless
// other users can see it (allow_other): then they may read and list, and
// only the owner may change anything, as the kernel checks these modes.
void fillOwnerAndMode(struct stat *st, uint16_t kind) {
    st->st_uid = geteuid();
    st->st_gid = getegid();
    mode_t permissions = 0777;
    if (gOtherUsersReadOnly) permissions = kind == KTL_MODE_FOLDER ? 0755 : 0644;
    st->st_mode = static_cast<mode_t>(kind | permissions);
}

} // namespace

namespace {
int applyAttributeChange(_CONTEXT *ctx, const char *path, _KTL_OBJECT *object, struct setattr_x *attr,
                         struct fuse_file_info *fi);
} // namespace

int tarnifs_getattr(const char *path, struct stat *st) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    // Top-level dot names (.Trashes, .DS_Store, ._x, ...) never exist.
    if (path[0] == '/' && path[1] == '.') return -ENOENT;

    memset(st, 0, sizeof(*st));
    if (strcmp(path, "/") == 0) {
        time_t now = time(nullptr);
        fillOwnerAndMode(st, KTL_MODE_FOLDER);
        fillTimes(st, now, now, now);
        return 0;
    }
    _KTL_OBJECT *object = FindObject(path);
    if (object == nullptr && IsHiddenRemovedName(path)) {
        // A file removed while open, asked after through its hidden name (fstat).
        _KTL_OBJECT *removed = RemovedObjectAt(path);
        if (removed == nullptr) return -ENOENT;
        StatFromObject(removed, st);
        st->st_nlink = 0;
        return 0;
    }
    if (object == nullptr) {
        // Nothing listed this path's folder yet: list it, then look again.
        result = listFoldersAbove(ctx, path);
        if (result != 0) return result;
        object = FindObject(path);
    }
    if (object == nullptr) return -ENOENT;
    StatFromObject(object, st);
    return 0;
}

void StatFromObject(const _KTL_OBJECT *object, struct stat *st) {
    memset(st, 0, sizeof(*st));
    fillOwnerAndMode(st, object->mode);
    st->st_size = static_cast<off_t>(object->size);
    // Programs size their reads and writes by this (cp, dd without bs=): one
    // mebibyte is what the kernel hands over in one request.
    st->st_blksize = kPreferredTransferBytes;
    fillTimes(st, object->birth_time, object->modify_time, object->access_time);
}

int tarnifs_fgetattr(const char *path, struct stat *st, struct fuse_file_info *fi) {
    {
        TarniLock lock;
        _CONTEXT *ctx = nullptr;
        int result = getContext(&ctx);
        if (result != 0) return result;
        std::string removedPath;
        _KTL_OBJECT *removed = objectOfHandle(nullptr, fi, &removedPath);
        if (removed != nullptr) {
            // fstat of a file removed while open: its last attributes, no links.
            StatFromObject(removed, st);
            st->st_nlink = 0;
            return 0;
        }
        if (path == nullptr) return -ENOENT;
    }
    return tarnifs_getattr(path, st);
}

int tarnifs_setattr_x(const char *path, struct setattr_x *attr) {
    TarniLock lock;
    // The context comes first: a mount whose start-up failed has freed the
    // name buffer every catalogue lookup writes into.
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) {
        QNLog(3, "%s getContext failed. ret : %d", "tarnifs_setattr_x", result);
        return result;
    }
    // An unknown path becomes an empty regular file. The record is made under
    // the lock like every other catalogue change: two attribute changes
    // arriving at once must not race on the map.
    // A file removed while open changes under its hidden name, never made
    // anew as a record of that name.
    _KTL_OBJECT *removed = IsHiddenRemovedName(path) ? RemovedObjectAt(path) : nullptr;
    if (removed != nullptr) return applyAttributeChange(ctx, path, removed, attr, nullptr);
    _KTL_OBJECT *object = GetObject(path);
    return applyAttributeChange(ctx, path, object, attr, nullptr);
}

namespace {
int applyAttributeChange(_CONTEXT *ctx, const char *path, _KTL_OBJECT *object, struct setattr_x *attr,
                         struct fuse_file_info *fi) {
    int result = 0;
    if (SETATTR_WANTS_SIZE(attr)) {
        // The device file changes size too: a copy over a longer file must
        // not leave the old tail behind on the device.
        uint64_t size = attr->size < 0 ? 0 : static_cast<uint64_t>(attr->size);
        result = ChangeFileSizeOnDevice(ctx, path, object, size, fi);
        if (result != 0) return result;
        object->size = size;
    }
    // Times become the time of the call, whatever time was asked for.
    if (SETATTR_WANTS_CRTIME(attr)) object->birth_time = time(nullptr);
    if (SETATTR_WANTS_MODTIME(attr)) object->modify_time = time(nullptr);
    return 0;
}
} // namespace

int tarnifs_fsetattr_x(const char *path, struct setattr_x *attr, struct fuse_file_info *fi) {
    {
        TarniLock lock;
        _CONTEXT *ctx = nullptr;
        int result = getContext(&ctx);
        if (result != 0) {
            QNLog(3, "%s getContext failed. ret : %d", "tarnifs_setattr_x", result);
            return result;
        }
        std::string removedPath;
        _KTL_OBJECT *removed = objectOfHandle(nullptr, fi, &removedPath);
        // A file removed while open changes through its handle only; it is
        // never made again under its old path.
        if (removed != nullptr) return applyAttributeChange(ctx, removedPath.c_str(), removed, attr, fi);
        if (path == nullptr) return -ENOENT;
    }
    return tarnifs_setattr_x(path, attr);
}

#ifndef __APPLE__
namespace {
int setattrThroughFileOrPath(const char *path, struct setattr_x *attr, struct fuse_file_info *fi) {
    return fi != nullptr ? tarnifs_fsetattr_x(path, attr, fi) : tarnifs_setattr_x(path, attr);
}
} // namespace

int tarnifs_chmod(const char *path, mode_t mode, struct fuse_file_info *fi) {
    struct setattr_x attr{};
    attr.valid = 1 << 0;
    attr.mode = mode;
    return setattrThroughFileOrPath(path, &attr, fi);
}

int tarnifs_chown(const char *path, uid_t uid, gid_t gid, struct fuse_file_info *fi) {
    struct setattr_x attr{};
    attr.valid = (1 << 1) | (1 << 2);
    attr.uid = uid;
    attr.gid = gid;
    return setattrThroughFileOrPath(path, &attr, fi);
}

int tarnifs_truncate(const char *path, off_t size, struct fuse_file_info *fi) {
    struct setattr_x attr{};
    attr.valid = 1 << 3;
    attr.size = size;
    return setattrThroughFileOrPath(path, &attr, fi);
}

int tarnifs_utimens(const char *path, const struct timespec tv[2], struct fuse_file_info *fi) {
    struct setattr_x attr{};
    // A null array means "now" for both; UTIME_OMIT leaves that time alone.
    bool setAccess = tv == nullptr || tv[0].tv_nsec != UTIME_OMIT;
    bool setModify = tv == nullptr || tv[1].tv_nsec != UTIME_OMIT;
    if (setAccess) {
        attr.valid |= 1 << 4;
        if (tv != nullptr) attr.acctime = tv[0];
    }
    if (setModify) {
        attr.valid |= 1 << 5;
        if (tv != nullptr) attr.modtime = tv[1];
    }
    return setattrThroughFileOrPath(path, &attr, fi);
}
#endif

_KTL_XATTR *FindXattr(_KTL_XATTR *list_head, const char *name) {
    for (_KTL_XATTR *node = list_head; node != nullptr; node = node->next) {
        if (node->name != nullptr && strcmp(node->name, name) == 0) return node;
    }
    return nullptr;
}

// The extended-attribute handlers check the context before the catalogue,
// like every other handler: without it there is no name buffer to look up with.
int tarnifs_getxattr(const char *path, const char *name, char *value, size_t size) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    if (strcmp(path, "/") == 0) return 0;
    _KTL_OBJECT *object = FindObject(path);
    if (object == nullptr || Extras(object).xattr_list == nullptr || name == nullptr) return -ENOATTR;
    _KTL_XATTR *node = FindXattr(Extras(object).xattr_list, name);
    if (node == nullptr || node->value == nullptr) return -ENOATTR;

    // The stored size is the length up to the first NUL.
    size_t length = strlen(node->value);
    if (value == nullptr) return static_cast<int>(length);
    // Never copy past the stored value, whatever room the caller offers.
    size_t copied = size < length ? size : length;
    memcpy(value, node->value, copied);
    return static_cast<int>(copied);
}

int tarnifs_setxattr(const char *path, const char *name, const char *value, size_t size, int) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    _KTL_OBJECT *object = FindObject(path);
    if (object == nullptr || name == nullptr || value == nullptr) return -ENOATTR;

    _KTL_XATTR *node = FindXattr(Extras(object).xattr_list, name);
    if (node != nullptr) {
        // Replaced in place: the node keeps its position in the list.
        delete[] node->name;
        delete[] node->value;
        node->name = nullptr;
        node->value = nullptr;
    } else {
        node = new _KTL_XATTR();
        node->next = Extras(object).xattr_list;
        EditExtras(object).xattr_list = node;
    }
    size_t nameLength = strlen(name);
    node->name = new (std::nothrow) char[nameLength + 1];
    if (node->name == nullptr) {
        QNLog(3, "%s alloc xattr name failed. name : %s", "tarnifs_setxattr", name);
        return -ENOMEM;
    }
    node->value = new (std::nothrow) char[size + 1];
    if (node->value == nullptr) {
        QNLog(3, "%s alloc xattr value failed. value : %s", "tarnifs_setxattr", std::string(value, size).c_str());
        return -ENOMEM;
    }
    memset(node->name, 0, nameLength + 1);
    memset(node->value, 0, size + 1);
    memcpy(node->name, name, nameLength);
    memcpy(node->value, value, size);
    return 0;
}

int tarnifs_removexattr(const char *path, const char *name) {
    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    _KTL_OBJECT *object = FindObject(path);
    if (object == nullptr || name == nullptr || Extras(object).xattr_list == nullptr) return -ENOATTR;

    _KTL_XATTR *removed = nullptr;
    if (Extras(object).xattr_list->name != nullptr && strcmp(Extras(object).xattr_list->name, name) == 0) {
        removed = Extras(object).xattr_list;
        EditExtras(object).xattr_list = removed->next;
    } else {
        _KTL_XATTR *previous = Extras(object).xattr_list;
        while (previous->next != nullptr &&
               (previous->next->name == nullptr || strcmp(previous->next->name, name) != 0))
            previous = previous->next;
        if (previous->next == nullptr) return -ENOATTR;
        removed = previous->next;
        previous->next = removed->next;
    }
    removed->next = nullptr;
    delete[] removed->name;
    delete[] removed->value;
    delete removed;
    return 0;
}
