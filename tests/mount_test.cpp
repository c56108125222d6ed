#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tarnifs/mount.h"

namespace {

struct Argv {
    explicit Argv(std::vector<std::string> values) : storage(std::move(values)) {
        for (std::string &value : storage) pointers.push_back(&value[0]);
        pointers.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(storage.size()); }
    std::vector<std::string> storage;
    std::vector<char *> pointers;
};

TEST(DevoptTest, TrailingPairIsTakenAndCutOff) {
    Argv args({"quorvelfs", "/mnt/phone", "-o", "volname=Phone", "-devopt", "20123456"});
    int location = -1;
    int fuseArgc = takeDevopt(args.argc(), args.pointers.data(), &location);
    EXPECT_EQ(location, 20123456);
    ASSERT_EQ(fuseArgc, 4);
    EXPECT_STREQ(args.pointers[0], "quorvelfs");
    EXPECT_STREQ(args.pointers[1], "/mnt/phone");
    EXPECT_STREQ(args.pointers[2], "-o");
    EXPECT_STREQ(args.pointers[3], "volname=Phone");
    EXPECT_EQ(args.pointers[4], nullptr);
    EXPECT_EQ(args.pointers[5], nullptr);
}

TEST(DevoptTest, WithoutThePairTheLastTwoArgumentsAreDropped) {
    Argv args({"quorvelfs", "/mnt/phone", "-o", "volname=Phone"});
    int location = -1;
    EXPECT_EQ(takeDevopt(args.argc(), args.pointers.data(), &location), 2);
    EXPECT_EQ(location, 0);
    EXPECT_STREQ(args.pointers[2], "-o");  // untouched, merely not counted
}

TEST(DevoptTest, OnlyTheFirstExactMatchCounts) {
    Argv args({"quorvelfs", "-DEVOPT", "7", "-devopt", "12", "-devopt", "99"});
    int location = -1;
    EXPECT_EQ(takeDevopt(args.argc(), args.pointers.data(), &location), 5);
    EXPECT_EQ(location, 12);
    EXPECT_STREQ(args.pointers[1], "-DEVOPT");
    EXPECT_EQ(args.pointers[3], nullptr);
    EXPECT_STREQ(args.pointers[5], "-devopt");

    Argv dangling({"quorvelfs", "/mnt", "-devopt"});
    EXPECT_EQ(takeDevopt(dangling.argc(), dangling.pointers.data(), &location), 1);
    EXPECT_EQ(location, 0);
}

TEST(OperationTableTest, OnlyBuiltHandlersAreFilledAndErrnoValuesAreLinuxs) {
    EXPECT_NE(tarni_opers.getattr, nullptr);
    EXPECT_NE(tarni_opers.truncate, nullptr);
    EXPECT_NE(tarni_opers.utimens, nullptr);
    // close() waits for flush (not for release): a staged temporary reaches the device there.
    EXPECT_NE(tarni_opers.flush, nullptr);
    // Deliberately absent: FUSE answers or refuses these itself.
    EXPECT_EQ(tarni_opers.readlink, nullptr);
    // The device has no links: "not permitted", never "not found".
    ASSERT_NE(tarni_opers.link, nullptr);
    EXPECT_EQ(tarni_opers.link("/Storage/a", "/Storage/b"), -EPERM);
    EXPECT_EQ(tarni_opers.symlink("a", "/Storage/b"), -EPERM);
    EXPECT_EQ(tarni_opers.listxattr, nullptr);
    EXPECT_EQ(ENOSYS, 38);
    EXPECT_EQ(ECANCELED, 125);
    EXPECT_EQ(ENOATTR, ENODATA);
}

} // namespace
