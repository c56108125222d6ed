// The device layer's own functions, fed directly: the mapping from
// libimobiledevice results to our codes (and its page in
// docs/device-errors.md), and the parsing of AFC file information and
// installation proxy answers a device could give, sane or broken. The live
// error rows are produced through the simulated device in device_devsim_test.cpp.
#include <gtest/gtest.h>
#include <plist/plist.h>

#include <cerrno>
#include <cstdint>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "device/device_internal.h"
#include "tests/support/catalogue_fixture.h"

namespace {

// The names docs/device-errors.md gives the sources, in the enum's order.
const char *sourceName(NativeSource source) {
    static const char *const names[] = {"usbmuxd", "idevice", "lockdown", "afc", "instproxy", "house_arrest"};
    return names[static_cast<int>(source)];
}

TEST(DeviceErrors, ResultsTheFileSystemActsOnWhicheverSourceReportsThem) {
    // The same number means different things per source (-3 is "no device"
    // for idevice but a plist error for lockdown; 8 is only AFC's): the
    // source decides.
    const struct {
        NativeSource source;
        int native;
        int code;
    } rows[] = {
        {NativeSource::Afc, AFC_E_MUX_ERROR, LIBIUSB_ERROR_CONNECTION_LOST},
        // A reply cut short or framed wrong leaves the stream out of step: as lost.
        {NativeSource::Afc, AFC_E_NOT_ENOUGH_DATA, LIBIUSB_ERROR_CONNECTION_LOST},
        {NativeSource::Afc, AFC_E_OP_HEADER_INVALID, LIBIUSB_ERROR_CONNECTION_LOST},
        {NativeSource::Lockdown, LOCKDOWN_E_MUX_ERROR, LIBIUSB_ERROR_CONNECTION_LOST},
        {NativeSource::Instproxy, INSTPROXY_E_CONN_FAILED, LIBIUSB_ERROR_CONNECTION_LOST},
        {NativeSource::HouseArrest, HOUSE_ARREST_E_UNKNOWN_ERROR, LIBIUSB_ERROR_CONNECTION_LOST},
        {NativeSource::Afc, AFC_E_NO_SPACE_LEFT, LIBIUSB_ERROR_NO_SPACE},
        {NativeSource::Afc, AFC_E_OBJECT_NOT_FOUND, LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND},
        {NativeSource::Afc, AFC_E_DIR_NOT_EMPTY, LIBIUSB_ERROR_DIR_NOT_EMPTY},
        {NativeSource::Idevice, IDEVICE_E_NO_DEVICE, LIBIUSB_ERROR_NO_DEVICE},
        {NativeSource::Lockdown, LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING, LIBIUSB_ERROR_TRUST_PENDING},
        {NativeSource::Lockdown, LOCKDOWN_E_PASSWORD_PROTECTED, LIBIUSB_ERROR_PASSWORD_PROTECTED},
        {NativeSource::Idevice, -3, LIBIUSB_ERROR_NO_DEVICE},
        {NativeSource::Afc, 8, LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND},
        {NativeSource::Afc, 12345, LIBIUSB_ERROR_OTHER},
        {NativeSource::Lockdown, LOCKDOWN_E_MC_CHALLENGE_REQUIRED, LIBIUSB_ERROR_OTHER},
        // Whatever errno connecting to the daemon gave.
        {NativeSource::Usbmuxd, -EACCES, LIBIUSB_ERROR_USBMUXD_UNREACHABLE},
    };
    for (const auto &row : rows)
        EXPECT_EQ(mapNativeError(row.source, row.native), row.code) << sourceName(row.source) << " " << row.native;
    EXPECT_NE(mapNativeError(NativeSource::Lockdown, -3), LIBIUSB_ERROR_NO_DEVICE);
    EXPECT_NE(mapNativeError(NativeSource::Instproxy, 8), LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND);
    for (int source = 0; source <= static_cast<int>(NativeSource::HouseArrest); source++)
        EXPECT_EQ(mapNativeError(static_cast<NativeSource>(source), 0), LIBIUSB_SUCCESS) << source;
    EXPECT_EQ(mapHouseArrestReply("InstallationLookupFailed"), LIBIUSB_ERROR_APP_NOT_FOUND);
    EXPECT_EQ(mapHouseArrestReply("SomethingElse"), LIBIUSB_ERROR_OTHER);
    EXPECT_EQ(mapHouseArrestReply(nullptr), LIBIUSB_ERROR_OTHER);
}

// Every row is an error with a name, no two rows read the same native
// result, and docs/device-errors.md lists each row with its code and nothing else.
TEST(DeviceErrors, TableHasNoDuplicateRowsAndTheDocumentationListsEveryRowWithItsCode) {
    const std::string contents = readLocal(std::string(QUORVEL_SOURCE_DIR) + "/docs/device-errors.md");
    EXPECT_FALSE(contents.empty()) << "docs/device-errors.md is missing";

    // "| afc | `AFC_E_NO_SPACE_LEFT` | -62 | ..."
    std::regex row("\\| (\\w+) \\| `([-A-Z_0-9]+)` \\| (-?\\d+) \\|");
    std::set<std::tuple<std::string, std::string, int>> documented;
    for (auto it = std::sregex_iterator(contents.begin(), contents.end(), row); it != std::sregex_iterator(); ++it) {
        documented.insert({(*it)[1].str(), (*it)[2].str(), std::stoi((*it)[3].str())});
    }
    std::set<std::pair<int, int>> seen;
    std::set<std::tuple<std::string, std::string, int>> coded;
    for (const NativeErrorRow &entry : nativeErrorTable()) {
        EXPECT_NE(entry.native, 0) << entry.native_name;
        EXPECT_LT(entry.code, 0) << entry.native_name;
        EXPECT_TRUE(seen.insert({static_cast<int>(entry.source), entry.native}).second)
            << "two rows for " << sourceName(entry.source) << " " << entry.native_name;
        EXPECT_STRNE(libiusb_error_name(entry.code), libiusb_error_name(12345)) << entry.code << " has no name";
        coded.insert({sourceName(entry.source), entry.native_name, entry.code});
    }
    EXPECT_EQ(coded, documented) << "the table's rows (source, native name, code), then the page's";
}

TEST(FileInfoPairs, ReadsTypeSizeAndTimesAndKeepsSizesToTheLargestOffset) {
    const int64_t kMax = INT64_MAX;
    const struct {
        std::vector<const char *> pairs;
        int32_t type;
        uint64_t size;
        int64_t modify, birth;
    } rows[] = {
        {{"st_size", "1234", "st_blocks", "8", "st_nlink", "1", "st_ifmt", "S_IFREG", "st_mtime",
          "1700000000123456789", "st_birthtime", "1600000000000000000"},
         LIBIUSB_FILE_TYPE_REGULAR, 1234, 1700000000123456789LL, 1600000000000000000LL},
        {{"st_ifmt", "S_IFDIR"}, LIBIUSB_FILE_TYPE_FOLDER, 0, 0, 0},
        {{"st_ifmt", "S_IFLNK"}, LIBIUSB_FILE_TYPE_LINK, 0, 0, 0},
        {{"st_ifmt", "S_IFCHR"}, LIBIUSB_FILE_TYPE_OTHER, 0, 0, 0},
        {{"st_ifmt", ""}, LIBIUSB_FILE_TYPE_OTHER, 0, 0, 0},
        // A key without its value ends the parse; what came before counts.
        {{"st_size", "10", "st_mtime"}, LIBIUSB_FILE_TYPE_OTHER, 10, 0, 0},
        // Numbers are read as far as they go; text that is no number is 0.
        {{"st_size", "12abc", "st_mtime", "-5", "st_birthtime", "soon"}, LIBIUSB_FILE_TYPE_OTHER, 12, -5, 0},
        {{}, LIBIUSB_FILE_TYPE_OTHER, 0, 0, 0},
        // Out of range numbers saturate; sizes that are negative, or negative
        // once taken as a file offset (a hostile device), stop at the largest
        // offset: the kernel refuses a record that carries one.
        {{"st_size", "99999999999999999999999", "st_mtime", "-99999999999999999999999"},
         LIBIUSB_FILE_TYPE_OTHER, kMax, INT64_MIN, 0},
        {{"st_size", "-1"}, LIBIUSB_FILE_TYPE_OTHER, kMax, 0, 0},
        {{"st_size", "9223372036854775808"}, LIBIUSB_FILE_TYPE_OTHER, kMax, 0, 0},
        {{"st_size", "18446744073709551615"}, LIBIUSB_FILE_TYPE_OTHER, kMax, 0, 0},
        {{"st_size", "-9223372036854775808"}, LIBIUSB_FILE_TYPE_OTHER, kMax, 0, 0},
        {{"st_size", "9223372036854775807"}, LIBIUSB_FILE_TYPE_OTHER, kMax, 0, 0},
        {{"st_size", "9223372036854775806"}, LIBIUSB_FILE_TYPE_OTHER, kMax - 1, 0, 0},
    };
    for (const auto &row : rows) {
        std::vector<const char *> pairs = row.pairs;
        SCOPED_TRACE(pairs.empty() ? "(none)" : pairs.back());
        pairs.push_back(nullptr);
        libiusb_file_info info{};
        parseFileInfoPairs(pairs.data(), &info);
        EXPECT_EQ(info.file_type, row.type);
        EXPECT_EQ(info.size, row.size);
        EXPECT_EQ(info.modify_time, row.modify);
        EXPECT_EQ(info.birth_time, row.birth);
    }
    // No array at all.
    libiusb_file_info info{};
    parseFileInfoPairs(nullptr, &info);
    parseFileInfoPairs(nullptr, nullptr);
}

// An AFC answer as a device frames it: the header, then `body`.
std::string answerPacket(uint64_t operation, const std::string &body, uint64_t packet = 7, uint64_t entire = 0,
                         uint64_t thisLength = 0, const char *magic = "CFA6LPAA") {
    uint64_t fields[4] = {entire != 0 ? entire : 40 + body.size(), thisLength != 0 ? thisLength : 40, packet, operation};
    return std::string(magic, 8) + std::string(reinterpret_cast<const char *>(fields), sizeof fields) + body;
}

TEST(FileInfoAnswer, ReadsWhatTheLibraryWouldAndCallsAnyOtherFramingOutOfStep) {
    const std::string pairs("st_size\0" "42\0" "st_ifmt\0" "S_IFDIR\0", 27);
    const std::string status("\x0a\0\0\0\0\0\0\0", 8);  // AFC's "permission denied"
    const struct {
        const char *what;
        std::string bytes;
        int result;
        uint64_t size;
    } rows[] = {
        {"data", answerPacket(2, pairs), 0, 42},
        {"a file-open answer is data too", answerPacket(0x0E, pairs), 0, 42},
        {"empty data: nothing there", answerPacket(2, ""), LIBIUSB_ERROR_AFC_OBJECT_NOT_FOUND, 0},
        {"an empty status", answerPacket(1, ""), LIBIUSB_ERROR_IO, 0},
        {"a refusal", answerPacket(1, status, 7, 0, 48), LIBIUSB_ERROR_ACCESS, 0},
        {"an unknown operation", answerPacket(0x55, pairs), LIBIUSB_ERROR_NOT_SUPPORTED, 0},
        {"another request's answer", answerPacket(2, pairs, 6), kInfoAnswerOutOfStep, 0},
        {"no AFC magic", answerPacket(2, pairs, 7, 0, 0, "CFA6LPAB"), kInfoAnswerOutOfStep, 0},
        {"a header shorter than a header", answerPacket(2, pairs, 7, 0, 39), kInfoAnswerOutOfStep, 0},
        {"this part beyond the whole", answerPacket(2, pairs, 7, 64, 65), kInfoAnswerOutOfStep, 0},
        {"a whole of 2^62 bytes", answerPacket(2, pairs, 7, 1ull << 62), kInfoAnswerOutOfStep, 0},
        {"cut short", answerPacket(2, pairs).substr(0, 50), kInfoAnswerIncomplete, 0},
        {"a header cut short", answerPacket(2, pairs).substr(0, 39), kInfoAnswerIncomplete, 0},
    };
    for (const auto &row : rows) {
        libiusb_file_info info{};
        size_t length = 0;
        EXPECT_EQ(parseInfoAnswer(row.bytes.data(), row.bytes.size(), 7, &length, &info), row.result) << row.what;
        EXPECT_EQ(info.size, row.size) << row.what;
        EXPECT_TRUE(row.result > 0 || length == row.bytes.size()) << row.what;
    }
}

plist_t app(const char *bundle, plist_t sharing, const char *display, const char *name) {
    plist_t dict = plist_new_dict();
    if (bundle != nullptr) plist_dict_set_item(dict, "CFBundleIdentifier", plist_new_string(bundle));
    if (sharing != nullptr) plist_dict_set_item(dict, "UIFileSharingEnabled", sharing);
    if (display != nullptr) plist_dict_set_item(dict, "CFBundleDisplayName", plist_new_string(display));
    if (name != nullptr) plist_dict_set_item(dict, "CFBundleName", plist_new_string(name));
    return dict;
}

// "name=bundle" of each app listed from the reply, and the result.
std::vector<std::string> appsOf(plist_t reply, int *result) {
    libiusb_app_node *list = nullptr;
    *result = appsFromBrowseReply(reply, &list);
    std::vector<std::string> apps;
    for (libiusb_app_node *node = list; node != nullptr; node = node->next)
        apps.push_back(std::string(node->display_name) + "=" + node->bundle_id);
    libiusb_free_app_list(list);
    plist_free(reply);
    return apps;
}

TEST(BrowseReply, ListsSharingAppsInOrderWithTheirBestNameAndRefusesWhatIsNoArray) {
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
    EXPECT_EQ(appsOf(reply, &result),
              (std::vector<std::string>{"Alpha=com.a", "Gamma=com.c", "com.d=com.d", "com.f=com.f"}));
    EXPECT_EQ(result, LIBIUSB_SUCCESS);
    EXPECT_TRUE(appsOf(plist_new_array(), &result).empty());
    EXPECT_EQ(result, LIBIUSB_SUCCESS);

    libiusb_app_node *untouched = reinterpret_cast<libiusb_app_node *>(0x1);
    plist_t dict = plist_new_dict();
    EXPECT_EQ(appsFromBrowseReply(dict, &untouched), LIBIUSB_ERROR_OTHER);
    EXPECT_EQ(appsFromBrowseReply(nullptr, &untouched), LIBIUSB_ERROR_OTHER);
    EXPECT_EQ(untouched, reinterpret_cast<libiusb_app_node *>(0x1));
    plist_free(dict);
}

} // namespace
