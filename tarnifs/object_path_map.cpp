#include "tarnifs/object_path_map.h"

#include <cstring>
#include <functional>
#include <stdexcept>

namespace {

// Splits a key after its last "/" ("/Storage/a" is "/Storage/" and "a"; "/"
// is "/" and ""); a key without one is all name.
std::pair<std::string_view, std::string_view> splitKey(std::string_view key) {
    size_t slash = key.rfind('/');
    if (slash == std::string_view::npos) return {std::string_view(), key};
    return {key.substr(0, slash + 1), key.substr(slash + 1)};
}

} // namespace

void ObjectPathMap::iterator::settle() {
    while (index_ < map_->entries_.size() && map_->entries_[index_].folder == nullptr) ++index_;
    if (index_ >= map_->entries_.size()) return;
    const Entry &entry = map_->entries_[index_];
    current_.first.assign(entry.folder->text);
    current_.first.append(nameOf(entry));
    current_.second = entry.value;
}

std::string_view ObjectPathMap::nameOf(const Entry &entry) {
    if (entry.on_heap == 0) return std::string_view(entry.name);
    const char *heap = nullptr;
    memcpy(&heap, entry.name, sizeof(heap));
    return std::string_view(heap);
}

size_t ObjectPathMap::hashOf(size_t folderHash, std::string_view name) {
    return folderHash * 0x9E3779B97F4A7C15ull ^ std::hash<std::string_view>()(name);
}

// The slot holding (folder, name), with *found set, or else the slot a new
// entry for it would take. Folders are compared by their text, so a lookup
// needs no trip through the folder index.
size_t ObjectPathMap::slotOf(size_t hash, std::string_view folder, std::string_view name, bool *found) const {
    size_t mask = slots_.size() - 1;
    size_t firstErased = kNone;
    for (size_t at = hash & mask;; at = (at + 1) & mask) {
        uint32_t slot = slots_[at];
        if (slot == kEmptySlot) {
            *found = false;
            return firstErased != kNone ? firstErased : at;
        }
        if (slot == kErasedSlot) {
            if (firstErased == kNone) firstErased = at;
            continue;
        }
        // Six bits of the hash in the slot turn most other keys away
        // without reading their entry.
        if (slot >> kIndexBits != tagOf(hash)) continue;
        const Entry &entry = entries_[entryOf(slot)];
        if (nameOf(entry) == name && entry.folder->text == folder) {
            *found = true;
            return at;
        }
    }
}

size_t ObjectPathMap::findEntry(std::string_view key) const {
    if (live_ == 0) return kNone;
    auto [folder, name] = splitKey(key);
    bool found = false;
    size_t at = slotOf(hashOf(std::hash<std::string_view>()(folder), name), folder, name, &found);
    return found ? entryOf(slots_[at]) : kNone;
}

ObjectPathMap::iterator ObjectPathMap::find(std::string_view key) const {
    size_t index = findEntry(key);
    return index == kNone ? end() : iterator(this, index);
}

void ObjectPathMap::growIndex() {
    // Kept at most 70 % full, counting erased slots, so probes stay short.
    size_t wanted = 16;
    while (wanted * 7 / 10 <= live_ * 2 + 1) wanted *= 2;
    if (wanted < slots_.size()) wanted = slots_.size();
    slots_.assign(wanted, kEmptySlot);
    erasedSlots_ = 0;
    for (size_t index = 0; index < entries_.size(); ++index) {
        const Entry &entry = entries_[index];
        if (entry.folder == nullptr) continue;
        bool found = false;
        size_t hash = hashOf(entry.folder->hash, nameOf(entry));
        size_t at = slotOf(hash, entry.folder->text, nameOf(entry), &found);
        slots_[at] = slotFor(index, hash);
    }
}

uint64_t &ObjectPathMap::operator[](std::string_view key) {
    auto [folderText, name] = splitKey(key);
    Folder *folder = nullptr;
    auto known = folders_.find(folderText);
    if (known != folders_.end()) {
        folder = known->second;
    } else {
        folder = new Folder{std::string(folderText), std::hash<std::string_view>()(folderText), 0};
        folders_.emplace(std::string_view(folder->text), folder);
    }
    if ((live_ + erasedSlots_ + 1) * 10 > slots_.size() * 7) growIndex();
    bool found = false;
    size_t hash = hashOf(folder->hash, name);
    size_t at = slotOf(hash, folder->text, name, &found);
    if (found) return entries_[entryOf(slots_[at])].value;

    size_t index = firstFree_;
    if (index != kNone) {
        firstFree_ = static_cast<size_t>(entries_[index].value);
    } else {
        // 67 million keys; the records behind them would take 17 GB first.
        if (entries_.size() + 2 >= (size_t{1} << kIndexBits)) throw std::length_error("catalogue path map full");
        index = entries_.size();
        entries_.emplace_back();
    }
    Entry &entry = entries_[index];
    entry.folder = folder;
    entry.value = 0;
    memset(entry.name, 0, sizeof(entry.name));
    if (name.size() < sizeof(entry.name)) {
        memcpy(entry.name, name.data(), name.size());
        entry.on_heap = 0;
    } else {
        char *heap = new char[name.size() + 1];
        memcpy(heap, name.data(), name.size());
        heap[name.size()] = '\0';
        memcpy(entry.name, &heap, sizeof(heap));
        entry.on_heap = 1;
    }
    ++folder->users;
    if (slots_[at] == kErasedSlot) --erasedSlots_;
    slots_[at] = slotFor(index, hash);
    ++live_;
    return entry.value;
}

void ObjectPathMap::freeEntry(size_t index) {
    Entry &entry = entries_[index];
    if (entry.on_heap != 0) {
        char *heap = nullptr;
        memcpy(&heap, entry.name, sizeof(heap));
        delete[] heap;
    }
    Folder *folder = entry.folder;
    if (--folder->users == 0) {
        folders_.erase(std::string_view(folder->text));
        delete folder;
    }
    entry.folder = nullptr;
    entry.on_heap = 0;
    entry.value = firstFree_;
    firstFree_ = index;
    --live_;
}

size_t ObjectPathMap::erase(std::string_view key) {
    if (live_ == 0) return 0;
    auto [folder, name] = splitKey(key);
    bool found = false;
    size_t at = slotOf(hashOf(std::hash<std::string_view>()(folder), name), folder, name, &found);
    if (!found) return 0;
    freeEntry(entryOf(slots_[at]));
    slots_[at] = kErasedSlot;
    ++erasedSlots_;
    return 1;
}

void ObjectPathMap::erase(const iterator &at) {
    if (at == end()) return;
    erase(at->first);
}

void ObjectPathMap::clear() {
    for (Entry &entry : entries_) {
        if (entry.folder == nullptr || entry.on_heap == 0) continue;
        char *heap = nullptr;
        memcpy(&heap, entry.name, sizeof(heap));
        delete[] heap;
    }
    for (auto &folder : folders_) delete folder.second;
    folders_.clear();
    // Freed, not only emptied: an unmounted catalogue gives its memory back.
    std::deque<Entry>().swap(entries_);
    std::vector<uint32_t>().swap(slots_);
    live_ = 0;
    erasedSlots_ = 0;
    firstFree_ = kNone;
}
