// `quorvel demo`: a simulated iPhone, mounted and browsable in one command.
// Builds the sample device image in a private temporary folder, serves it with
// devsim on a private socket, mounts it with quorvelfs, shows what is there and
// waits for Ctrl-C; then unmounts, stops devsim and removes what it made.
//
// The stop signals stay blocked for the whole run and are collected with
// sigtimedwait, so a Ctrl-C (or a second one) never cuts the clean-up short.
// Children run in their own process group (the terminal's Ctrl-C reaches only
// us, and we choose the order things stop in) and get SIGTERM should we die,
// even by SIGKILL; a mount left behind anyway is cleared by the next run.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "device/libiusb.h"
#include "tools/commands.h"
#include "tools/process.h"

using namespace quorvel_tools;

namespace {

const char kDefaultMountPoint[] = "quorvel-demo";
const char kWorkFolderPrefix[] = "quorvel-demo-";
constexpr size_t kTreeEntriesShown = 40;  // per folder; the rest is counted

void printDemoUsage(FILE *out) {
    fprintf(out,
            "usage: quorvel demo [MOUNTPOINT]\n"
            "\n"
            "Mounts a simulated iPhone at MOUNTPOINT (default ./%s, created if missing)\n"
            "so you can browse it like a real one, without any device attached:\n"
            "  1. builds the sample device image (devsim make-sample) in a private\n"
            "     temporary folder under /tmp,\n"
            "  2. starts the simulated device (devsim serve) on a private socket,\n"
            "  3. mounts it with quorvelfs and prints the tree two levels deep (/Media three) and a few\n"
            "     commands to try,\n"
            "  4. waits until Ctrl-C (or SIGTERM), then unmounts, stops the simulated\n"
            "     device and removes its temporary folder.\n"
            "\n"
            "The file system's log is kept in that temporary folder while the demo runs.\n"
            "A mount or temporary folder left behind by a demo that was killed is cleared\n"
            "by the next run.\n",
            kDefaultMountPoint);
}

sigset_t stopSignals;

// Sleeps up to `milliseconds`; the stop signal that arrived, or 0.
int waitForStopSignal(int milliseconds) {
    timespec timeout{milliseconds / 1000, static_cast<long>(milliseconds % 1000) * 1000000L};
    int sig = sigtimedwait(&stopSignals, nullptr, &timeout);
    return sig > 0 ? sig : 0;
}

const char *signalLabel(int sig) {
    switch (sig) {
    case SIGINT: return "Ctrl-C";
    case SIGTERM: return "SIGTERM";
    case SIGHUP: return "the terminal closed";
    default: return "a signal";
    }
}

struct Demo {
    std::string mountPoint;  // absolute
    bool createdMountPoint = false;
    std::string workDir;     // the private temporary folder
    std::string devsimProgram, fileSystemProgram;
    pid_t devsim = -1;
    pid_t fileSystem = -1;
    bool startedFileSystem = false;  // its mount is ours to remove, even after it died
    int stopSignal = 0;      // what ended the demo, once it came
    bool lateSignalNoted = false;
};

// True once a stop signal has come (now or before).
bool stopRequested(Demo &demo, int waitMilliseconds = 0) {
    if (demo.stopSignal == 0) demo.stopSignal = waitForStopSignal(waitMilliseconds);
    return demo.stopSignal != 0;
}

// During clean-up a further Ctrl-C is acknowledged, never obeyed.
void acknowledgeLateSignals(Demo &demo) {
    if (waitForStopSignal(0) != 0 && !demo.lateSignalNoted) {
        printf("Still cleaning up; one moment, the demo stops by itself.\n");
        demo.lateSignalNoted = true;
    }
}

bool waitChildDuringCleanup(Demo &demo, pid_t pid, int milliseconds, int *status = nullptr) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        if (waitChild(pid, 0, status)) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        acknowledgeLateSignals(demo);
        usleep(50000);
    }
}

std::string readWholeFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void showFileIndented(const std::string &title, const std::string &path) {
    std::string text = readWholeFile(path);
    if (text.empty()) return;
    fprintf(stderr, "%s\n", title.c_str());
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) fprintf(stderr, "  %s\n", line.c_str());
}

