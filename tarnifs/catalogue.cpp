#include "tarnifs/catalogue.h"

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "device/libiusb.h"
#include "tarnifs/mount.h"
#include "tarnifs/names.h"
#include "util/log.h"

ObjectPathMap Object_list(11);

namespace {

// Records of files removed while open, with the volume path each had.
std::unordered_map<_KTL_OBJECT *, std::string> removedOpenObjects;

void selfLink(_KTL_LIST_ENTRY *entry) {
    entry->next = entry;
    entry->previous = entry;
}
// The folder part of a key: every component in its composed form, so that a
// path reached through a decomposed folder name and one reached through the
// composed name are one key. A record kept under the folder's path as given
// outlived its folder when the folder was removed under the other form.
// Components that do not convert, or would not as a last component, stay as
// given.
std::string composedFolder(const std::string &folder) {
    std::string out;
    size_t start = 0;
    while (start <= folder.size()) {
        size_t slash = folder.find('/', start);
        if (slash == std::string::npos) slash = folder.size();
        std::string component = folder.substr(start, slash - start);
        bool ascii = true;
        for (unsigned char c : component) ascii = ascii && c < 0x80;
        // The same rule as for the last component: one that cannot fit the
        // lookup buffer stays as given, so a folder's key and its children's
        // keys spell it alike.
        if (!ascii && component.size() < kEncodedPathSize) {
            std::vector<char> converted(component.size() + 1, '\0');
            if (getUTF8MACName(component.c_str(), converted.data()) >= 0)
                component.assign(converted.data(), strnlen(converted.data(), component.size()));
        }
        out += component;
        if (slash < folder.size()) out += '/';
        start = slash + 1;
    }
    return out;
}

// Splits at the last "/": the parent part is composed component by
// component, the last component is converted into gEncodedPath. Returns false
// when the last component's conversion failed; gEncodedPath then holds the
// raw component.
bool buildKey(const std::string &path, std::string *key) {
    size_t slash = path.rfind('/');
    std::string parent = slash == std::string::npos ? std::string() : composedFolder(path.substr(0, slash));
    std::string component = slash == std::string::npos ? path : path.substr(slash + 1);

    memset(gEncodedPath, 0, kEncodedPathSize);
    bool converted = false;
    // A component that cannot fit the buffer is never converted.
    if (component.size() < kEncodedPathSize) converted = getUTF8MACName(component.c_str(), gEncodedPath) >= 0;
    if (converted) {
        *key = parent + "/" + std::string(gEncodedPath, strnlen(gEncodedPath, kEncodedPathSize));
    } else {
        if (component.size() < kEncodedPathSize) {
            memset(gEncodedPath, 0, kEncodedPathSize);
            memcpy(gEncodedPath, component.data(), component.size());
        }
        *key = parent + "/" + component;
    }
    return converted;
}

_KTL_OBJECT *recordAt(uint64_t address) { return reinterpret_cast<_KTL_OBJECT *>(static_cast<uintptr_t>(address)); }
uint64_t addressOf(_KTL_OBJECT *object) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(object)); }

void freeXattrs(_KTL_OBJECT_EXTRAS *extras) {
    while (extras->xattr_list != nullptr) {
        _KTL_XATTR *node = extras->xattr_list;
        extras->xattr_list = node->next;
        delete[] node->name;
        delete[] node->value;
        node->next = nullptr;
        delete node;
    }
}

void freeFileName(_KTL_OBJECT *object) {
    if (object->file_name != object->name_tail) delete[] object->file_name;
    object->file_name = nullptr;
}

// Closes the record's device handles and frees everything it owns but the
// record itself.
void releaseRecord(_KTL_OBJECT *object, libiusb_afc *afc_handle) {
    UnlinkObject(object);
    freeFileName(object);
    _KTL_OBJECT_EXTRAS *extras = object->extras;
    if (extras == nullptr) return;
    if (extras->file_handle != 0 && extras->jpeg_view != 0) {
        close(static_cast<int>(extras->file_handle - 1));
        extras->file_handle = 0;
    }
    if (extras->file_handle != 0) {
        libiusb_afc *connection = extras->hhandle != nullptr ? extras->hhandle : afc_handle;
        if (connection != nullptr) libiusb_afc_file_close(connection, extras->file_handle);
        extras->file_handle = 0;
    }
    if (extras->hhandle != nullptr) libiusb_housearrest_exit(extras->hhandle);
    delete[] extras->app_id;
    delete[] extras->device_path;
    freeXattrs(extras);
    delete extras;
    object->extras = nullptr;
}

