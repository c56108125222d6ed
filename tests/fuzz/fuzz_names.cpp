// Fuzz target: the name conversions on arbitrary bytes. Every output buffer
// is allocated at exactly the size the caller promises, so a write past it is
// caught by the address sanitizer; conversions that succeed must also keep
// the properties the catalogue relies on.
#include <utf8proc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tarnifs/names.h"
#include "tests/fuzz/harness.h"

namespace {

// The composed form utf8_to_utf8mac promises, computed independently;
// false when the text is no valid UTF-8.
bool composedForm(const std::string &text, std::string *out) {
    utf8proc_uint8_t *mapped = nullptr;
    utf8proc_ssize_t produced =
        utf8proc_map(reinterpret_cast<const utf8proc_uint8_t *>(text.data()), static_cast<utf8proc_ssize_t>(text.size()),
                     &mapped, static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
    if (produced < 0) return false;
    out->assign(reinterpret_cast<char *>(mapped), static_cast<size_t>(produced));
    free(mapped);
    return true;
}

size_t codePoints(const std::string &utf8) {
    size_t count = 0;
    for (unsigned char c : utf8)
        if ((c & 0xC0) != 0x80) ++count;
    return count;
}

// The text in a zero-filled buffer up to its first NUL.
// The input bytes in a buffer of their own, never null even when empty
// (callers always pass a real buffer).
std::vector<char> bytesOf(const std::string &text) {
    std::vector<char> bytes(text.begin(), text.end());
    bytes.reserve(bytes.size() + 1);
    return bytes;
}

std::string textOf(const std::vector<char> &buffer) { return std::string(buffer.data(), strnlen(buffer.data(), buffer.size())); }

void checkMacName(const std::string &name) {
    // getUTF8MACName's caller guarantees zeroes beyond the name; the buffer
    // is exactly the name plus its terminator.
    std::vector<char> out(name.size() + 1, '\0');
    if (getUTF8MACName(name.c_str(), out.data()) < 0) return;
    FUZZ_CHECK(out.back() == '\0');
    std::string once = textOf(out);
    FUZZ_CHECK(once.find('/') == std::string::npos);
    FUZZ_CHECK(once.size() <= name.size());
    // A name already in the catalogue's form is left as it is.
    std::vector<char> again(once.size() + 1, '\0');
    FUZZ_CHECK(getUTF8MACName(once.c_str(), again.data()) >= 0);
    FUZZ_CHECK(textOf(again) == once);
}

void checkCompose(const std::string &in, size_t outLen) {
    std::vector<char> input = bytesOf(in);
    char spare = 0;
    char *out = static_cast<char *>(calloc(outLen > 0 ? outLen : 1, 1));
    int result = utf8_to_utf8mac((input.empty() ? &spare : input.data()), static_cast<int>(input.size()), out, static_cast<int>(outLen));
    std::string expected;
    bool valid = composedForm(in, &expected);
    if (result == 0) {
        // Success means the composed text, whole, in the room given.
        FUZZ_CHECK(valid);
        FUZZ_CHECK(expected.size() <= outLen);
        FUZZ_CHECK(memcmp(out, expected.data(), expected.size()) == 0);
        // Composing the composed text again changes nothing.
        std::vector<char> second(expected.begin(), expected.end());
        second.push_back('\0');
        std::vector<char> third(expected.size() + 1, '\0');
        FUZZ_CHECK(utf8_to_utf8mac(second.data(), static_cast<int>(expected.size()), third.data(),
                                   static_cast<int>(expected.size())) == 0);
        FUZZ_CHECK(memcmp(third.data(), expected.data(), expected.size()) == 0);
    } else {
        FUZZ_CHECK(result == -1);
        FUZZ_CHECK(!valid || expected.size() > outLen);
    }
    free(out);
}

void checkUnicodeRoundTrip(const std::string &in, size_t outLen) {
    std::vector<char> input = bytesOf(in);
    char spare = 0;
    char *ucs2 = static_cast<char *>(calloc(outLen > 0 ? outLen : 1, 1));
    int result = utf8_to_unicode((input.empty() ? &spare : input.data()), static_cast<int>(input.size()), ucs2, static_cast<int>(outLen));
    std::string composed;
    if (result == 0 && in.find('\0') == std::string::npos && composedForm(in, &composed)) {
        // Back to UTF-8 (decomposed) and composed again: the same text.
        size_t units = codePoints(composed) * 2;
        FUZZ_CHECK(units <= outLen);
        std::vector<char> decomposed(composed.size() * 4 + 16, '\0');
        FUZZ_CHECK(unicode_to_utf8(1, ucs2, static_cast<int>(units), decomposed.data(),
                                   static_cast<int>(decomposed.size())) == 0);
        std::string back = textOf(decomposed);
        std::string recomposed;
        FUZZ_CHECK(composedForm(back, &recomposed));
        FUZZ_CHECK(recomposed == composed);
    }
    free(ucs2);
}

void checkFromCharset(int code, const std::string &in, size_t outLen) {
    std::vector<char> input = bytesOf(in);
    char spare = 0;
    char *out = static_cast<char *>(calloc(outLen > 0 ? outLen : 1, 1));
    int result = unicode_to_utf8(code, (input.empty() ? &spare : input.data()), static_cast<int>(input.size()), out, static_cast<int>(outLen));
    FUZZ_CHECK(result == 0 || result == -1);
    FUZZ_CHECK(GetStringfromCode(code) != nullptr);
    free(out);
}

void checkEncodedString(const std::string &in) {
    // GetEncodedString converts in place within `size` bytes.
    std::vector<char> buffer(in.begin(), in.end());
    if (buffer.empty()) buffer.push_back('\0');
    int result = GetEncodedString(buffer.data(), in.size(), buffer.size());
    FUZZ_CHECK(result == 0 || result == -1);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzzQuietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    // First byte: the character set and how much room the outputs get.
    uint8_t control = data[0];
    std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
    static const int codes[] = {1, 2, 3, 255, 0, 7};
    int code = codes[control % 6];
    size_t room = text.size();
    switch ((control >> 3) % 4) {
    case 0: break;
    case 1: room = text.size() / 2; break;
    case 2: room = text.size() * 2; break;
    case 3: room = text.size() * 4 + 4; break;
    }

    checkMacName(std::string(text.c_str()));
    checkCompose(text, room);
    checkUnicodeRoundTrip(text, room);
    checkFromCharset(code, text, room);
    checkEncodedString(text);
    FUZZ_CHECK(chkInvalidString(text.c_str()).find('/') == std::string::npos);
    return 0;
}
