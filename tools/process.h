// Process and mount helpers shared by `quorvel mount`, `unmount` and `demo`.
// Programs are always started with an argument vector (fork + exec), never
// through a shell, so a mount point named `$(rm -rf ~)` is only a name.
//
// Kept in a header (inline) so that the commands and their tests share one
// copy without another library target.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace quorvel_tools {

// The folder holding the running executable: quorvelfs and devsim are found
// from there, wherever the build or installation put them.
inline std::string executableFolder() {
    char exe[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (length <= 0) return "";
    exe[length] = '\0';
    return std::filesystem::path(exe).parent_path().string();
}

// The first candidate that is an executable file, or "".
inline std::string firstExecutable(const std::vector<std::string> &candidates) {
    for (const std::string &candidate : candidates) {
        struct stat st;
        if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(candidate.c_str(), X_OK) == 0)
            return std::filesystem::path(candidate).lexically_normal().string();
    }
    return "";
}

struct ChildSpec {
    std::vector<std::string> argv;         // argv[0] without a '/' is looked up in PATH
    std::vector<std::string> environment;  // "NAME=value", set on top of ours
    int stdoutFd = -1;                     // -1: ours
    int stderrFd = -1;                     // -1: ours
    // Its own process group: a Ctrl-C at the terminal reaches only us, and we
    // decide the order things stop in.
    bool ownProcessGroup = false;
    // SIGTERM when we die, even by SIGKILL: no device server or file system
    // process outlives the command that started it.
    bool stopWithParent = true;
};

// Starts the child; its standard input is /dev/null. Returns its pid, or -1
// with *error saying why (exec failures included).
inline pid_t startChild(const ChildSpec &spec, std::string *error) {
    if (spec.argv.empty()) {
        if (error) *error = "nothing to run";
        return -1;
    }
    // Everything the child needs is built before fork: after it, only calls
    // that are safe in a child of a possibly threaded process.
    std::vector<std::string> args = spec.argv;
    std::vector<char *> argv;
    for (std::string &arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    std::vector<std::string> envStrings;
    for (char **entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
        std::string text = *entry;
        std::string name = text.substr(0, text.find('='));
        bool replaced = false;
        for (const std::string &override : spec.environment) replaced |= override.compare(0, name.size() + 1, name + "=") == 0;
        if (!replaced) envStrings.push_back(text);
    }
    envStrings.insert(envStrings.end(), spec.environment.begin(), spec.environment.end());
    std::vector<char *> envp;
    for (std::string &entry : envStrings) envp.push_back(&entry[0]);
    envp.push_back(nullptr);
    std::string path = args[0];
    std::vector<std::string> searched;
    if (path.find('/') == std::string::npos) {
        const char *pathVar = getenv("PATH");
        std::string dirs = pathVar != nullptr ? pathVar : "/usr/local/bin:/usr/bin:/bin";
        size_t start = 0;
        while (start <= dirs.size()) {
            size_t end = dirs.find(':', start);
            if (end == std::string::npos) end = dirs.size();
            std::string dir = dirs.substr(start, end - start);
            searched.push_back((dir.empty() ? std::string(".") : dir) + "/" + path);
            start = end + 1;
        }
    } else {
        searched.push_back(path);
    }
    std::string program = firstExecutable(searched);
    if (program.empty()) {
        if (error) *error = "cannot run " + path + ": not found";
        return -1;
    }

    int nullFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int report[2];
    if (nullFd < 0 || pipe2(report, O_CLOEXEC) != 0) {
        if (error) *error = std::string("cannot start a process: ") + strerror(errno);
        if (nullFd >= 0) close(nullFd);
        return -1;
    }
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        if (spec.ownProcessGroup) setpgid(0, 0);
        if (spec.stopWithParent) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() != parent) _exit(127);  // we died before the line above
        }
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGCHLD}) signal(sig, SIG_DFL);
        dup2(nullFd, 0);
        if (spec.stdoutFd >= 0) dup2(spec.stdoutFd, 1);
        if (spec.stderrFd >= 0) dup2(spec.stderrFd, 2);
        // Nothing else of ours leaks in: a device server holding a copy of
        // someone's pipe or of a FUSE connection would keep it alive.
        close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
        execve(program.c_str(), argv.data(), envp.data());
        int failure = errno;
        ssize_t ignored = write(report[1], &failure, sizeof(failure));
        (void)ignored;
        _exit(127);
    }
    close(nullFd);
    close(report[1]);
    if (pid < 0) {
        if (error) *error = std::string("fork: ") + strerror(errno);
        close(report[0]);
        return -1;
    }
    if (spec.ownProcessGroup) setpgid(pid, pid);  // either side may win the race; both ask the same
    int failure = 0;
    ssize_t got;
    do {
        got = read(report[0], &failure, sizeof(failure));
    } while (got < 0 && errno == EINTR);
    close(report[0]);
    if (got == static_cast<ssize_t>(sizeof(failure))) {
        waitpid(pid, nullptr, 0);
        if (error) *error = "cannot run " + program + ": " + strerror(failure);
        return -1;
    }
    return pid;
}

