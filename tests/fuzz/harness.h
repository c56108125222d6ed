// Shared by the fuzz targets: invariant checks that stop the run with the
// failing condition, and a log that stays quiet, since every failed
// conversion logs and the fuzzer makes millions.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#define FUZZ_CHECK(condition)                                                                  \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            fprintf(stderr, "%s:%d: invariant broken: %s\n", __FILE__, __LINE__, #condition); \
            abort();                                                                           \
        }                                                                                      \
    } while (0)

// Logs into a private temporary folder, errors only at level 0.
void fuzzQuietLog();

// The fuzzer's bytes, taken one at a time; zeros once they run out.
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