// Temporary folders of earlier demos that were killed before they could
// clean up: ours, real folders, and their recorded owner no longer runs.
void removeLeftoverWorkFolders() {
    DIR *tmp = opendir("/tmp");
    if (tmp == nullptr) return;
    std::vector<std::string> leftovers;
    while (dirent *entry = readdir(tmp)) {
        if (strncmp(entry->d_name, kWorkFolderPrefix, strlen(kWorkFolderPrefix)) != 0) continue;
        std::string path = std::string("/tmp/") + entry->d_name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) continue;
        // Without an owner file it may be a demo starting right now: left alone.
        long owner = atol(readWholeFile(path + "/owner").c_str());
        if (owner > 0 && kill(static_cast<pid_t>(owner), 0) != 0 && errno == ESRCH) leftovers.push_back(path);
    }
    closedir(tmp);
    for (const std::string &path : leftovers) {
        std::error_code error;
        std::filesystem::remove_all(path, error);  // does not follow links
        if (!error) printf("Removed %s, left by an earlier demo that was stopped abruptly.\n", path.c_str());
    }
}

// A mount still at the mount point (a demo killed mid-way, a crashed file
// system) is unmounted first, so every run can start.
bool clearLeftoverMount(const Demo &demo) {
    MountEntry mounted;
    bool listed = findMount(demo.mountPoint, &mounted);
    bool dead = isDeadMount(demo.mountPoint);
    if (!listed && !dead) return true;
    if (listed && !isFuseType(mounted.type)) {
        fprintf(stderr, "quorvel demo: %s has a %s file system mounted on it; choose another folder.\n",
                demo.mountPoint.c_str(), mounted.type.c_str());
        return false;
    }
    printf("Found a leftover mount at %s%s; unmounting it.\n", demo.mountPoint.c_str(),
           dead ? " (its file system had stopped)" : "");
    std::string detail;
    switch (unmountFuse(demo.mountPoint, &detail)) {
    case UnmountResult::Unmounted:
    case UnmountResult::NotMounted:
        printf("Unmounted the leftover mount.\n");
        return true;
    case UnmountResult::Detached:
        printf("It was busy, so it was detached; it goes away once nothing uses it.\n");
        return true;
    case UnmountResult::Failed:
        break;
    }
    fprintf(stderr, "quorvel demo: could not unmount the leftover mount at %s%s%s\n", demo.mountPoint.c_str(),
            detail.empty() ? "." : ": ", detail.c_str());
    return false;
}

bool prepareMountPoint(Demo &demo) {
    struct stat st;
    if (stat(demo.mountPoint.c_str(), &st) != 0) {
        if (errno != ENOENT || mkdir(demo.mountPoint.c_str(), 0755) != 0) {
            fprintf(stderr, "quorvel demo: cannot create the mount point %s: %s\n", demo.mountPoint.c_str(),
                    strerror(errno));
            return false;
        }
        demo.createdMountPoint = true;
        return true;
    }
    if (!S_ISDIR(st.st_mode)) {
        fprintf(stderr, "quorvel demo: %s is not a folder; give an empty or new folder as the mount point.\n",
                demo.mountPoint.c_str());
        return false;
    }
    DIR *dir = opendir(demo.mountPoint.c_str());
    bool empty = true;
    while (dir != nullptr && empty) {
        dirent *entry = readdir(dir);
        if (entry == nullptr) break;
        empty = strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0;
    }
    if (dir != nullptr) closedir(dir);
    if (!empty) {
        fprintf(stderr, "quorvel demo: %s is not empty; mounting would hide what is in it. Give an empty or new "
                "folder.\n", demo.mountPoint.c_str());
        return false;
    }
    return true;
}

bool makeWorkFolder(Demo &demo) {
    std::string pattern = std::string("/tmp/") + kWorkFolderPrefix + "XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) {
        fprintf(stderr, "quorvel demo: cannot create a temporary folder: %s\n", strerror(errno));
        return false;
    }
    demo.workDir = name.data();
    std::ofstream owner(demo.workDir + "/owner");
    owner << getpid() << "\n";
    mkdir((demo.workDir + "/log").c_str(), 0700);
    return true;
}

