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
    // The argument vector as it is now, a null pointer as "(null)".
    std::vector<std::string> now() const {
        std::vector<std::string> values;
        for (size_t i = 0; i < storage.size(); ++i) values.push_back(pointers[i] != nullptr ? pointers[i] : "(null)");
        return values;
    }
    std::vector<std::string> storage;
    std::vector<char *> pointers;
};

TEST(DevoptTest, OnlyTheFirstExactTrailingPairIsTakenAndCutOff) {
    struct Case {
        std::vector<std::string> argv;
        int fuseArgc, location;
        std::vector<std::string> after;  // none: not looked at
    };
    const Case cases[] = {
        {{"quorvelfs", "/mnt/phone", "-o", "volname=Phone", "-devopt", "20123456"}, 4, 20123456,
         {"quorvelfs", "/mnt/phone", "-o", "volname=Phone", "(null)", "(null)"}},
        // Without the pair the last two arguments are dropped, untouched, merely not counted.
        {{"quorvelfs", "/mnt/phone", "-o", "volname=Phone"}, 2, 0, {"quorvelfs", "/mnt/phone", "-o", "volname=Phone"}},
        {{"quorvelfs", "-DEVOPT", "7", "-devopt", "12", "-devopt", "99"}, 5, 12,
         {"quorvelfs", "-DEVOPT", "7", "(null)", "(null)", "-devopt", "99"}},
        {{"quorvelfs", "/mnt", "-devopt"}, 1, 0, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.argv.back());
        Argv args(c.argv);
        int location = -1;
        EXPECT_EQ(takeDevopt(args.argc(), args.pointers.data(), &location), c.fuseArgc);
        EXPECT_EQ(location, c.location);
        if (!c.after.empty()) {
            EXPECT_EQ(args.now(), c.after);
        }
    }
}

TEST(OperationTableTest, OnlyBuiltHandlersAreFilledAndLinksAreNotPermitted) {
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
}

} // namespace
