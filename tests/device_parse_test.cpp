// The parsing of AFC file information and installation proxy answers, fed
// directly with the answers a device could give, sane or broken.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cstdint>
#include <string>
#include <vector>

#include "device/device_internal.h"

namespace {

libiusb_file_info parse(std::vector<const char *> pairs) {
    pairs.push_back(nullptr);
    libiusb_file_info info{};
    parseFileInfoPairs(pairs.data(), &info);
    return info;
}

struct App {
    std::string display_name;
    std::string bundle_id;
};

std::vector<App> appsOf(plist_t reply, int *result) {
    libiusb_app_node *list = nullptr;
    *result = appsFromBrowseReply(reply, &list);
    std::vector<App> apps;
    for (libiusb_app_node *node = list; node != nullptr; node = node->next)
        apps.push_back({node->display_name, node->bundle_id});
    libiusb_free_app_list(list);
    return apps;
}

plist_t app(const char *bundle, plist_t sharing, const char *display, const char *name) {
    plist_t dict = plist_new_dict();
    if (bundle != nullptr) plist_dict_set_item(dict, "CFBundleIdentifier", plist_new_string(bundle));
    if (sharing != nullptr) plist_dict_set_item(dict, "UIFileSharingEnabled", sharing);
    if (display != nullptr) plist_dict_set_item(dict, "CFBundleDisplayName", plist_new_string(display));
    if (name != nullptr) plist_dict_set_item(dict, "CFBundleName", plist_new_string(name));
    return dict;
}

} // namespace

TEST(FileInfoPairs, ReadsTypeSizeAndTimes) {
    libiusb_file_info info = parse({"st_size", "1234", "st_blocks", "8", "st_nlink", "1", "st_ifmt", "S_IFREG",
                                    "st_mtime", "1700000000123456789", "st_birthtime", "1600000000000000000"});
    EXPECT_EQ(info.file_type, LIBIUSB_FILE_TYPE_REGULAR);
    EXPECT_EQ(info.size, 1234u);
    EXPECT_EQ(info.modify_time, 1700000000123456789LL);
    EXPECT_EQ(info.birth_time, 1600000000000000000LL);
}

TEST(FileInfoPairs, EveryKindOfFileType) {
    EXPECT_EQ(parse({"st_ifmt", "S_IFDIR"}).file_type, LIBIUSB_FILE_TYPE_FOLDER);
    EXPECT_EQ(parse({"st_ifmt", "S_IFLNK"}).file_type, LIBIUSB_FILE_TYPE_LINK);
    EXPECT_EQ(parse({"st_ifmt", "S_IFCHR"}).file_type, LIBIUSB_FILE_TYPE_OTHER);
    EXPECT_EQ(parse({"st_ifmt", ""}).file_type, LIBIUSB_FILE_TYPE_OTHER);
}

TEST(FileInfoPairs, BrokenAnswersLeaveWhatTheyDoNotName) {
    // A key without its value ends the parse; what came before counts.
    libiusb_file_info info = parse({"st_size", "10", "st_mtime"});
    EXPECT_EQ(info.size, 10u);
    EXPECT_EQ(info.modify_time, 0);
    // Numbers are read as far as they go; text that is no number is 0.
    info = parse({"st_size", "12abc", "st_mtime", "-5", "st_birthtime", "soon"});
    EXPECT_EQ(info.size, 12u);
    EXPECT_EQ(info.modify_time, -5);
    EXPECT_EQ(info.birth_time, 0);
    // Nothing at all, or no array.
    info = parse({});
    EXPECT_EQ(info.size, 0u);
    parseFileInfoPairs(nullptr, &info);
    parseFileInfoPairs(nullptr, nullptr);
}

TEST(FileInfoPairs, OutOfRangeNumbersSaturate) {
    libiusb_file_info info = parse({"st_size", "99999999999999999999999", "st_mtime", "-99999999999999999999999"});
    EXPECT_EQ(info.size, static_cast<uint64_t>(INT64_MAX)) << "no size past the largest file offset";
    EXPECT_EQ(info.modify_time, INT64_MIN);
}

TEST(FileInfoPairs, SizesNoFileCanHaveStopAtTheLargestOffset) {
    // A hostile device: sizes that are negative, or negative once taken as a
    // file offset; the kernel refuses a record that carries one.
    for (const char *said : {"-1", "9223372036854775808", "18446744073709551615", "-9223372036854775808"})
        EXPECT_EQ(parse({"st_size", said}).size, static_cast<uint64_t>(INT64_MAX)) << said;
    EXPECT_EQ(parse({"st_size", "9223372036854775807"}).size, static_cast<uint64_t>(INT64_MAX));
    EXPECT_EQ(parse({"st_size", "9223372036854775806"}).size, static_cast<uint64_t>(INT64_MAX) - 1);
}

TEST(BrowseReply, ListsSharingAppsInOrderWithTheirBestName) {
    plist_t reply = plist_new_array();
    plist_array_append_item(reply, app("com.a", plist_new_bool(1), "Alpha", "AlphaName"));
    plist_array_append_item(reply, app("com.b", plist_new_bool(0), "Beta", nullptr));
    plist_array_append_item(reply, app("com.c", plist_new_string("YES"), nullptr, "Gamma"));
    plist_array_append_item(reply, app("com.d", plist_new_uint(1), nullptr, nullptr));
    plist_array_append_item(reply, app(nullptr, plist_new_bool(1), "NoBundle", nullptr));
    plist_array_append_item(reply, app("com.e", nullptr, "NoKey", nullptr));
    plist_array_append_item(reply, plist_new_string("not a dictionary"));
    plist_array_append_item(reply, app("com.f", plist_new_string("true"), "", ""));
    plist_array_append_item(reply, app("com.g", plist_new_string("no"), "G", nullptr));
    int result = -1;
    std::vector<App> apps = appsOf(reply, &result);
    plist_free(reply);
    ASSERT_EQ(result, LIBIUSB_SUCCESS);
    ASSERT_EQ(apps.size(), 4u);
    EXPECT_EQ(apps[0].display_name, "Alpha");
    EXPECT_EQ(apps[0].bundle_id, "com.a");
    EXPECT_EQ(apps[1].display_name, "Gamma");
    EXPECT_EQ(apps[2].display_name, "com.d");
    EXPECT_EQ(apps[3].display_name, "com.f");
}

TEST(BrowseReply, AnswersThatAreNoArrayAreRefused) {
    libiusb_app_node *untouched = reinterpret_cast<libiusb_app_node *>(0x1);
    plist_t dict = plist_new_dict();
    EXPECT_EQ(appsFromBrowseReply(dict, &untouched), LIBIUSB_ERROR_OTHER);
    EXPECT_EQ(appsFromBrowseReply(nullptr, &untouched), LIBIUSB_ERROR_OTHER);
    EXPECT_EQ(untouched, reinterpret_cast<libiusb_app_node *>(0x1));
    plist_free(dict);

    plist_t empty = plist_new_array();
    int result = -1;
    EXPECT_TRUE(appsOf(empty, &result).empty());
    EXPECT_EQ(result, LIBIUSB_SUCCESS);
    plist_free(empty);
}
