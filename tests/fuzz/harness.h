// Shared by the fuzz targets: invariant checks that stop the run with the
// failing condition, and a log that stays quiet, since every failed
// conversion logs and the fuzzer makes millions.
#pragma once

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
