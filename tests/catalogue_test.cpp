#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tests/support/catalogue_fixture.h"

namespace {

const char kComposed[] = "/Storage/caf\xC3\xA9";
const char kDecomposed[] = "/Storage/cafe\xCC\x81";

class CatalogueTest : public MountContextTest {
protected:
    // A named record linked into its parent, as a listing makes it.
    _KTL_OBJECT *addChild(const std::string &path, uint16_t mode) {
        _KTL_OBJECT *child = GetObjectWithFileName(path.c_str());
        child->mode = mode;
        _KTL_OBJECT *parent = GetParentObject(path.c_str());
        EXPECT_NE(parent, nullptr) << path;
        if (parent != nullptr) LinkChildObject(parent, child);
        return child;
    }

    std::vector<std::string> childNames(_KTL_OBJECT *folder) {
        std::vector<std::string> names;
        for (_KTL_LIST_ENTRY *link = folder->child_list.next; link != &folder->child_list; link = link->next)
            names.push_back(ObjectFromSibling(link)->file_name);
        return names;
    }

    size_t liveEntries() {
        size_t count = 0;
        for (auto &entry : Object_list) count += entry.second != 0;
        return count;
    }
};

TEST_F(CatalogueTest, RootAndAreasMeetUnderTheirKeys) {
    _KTL_OBJECT *root = GetObject("/");
    EXPECT_EQ(FindObject("/"), root);
    EXPECT_EQ(Object_list.count("/"), 1u);
    for (const char *area : {"/Media", "/Apps", "/Storage"}) EXPECT_EQ(GetParentObject(area), root) << area;

    // A fresh record: a regular file, unnamed, self-linked, not in any list.
    EXPECT_EQ(root->mode, KTL_MODE_FILE);
    EXPECT_EQ(root->file_name, nullptr);
    EXPECT_EQ(root->child_list.next, &root->child_list);
    EXPECT_EQ(root->sibling.next, &root->sibling);
}

TEST_F(CatalogueTest, ComposedAndDecomposedSpellingsReachOneRecord) {
    GetObject("/");
    GetObject("/Storage");
    _KTL_OBJECT *made = GetObject(kDecomposed);
    EXPECT_EQ(GetObject(kComposed), made);
    EXPECT_EQ(FindObject(kComposed), made);
    EXPECT_EQ(FindObject(kDecomposed), made);
    // Folder components are composed too: a path through either spelling of
    // the folder is one key.
    EXPECT_EQ(FindObject("/Storage/cafe\xCC\x81/x"), nullptr);
    _KTL_OBJECT *inside = GetObject("/Storage/caf\xC3\xA9/x");
    EXPECT_EQ(FindObject("/Storage/cafe\xCC\x81/x"), inside);
    // A "/" inside a name (from the device) is stored as ":".
    EXPECT_EQ(GetObject("/Storage/AC:DC"), GetObject("/Storage/AC:DC"));
}

TEST_F(CatalogueTest, FirstNameStaysAndMissesLeaveNothingBehind) {
    _KTL_OBJECT *named = GetObjectWithFileName(kDecomposed);
    ASSERT_STREQ(named->file_name, "cafe\xCC\x81");
    EXPECT_EQ(GetObjectWithFileName(kComposed), named);
    EXPECT_STREQ(named->file_name, "cafe\xCC\x81");  // kept, not replaced by the new spelling

    // Misses under either spelling, and through the handlers that look paths
    // up, add nothing to the map.
    GetObject("/")->enumerated = 1;
    folder("/Storage");
    size_t before = Object_list.size();
    EXPECT_EQ(FindObject("/Storage/missing"), nullptr);
    EXPECT_EQ(FindObject("/Storage/missing-caf\xC3\xA9"), nullptr);
    EXPECT_EQ(FindObject("/Storage/nowhere/cafe\xCC\x81"), nullptr);
    EXPECT_EQ(GetParentObject("/Storage/nowhere/x"), nullptr);
    struct stat st;
    EXPECT_EQ(tarnifs_getattr("/Storage/missing", &st), -ENOENT);
    EXPECT_EQ(Object_list.size(), before);
    _KTL_OBJECT *filled = GetObject("/Storage/missing");
    ASSERT_NE(filled, nullptr);
    EXPECT_EQ(FindObject("/Storage/missing"), filled);
}

TEST_F(CatalogueTest, ChildrenAreListedInLinkOrder) {
    GetObject("/");
    _KTL_OBJECT *storage = addChild("/Storage", KTL_MODE_FOLDER);
    for (const char *name : {"b", "a", "c"}) addChild(std::string("/Storage/") + name, KTL_MODE_FILE);
    EXPECT_EQ(childNames(storage), (std::vector<std::string>{"b", "a", "c"}));

    UnlinkObject(FindObject("/Storage/a"));
    EXPECT_EQ(childNames(storage), (std::vector<std::string>{"b", "c"}));
    UnlinkObject(FindObject("/Storage/a"));  // unlinking twice changes nothing
    EXPECT_EQ(childNames(storage), (std::vector<std::string>{"b", "c"}));
}

TEST_F(CatalogueTest, DeletingAnUnlinkedRecordOnlyRemovesItFromTheMap) {
    GetObject("/");
    _KTL_OBJECT *storage = addChild("/Storage", KTL_MODE_FOLDER);
    addChild("/Storage/kept", KTL_MODE_FILE);
    _KTL_OBJECT *loose = GetObjectWithFileName("/Storage/loose");
    DeleteObject(loose, "/Storage/loose");
    EXPECT_EQ(FindObject("/Storage/loose"), nullptr);
    EXPECT_EQ(childNames(storage), (std::vector<std::string>{"kept"}));

    // Without a mount context nothing is deleted.
    _KTL_OBJECT *kept = FindObject("/Storage/kept");
    fuse.private_data = nullptr;
    DeleteObject(kept, "/Storage/kept");
    fuse.private_data = &context;
    EXPECT_EQ(FindObject("/Storage/kept"), kept);
    DeleteObject(nullptr, "/Storage/kept");
    EXPECT_EQ(FindObject("/Storage/kept"), kept);
}

TEST_F(CatalogueTest, DeepTreeIsDeletedChildrenFirstAndTheFolderStays) {
    GetObject("/");
    _KTL_OBJECT *storage = addChild("/Storage", KTL_MODE_FOLDER);
    _KTL_OBJECT *top = addChild("/Storage/top", KTL_MODE_FOLDER);
    addChild("/Storage/top/a", KTL_MODE_FOLDER);
    addChild("/Storage/top/a/b", KTL_MODE_FOLDER);
    addChild("/Storage/top/a/b/c", KTL_MODE_FOLDER);
    addChild("/Storage/top/a/b/c/deep.txt", KTL_MODE_FILE);
    addChild("/Storage/top/a/b/file", KTL_MODE_FILE);
    addChild("/Storage/top/z", KTL_MODE_FILE);
    _KTL_OBJECT *withAttributes = FindObject("/Storage/top/a/b/file");
    ASSERT_EQ(tarnifs_setxattr("/Storage/top/a/b/file", "user.tag", "red", 3, 0), 0);
    ASSERT_NE(withAttributes->xattr_list, nullptr);

    size_t before = liveEntries();
    DeleteChildObject(top, "/Storage/top");
    EXPECT_EQ(liveEntries(), before - 6);
    for (const char *gone : {"/Storage/top/a", "/Storage/top/a/b", "/Storage/top/a/b/c", "/Storage/top/a/b/c/deep.txt",
                             "/Storage/top/a/b/file", "/Storage/top/z"})
        EXPECT_EQ(FindObject(gone), nullptr) << gone;
    EXPECT_EQ(FindObject("/Storage/top"), top);
    EXPECT_EQ(top->child_list.next, &top->child_list);
    EXPECT_EQ(childNames(storage), (std::vector<std::string>{"top"}));
}

TEST_F(CatalogueTest, DeletedRecordLeavesNoEntryUnderItsComposedKey) {
    // The device names a file in decomposed form; the record is keyed by the
    // composed form but named and deleted by the display form.
    GetObject("/");
    _KTL_OBJECT *storage = addChild("/Storage", KTL_MODE_FOLDER);
    _KTL_OBJECT *cafe = addChild(kDecomposed, KTL_MODE_FILE);
    ASSERT_EQ(FindObject(kComposed), cafe);

    DeleteChildObject(storage, "/Storage");
    for (auto &entry : Object_list)
        EXPECT_NE(entry.second, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(cafe))) << entry.first;
    EXPECT_EQ(FindObject(kComposed), nullptr);
    EXPECT_EQ(FindObject(kDecomposed), nullptr);

