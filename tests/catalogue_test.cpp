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
    // The root and a listed /Storage, as every listing starts.
    void SetUp() override {
        MountContextTest::SetUp();
        GetObject("/");
        folder("/Storage");
    }

    size_t liveEntries() {
        size_t count = 0;
        for (auto &entry : Object_list) count += entry.second != 0;
        return count;
    }
};

TEST_F(CatalogueTest, EitherSpellingReachesOneRecordAndMissesLeaveNothingBehind) {
    _KTL_OBJECT *root = GetObject("/");
    EXPECT_EQ(FindObject("/"), root);
    EXPECT_EQ(Object_list.count("/"), 1u);
    for (const char *area : {"/Media", "/Apps", "/Storage"}) EXPECT_EQ(GetParentObject(area), root) << area;
    // A fresh record: a regular file, unnamed, self-linked, not in any list.
    _KTL_OBJECT *fresh = GetObject("/Media");
    EXPECT_EQ(fresh->mode, KTL_MODE_FILE);
    EXPECT_EQ(fresh->file_name, nullptr);
    EXPECT_EQ(fresh->child_list.next, &fresh->child_list);
    EXPECT_EQ(fresh->sibling.next, &fresh->sibling);

    _KTL_OBJECT *made = GetObjectWithFileName(kDecomposed);
    ASSERT_STREQ(made->file_name, "cafe\xCC\x81");
    EXPECT_EQ(GetObject(kDecomposed), made);
    EXPECT_EQ(GetObject(kComposed), made);
    EXPECT_EQ(GetObjectWithFileName(kComposed), made);
    EXPECT_STREQ(made->file_name, "cafe\xCC\x81");  // kept, not replaced by the new spelling
    EXPECT_EQ(FindObject(kComposed), made);
    EXPECT_EQ(FindObject(kDecomposed), made);
    // Folder components are composed too: a path through either spelling of
    // the folder is one key.
    EXPECT_EQ(FindObject("/Storage/cafe\xCC\x81/x"), nullptr);
    _KTL_OBJECT *inside = GetObject("/Storage/caf\xC3\xA9/x");
    EXPECT_EQ(FindObject("/Storage/cafe\xCC\x81/x"), inside);
    // A "/" inside a name (from the device) is stored as ":".
    EXPECT_EQ(GetObject("/Storage/AC:DC"), GetObject("/Storage/AC:DC"));

    // Misses under either spelling, and through the handlers that look paths
    // up, add nothing to the map.
    root->enumerated = 1;
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

TEST_F(CatalogueTest, ChildrenFollowLinksDeletesAndCleanups) {
    for (const char *name : {"/Storage/b", "/Storage/a", "/Storage/c"}) file(name, 0);
    EXPECT_EQ(childNames("/Storage"), (std::vector<std::string>{"b", "a", "c"}));
    UnlinkObject(FindObject("/Storage/a"));
    EXPECT_EQ(childNames("/Storage"), (std::vector<std::string>{"b", "c"}));
    UnlinkObject(FindObject("/Storage/a"));  // unlinking twice changes nothing
    EXPECT_EQ(childNames("/Storage"), (std::vector<std::string>{"b", "c"}));

    // Deleting an unlinked record only removes it from the map.
    DeleteObject(FindObject("/Storage/a"), "/Storage/a");
    EXPECT_EQ(FindObject("/Storage/a"), nullptr);
    EXPECT_EQ(childNames("/Storage"), (std::vector<std::string>{"b", "c"}));
    // Without a mount context nothing is deleted.
    _KTL_OBJECT *kept = FindObject("/Storage/b");
    fuse.private_data = nullptr;
    DeleteObject(kept, "/Storage/b");
    fuse.private_data = &context;
    EXPECT_EQ(FindObject("/Storage/b"), kept);
    DeleteObject(nullptr, "/Storage/b");
    EXPECT_EQ(FindObject("/Storage/b"), kept);

    // Cleanup removes only temporary records.
    file("/Storage/scratch", 0)->type = KTL_TYPE_TEMPORARY;
    file("/Storage/device", 0)->type = KTL_TYPE_DEVICE_FILE;
    CleanupTmpObject("/Storage", &FindObject("/Storage")->child_list);
    EXPECT_EQ(childNames("/Storage"), (std::vector<std::string>{"b", "c", "device"}));
    EXPECT_EQ(FindObject("/Storage/scratch"), nullptr);
}

// The device names a file in decomposed form: its record is keyed by the
// composed form but named and deleted by the display form.
TEST_F(CatalogueTest, DeepTreeIsDeletedChildrenFirstUnderEveryKeyAndTheFolderStays) {
    const std::string composed = "/Storage/top/caf\xC3\xA9", decomposed = "/Storage/top/cafe\xCC\x81";
    _KTL_OBJECT *top = folder("/Storage/top");
    for (const char *path : {"/Storage/top/a", "/Storage/top/a/b", "/Storage/top/a/b/c"}) folder(path);
    for (const char *path : {"/Storage/top/a/b/c/deep.txt", "/Storage/top/a/b/file", "/Storage/top/z"}) file(path, 0);
    _KTL_OBJECT *cafe = file(decomposed.c_str(), 0);
    ASSERT_EQ(FindObject(composed.c_str()), cafe);
    ASSERT_EQ(tarnifs_setxattr("/Storage/top/a/b/file", "user.tag", "red", 3, 0), 0);

    size_t before = liveEntries();
    DeleteChildObject(top, "/Storage/top");
    EXPECT_EQ(liveEntries(), before - 7);
    for (std::string gone : {"/Storage/top/a", "/Storage/top/a/b", "/Storage/top/a/b/c", "/Storage/top/a/b/c/deep.txt",
                             "/Storage/top/a/b/file", "/Storage/top/z", composed.c_str(), decomposed.c_str()})
        EXPECT_EQ(FindObject(gone.c_str()), nullptr) << gone;
    for (auto &entry : Object_list)
        EXPECT_NE(entry.second, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(cafe))) << entry.first;
    EXPECT_EQ(FindObject("/Storage/top"), top);
    EXPECT_TRUE(childNames("/Storage/top").empty());
    EXPECT_EQ(childNames("/Storage"), (std::vector<std::string>{"top"}));
    // A new record under either spelling is a fresh one.
    _KTL_OBJECT *again = GetObject(composed.c_str());
    EXPECT_EQ(again->file_name, nullptr);
    EXPECT_EQ(FindObject(decomposed.c_str()), again);
}

