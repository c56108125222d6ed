// Fuzz target: the catalogue under random sequences of make, find, delete,
// link and unlink, on paths from a small alphabet with the composed and the
// decomposed form of the same letters, "/", ".", ".." and invalid UTF-8.
// After every step each record found under a path the run made must still be
// linked into its parent's child list, or be one of the records that hang in
// no folder (the root and those unlinked on purpose); a deleted path must
// find nothing. Freeing a record twice or following a freed one is left to
// the address sanitizer.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/mount.h"
#include "tarnifs/names.h"
#include "tarnifs/platform.h"
#include "tests/fuzz/harness.h"

namespace {

// Two long runs put components on both sides of the 2048-byte buffer every
// lookup converts the last component in.
const std::string kLongRun(2040, 'x');
const std::string kLongDecomposed = std::string(2044, 'y') + "e\xCC\x81";
const std::string kPieces[] = {
    "a",          "b",        "\xC3\xA9" /* e-acute, composed */, "e\xCC\x81" /* e + combining acute */,
    "\xC3\x85" /* A-ring composed */, "A\xCC\x8A" /* A + combining ring */, "/", ".", "..",
    "\xFF" /* never UTF-8 */, "\xC3" /* cut short */, ":", "\xE0\xA5\x98" /* composes to something longer */,
    kLongRun, kLongDecomposed,
};
constexpr size_t kPieceCount = sizeof(kPieces) / sizeof(kPieces[0]);

// "/" and one to four pieces.
std::string makePath(Input &in) {
    std::string path = "/";
    int pieces = 1 + in.next() % 4;
    for (int i = 0; i < pieces; ++i) path += kPieces[in.next() % kPieceCount];
    return path;
}

const char *const kOperations[] = {"mkdir", "create", "find", "delete", "unlink", "link"};
bool trace = false;

std::string printable(const std::string &path) {
    std::string out;
    for (unsigned char c : path) {
        if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        }
    }
    return out;
}

_CONTEXT gContext;
struct fuse_context gFuse;

// Records that hang in no folder's list: the root, records made where no
// folder was, and records unlinked on purpose.
std::set<_KTL_OBJECT *> loose;
std::set<std::string> paths;  // every path the run made or touched

bool isLinkedUnder(_KTL_OBJECT *parent, _KTL_OBJECT *child) {
    _KTL_LIST_ENTRY *head = &parent->child_list;
    size_t steps = 0;
    for (_KTL_LIST_ENTRY *link = head->next; link != head; link = link->next) {
        FUZZ_CHECK(link->next->previous == link);  // the list is whole
        if (link == &child->sibling) return true;
        FUZZ_CHECK(++steps < 100000);
    }
    return false;
}

void checkInvariants() {
    for (const std::string &path : paths) {
        _KTL_OBJECT *object = FindObject(path.c_str());
        if (object == nullptr) continue;
        // Reading the record lets the address sanitizer catch a freed one
        // still reachable through the map.
        FUZZ_CHECK(object->mode == KTL_MODE_FILE || object->mode == KTL_MODE_FOLDER);
        if (loose.count(object) != 0) continue;
        _KTL_OBJECT *parent = GetParentObject(path.c_str());
        FUZZ_CHECK(parent != nullptr);
        FUZZ_CHECK(isLinkedUnder(parent, object));
    }
}

void forgetLoose(_KTL_OBJECT *object) {
    loose.erase(object);
    if (object->mode != KTL_MODE_FOLDER) return;
    _KTL_LIST_ENTRY *head = &object->child_list;
    for (_KTL_LIST_ENTRY *link = head->next; link != head; link = link->next) forgetLoose(ObjectFromSibling(link));
}

void make(const std::string &path, bool folder) {
    _KTL_OBJECT *parent = GetParentObject(path.c_str());
    // Only folders have children: create refuses the rest.
    if (parent != nullptr && parent->mode != KTL_MODE_FOLDER) return;
    _KTL_OBJECT *existing = FindObject(path.c_str());
    _KTL_OBJECT *object = GetObjectWithFileName(path.c_str());
    if (existing == nullptr) object->mode = folder ? KTL_MODE_FOLDER : KTL_MODE_FILE;
    if (parent != nullptr && parent != object && existing == nullptr) {
        LinkChildObject(parent, object);
    } else if (existing == nullptr) {
        loose.insert(object);
    }
}

void remove(const std::string &path) {
    _KTL_OBJECT *object = FindObject(path.c_str());
    if (object == nullptr) return;
    // The root stays for the mount's lifetime.
    if (path == "/" || FindObject("/") == object) return;
    if (object->mode == KTL_MODE_FOLDER) {
        forgetLoose(object);
        DeleteChildObject(object, path.c_str());
    }
    loose.erase(object);
    DeleteObject(object, path.c_str());
    FUZZ_CHECK(FindObject(path.c_str()) == nullptr);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzzQuietLog();
    gEncodedPath = static_cast<char *>(calloc(kEncodedPathSize, 1));
    gFuse.private_data = &gContext;
    trace = getenv("QUORVEL_FUZZ_TRACE") != nullptr;
    SetFuseContextForTesting(&gFuse);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input in{data, size};
    _KTL_OBJECT *root = GetObjectWithFileName("/");
    root->mode = KTL_MODE_FOLDER;
    loose.insert(root);
    paths.insert("/");
    for (int step = 0; step < 64 && !in.empty(); ++step) {
        uint8_t op = in.next();
        std::string path = makePath(in);
        paths.insert(path);
        // QUORVEL_FUZZ_TRACE=1 shows the steps of an input being reproduced.
        if (trace) fprintf(stderr, "step %d: %s %s\n", step, kOperations[op % 6], printable(path).c_str());
        switch (op % 6) {
        case 0: make(path, true); break;
        case 1: make(path, false); break;
        case 2: FindObject(path.c_str()); break;
        case 3: remove(path); break;
        case 4: {
            // Unlinked on purpose: it hangs in no folder until linked again.
            _KTL_OBJECT *object = FindObject(path.c_str());
            if (object != nullptr && object != root) {
                UnlinkObject(object);
                loose.insert(object);
            }
            break;
        }
        case 5: {
            // Linking again where it belongs; twice is harmless.
            _KTL_OBJECT *object = FindObject(path.c_str());
            _KTL_OBJECT *parent = GetParentObject(path.c_str());
            if (object != nullptr && parent != nullptr && object != root && object != parent &&
                parent->mode == KTL_MODE_FOLDER) {
                LinkChildObject(parent, object);
                loose.erase(object);
            }
            break;
        }
        }
        checkInvariants();
    }
    FreeAllObjects(nullptr);
    loose.clear();
    paths.clear();
    return 0;
}
