#include "tarnifs/names.h"

#include <iconv.h>
#include <utf8proc.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "util/log.h"

char *gEncodedPath = nullptr;

std::string replaceAll(std::string str, const std::string &from, const std::string &to) {
    if (from.empty()) return str;
    size_t position = str.find(from, 0);
    while (position != std::string::npos) {
        str.replace(position, from.size(), to);
        // The replacement itself is never searched again.
        position = str.find(from, position + to.size());
    }
    return str;
}

std::string chkInvalidString(const char *name) { return replaceAll(name, "/", ":"); }

int getUTF8MACName(const char *name, char *out) {
    if (name == nullptr || out == nullptr) return -1;
    std::string cleaned = chkInvalidString(name);
    memcpy(out, cleaned.data(), cleaned.size());
    // Composing never lengthens a text, so the input's length is room enough.
    int result = GetEncodedString(out, cleaned.size(), cleaned.size());
    if (result < 0) QNLog(3, "%s GetEncodedString failed", "getUTF8MACName");
    return result;
}

int GetEncodedString(char *buf, size_t len, size_t size) {
    char *converted = static_cast<char *>(malloc(size > 0 ? size : 1));
    if (converted == nullptr) return -1;
    memset(converted, 0, size > 0 ? size : 1);
    int result = utf8_to_utf8mac(buf, static_cast<int>(len), converted, static_cast<int>(size));
    if (result != -1) {
        memset(buf, 0, size);
        memcpy(buf, converted, size);
    }
    free(converted);
    return result;
}

namespace {

// Normalises UTF-8 with utf8proc. Invalid input or a result that does not fit
// fails the whole conversion, as iconv would.
int normaliseUtf8(const char *in, int inLen, char *out, int outLen, utf8proc_option_t form,
                  const char *caller) {
    if (in == nullptr || out == nullptr || inLen < 0 || outLen < 0) {
        QNLog(3, "%s iconv() failed.", caller);
        return -1;
    }
    utf8proc_uint8_t *mapped = nullptr;
    utf8proc_ssize_t produced = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t *>(in), inLen, &mapped,
                                             static_cast<utf8proc_option_t>(UTF8PROC_STABLE | form));
    if (produced < 0 || produced > outLen) {
        free(mapped);
        QNLog(3, "%s iconv() failed.", caller);
        return -1;
    }
    memcpy(out, mapped, static_cast<size_t>(produced));
    free(mapped);
    return 0;
}

// One iconv pass over the whole input; `failureFormat` is logged when the
// conversion itself fails.
int convertWithIconv(const char *to, const char *from, char *in, size_t inLen, char *out, size_t outLen,
                     const char *caller, bool logErrno) {
    iconv_t cd = iconv_open(to, from);
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        QNLog(3, "%s iconv_open() failed.", caller);
        return -1;
    }
    int result = 0;
    char *inCursor = in;
    char *outCursor = out;
    size_t inLeft = inLen;
    size_t outLeft = outLen;
    if (iconv(cd, &inCursor, &inLeft, &outCursor, &outLeft) == static_cast<size_t>(-1)) {
        if (logErrno)
            QNLog(3, "%s iconv() failed. ErrNO : %d", caller, errno);
        else
            QNLog(3, "%s iconv() failed.", caller);
        result = -1;
    }
    if (iconv_close(cd) != 0) {
        QNLog(3, "%s iconv_colse() failed.", caller);
        // The descriptor is gone either way; the second attempt only repeats the report.
        QNLog(3, "%s iconv_colse() failed.", caller);
        return -1;
    }
    return result;
}

} // namespace

int utf8_to_utf8mac(char *in, int inLen, char *out, int outLen) {
    // Plain ASCII is its own composed form; most names are, and every lookup
    // converts one, so they skip the normaliser.
    if (in != nullptr && out != nullptr && inLen >= 0 && inLen <= outLen) {
        bool ascii = true;
        for (int i = 0; i < inLen && ascii; ++i) ascii = static_cast<unsigned char>(in[i]) < 0x80;
        if (ascii) {
            memmove(out, in, static_cast<size_t>(inLen));
            return 0;
        }
    }
    return normaliseUtf8(in, inLen, out, outLen, UTF8PROC_COMPOSE, "utf8_to_utf8mac");
}

int utf8_to_unicode(char *in, int inLen, char *out, int outLen) {
    if (in == nullptr || inLen < 0 || outLen < 0) {
        QNLog(3, "%s iconv() failed.", "utf8_to_unicode");
        return -1;
    }
    // Compose first, so that what reaches UCS-2 is the precomposed text.
    std::string composed(static_cast<size_t>(inLen) + 1, '\0');
    if (normaliseUtf8(in, inLen, &composed[0], inLen, UTF8PROC_COMPOSE, "utf8_to_unicode") != 0) return -1;
    size_t composedLength = strnlen(composed.c_str(), static_cast<size_t>(inLen));
    return convertWithIconv("UCS-2LE", "UTF-8", &composed[0], composedLength, out, static_cast<size_t>(outLen),
                            "utf8_to_unicode", false);
}

int unicode_to_utf8(int code, char *in, int inLen, char *out, int outLen) {
    if (in == nullptr || out == nullptr || inLen < 0 || outLen < 0) {
        QNLog(3, "%s iconv() failed. ErrNO : %d", "unicode_to_utf8", EINVAL);
        return -1;
    }
    // Decoding may grow the text up to four bytes a character and
    // decomposition a little more; the final fit is checked below.
    std::string plain(static_cast<size_t>(inLen) * 4 + 16, '\0');
    if (convertWithIconv("UTF-8", GetStringfromCode(code), in, static_cast<size_t>(inLen), &plain[0], plain.size(),
                         "unicode_to_utf8", true) != 0)
        return -1;
    size_t plainLength = strnlen(plain.c_str(), plain.size());
    return normaliseUtf8(plain.c_str(), static_cast<int>(plainLength), out, outLen, UTF8PROC_DECOMPOSE,
                         "unicode_to_utf8");
}

const char *GetStringfromCode(int code) {
    switch (code) {
    case 1: return "UCS-2LE";
    case 2: return "UCS-2BE";
    case 3: return "UTF-8";
    case 255: return "EUC-KR";
    default: return "ISO-8859-1";
    }
}