bool buildSampleImage(const Demo &demo) {
    printf("Building the sample device image in %s/image …\n", demo.workDir.c_str());
    std::string output;
    int status = runAndCapture({demo.devsimProgram, "make-sample", demo.workDir + "/image"}, &output, 120);
    if (status == 0) return true;
    fprintf(stderr, "quorvel demo: devsim make-sample failed:\n%s\n", output.c_str());
    return false;
}

bool startDevsim(Demo &demo) {
    printf("Starting the simulated device (devsim) …\n");
    std::string outPath = demo.workDir + "/devsim.out";
    std::string logPath = demo.workDir + "/devsim.log";
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ChildSpec spec;
    spec.argv = {demo.devsimProgram, "serve", "--socket", demo.workDir + "/usbmuxd.sock", "--control",
                 demo.workDir + "/devsim.control", demo.workDir + "/image"};
    spec.stdoutFd = out;
    spec.stderrFd = log;
    spec.ownProcessGroup = true;
    std::string error;
    demo.devsim = out >= 0 && log >= 0 ? startChild(spec, &error) : -1;
    if (out >= 0) close(out);
    if (log >= 0) close(log);
    if (demo.devsim < 0) {
        fprintf(stderr, "quorvel demo: cannot start devsim: %s\n", error.empty() ? strerror(errno) : error.c_str());
        return false;
    }
    // It prints "ready: N device(s) on PATH" once it accepts connections.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < deadline) {
        if (readWholeFile(outPath).find("ready: ") != std::string::npos) return true;
        int status = 0;
        if (waitChild(demo.devsim, 0, &status)) {
            demo.devsim = -1;
            fprintf(stderr, "quorvel demo: devsim stopped before it was ready.\n");
            showFileIndented("devsim said:", logPath);
            return false;
        }
        if (stopRequested(demo, 100)) return false;
    }
    fprintf(stderr, "quorvel demo: devsim was not ready within 30 seconds.\n");
    showFileIndented("devsim said:", logPath);
    return false;
}

// Asks the simulated device, through the device layer as any client would,
// which location id (the id quorvelfs mounts by) and name it has.
bool findSimulatedDevice(const Demo &demo, uint32_t &locationId, std::string &name) {
    setenv("USBMUXD_SOCKET_ADDRESS", ("UNIX:" + demo.workDir + "/usbmuxd.sock").c_str(), 1);
    libiusb_init_ex(nullptr, 1);
    libiusb_context *context = nullptr;
    int result = libiusb_context_init(&context);
    if (result != LIBIUSB_SUCCESS) {
        fprintf(stderr, "quorvel demo: cannot reach the simulated device: %s (code %d)\n", libiusb_error_name(result),
                result);
        return false;
    }
    libiusb_device **list = nullptr;
    libiusb_device_info info{};
    bool found = libiusb_device_get_list(context, &list) == LIBIUSB_SUCCESS && list != nullptr &&
                 list[0] != nullptr && libiusb_device_get_info(list[0], &info) == LIBIUSB_SUCCESS;
    libiusb_context_exit(context);
    if (!found) {
        fprintf(stderr, "quorvel demo: the simulated device lists no device.\n");
        return false;
    }
    locationId = info.location_id;
    name = info.device_name[0] != '\0' ? info.device_name : "the simulated device";
    return true;
}

