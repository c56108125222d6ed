// Which names from a device listing the mount shows: only those a path can
// address, so that no device name stands for a folder above or a record
// elsewhere in the catalogue.
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "tarnifs/listing.h"

namespace {

TEST(ListableDeviceNames, NamesThatWouldAliasAnotherPathAreNotShown) {
    for (const char *name : {"a/b", "/absolute.txt", "../escape.txt", "x/..", "/", "a/"})
        EXPECT_FALSE(IsListableDeviceName(name)) << name;
    for (const char *name : {".", "..", ""}) EXPECT_FALSE(IsListableDeviceName(name)) << "'" << name << "'";
    EXPECT_FALSE(IsListableDeviceName(nullptr));
}

TEST(ListableDeviceNames, NamesNoLookupCouldReachAreNotShown) {
    EXPECT_TRUE(IsListableDeviceName(std::string(NAME_MAX, 'n').c_str()));
    EXPECT_FALSE(IsListableDeviceName(std::string(NAME_MAX + 1, 'o').c_str()));
    EXPECT_FALSE(IsListableDeviceName(std::string(5000, 'p').c_str())) << "past FUSE's limit the kernel fails the listing";
}

TEST(ListableDeviceNames, OddButAddressableNamesAreShown) {
    for (const char *name : {"plain.txt", "line\nbreak.txt", "tab\there.txt", "control\x01.txt", "bad\xff\xfeutf8.txt",
                             "a:b", "a..b", "R\xC3\xA9sum\xC3\xA9.txt", "...", ".hidden", ".git", "..x", ".\xC3\xA9"})
        EXPECT_TRUE(IsListableDeviceName(name)) << name;
}

} // namespace