    // A new record under either spelling is a fresh one.
    _KTL_OBJECT *again = GetObject(kComposed);
    EXPECT_EQ(again->file_name, nullptr);
    EXPECT_EQ(FindObject(kDecomposed), again);
}

// Found by the catalogue fuzz target (tests/fuzz/corpus/fuzz_catalogue/
// folder-removed-under-other-form): a child made through the composed folder
// name, then the folder removed through the decomposed one. The child's key
// kept the folder as first spelled, so removing the folder freed the child
// but left it in the map, and the next lookup returned freed memory.
TEST_F(CatalogueTest, FolderRemovedUnderTheOtherSpellingTakesItsChildrenFromTheMap) {
    GetObject("/");
    _KTL_OBJECT *storage = addChild("/Storage", KTL_MODE_FOLDER);
    _KTL_OBJECT *folder = addChild(kComposed, KTL_MODE_FOLDER);
    addChild(std::string(kComposed) + "/e\xCC\x81" "b", KTL_MODE_FOLDER);
    addChild(std::string(kDecomposed) + "/plain", KTL_MODE_FILE);
    EXPECT_EQ(childNames(folder), (std::vector<std::string>{"e\xCC\x81" "b", "plain"}));

    DeleteChildObject(folder, kDecomposed);
    DeleteObject(folder, kDecomposed);
    EXPECT_EQ(FindObject(std::string(kComposed).append("/\xC3\xA9" "b").c_str()), nullptr);
    EXPECT_EQ(FindObject(std::string(kComposed).append("/e\xCC\x81" "b").c_str()), nullptr);
    EXPECT_EQ(FindObject(std::string(kComposed).append("/plain").c_str()), nullptr);
    EXPECT_EQ(FindObject(std::string(kDecomposed).append("/plain").c_str()), nullptr);
    EXPECT_EQ(FindObject(kComposed), nullptr);
    EXPECT_TRUE(childNames(storage).empty());
    EXPECT_EQ(liveEntries(), 2u);  // the root and /Storage
}