bool mountSimulatedDevice(Demo &demo, uint32_t locationId, const std::string &name) {
    printf("Mounting %s (location id %u) at %s …\n", name.c_str(), locationId, demo.mountPoint.c_str());
    std::string outPath = demo.workDir + "/quorvelfs.out";
    int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ChildSpec spec;
    spec.argv = {demo.fileSystemProgram, demo.mountPoint, "-f", "-devopt", std::to_string(locationId)};
    spec.environment = {"QUORVEL_LOG_DIR=" + demo.workDir + "/log"};
    spec.stdoutFd = out;
    spec.stderrFd = out;
    spec.ownProcessGroup = true;
    std::string error;
    demo.fileSystem = out >= 0 ? startChild(spec, &error) : -1;
    if (out >= 0) close(out);
    demo.startedFileSystem = demo.fileSystem > 0;
    if (demo.fileSystem < 0) {
        fprintf(stderr, "quorvel demo: cannot start quorvelfs: %s\n", error.empty() ? strerror(errno) : error.c_str());
        return false;
    }
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!isFuseMount(demo.mountPoint)) {
        int status = 0;
        if (waitChild(demo.fileSystem, 0, &status)) {
            demo.fileSystem = -1;
            fprintf(stderr, "quorvel demo: quorvelfs stopped before the mount appeared.\n");
            showFileIndented("quorvelfs said:", outPath);
            return false;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            fprintf(stderr, "quorvel demo: the mount did not appear within 60 seconds.\n");
            return false;
        }
        if (stopRequested(demo, 50)) return false;
    }
    // The first look makes the file system connect to the device.
    struct stat st;
    if (stat(demo.mountPoint.c_str(), &st) != 0) {
        fprintf(stderr, "quorvel demo: the mount does not answer: %s. See the log in %s/log.\n", strerror(errno),
                demo.workDir.c_str());
        return false;
    }
    printf("Mounted %s at %s.\n", name.c_str(), demo.mountPoint.c_str());
    return true;
}

struct TreeCount {
    size_t folders = 0, files = 0;
};

// Visible names (no dot names, as `tree` shows them), sorted; false when the
// folder cannot be read.
bool readFolder(const std::string &path, std::vector<std::string> &names) {
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) return false;
    while (dirent *entry = readdir(dir)) {
        if (entry->d_name[0] != '.') names.push_back(entry->d_name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    return true;
}

void printTreeLevel(const std::string &folder, const std::string &prefix, int levelsLeft, TreeCount &count) {
    std::vector<std::string> names;
    readFolder(folder, names);
    for (size_t i = 0; i < names.size(); ++i) {
        bool last = i + 1 == names.size();
        if (i == kTreeEntriesShown && names.size() > kTreeEntriesShown + 1) {
            printf("%s└── … and %zu more\n", prefix.c_str(), names.size() - i);
            count.files += names.size() - i;  // not looked at: counted as entries
            return;
        }
        std::string path = folder + "/" + names[i];
        struct stat st;
        bool known = lstat(path.c_str(), &st) == 0;
        std::string line = prefix + (last ? "└── " : "├── ") + names[i];
        if (known && S_ISLNK(st.st_mode)) {
            char target[PATH_MAX];
            ssize_t length = readlink(path.c_str(), target, sizeof(target) - 1);
            if (length > 0) line += " -> " + std::string(target, static_cast<size_t>(length));
        }
        bool isFolder = known && S_ISDIR(st.st_mode);
        if (!isFolder) {
            count.files++;
            printf("%s\n", line.c_str());
            continue;
        }
        count.folders++;
        std::vector<std::string> probe;
        if (levelsLeft > 1 && !readFolder(path, probe)) {
            printf("%s  [error opening dir]\n", line.c_str());
            continue;
        }
        printf("%s\n", line.c_str());
        if (levelsLeft > 1) printTreeLevel(path, prefix + (last ? "    " : "│   "), levelsLeft - 1, count);
    }
}

// Prints the mount as `tree -L 2` does.
void printTree(const std::string &root, int levels) {
    TreeCount count;
    printf("\n%s\n", root.c_str());
    printTreeLevel(root, "", levels, count);
    printf("\n%zu director%s, %zu file%s\n", count.folders, count.folders == 1 ? "y" : "ies", count.files,
           count.files == 1 ? "" : "s");
}

// A file in /Storage to suggest reading, preferring a small text file.
std::string fileToShow(const std::string &storage) {
    std::vector<std::string> names;
    readFolder(storage, names);
    std::string fallback;
    for (const std::string &name : names) {
        struct stat st;
        std::string path = storage + "/" + name;
        if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".txt") == 0 && st.st_size < 4096) return path;
        if (fallback.empty()) fallback = path;
    }
    return fallback;
}

