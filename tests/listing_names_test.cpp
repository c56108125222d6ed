// Which names from a device listing the mount shows: only those a path can
// address, so that no device name stands for a folder above or a record
// elsewhere in the catalogue.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "tarnifs/listing.h"

namespace {

TEST(ListableDeviceNames, OnlyNamesALookupCanReachWithoutAliasingAnotherPathAreShown) {
    const struct {
        std::string name;
        bool shown;
    } rows[] = {
        // Names that would alias another path.
        {"a/b", false}, {"/absolute.txt", false}, {"../escape.txt", false}, {"x/..", false}, {"/", false},
        {"a/", false}, {".", false}, {"..", false}, {"", false},
        // Names no lookup could reach; past FUSE's limit the kernel fails the listing.
        {std::string(NAME_MAX, 'n'), true}, {std::string(NAME_MAX + 1, 'o'), false}, {std::string(5000, 'p'), false},
        // Odd but addressable names.
        {"plain.txt", true}, {"line\nbreak.txt", true}, {"tab\there.txt", true}, {"control\x01.txt", true},
        {"bad\xff\xfeutf8.txt", true}, {"a:b", true}, {"a..b", true}, {"R\xC3\xA9sum\xC3\xA9.txt", true},
        {"...", true}, {".hidden", true}, {".git", true}, {"..x", true}, {".\xC3\xA9", true},
    };
    for (const auto &row : rows) EXPECT_EQ(IsListableDeviceName(row.name.c_str()), row.shown) << "'" << row.name << "'";
    EXPECT_FALSE(IsListableDeviceName(nullptr));
}

} // namespace
