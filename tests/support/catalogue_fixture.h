// A mount context without a mount: handlers called directly see `context`
// through the fuse context seam, log into a private folder, and leave an
// empty catalogue behind.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "tarnifs/catalogue.h"
#include "tarnifs/mount.h"
#include "tests/support/devsim_fixture.h"

class MountContextTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Lines of today's log file, without their time stamp and process id.
    std::vector<std::string> logMessages() const;
    bool logContains(const std::string &message) const;
    int logCount(const std::string &message) const;

    // The file names in a folder record's child list, in list order (none
    // when the path has no record).
    std::vector<std::string> childNames(const char *path);
    // Catalogue records as a listing would have left them, linked to their
    // folder: a listed folder, and a regular file of `size` bytes.
    _KTL_OBJECT *folder(const char *path);
    _KTL_OBJECT *file(const char *path, uint64_t size);
    // The dialog waiting for the dialog thread (there is none here).
    void noDialog();
    std::string dialogText();
    std::string dialogTitle();

    _CONTEXT context;
    struct fuse_context fuse {};
    std::string tempDir;
};

// A mount context connected to the simulated device as start-up connects it
// (device, AFC and installation proxy), for tests that call handlers and
// device helpers directly. Tests skip when devsim was not built.
class ConnectedContextTest : public MountContextTest {
protected:
    void SetUp() override;
    void TearDown() override;
    // Starts devsim with `image` and connects the context to it.
    void connectTo(const DevsimImage &image);

    Devsim sim;
};

// Small file helpers of the tests.
std::string readLocal(const std::string &path);                // a file's bytes ("" when unreadable)
bool writeLocal(const std::string &path, const std::string &bytes);  // its folders made first; false on failure
std::string randomBytes(size_t size, unsigned seed);           // the same bytes for the same seed
bool exists(const std::string &path);                          // lstat succeeds
bool isFolder(const std::string &path);                        // stat says folder
int statError(const std::string &path);                        // 0, or the errno stat failed with
off_t sizeOf(const std::string &path);                         // stat's size, or -1 when stat fails
// A folder's names in readdir order, "." and ".." left out; *error gets the
// errno of a failed opendir or readdir (0 otherwise).
std::vector<std::string> namesIn(const std::string &folder, int *error = nullptr);
// The same with "." and "..", as readdir hands them over.
std::vector<std::string> entriesIn(const std::string &folder, int *error = nullptr);
std::string numbered(const char *prefix, size_t index);       // "file00042": sorts as it counts
inline std::vector<std::string> sorted(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    return names;
}
// How often `part` occurs in `text`, overlaps counted.
size_t occurrences(const std::string &text, const std::string &part);

// Polls `condition` every 20 ms for up to `seconds`; its last answer.
template <typename Condition>
bool eventually(Condition condition, int seconds = 20) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return condition();
}

// A private temporary folder, removed by the caller.
std::string makeTempDir(const char *prefix);
void removeTree(const std::string &path);
// The log lines of `file` with the "[..H..M..S][pid]" prefix removed.
std::vector<std::string> readLogMessages(const std::string &file);
