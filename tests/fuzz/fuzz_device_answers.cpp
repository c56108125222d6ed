// Fuzz target: the parsing of what a device answers, which a broken or
// hostile phone fully controls. The first byte picks the answer: AFC file
// information (NUL-separated key/value strings), a run of framed answers on
// an information stream, or an installation proxy browse answer (a plist tree
// built from the remaining bytes, so that the fuzzer explores our reading of
// the tree rather than libplist's parsers).
#include <plist/plist.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "device/device_internal.h"
#include "tests/fuzz/harness.h"

namespace {

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

// Answers back to back, numbered from 0, as a stream reads them: each one
// read takes at least its header and no more than is there, and an answer
// still incomplete asks for more than is there, never past the largest.
void fuzzInfoAnswers(const uint8_t *data, size_t size) {
    const char *bytes = reinterpret_cast<const char *>(data);
    for (uint64_t packet = 0;; ++packet) {
        libiusb_file_info info{};
        size_t length = 0;
        int result = parseInfoAnswer(bytes, size, packet, &length, &info);
        if (result == kInfoAnswerOutOfStep) return;
        FUZZ_CHECK(length >= 40 && length <= 40 + 64 * 1024);
        if (result == kInfoAnswerIncomplete) {
            FUZZ_CHECK(length > size);
            return;
        }
        FUZZ_CHECK(result <= 0 && length <= size);
        bytes += length;
        size -= length;
    }
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
    if (data[0] % 3 == 0)
        fuzzBrowseReply(data + 1, size - 1);
    else if (data[0] % 3 == 1)
        fuzzFileInfo(data + 1, size - 1);
    else
        fuzzInfoAnswers(data + 1, size - 1);
    return 0;
}
