// afc_raw_copy: copies one file to or from a device's media folder over a
// bare AFC connection, straight through libimobiledevice, in large requests.
// The copy benchmark measures this as the best the protocol allows, so it
// deliberately uses none of Quorvel's device layer, no seeks and no caching.
//
// Usage:
//   afc_raw_copy [--chunk BYTES] download UDID DEVICE_PATH LOCAL_FILE
//   afc_raw_copy [--chunk BYTES] upload   UDID LOCAL_FILE DEVICE_PATH
//
// DEVICE_PATH is inside the AFC media root (e.g. /general_storage/big.bin).
// The device is found through usbmuxd, so USBMUXD_SOCKET_ADDRESS points it at
// a simulated one. On success one line goes to standard output:
//   BYTES SECONDS
// where SECONDS runs from opening the device file to closing both files, so
// connecting and the lockdown handshake are not counted, as they are not in a
// `cp` through a mount that is already up. Exit status: 0 copied, 1 failed,
// 2 bad arguments.
#include <fcntl.h>
#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "afc_session.h"

namespace {

constexpr uint32_t kDefaultChunk = 1u << 20;
// devsim answers at most 16 MiB per read request, so a larger chunk would
// only come back short.
constexpr uint32_t kMaxChunk = 16u << 20;

const char *kProgram = "afc_raw_copy";

void usage() {
    std::fprintf(stderr,
                 "usage: %s [--chunk BYTES] download UDID DEVICE_PATH LOCAL_FILE\n"
                 "       %s [--chunk BYTES] upload   UDID LOCAL_FILE DEVICE_PATH\n",
                 kProgram, kProgram);
}

bool writeAll(int fd, const char *data, size_t length) {
    while (length > 0) {
        ssize_t written = ::write(fd, data, length);
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

// Fills buf from fd as far as it can; a short count means the end of the file.
bool readFull(int fd, char *buf, size_t length, size_t *got) {
    *got = 0;
    while (*got < length) {
        ssize_t read_now = ::read(fd, buf + *got, length - *got);
        if (read_now < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (read_now == 0) break;
        *got += static_cast<size_t>(read_now);
    }
    return true;
}

bool download(afc_client_t afc, const std::string &remote, const std::string &local, uint32_t chunk,
              uint64_t *bytes) {
    int out = ::open(local.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) {
        std::fprintf(stderr, "%s: cannot create %s: %s\n", kProgram, local.c_str(), std::strerror(errno));
        return false;
    }
    uint64_t handle = 0;
    afc_error_t result = afc_file_open(afc, remote.c_str(), AFC_FOPEN_RDONLY, &handle);
    if (result != AFC_E_SUCCESS) {
        std::fprintf(stderr, "%s: cannot open %s on the device (AFC error %d)\n", kProgram, remote.c_str(), result);
        ::close(out);
        return false;
    }
    std::vector<char> buf(chunk);
    bool ok = true;
    for (;;) {
        uint32_t got = 0;
        result = afc_file_read(afc, handle, buf.data(), chunk, &got);
        if (result != AFC_E_SUCCESS) {
            std::fprintf(stderr, "%s: read failed after %llu bytes (AFC error %d)\n", kProgram,
                         static_cast<unsigned long long>(*bytes), result);
            ok = false;
            break;
        }
        if (got == 0) break;  // the end of the file
        if (!writeAll(out, buf.data(), got)) {
            std::fprintf(stderr, "%s: cannot write %s: %s\n", kProgram, local.c_str(), std::strerror(errno));
            ok = false;
            break;
        }
        *bytes += got;
    }
    result = afc_file_close(afc, handle);
    if (ok && result != AFC_E_SUCCESS) {
        std::fprintf(stderr, "%s: closing the device file failed (AFC error %d)\n", kProgram, result);
        ok = false;
    }
    if (::close(out) != 0 && ok) {
        std::fprintf(stderr, "%s: cannot close %s: %s\n", kProgram, local.c_str(), std::strerror(errno));
        ok = false;
    }
    return ok;
}

bool upload(afc_client_t afc, const std::string &local, const std::string &remote, uint32_t chunk,
            uint64_t *bytes) {
    int in = ::open(local.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        std::fprintf(stderr, "%s: cannot open %s: %s\n", kProgram, local.c_str(), std::strerror(errno));
        return false;
    }
    uint64_t handle = 0;
    afc_error_t result = afc_file_open(afc, remote.c_str(), AFC_FOPEN_WRONLY, &handle);
    if (result != AFC_E_SUCCESS) {
        std::fprintf(stderr, "%s: cannot create %s on the device (AFC error %d)\n", kProgram, remote.c_str(),
                     result);
        ::close(in);
        return false;
    }
    std::vector<char> buf(chunk);
    bool ok = true;
    while (ok) {
        size_t got = 0;
        if (!readFull(in, buf.data(), chunk, &got)) {
            std::fprintf(stderr, "%s: cannot read %s: %s\n", kProgram, local.c_str(), std::strerror(errno));
            ok = false;
            break;
        }
        if (got == 0) break;
        size_t done = 0;
        while (done < got) {
            uint32_t sent = 0;
            uint32_t piece = static_cast<uint32_t>(got - done);
            result = afc_file_write(afc, handle, buf.data() + done, piece, &sent);
            // A request that moved nothing would loop for ever.
            if (result != AFC_E_SUCCESS || sent == 0) {
                std::fprintf(stderr, "%s: write failed after %llu bytes (AFC error %d, %u sent)\n", kProgram,
                             static_cast<unsigned long long>(*bytes + done), result, sent);
                ok = false;
                break;
            }
            done += sent < piece ? sent : piece;
        }
        *bytes += done;
        if (got < chunk) break;
    }
    result = afc_file_close(afc, handle);
    if (ok && result != AFC_E_SUCCESS) {
        std::fprintf(stderr, "%s: closing the device file failed (AFC error %d)\n", kProgram, result);
        ok = false;
    }
    ::close(in);
    return ok;
}

}  // namespace

int main(int argc, char **argv) {
    uint32_t chunk = kDefaultChunk;
    int arg = 1;
    if (arg < argc && std::strcmp(argv[arg], "--chunk") == 0) {
        if (arg + 1 >= argc) {
            usage();
            return 2;
        }
        char *end = nullptr;
        errno = 0;
        unsigned long long value = std::strtoull(argv[arg + 1], &end, 10);
        if (errno != 0 || end == argv[arg + 1] || *end != '\0' || value == 0 || value > kMaxChunk) {
            std::fprintf(stderr, "%s: --chunk takes 1 to %u bytes\n", kProgram, kMaxChunk);
            return 2;
        }
        chunk = static_cast<uint32_t>(value);
        arg += 2;
    }
    if (argc - arg != 4) {
        usage();
        return 2;
    }
    const std::string direction = argv[arg];
    const std::string udid = argv[arg + 1];
    const std::string from = argv[arg + 2];
    const std::string to = argv[arg + 3];
    if (direction != "download" && direction != "upload") {
        usage();
        return 2;
    }

    AfcSession session(kProgram);
    if (!session.connect(udid)) return 1;

    uint64_t bytes = 0;
    auto start = std::chrono::steady_clock::now();
    bool ok = direction == "download" ? download(session.afc, from, to, chunk, &bytes)
                                      : upload(session.afc, from, to, chunk, &bytes);
    auto end = std::chrono::steady_clock::now();
    if (!ok) return 1;
    std::printf("%llu %.6f\n", static_cast<unsigned long long>(bytes),
                std::chrono::duration<double>(end - start).count());
    return 0;
}