// A zeroed record with room after its fields for a display name of `length`
// bytes and its NUL, in one allocation: most names are short, and a heap
// chunk of their own would cost as much again as the name.
_KTL_OBJECT *newRecord(size_t length) {
    size_t room = length + 1 <= UINT8_MAX ? length + 1 : sizeof(_KTL_OBJECT::name_tail);
    size_t bytes = std::max(sizeof(_KTL_OBJECT), offsetof(_KTL_OBJECT, name_tail) + room);
    // Value-initialised: the fields are zero. The room past them needs no
    // zeroing, since a name put there ends with its own NUL.
    _KTL_OBJECT *object = new (::operator new(bytes)) _KTL_OBJECT();
    object->name_room = static_cast<uint8_t>(bytes - offsetof(_KTL_OBJECT, name_tail));
    return object;
}

// The display name, in the record's own room when it fits.
void setFileName(_KTL_OBJECT *object, const char *name) {
    freeFileName(object);
    size_t length = strlen(name);
    if (length < object->name_room) {
        memcpy(object->name_tail, name, length + 1);
        object->file_name = object->name_tail;
    } else {
        object->file_name = CopyString(name);
    }
}

void freeRecord(_KTL_OBJECT *object) {
    object->~_KTL_OBJECT();
    ::operator delete(object);
}

} // namespace

_KTL_OBJECT *ObjectFromSibling(_KTL_LIST_ENTRY *link) {
    return reinterpret_cast<_KTL_OBJECT *>(reinterpret_cast<char *>(link) - offsetof(_KTL_OBJECT, sibling));
}

std::string ChildPath(const std::string &folder, const char *name) {
    // The root's children are "/x", not "//x".
    return (folder == "/" ? std::string() : folder) + "/" + (name != nullptr ? name : "");
}

void LinkChildObject(_KTL_OBJECT *parent, _KTL_OBJECT *child) {
    // A record is in one list at a time; linking it twice would break both.
    if (child->sibling.next != &child->sibling) UnlinkObject(child);
    _KTL_LIST_ENTRY *head = &parent->child_list;
    _KTL_LIST_ENTRY *link = &child->sibling;
    link->next = head;
    link->previous = head->previous;
    head->previous->next = link;
    head->previous = link;
}

void UnlinkObject(_KTL_OBJECT *object) {
    _KTL_LIST_ENTRY *link = &object->sibling;
    link->previous->next = link->next;
    link->next->previous = link->previous;
    selfLink(link);
}

_KTL_OBJECT *GetObject(const char *path) {
    std::string key;
    if (!buildKey(path, &key)) {
        const char *slash = strrchr(path, '/');
        QNLog(3, "%s getUTF8MACName Failed, %s", "GetObject", slash != nullptr ? slash + 1 : path);
    }
    uint64_t &slot = Object_list[key];
    if (slot != 0) return recordAt(slot);

    const char *slash = strrchr(path, '/');
    _KTL_OBJECT *object = newRecord(strlen(slash != nullptr ? slash + 1 : path));
    selfLink(&object->child_list);
    selfLink(&object->sibling);
    object->mode = KTL_MODE_FILE;
    slot = addressOf(object);
    return object;
}

_KTL_OBJECT *GetObjectWithFileName(const char *path) {
    _KTL_OBJECT *object = GetObject(path);
    if (object->file_name == nullptr) {
        const char *slash = strrchr(path, '/');
        setFileName(object, slash != nullptr ? slash + 1 : path);
    }
    return object;
}

// The record a key stands for, or null. Looking never adds to the map: a
// program asking after names that do not exist (a build, a search) must not
// grow the catalogue.
_KTL_OBJECT *recordUnder(const std::string &key) {
    auto found = Object_list.find(key);
    return found == Object_list.end() ? nullptr : recordAt(found->second);
}

_KTL_OBJECT *FindObject(const char *path) {
    _KTL_OBJECT *exact = recordUnder(path);
    if (exact != nullptr) return exact;
    std::string key;
    if (!buildKey(path, &key)) {
        QNLog(3, "%s getUTF8MACName Failed", "FindObject");
        return nullptr;
    }
    return recordUnder(key);
}

_KTL_OBJECT *GetParentObject(const char *path) {
    const char *slash = strrchr(path, '/');
    if (slash == nullptr) return nullptr;
    std::string parent(path, static_cast<size_t>(slash - path));
    return FindObject(parent.empty() ? "/" : parent.c_str());
}

