// afc_info_floor: asks a device for the file information of each path in a
// list, one request after another on a single bare AFC connection, straight
// through libimobiledevice. A media listing checks every row's file this way,
// so this is the least such a listing can cost: one round trip per row.
//
// Usage:
//   afc_info_floor UDID PATH_LIST
//
// PATH_LIST holds one device path per line, inside the AFC media root (e.g.
// /DCIM/100APPLE/IMG_0001.JPG); empty lines are skipped. The device is found
// through usbmuxd, so USBMUXD_SOCKET_ADDRESS points it at a simulated one. On
// success one line goes to standard output:
//   COUNT SECONDS
// where COUNT is the number of requests made and SECONDS runs from the first
// request to the last answer; connecting and the lockdown handshake are not
// counted, as a mount that is already up does not pay for them. A path the
// device does not have still counts (its answer is a round trip too) and is
// reported on standard error with the number of such paths. Exit status: 0
// done, 1 failed, 2 bad arguments.
#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "afc_session.h"

namespace {

const char *kProgram = "afc_info_floor";

void usage() { std::fprintf(stderr, "usage: %s UDID PATH_LIST\n", kProgram); }

bool readPaths(const std::string &file, std::vector<std::string> *paths) {
    std::ifstream in(file);
    if (!in) {
        std::fprintf(stderr, "%s: cannot read %s\n", kProgram, file.c_str());
        return false;
    }
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) paths->push_back(line);
    }
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        usage();
        return 2;
    }
    const std::string udid = argv[1];
    std::vector<std::string> paths;
    if (!readPaths(argv[2], &paths)) return 1;

    AfcSession session(kProgram);
    if (!session.connect(udid)) return 1;

    size_t missing = 0;
    const std::string *firstMissing = nullptr;
    auto start = std::chrono::steady_clock::now();
    for (const std::string &path : paths) {
        char **info = nullptr;
        afc_error_t result = afc_get_file_info(session.afc, path.c_str(), &info);
        if (info != nullptr) afc_dictionary_free(info);
        if (result == AFC_E_SUCCESS) continue;
        if (result != AFC_E_OBJECT_NOT_FOUND) {
            std::fprintf(stderr, "%s: file information of %s failed (AFC error %d)\n", kProgram, path.c_str(),
                         result);
            return 1;
        }
        if (firstMissing == nullptr) firstMissing = &path;
        ++missing;
    }
    auto end = std::chrono::steady_clock::now();
    if (missing != 0)
        std::fprintf(stderr, "%s: %zu of %zu paths are not on the device, the first %s\n", kProgram, missing,
                     paths.size(), firstMissing->c_str());
    std::printf("%zu %.6f\n", paths.size(), std::chrono::duration<double>(end - start).count());
    return 0;
}
