// Name encoding: every name stored in or looked up in the catalogue is
// brought to one form first: "/" replaced by ":" and decomposed Unicode
// composed (NFC), so that the decomposed names some hosts deliver and the
// precomposed names the device gives meet in one record.
#pragma once

#include <cstddef>
#include <string>

// 2048-byte scratch buffer for the last component of every lookup; allocated
// at mount start, used only under tarni_mutex.
constexpr size_t kEncodedPathSize = 2048;
extern char *gEncodedPath;

std::string replaceAll(std::string str, const std::string &from, const std::string &to);
std::string chkInvalidString(const char *name);

// Writes the converted name into `out`, which must be zero beyond the name's
// length: the text is terminated only when the conversion shortened it.
int getUTF8MACName(const char *name, char *out);
int GetEncodedString(char *buf, size_t len, size_t size);

// The conversion family. None of them terminates its output.
int utf8_to_utf8mac(char *in, int inLen, char *out, int outLen);        // decomposed -> precomposed UTF-8
int utf8_to_unicode(char *in, int inLen, char *out, int outLen);        // decomposed UTF-8 -> UCS-2LE
int unicode_to_utf8(int code, char *in, int inLen, char *out, int outLen);  // character set `code` -> decomposed UTF-8
const char *GetStringfromCode(int code);
