// Listings as the Linux kernel takes them: each name with its attributes
// (readdirplus), page by page. The names and their order are exactly what
// tarnifs_readdir emits; they are taken once per open folder (and again on a
// rewind), and each page is then served from that snapshot with the
// catalogue's attributes. The kernel keeps those attributes, so `ls -l` asks
// nothing per entry.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/listing.h"
#include "tarnifs/mount.h"

namespace {

// A folder of more than this many entries goes out as names: with their
// attributes the kernel and libfuse would keep a record of every entry (about
// 180 bytes apiece in this process alone) whether or not anyone asks for
// them. `ls -l` of such a folder asks for each entry instead, from the
// catalogue, without a device request.
constexpr size_t kNamesOnlyAbove = 100000;

// ".", "..", then the folder's entries, as emitted: every name with its NUL
// in one buffer, and where each starts. A million names cost their bytes and
// four more each, not a string object apiece.
struct ListingSnapshot {
    std::string text;
    std::vector<uint32_t> starts;
    bool taken = false;
};

size_t nameCount(const ListingSnapshot &snapshot) { return snapshot.starts.size(); }
const char *nameAt(const ListingSnapshot &snapshot, size_t index) { return snapshot.text.data() + snapshot.starts[index]; }

int collectName(void *buffer, const char *name, const struct stat *, off_t, enum fuse_fill_dir_flags) {
    ListingSnapshot *snapshot = static_cast<ListingSnapshot *>(buffer);
    // Offsets are 32 bits: a listing of more than 4 GiB of names ends there.
    size_t length = strlen(name) + 1;
    if (snapshot->text.size() + length > UINT32_MAX) return 1;
    snapshot->starts.push_back(static_cast<uint32_t>(snapshot->text.size()));
    snapshot->text.append(name, length);
    return 0;
}

bool isDotOrDotDot(const char *name) { return strcmp(name, ".") == 0 || strcmp(name, "..") == 0; }

} // namespace

int opendirForListing(const char *, struct fuse_file_info *fi) {
    fi->fh = reinterpret_cast<uint64_t>(new ListingSnapshot());
    return 0;
}

int releasedirOfListing(const char *, struct fuse_file_info *fi) {
    delete reinterpret_cast<ListingSnapshot *>(fi->fh);
    fi->fh = 0;
    return 0;
}

int readdirWithAttributes(const char *path, void *buffer, fuse_fill_dir_t filler, off_t offset,
                          struct fuse_file_info *fi, enum fuse_readdir_flags flags) {
    ListingSnapshot unopened;
    ListingSnapshot *snapshot = fi != nullptr && fi->fh != 0 ? reinterpret_cast<ListingSnapshot *>(fi->fh) : &unopened;
    // A rewind (offset 0) lists again, as POSIX asks of rewinddir.
    if (offset == 0 || !snapshot->taken) {
        snapshot->text.clear();
        snapshot->starts.clear();
        snapshot->taken = false;
        int result = tarnifs_readdir(path, snapshot, collectName, 0, fi);
        if (result != 0) return result;
        snapshot->taken = true;
    }

    TarniLock lock;
    _CONTEXT *ctx = nullptr;
    int result = getContext(&ctx);
    if (result != 0) return result;
    size_t count = nameCount(*snapshot);
    bool plus = (flags & FUSE_READDIR_PLUS) != 0 && count <= kNamesOnlyAbove + 2;
    for (size_t index = offset < 0 ? 0 : static_cast<size_t>(offset); index < count; ++index) {
        const char *name = nameAt(*snapshot, index);
        struct stat st;
        bool known = false;
        bool typeOnly = false;
        if (!isDotOrDotDot(name)) {
            std::string childPath = ChildPath(path, name);
            const _KTL_OBJECT *child = FindObject(childPath.c_str());
            // A record removed since the snapshot goes out as a bare name.
            if (child != nullptr) {
                StatFromObject(child, &st);
                known = true;
            }
            // A JPEG view not converted yet goes out with its type only: its
            // size is known once converted, which the kernel's lookup of it
            // waits for (a plain `ls` needs no lookup, and converts nothing).
            typeOnly = child != nullptr && Extras(child).jpeg_view == 1;
        }
        // The offset handed with an entry is where the next page starts.
        enum fuse_fill_dir_flags fill =
            plus && known && !typeOnly ? FUSE_FILL_DIR_PLUS : static_cast<enum fuse_fill_dir_flags>(0);
        if (filler(buffer, name, known ? &st : nullptr, static_cast<off_t>(index + 1), fill) != 0)
            break;  // the page is full
    }
    return 0;
}
