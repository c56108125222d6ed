#include "tests/fuzz/harness.h"

#include <stdlib.h>

#include <filesystem>
#include <string>

#include "util/log.h"

namespace {

std::string logFolder;

void removeLogFolder() {
    std::error_code ignored;
    if (!logFolder.empty()) std::filesystem::remove_all(logFolder, ignored);
}

} // namespace

void fuzzQuietLog() {
    char pattern[] = "/tmp/quorvel-fuzz-XXXXXX";
    if (mkdtemp(pattern) != nullptr) {
        logFolder = pattern;
        setenv("QUORVEL_LOG_DIR", pattern, 1);
        // A run ends through exit() when its time is up; the folder goes with it.
        atexit(removeLogFolder);
    }
    setenv("QUORVEL_LOGLEVEL", "0", 1);
    QNLogInit();
}
