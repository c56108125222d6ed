// A reader on a test FIFO standing in for the tray listener: collects every
// byte the file system writes to the notification pipe.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

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