// Found by the catalogue fuzz target (tests/fuzz/corpus/fuzz_catalogue/
// folder-removed-under-other-form): a child made through the composed folder
// name, then the folder removed through the decomposed one. The child's key
// kept the folder as first spelled, so removing the folder freed the child
// but left it in the map, and the next lookup returned freed memory.
TEST_F(CatalogueTest, FolderRemovedUnderTheOtherSpellingTakesItsChildrenFromTheMap) {
    _KTL_OBJECT *cafe = folder(kComposed);
    folder((std::string(kComposed) + "/e\xCC\x81" "b").c_str());
    file((std::string(kDecomposed) + "/plain").c_str(), 0);
    EXPECT_EQ(childNames(kComposed), (std::vector<std::string>{"e\xCC\x81" "b", "plain"}));

    DeleteChildObject(cafe, kDecomposed);
    DeleteObject(cafe, kDecomposed);
    const std::string composed = kComposed, decomposed = kDecomposed;
    for (const std::string &gone : {composed + "/\xC3\xA9" "b", composed + "/e\xCC\x81" "b", composed + "/plain",
                                    decomposed + "/plain", composed})
        EXPECT_EQ(FindObject(gone.c_str()), nullptr) << gone;
    EXPECT_TRUE(childNames("/Storage").empty());
    EXPECT_EQ(liveEntries(), 2u);  // the root and /Storage
}

// Names too long for the lookup buffer are never composed as a last
// component, so their folder part must not be composed either: the two
// spellings are two folders, each with its own children.
TEST_F(CatalogueTest, FoldersTooLongToComposeKeepTheirChildrenApart) {
    const std::string composed = "/Storage/" + std::string(2046, 'y') + "\xC3\xA9";
    const std::string decomposed = "/Storage/" + std::string(2046, 'y') + "e\xCC\x81";
    _KTL_OBJECT *first = folder(composed.c_str());
    _KTL_OBJECT *second = folder(decomposed.c_str());
    ASSERT_NE(first, second);
    _KTL_OBJECT *inFirst = file((composed + "/x").c_str(), 0);
    _KTL_OBJECT *inSecond = file((decomposed + "/x").c_str(), 0);
    EXPECT_NE(inFirst, inSecond);
    EXPECT_EQ(GetParentObject((decomposed + "/x").c_str()), second);
    EXPECT_EQ(childNames(decomposed.c_str()), (std::vector<std::string>{"x"}));

    DeleteChildObject(second, decomposed.c_str());
    DeleteObject(second, decomposed.c_str());
    EXPECT_EQ(FindObject((decomposed + "/x").c_str()), nullptr);
    EXPECT_EQ(FindObject((composed + "/x").c_str()), inFirst);
    EXPECT_EQ(childNames(composed.c_str()), (std::vector<std::string>{"x"}));
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
