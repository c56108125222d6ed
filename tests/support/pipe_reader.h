// A reader on a test FIFO standing in for the tray listener: collects every
// byte the file system writes to the notification pipe.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

// The 22 bytes of one transfer record as they travel on the pipe: kind
// (4 bytes) and size (8), little-endian, then the extension in 10 bytes.
std::string transferRecordBytes(uint32_t kind, uint64_t size, const std::string &extension);

class PipeReader {
public:
    // Makes the FIFO at `path` and starts reading it.
    bool start(const std::string &path);
    void stop();
    ~PipeReader() { stop(); }
    std::string bytes();
    // Waits (up to `seconds`) until `text` has arrived.
    bool waitFor(const std::string &text, int seconds = 20);

private:
    std::string path_;
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::mutex lock_;
    std::string bytes_;
};