void printThingsToTry(const Demo &demo) {
    std::string storage = demo.mountPoint + "/Storage";
    printf("\nTry, in another terminal:\n");
    printf("  ls -la %s\n", shellWord(storage).c_str());
    printf("  ls -la %s\n", shellWord(demo.mountPoint + "/Apps/Reader/").c_str());
    printf("  find %s | head -20\n", shellWord(demo.mountPoint).c_str());
    printf("  ls -l %s\n", shellWord(demo.mountPoint + "/Media/Photo/Camera Roll/").c_str());
    printf("  cp -r %s /tmp/\n", shellWord(demo.mountPoint + "/Media/Photo/Camera Roll").c_str());
    std::string sample = fileToShow(storage);
    if (!sample.empty()) {
        printf("  stat %s\n", shellWord(sample).c_str());
        printf("  cat %s\n", shellWord(sample).c_str());
    }
    printf("  cp /etc/hostname %s\n", shellWord(storage + "/hello.txt").c_str());
    printf("  df -h %s\n", shellWord(demo.mountPoint).c_str());
    printf("  mkdir %s && rm -r %s\n", shellWord(storage + "/new folder").c_str(), shellWord(storage + "/new folder").c_str());
    printf("  mv %s %s\n", shellWord(storage + "/hello.txt").c_str(), shellWord(storage + "/renamed.txt").c_str());
    printf("  mv %s %s\n", shellWord(storage + "/renamed.txt").c_str(), shellWord(demo.mountPoint + "/Apps/Reader/").c_str());
    printf("\nThe file system's log is in %s/log (removed when the demo stops).\n", demo.workDir.c_str());
    printf("The demo is browsable. Press Ctrl-C to stop it: it unmounts %s, stops the simulated device\n"
           "and removes %s.\n",
           demo.mountPoint.c_str(), demo.workDir.c_str());
}

// Until a stop signal, or until the mount or devsim goes away on its own.
void waitUntilStopped(Demo &demo) {
    for (;;) {
        if (stopRequested(demo, 500)) return;
        int status = 0;
        if (waitChild(demo.fileSystem, 0, &status)) {
            demo.fileSystem = -1;
            printf("The file system stopped (was %s unmounted?); ending the demo.\n", demo.mountPoint.c_str());
            return;
        }
        if (waitChild(demo.devsim, 0, &status)) {
            demo.devsim = -1;
            printf("The simulated device stopped; ending the demo.\n");
            return;
        }
    }
}

bool runDemo(Demo &demo) {
    std::string folder = executableFolder();
    demo.devsimProgram = firstExecutable({folder + "/../devsim/devsim", folder + "/devsim"});
    demo.fileSystemProgram = firstExecutable({folder + "/quorvelfs"});
    if (demo.devsimProgram.empty()) {
        fprintf(stderr, "quorvel demo: the simulated device program devsim was not found (looked for %s and %s).\n"
                "Build it first: make build\n",
                (folder + "/../devsim/devsim").c_str(), (folder + "/devsim").c_str());
        return false;
    }
    if (demo.fileSystemProgram.empty()) {
        fprintf(stderr, "quorvel demo: the file-system program quorvelfs is not next to quorvel (in %s).\n",
                folder.c_str());
        return false;
    }
    removeLeftoverWorkFolders();
    if (!clearLeftoverMount(demo) || !prepareMountPoint(demo) || !makeWorkFolder(demo)) return false;
    if (stopRequested(demo) || !buildSampleImage(demo)) return false;
    if (stopRequested(demo) || !startDevsim(demo)) return false;
    uint32_t locationId = 0;
    std::string name;
    if (stopRequested(demo) || !findSimulatedDevice(demo, locationId, name)) return false;
    printf("Simulated device ready: %s.\n", name.c_str());
    if (stopRequested(demo) || !mountSimulatedDevice(demo, locationId, name)) return false;
    if (stopRequested(demo)) return true;
    printTree(demo.mountPoint, 2);
    // The media views one level deeper: songs by artist and title, the
    // photo albums and what is in them.
    printTree(demo.mountPoint + "/Media", 3);
    printThingsToTry(demo);
    waitUntilStopped(demo);
    return true;
}