void DeleteObject(_KTL_OBJECT *object, const char *path) {
    if (object == nullptr) return;
    _CONTEXT *ctx = nullptr;
    if (getContext(&ctx) != 0) return;

    releaseRecord(object, ctx->afc_handle);
    Object_list.erase(path);
    // The record may also stand under the composed form of its last
    // component (the key it was made under); that entry must not outlive it.
    std::string key;
    buildKey(path, &key);
    auto stale = Object_list.find(key);
    if (stale != Object_list.end() && (stale->second == 0 || stale->second == addressOf(object)))
        Object_list.erase(stale);
    freeRecord(object);
}

void DeleteChildObject(_KTL_OBJECT *object, const char *path) {
    _KTL_LIST_ENTRY *head = &object->child_list;
    for (_KTL_LIST_ENTRY *link = head->next; link != head;) {
        _KTL_LIST_ENTRY *following = link->next;
        _KTL_OBJECT *child = ObjectFromSibling(link);
        std::string childPath = ChildPath(path, child->file_name);
        if (child->mode == KTL_MODE_FOLDER) DeleteChildObject(child, childPath.c_str());
        DeleteObject(child, childPath.c_str());
        link = following;
    }
}

void MoveObject(_KTL_OBJECT *object, const char *from, const char *to) {
    _KTL_LIST_ENTRY *head = &object->child_list;
    for (_KTL_LIST_ENTRY *link = head->next; link != head; link = link->next) {
        _KTL_OBJECT *child = ObjectFromSibling(link);
        if (child->file_name == nullptr) continue;
        MoveObject(child, ChildPath(from, child->file_name).c_str(), ChildPath(to, child->file_name).c_str());
    }
    // Forget the old path under both its forms, as DeleteObject does.
    Object_list.erase(from);
    std::string key;
    buildKey(from, &key);
    auto stale = Object_list.find(key);
    if (stale != Object_list.end() && (stale->second == 0 || stale->second == addressOf(object)))
        Object_list.erase(stale);
    buildKey(to, &key);
    Object_list[key] = addressOf(object);
    const char *slash = strrchr(to, '/');
    setFileName(object, slash != nullptr ? slash + 1 : to);
}

void CleanupTmpObject(const char *path, _KTL_LIST_ENTRY *list_head) {
    for (_KTL_LIST_ENTRY *link = list_head->next; link != list_head;) {
        _KTL_LIST_ENTRY *following = link->next;
        _KTL_OBJECT *child = ObjectFromSibling(link);
        if (child->type == KTL_TYPE_TEMPORARY) DeleteObject(child, ChildPath(path, child->file_name).c_str());
        link = following;
    }
}

void FreeAllObjects(libiusb_afc *afc_handle) {
    // A record is normally under one key; the set makes sure none is freed twice.
    std::unordered_set<_KTL_OBJECT *> records;
    for (auto &entry : Object_list) {
        if (entry.second != 0) records.insert(recordAt(entry.second));
    }
    // Unlinking touches neighbours, so every record is released before any is freed.
    for (auto &removed : removedOpenObjects) records.insert(removed.first);
    removedOpenObjects.clear();
    for (_KTL_OBJECT *object : records) releaseRecord(object, afc_handle);
    for (_KTL_OBJECT *object : records) freeRecord(object);
    Object_list.clear();
}

void KeepUntilLastRelease(_KTL_OBJECT *object, const char *path) {
    UnlinkObject(object);
    // The map forgets the record under both forms of its path, as DeleteObject does.
    Object_list.erase(path);
    std::string key;
    buildKey(path, &key);
    auto stale = Object_list.find(key);
    if (stale != Object_list.end() && (stale->second == 0 || stale->second == addressOf(object)))
        Object_list.erase(stale);
    removedOpenObjects[object] = path;
}

_KTL_OBJECT *RemovedOpenObject(uint64_t fh, std::string *path) {
    // Only an address this catalogue kept is ever followed.
    auto found = removedOpenObjects.find(recordAt(fh));
    if (found == removedOpenObjects.end()) return nullptr;
    if (path != nullptr) *path = found->second;
    return found->first;
}

_KTL_OBJECT *RemovedObjectAt(const char *path) {
    // Few files are removed while open at once: a walk is enough.
    for (const auto &removed : removedOpenObjects)
        if (removed.second == path) return removed.first;
    return nullptr;
}

void RenameRemovedObject(_KTL_OBJECT *object, const char *path) {
    auto found = removedOpenObjects.find(object);
    if (found != removedOpenObjects.end()) found->second = path;
}

void FreeRemovedObject(_KTL_OBJECT *object) {
    if (removedOpenObjects.erase(object) == 0) return;
    releaseRecord(object, nullptr);
    freeRecord(object);
}

char *CopyString(const char *text) {
    size_t length = strlen(text);
    char *copy = new char[length + 1];
    memcpy(copy, text, length + 1);
    return copy;
}