// Names too long for the lookup buffer are never composed as a last
// component, so their folder part must not be composed either: the two
// spellings are two folders, each with its own children.
TEST_F(CatalogueTest, FoldersTooLongToComposeKeepTheirChildrenApart) {
    GetObject("/");
    addChild("/Storage", KTL_MODE_FOLDER);
    const std::string composed = "/Storage/" + std::string(2046, 'y') + "\xC3\xA9";
    const std::string decomposed = "/Storage/" + std::string(2046, 'y') + "e\xCC\x81";
    _KTL_OBJECT *first = addChild(composed, KTL_MODE_FOLDER);
    _KTL_OBJECT *second = addChild(decomposed, KTL_MODE_FOLDER);
    ASSERT_NE(first, second);
    _KTL_OBJECT *inFirst = addChild(composed + "/x", KTL_MODE_FILE);
    _KTL_OBJECT *inSecond = addChild(decomposed + "/x", KTL_MODE_FILE);
    EXPECT_NE(inFirst, inSecond);
    EXPECT_EQ(GetParentObject((decomposed + "/x").c_str()), second);
    EXPECT_EQ(childNames(second), (std::vector<std::string>{"x"}));

    DeleteChildObject(second, decomposed.c_str());
    DeleteObject(second, decomposed.c_str());
    EXPECT_EQ(FindObject((decomposed + "/x").c_str()), nullptr);
    EXPECT_EQ(FindObject((composed + "/x").c_str()), inFirst);
    EXPECT_EQ(childNames(first), (std::vector<std::string>{"x"}));
}

TEST_F(CatalogueTest, CleanupRemovesOnlyTemporaryRecords) {
    GetObject("/");
    _KTL_OBJECT *storage = addChild("/Storage", KTL_MODE_FOLDER);
    addChild("/Storage/keep", KTL_MODE_FILE);
    addChild("/Storage/scratch", KTL_MODE_FILE)->type = KTL_TYPE_TEMPORARY;
    addChild("/Storage/device", KTL_MODE_FILE)->type = KTL_TYPE_DEVICE_FILE;
    CleanupTmpObject("/Storage", &storage->child_list);
    EXPECT_EQ(childNames(storage), (std::vector<std::string>{"keep", "device"}));
    EXPECT_EQ(FindObject("/Storage/scratch"), nullptr);
}

TEST_F(CatalogueTest, UnconvertibleNamesAreKeptRawByGetObjectButNotFound) {
    const char raw[] = "/Storage/bad\xFF";
    _KTL_OBJECT *object = GetObject(raw);
    ASSERT_NE(object, nullptr);
    EXPECT_TRUE(logContains("GetObject getUTF8MACName Failed, bad\xFF"));
    // The exact path still finds it (first step of FindObject).
    EXPECT_EQ(FindObject(raw), object);
    EXPECT_EQ(FindObject("/Storage/other\xFF"), nullptr);
    EXPECT_TRUE(logContains("FindObject getUTF8MACName Failed"));
}

} // namespace
