#include "tests/support/pipe_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/catalogue_fixture.h"

std::string transferRecordBytes(uint32_t kind, uint64_t size, const std::string &extension) {
    std::string out;
    for (int i = 0; i < 4; ++i) out += static_cast<char>((kind >> (8 * i)) & 0xff);
    for (int i = 0; i < 8; ++i) out += static_cast<char>((size >> (8 * i)) & 0xff);
    std::string padded = extension;
    padded.resize(10, '\0');
    return out + padded;
}

bool PipeReader::start(const std::string &path) {
    path_ = path;
    if (mkfifo(path.c_str(), 0600) != 0) return false;
    // Opened read-write so that writers coming and going never end the stream.
    int fd = open(path.c_str(), O_RDWR | O_NONBLOCK);
    if (fd < 0) return false;
    running_ = true;
    thread_ = std::thread([this, fd] {
        char buffer[4096];
        while (running_) {
            struct pollfd wait = {fd, POLLIN, 0};
            if (poll(&wait, 1, 50) <= 0) continue;
            ssize_t got = read(fd, buffer, sizeof(buffer));
            if (got > 0) {
                std::lock_guard<std::mutex> guard(lock_);
                bytes_.append(buffer, static_cast<size_t>(got));
            }
        }
        close(fd);
    });
    return true;
}

void PipeReader::stop() {
    if (!running_) return;
    running_ = false;
    if (thread_.joinable()) thread_.join();
    unlink(path_.c_str());
}

std::string PipeReader::bytes() {
    std::lock_guard<std::mutex> guard(lock_);
    return bytes_;
}

bool PipeReader::waitFor(const std::string &text, int seconds) {
    return eventually([&] { return bytes().find(text) != std::string::npos; }, seconds);
}
