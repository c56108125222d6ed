// Fuzz target: the parsing of what a device answers, which a broken or
// hostile phone fully controls. The first byte picks the answer: AFC file
// information (NUL-separated key/value strings) or an installation proxy
// browse answer (a plist tree built from the remaining bytes, so that the
// fuzzer explores our reading of the tree rather than libplist's parsers).
#include <plist/plist.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "device/device_internal.h"
#include "tests/fuzz/harness.h"

namespace {

struct Input {
    const uint8_t *data;
    size_t size;
    size_t at = 0;
    bool empty() const { return at >= size; }
    uint8_t next() { return at < size ? data[at++] : 0; }
    std::string text() {
        size_t length = next() % 24;
        std::string out;
        while (length-- > 0 && !empty()) out += static_cast<char>(next());
        return out;
    }
};

void fuzzFileInfo(const uint8_t *data, size_t size) {
    // Strings split at NUL; an odd count leaves a key without its value.
    std::vector<std::string> strings;
    std::string current;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            strings.push_back(current);
            current.clear();
        } else {
            current += static_cast<char>(data[i]);
        }
    }
    if (!current.empty()) strings.push_back(current);
    std::vector<const char *> pairs;
    for (const std::string &s : strings) pairs.push_back(s.c_str());
    pairs.push_back(nullptr);
    libiusb_file_info info;
    memset(&info, 0x5A, sizeof(info));
    parseFileInfoPairs(pairs.data(), &info);
}

const char *const kKeys[] = {"CFBundleIdentifier", "CFBundleDisplayName", "CFBundleName", "UIFileSharingEnabled",
                             "Other"};

plist_t value(Input &in, int depth) {
    switch (in.next() % (depth > 2 ? 5 : 7)) {
    case 0: return plist_new_string(in.text().c_str());
    case 1: return plist_new_bool(in.next() & 1);
    case 2: return plist_new_uint(in.next());
    case 3: return plist_new_string(in.next() & 1 ? "YES" : "true");
    case 4: return plist_new_real(in.next());
    case 5: {
        plist_t dict = plist_new_dict();
        for (int n = in.next() % 6; n > 0 && !in.empty(); --n)
            plist_dict_set_item(dict, kKeys[in.next() % 5], value(in, depth + 1));
        return dict;
    }
    default: {
        plist_t array = plist_new_array();
        for (int n = in.next() % 6; n > 0 && !in.empty(); --n) plist_array_append_item(array, value(in, depth + 1));
        return array;
    }
    }
}

void fuzzBrowseReply(const uint8_t *data, size_t size) {
    Input in{data, size};
    plist_t reply = nullptr;
    if (in.next() % 8 != 0) {
        reply = plist_new_array();
        while (!in.empty()) plist_array_append_item(reply, value(in, 1));
    } else if (!in.empty()) {
        reply = value(in, 0);
    }
    libiusb_app_node *list = nullptr;
    int result = appsFromBrowseReply(reply, &list);
    if (result == LIBIUSB_SUCCESS) {
        uint32_t count = 0;
        for (libiusb_app_node *node = list; node != nullptr; node = node->next) {
            // Every app listed can be opened and shown.
            FUZZ_CHECK(node->bundle_id != nullptr && node->bundle_id[0] != '\0');
            FUZZ_CHECK(node->display_name != nullptr && node->display_name[0] != '\0');
            ++count;
        }
        FUZZ_CHECK(count <= plist_array_get_size(reply));
    } else {
        FUZZ_CHECK(list == nullptr);
    }
    libiusb_free_app_list(list);
    if (reply != nullptr) plist_free(reply);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzzQuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    if (data[0] & 1)
        fuzzBrowseReply(data + 1, size - 1);
    else
        fuzzFileInfo(data + 1, size - 1);
    return 0;
}