// Waits up to `timeoutMs` (negative: for ever). True once the child ended,
// with its wait status in *status.
inline bool waitChild(pid_t pid, int timeoutMs, int *status = nullptr) {
    if (pid <= 0) return true;  // waitpid(-1) would take any child
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int wstatus = 0;
        pid_t done = waitpid(pid, &wstatus, timeoutMs < 0 ? 0 : WNOHANG);
        if (done == pid) {
            if (status) *status = wstatus;
            return true;
        }
        if (done < 0 && errno != EINTR) return true;  // not ours, or already reaped
        if (timeoutMs >= 0 && std::chrono::steady_clock::now() >= deadline) return false;
        if (timeoutMs >= 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// kill() for one child only: a pid of 0 or -1 (a child already reaped) would
// signal our whole process group or every process we may signal.
inline void signalChild(pid_t pid, int sig) {
    if (pid > 0) kill(pid, sig);
}

// SIGTERM, then SIGKILL after `graceMs`. True when it stopped on SIGTERM.
inline bool stopChild(pid_t pid, int graceMs, int *status = nullptr) {
    if (pid <= 0) return true;
    kill(pid, SIGTERM);
    if (waitChild(pid, graceMs, status)) return true;
    kill(pid, SIGKILL);
    waitChild(pid, -1, status);
    return false;
}

// Runs a program to completion with standard output and error captured
// together. Returns its exit status, or -1 when it could not run, was killed
// or took longer than `timeoutSeconds`.
inline int runAndCapture(const std::vector<std::string> &argv, std::string *output, int timeoutSeconds = 60) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return -1;
    ChildSpec spec;
    spec.argv = argv;
    spec.stdoutFd = out[1];
    spec.stderrFd = out[1];
    std::string error;
    pid_t pid = startChild(spec, &error);
    close(out[1]);
    if (pid < 0) {
        close(out[0]);
        if (output) *output = error;
        return -1;
    }
    std::string text;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    bool timedOut = false;
    for (;;) {
        pollfd p{out[0], POLLIN, 0};
        if (poll(&p, 1, 100) > 0) {
            char buffer[4096];
            ssize_t n = read(out[0], buffer, sizeof(buffer));
            if (n == 0 || (n < 0 && errno != EINTR)) break;
            if (n > 0) text.append(buffer, static_cast<size_t>(n));
        }
        if (std::chrono::steady_clock::now() > deadline) {
            timedOut = true;
            kill(pid, SIGKILL);
            break;
        }
    }
    close(out[0]);
    int status = 0;
    waitChild(pid, -1, &status);
    if (output) *output = text;
    if (timedOut || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

// The absolute path the kernel lists a mount under. The mount point itself is
// never resolved: a dead FUSE mount answers every stat with ENOTCONN, so only
// its parent folder is.
inline std::string mountPointPath(const std::string &given) {
    std::filesystem::path path = std::filesystem::absolute(given).lexically_normal();
    std::string text = path.string();
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    path = text;
    if (text == "/") return text;
    char parent[PATH_MAX];
    if (realpath(path.parent_path().c_str(), parent) == nullptr) return text;
    std::string resolved = parent;
    return (resolved == "/" ? "" : resolved) + "/" + path.filename().string();
}

// /proc/self/mounts writes a space, tab, newline and backslash in a path as
// \040, \011, \012 and \134.
inline std::string unescapeMountField(const std::string &field) {
    std::string text;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3' &&
            field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0' && field[i + 3] <= '7') {
            text += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0'));
            i += 3;
        } else {
            text += field[i];
        }
    }
    return text;
}

struct MountEntry {
    std::string source, point, type;
};

// The last (uppermost) mount at `absolutePath` in the mount table, if any.
inline bool findMount(const std::string &absolutePath, MountEntry *found = nullptr) {
    std::ifstream table("/proc/self/mounts");
    std::string line;
    bool any = false;
    while (std::getline(table, line)) {
        size_t a = line.find(' ');
        size_t b = a == std::string::npos ? a : line.find(' ', a + 1);
        size_t c = b == std::string::npos ? b : line.find(' ', b + 1);
        if (c == std::string::npos) continue;
        MountEntry entry{unescapeMountField(line.substr(0, a)), unescapeMountField(line.substr(a + 1, b - a - 1)),
                         line.substr(b + 1, c - b - 1)};
        if (entry.point != absolutePath) continue;
        any = true;
        if (found) *found = entry;
    }
    return any;
}

inline bool isFuseType(const std::string &type) { return type == "fuse" || type.rfind("fuse.", 0) == 0; }

inline bool isFuseMount(const std::string &absolutePath) {
    MountEntry entry;
    return findMount(absolutePath, &entry) && isFuseType(entry.type);
}

// A FUSE mount whose process is gone: the kernel still lists it, and every
// request fails with "Transport endpoint is not connected". Asked with statfs,
// which always reaches the file system: a stat may still be answered from the
// kernel's cache of attributes.
inline bool isDeadMount(const std::string &absolutePath) {
    struct statvfs st;
    return statvfs(absolutePath.c_str(), &st) != 0 && errno == ENOTCONN;
}

// The FUSE unmount helper this machine has: libfuse 3's fusermount3, or the
// older fusermount where only FUSE 2's tools are installed (either unmounts a
// libfuse 3 mount).
inline std::string fusermountProgram() {
    std::string program =
        firstExecutable({"/bin/fusermount3", "/usr/bin/fusermount3", "/bin/fusermount", "/usr/bin/fusermount"});
    return program.empty() ? "fusermount3" : program;
}

enum class UnmountResult { Unmounted, Detached, NotMounted, Failed };

// `fusermount3 -u`, and when the mount is busy (a shell inside it, a file
// open) `fusermount3 -u -z`, which detaches it now and finishes once nothing
// uses it. *detail gets the helper's words on failure.
inline UnmountResult unmountFuse(const std::string &absolutePath, std::string *detail = nullptr) {
    if (!findMount(absolutePath) && !isDeadMount(absolutePath)) return UnmountResult::NotMounted;
    std::string program = fusermountProgram();
    std::string output;
    int status = runAndCapture({program, "-u", absolutePath}, &output, 30);
    if (status == 0 && !findMount(absolutePath)) return UnmountResult::Unmounted;
    std::string lazyOutput;
    status = runAndCapture({program, "-u", "-z", absolutePath}, &lazyOutput, 30);
    if (status == 0 && !findMount(absolutePath)) return UnmountResult::Detached;
    if (detail) *detail = output + lazyOutput;
    while (detail && !detail->empty() && detail->back() == '\n') detail->pop_back();
    return UnmountResult::Failed;
}

// A path written so that it can be pasted into a shell as one word.
inline std::string shellWord(const std::string &text) {
    bool plain = !text.empty();
    for (char c : text) {
        if (!(isalnum(static_cast<unsigned char>(c)) || strchr("/._-+,:@%=", c) != nullptr)) plain = false;
    }
    if (plain) return text;
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// Where the file system's log goes, in the same order quorvelfs decides it.
inline std::string logFolderForMessages() {
    const char *configured = getenv("QUORVEL_LOG_DIR");
    if (configured != nullptr && *configured != '\0') return configured;
    if (access("/var/log", W_OK) == 0) return "/var/log";
    const char *xdg = getenv("XDG_STATE_HOME");
    if (xdg != nullptr && *xdg != '\0') return std::string(xdg) + "/quorvel";
    const char *home = getenv("HOME");
    return std::string(home != nullptr ? home : "/tmp") + "/.local/state/quorvel";
}

}  // namespace quorvel_tools
