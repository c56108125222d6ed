#include "tests/support/fuse_mount.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/catalogue_fixture.h"
#include "tools/process.h"
#include "util/log.h"

extern char **environ;

std::string fuseUnavailableReason() {
#ifndef QUORVEL_PATH
    return "the quorvel programs were not built";
#else
    if (access("/dev/fuse", R_OK | W_OK) != 0) return "/dev/fuse is not available";
    if (access(fusermountProgram().c_str(), X_OK) != 0)
        return "neither fusermount3 (package fuse3) nor fusermount (package fuse) is installed";
    return "";
#endif
}

void DialogRecorder::create(const std::string &folder) {
    script = folder + "/record-dialog";
    record = folder + "/dialogs";
    // Each argument ends with a NUL byte, each dialog with an extra one.
    writeLocal(script, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\"; done >> '" + record +
                           "'\nprintf '\\0' >> '" + record + "'\n");
    chmod(script.c_str(), 0755);
}

std::vector<RecordedDialog> DialogRecorder::dialogs() const {
    std::vector<RecordedDialog> result;
    std::vector<std::string> fields;
    std::string current;
    for (char c : readLocal(record)) {
        if (c != '\0') {
            current += c;
            continue;
        }
        if (current.empty() && !fields.empty()) {
            fields.resize(4);
            result.push_back({fields[0], fields[1], fields[2], fields[3]});
            fields.clear();
        } else {
            fields.push_back(current);
        }
        current.clear();
    }
    return result;
}

std::vector<RecordedDialog> DialogRecorder::waitForDialogs(size_t count) const {
    std::vector<RecordedDialog> shown;
    eventually([&] { return (shown = dialogs()).size() >= count; });
    return shown;
}

std::vector<RecordedDialog> DialogRecorder::waitForDialogsToSettle(size_t count, int quietRounds) const {
    std::vector<RecordedDialog> shown = waitForDialogs(count);
    if (shown.size() < count) return shown;
    for (int settled = 0; settled < quietRounds;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        size_t before = shown.size();
        shown = dialogs();
        settled = shown.size() == before ? settled + 1 : 0;
    }
    return shown;
}

std::string fusermountProgram() { return quorvel_tools::fusermountProgram(); }

bool isFuseMountPoint(const std::string &path) {
    std::ifstream mounts("/proc/self/mounts");
    std::string line;
    // Only the parent is resolved: the mount point itself may answer nothing.
    std::error_code error;
    std::filesystem::path given(path);
    std::string canonical =
        (std::filesystem::weakly_canonical(given.parent_path(), error) / given.filename()).string();
    while (std::getline(mounts, line)) {
        std::istringstream fields(line);
        std::string device, point, type;
        fields >> device >> point >> type;
        // The table writes a space, tab, newline or backslash in a path as
        // a backslash and three octal digits (a space is \040).
        for (size_t at = point.find('\\'); at != std::string::npos && at + 3 < point.size();
             at = point.find('\\', at + 1))
            point.replace(at, 4, 1, static_cast<char>(std::stoi(point.substr(at + 1, 3), nullptr, 8)));
        if (point == canonical && type.rfind("fuse", 0) == 0) return true;
    }
    return false;
}

pid_t startProgram(const std::vector<std::string> &argv, const std::string &outputFile) {
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        int out = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, 1);
        dup2(out, 2);
        std::vector<char *> pointers;
        for (const std::string &arg : argv) pointers.push_back(const_cast<char *>(arg.c_str()));
        pointers.push_back(nullptr);
        execv(pointers[0], pointers.data());
        _exit(127);
    }
    return pid;
}

int exitStatusOf(pid_t pid, int sig, int seconds) {
    if (sig != 0) kill(pid, sig);
    int status = -1;
    bool ended = false;
    eventually([&] { return ended = ended || waitpid(pid, &status, WNOHANG) == pid; }, seconds);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool QuorvelMount::start(unsigned int locationId, const std::vector<std::string> &fuseOptions) {
#ifndef QUORVEL_PATH
    (void)locationId;
    (void)fuseOptions;
    return false;
#else
    std::string fsProgram = std::filesystem::path(QUORVEL_PATH).parent_path().string() + "/quorvelfs";
    std::vector<std::string> args = {fsProgram, mountPoint, "-f"};
    args.insert(args.end(), fuseOptions.begin(), fuseOptions.end());
    args.push_back("-devopt");
    args.push_back(std::to_string(locationId));

    std::vector<std::string> environment;
    for (char **entry = environ; *entry != nullptr; ++entry) environment.push_back(*entry);
    environment.push_back("QUORVEL_LOG_DIR=" + logDir);
    for (const std::string &extra : extraEnvironment) environment.push_back(extra);

    pid = fork();
    if (pid == 0) {
        std::vector<char *> argv, envp;
        for (std::string &arg : args) argv.push_back(&arg[0]);
        argv.push_back(nullptr);
        for (std::string &entry : environment) envp.push_back(&entry[0]);
        envp.push_back(nullptr);
        // Its output goes to a file of its own: a mount left behind must never
        // hold the test runner's pipes open.
        int devNull = open("/dev/null", O_RDONLY);
        dup2(devNull, 0);
        std::string outputFile = logDir + "/quorvelfs.out";
        int output = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        if (output >= 0) {
            dup2(output, 1);
            dup2(output, 2);
        }
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    // Up, or given up on once the process has ended.
    eventually([&] {
        if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == pid) pid = -1;
        return pid <= 0 || isFuseMountPoint(mountPoint);
    });
    return pid > 0 && isFuseMountPoint(mountPoint);
#endif
}

// Closing a folder in a FUSE mount only queues its release; a file system
// stopped before it reads that request never frees its handle for the folder
// (the leak checker of the sanitizer build then fails the process). Requests
// are read in the order they were queued, and one that has been read is always
// finished, so a lookup queued now returns only after the release was read.
void waitForQueuedReleases(const std::string &mountPoint) {
    static std::atomic<unsigned> probes{0};
    std::string probe = mountPoint + "/.release-probe-" + std::to_string(getpid()) + "-" + std::to_string(probes++);
    struct stat st;
    stat(probe.c_str(), &st);  // a top-level dot name: answered without the device
}

int QuorvelMount::stop() {
    if (pid <= 0) return -1;
    if (isFuseMountPoint(mountPoint)) waitForQueuedReleases(mountPoint);
    if (isFuseMountPoint(mountPoint)) runProgram({fusermountProgram(), "-u", "-z", mountPoint});
    int status = 0;
    pid_t done = 0;
    bool ended = eventually([&] { return done != 0 || (done = waitpid(pid, &status, WNOHANG)) != 0; }, 30);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    pid = -1;
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> QuorvelMount::logMessages() const {
    std::vector<std::string> all;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(logDir, error)) {
        if (entry.path().filename().string().rfind("Quorvelfs", 0) != 0) continue;
        std::vector<std::string> lines = readLogMessages(entry.path().string());
        all.insert(all.end(), lines.begin(), lines.end());
    }
    return all;
}

int QuorvelMount::countLog(const std::string &message) const {
    std::vector<std::string> lines = logMessages();
    return static_cast<int>(std::count(lines.begin(), lines.end(), message));
}

int QuorvelMount::countLogStarting(const std::string &prefix) const {
    int count = 0;
    for (const std::string &line : logMessages()) count += line.rfind(prefix, 0) == 0;
    return count;
}

std::string quorvelProgram() {
#ifdef QUORVEL_PATH
    return QUORVEL_PATH;
#else
    return "";
#endif
}
