// Listings as the kernel reads them: page by page, each entry with the
// catalogue's attributes, every name exactly once and in the listing's order.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/listing.h"
#include "tests/support/catalogue_fixture.h"

namespace {

struct Delivered {
    std::string name;
    off_t next;
    off_t size;
    bool plus;
};

// A kernel buffer with room for `room` entries per request.
struct Page {
    size_t room;
    std::vector<Delivered> entries;
};

int fillPage(void *buffer, const char *name, const struct stat *st, off_t next, enum fuse_fill_dir_flags flags) {
    Page *page = static_cast<Page *>(buffer);
    if (page->entries.size() == page->room) return 1;
    page->entries.push_back({name, next, st != nullptr ? st->st_size : -1, (flags & FUSE_FILL_DIR_PLUS) != 0});
    return 0;
}

class ReaddirPlusTest : public MountContextTest {
protected:
    void SetUp() override {
        MountContextTest::SetUp();
        GetObject("/")->enumerated = 1;
        folder("/Storage");
        // Linked in an order that is not alphabetical: the listing's order is the list's.
        for (const char *name : {"zeta.txt", "alpha", "mid.bin", "beta.txt", "omega", "gamma.txt", "delta"}) {
            file(ChildPath("/Storage", name).c_str(), strlen(name) * 100);
            expected.push_back(name);
        }
    }

    // Reads the whole folder as the kernel does: each request starts where the last entry handed over said.
    std::vector<Delivered> readAll(size_t room, enum fuse_readdir_flags flags, int *requests) {
        struct fuse_file_info open {};
        EXPECT_EQ(tarni_opers.opendir("/Storage", &open), 0);
        std::vector<Delivered> all;
        off_t offset = 0;
        *requests = 0;
        for (;;) {
            Page page{room, {}};
            EXPECT_EQ(tarni_opers.readdir("/Storage", &page, fillPage, offset, &open, flags), 0);
            ++*requests;
            if (page.entries.empty() || *requests > 100) break;
            all.insert(all.end(), page.entries.begin(), page.entries.end());
            offset = page.entries.back().next;
        }
        EXPECT_EQ(tarni_opers.releasedir("/Storage", &open), 0);
        return all;
    }

    std::vector<std::string> expected;
};

TEST_F(ReaddirPlusTest, PagesDeliverEveryNameOnceInOrderWithTheAttributesGetattrGivesOnlyWhenAskedFor) {
    for (size_t room : {1, 3, 4, 100}) {
        int requests = 0;
        std::vector<Delivered> all = readAll(room, FUSE_READDIR_PLUS, &requests);
        ASSERT_EQ(all.size(), expected.size() + 2) << "room " << room;
        EXPECT_EQ(all[0].name, ".");
        EXPECT_EQ(all[1].name, "..");
        EXPECT_FALSE(all[0].plus);
        for (size_t i = 0; i < expected.size(); ++i) {
            const Delivered &entry = all[i + 2];
            EXPECT_EQ(entry.name, expected[i]) << "room " << room;
            EXPECT_TRUE(entry.plus) << entry.name;
            EXPECT_EQ(entry.size, static_cast<off_t>(expected[i].size() * 100)) << entry.name;
        }
        EXPECT_LE(requests, static_cast<int>((expected.size() + 2 + room - 1) / room) + 1);
    }
    // getattr with an open file answers as getattr does.
    struct stat byPath, byFile;
    struct fuse_file_info open {};
    ASSERT_EQ(tarni_opers.getattr("/Storage/mid.bin", &byPath, nullptr), 0);
    ASSERT_EQ(tarni_opers.getattr("/Storage/mid.bin", &byFile, &open), 0);
    EXPECT_EQ(memcmp(&byPath, &byFile, sizeof(byPath)), 0);
    EXPECT_EQ(byFile.st_size, 700);

    // Plain listings carry no attributes for the kernel to keep.
    int requests = 0;
    std::vector<Delivered> all = readAll(2, static_cast<enum fuse_readdir_flags>(0), &requests);
    ASSERT_EQ(all.size(), expected.size() + 2);
    for (const Delivered &entry : all) EXPECT_FALSE(entry.plus) << entry.name;

    // Past 100,000 entries even a listing that asks for attributes gets
    // names: the kernel and libfuse would keep a record of every entry.
    _KTL_OBJECT *storage = GetObject("/Storage");
    for (size_t i = expected.size(); i < 100001; ++i)
        LinkChildObject(storage, GetObjectWithFileName(ChildPath("/Storage", numbered("f", i).c_str()).c_str()));
    all = readAll(200000, FUSE_READDIR_PLUS, &requests);
    ASSERT_EQ(all.size(), 100001u + 2);
    EXPECT_EQ(std::count_if(all.begin(), all.end(), [](const Delivered &entry) { return entry.plus; }), 0);
}

TEST_F(ReaddirPlusTest, ARecordGoneBetweenPagesIsStillNamedAndWithoutAContextNothingIsRead) {
    struct fuse_file_info open {};
    ASSERT_EQ(tarni_opers.opendir("/Storage", &open), 0);
    Page first{4, {}};
    ASSERT_EQ(tarni_opers.readdir("/Storage", &first, fillPage, 0, &open, FUSE_READDIR_PLUS), 0);
    ASSERT_EQ(first.entries.size(), 4u);
    // "omega" goes away before the next page is asked for.
    _KTL_OBJECT *omega = FindObject("/Storage/omega");
    ASSERT_NE(omega, nullptr);
    UnlinkObject(omega);
    DeleteObject(omega, "/Storage/omega");
    Page rest{100, {}};
    ASSERT_EQ(tarni_opers.readdir("/Storage", &rest, fillPage, first.entries.back().next, &open, FUSE_READDIR_PLUS), 0);
    ASSERT_EQ(rest.entries.size(), expected.size() + 2 - 4);
    for (const Delivered &entry : rest.entries) EXPECT_EQ(entry.plus, entry.name != "omega") << entry.name;

    // A mount whose start-up failed reads nothing at all.
    fuse.private_data = nullptr;
    Page none{100, {}};
    EXPECT_EQ(tarni_opers.readdir("/Storage", &none, fillPage, 0, &open, FUSE_READDIR_PLUS), -ENOSYS);
    EXPECT_TRUE(none.entries.empty());
    EXPECT_EQ(tarni_opers.releasedir("/Storage", &open), 0);
}

} // namespace
