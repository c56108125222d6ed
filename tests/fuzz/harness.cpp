#include "tests/fuzz/harness.h"

#include <stdlib.h>

#include <string>

#include "util/log.h"

void fuzzQuietLog() {
    char pattern[] = "/tmp/quorvel-fuzz-XXXXXX";
    if (mkdtemp(pattern) != nullptr) setenv("QUORVEL_LOG_DIR", pattern, 1);
    setenv("QUORVEL_LOGLEVEL", "0", 1);
    QNLogInit();
}