// Every step runs whatever happened before; each is bounded in time.
bool cleanUp(Demo &demo) {
    bool clean = true;
    if (demo.stopSignal != 0) printf("\nStopping the demo (%s) …\n", signalLabel(demo.stopSignal));
    else printf("Cleaning up …\n");

    if (demo.startedFileSystem && (findMount(demo.mountPoint) || isDeadMount(demo.mountPoint))) {
        std::string detail;
        switch (unmountFuse(demo.mountPoint, &detail)) {
        case UnmountResult::Unmounted:
        case UnmountResult::NotMounted:
            printf("Unmounted %s.\n", demo.mountPoint.c_str());
            break;
        case UnmountResult::Detached:
            printf("%s was busy (a shell inside it?); detached it, it goes away once nothing uses it.\n",
                   demo.mountPoint.c_str());
            signalChild(demo.fileSystem, SIGTERM);  // nothing would be served once devsim stops anyway
            break;
        case UnmountResult::Failed:
            fprintf(stderr, "quorvel demo: could not unmount %s%s%s\n", demo.mountPoint.c_str(),
                    detail.empty() ? "." : ": ", detail.c_str());
            clean = false;
            break;
        }
    }
    acknowledgeLateSignals(demo);
    if (demo.fileSystem > 0) {
        // Unmounted, quorvelfs ends by itself; SIGTERM makes it unmount and end.
        if (!waitChildDuringCleanup(demo, demo.fileSystem, 15000)) {
            signalChild(demo.fileSystem, SIGTERM);
            if (!waitChildDuringCleanup(demo, demo.fileSystem, 10000)) {
                signalChild(demo.fileSystem, SIGKILL);
                waitChild(demo.fileSystem, -1);
            }
        }
        demo.fileSystem = -1;
        if (findMount(demo.mountPoint) || isDeadMount(demo.mountPoint)) {
            if (unmountFuse(demo.mountPoint) == UnmountResult::Failed) clean = false;
        }
    }
    acknowledgeLateSignals(demo);
    if (demo.devsim > 0) {
        signalChild(demo.devsim, SIGTERM);
        if (!waitChildDuringCleanup(demo, demo.devsim, 10000)) {
            signalChild(demo.devsim, SIGKILL);
            waitChild(demo.devsim, -1);
        }
        demo.devsim = -1;
        printf("Stopped the simulated device.\n");
    }
    acknowledgeLateSignals(demo);
    if (!demo.workDir.empty()) {
        std::error_code error;
        std::filesystem::remove_all(demo.workDir, error);  // does not follow links
        if (error) {
            fprintf(stderr, "quorvel demo: could not remove %s: %s\n", demo.workDir.c_str(), error.message().c_str());
            clean = false;
        } else {
            printf("Removed %s.\n", demo.workDir.c_str());
        }
    }
    if (demo.createdMountPoint && !findMount(demo.mountPoint) && rmdir(demo.mountPoint.c_str()) == 0) {
        printf("Removed the mount point %s.\n", demo.mountPoint.c_str());
    }
    printf(clean ? "Demo stopped; nothing left behind.\n" : "Demo stopped, but see the messages above.\n");
    return clean;
}

} // namespace

int cmdDemo(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string given = kDefaultMountPoint;
    bool mountPointGiven = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            printDemoUsage(stdout);
            return 0;
        }
        if (argv[i][0] == '-' || mountPointGiven) {
            fprintf(stderr, "quorvel demo: unexpected argument '%s'\n\n", argv[i]);
            printDemoUsage(stderr);
            return 2;
        }
        given = argv[i];
        mountPointGiven = true;
    }

    sigemptyset(&stopSignals);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stopSignals, sig);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);  // a closed terminal must not cut the clean-up short

    Demo demo;
    demo.mountPoint = mountPointPath(given);
    bool ran = runDemo(demo);
    bool clean = cleanUp(demo);
    // Stopped by the user before the mount was up is no failure.
    return (ran || demo.stopSignal != 0) && clean ? 0 : 1;
}
