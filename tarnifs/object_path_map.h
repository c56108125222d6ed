// The catalogue's map from full volume path to record address, kept small:
// a listed folder of a million entries puts a million keys in it that all
// begin with the same folder. Each key is held as its folder (interned, once
// for all its entries) and its last component (inline when it fits 15
// bytes), in a dense table of 32-byte entries found through an index of
// 4-byte slots. A node map with a std::string key spent about 120 bytes an
// entry on the same.
//
// It answers as a std::unordered_map<std::string, uint64_t> does for the
// calls the file system makes: operator[], find, count, erase, size, clear,
// and iteration, whose entries are (key, value) copies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

class ObjectPathMap {
  public:
    struct Folder {
        std::string text;  // everything up to and with the key's last "/"
        size_t hash;
        size_t users;
    };
    struct Entry {
        Folder *folder;  // null: a free entry
        uint64_t value;
        char name[15];   // the last component with its NUL, when it fits
        uint8_t on_heap; // 1: name holds a new[] copy's address instead
    };
    using value_type = std::pair<std::string, uint64_t>;

    class iterator {
      public:
        iterator(const ObjectPathMap *map, size_t index) : map_(map), index_(index) { settle(); }
        const value_type &operator*() const { return current_; }
        const value_type *operator->() const { return &current_; }
        iterator &operator++() {
            ++index_;
            settle();
            return *this;
        }
        bool operator==(const iterator &other) const { return index_ == other.index_; }
        bool operator!=(const iterator &other) const { return index_ != other.index_; }
        size_t index() const { return index_; }

      private:
        void settle();
        const ObjectPathMap *map_;
        size_t index_;
        value_type current_;
    };

    explicit ObjectPathMap(size_t) {}
    ObjectPathMap(const ObjectPathMap &) = delete;
    ObjectPathMap &operator=(const ObjectPathMap &) = delete;
    ~ObjectPathMap() { clear(); }

    // The value under key, added as 0 when the key is new.
    uint64_t &operator[](std::string_view key);
    iterator find(std::string_view key) const;
    size_t count(std::string_view key) const { return findEntry(key) != kNone ? 1 : 0; }
    size_t erase(std::string_view key);
    void erase(const iterator &at);
    size_t size() const { return live_; }
    bool empty() const { return live_ == 0; }
    void clear();
    iterator begin() const { return iterator(this, 0); }
    iterator end() const { return iterator(this, entries_.size()); }

  private:
    static constexpr size_t kNone = SIZE_MAX;
    static constexpr uint32_t kEmptySlot = 0;
    static constexpr uint32_t kErasedSlot = 1;  // the slot's entry left; probes go on past it
    // A used slot holds its entry's index + 2 in the low bits and the top six
    // bits of the key's hash above them.
    static constexpr unsigned kIndexBits = 26;
    static uint32_t tagOf(size_t hash) { return static_cast<uint32_t>(hash >> (sizeof(size_t) * 8 - 6)); }
    static uint32_t slotFor(size_t index, size_t hash) {
        return tagOf(hash) << kIndexBits | static_cast<uint32_t>(index + 2);
    }
    static size_t entryOf(uint32_t slot) { return (slot & ((uint32_t{1} << kIndexBits) - 1)) - 2; }

    size_t findEntry(std::string_view key) const;
    size_t slotOf(size_t hash, std::string_view folder, std::string_view name, bool *found) const;
    void growIndex();
    void freeEntry(size_t index);
    static std::string_view nameOf(const Entry &entry);
    static size_t hashOf(size_t folderHash, std::string_view name);

    std::unordered_map<std::string_view, Folder *> folders_;  // keys point into Folder::text
    std::deque<Entry> entries_;                               // never moved: indexes stay good
    std::vector<uint32_t> slots_;                             // see slotFor, or empty/erased
    size_t live_ = 0;
    size_t erasedSlots_ = 0;
    size_t firstFree_ = kNone;  // free entries are chained through their value
};
