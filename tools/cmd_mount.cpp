// `quorvel mount`: picks the attached device (the only one, or the one named),
// waits while it asks "Trust this computer?", then starts the file-system
// process quorvelfs on the mount point and returns once the mount answers.
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "device/libiusb.h"
#include "tools/commands.h"
#include "tools/process.h"

using namespace quorvel_tools;

namespace {

constexpr int kDefaultTrustWaitSeconds = 60;

void printMountUsage(FILE *out) {
    fprintf(out,
            "usage: quorvel mount MOUNTPOINT [--udid UDID | --location ID] [--jpeg] [-f] [FUSE options]\n"
            "\n"
            "Mounts an attached iPhone or iPad at MOUNTPOINT, an existing empty folder:\n"
            "  Media/     music, movies, podcasts, voice memos and photo albums (read-only)\n"
            "  Apps/      the Documents folder of every app that shares files\n"
            "  Storage/   the device's general storage\n"
            "\n"
            "With one device attached, that one is mounted. With several, name one\n"
            "(`quorvel list` shows them):\n"
            "  --udid UDID       the device with this UDID\n"
            "  --location ID     the device with this location id\n"
            "  --jpeg            show each HEIC photo in Media/Photo as a JPEG file,\n"
            "                    converted when read (same as -o jpeg)\n"
            "  -f                stay in the foreground; Ctrl-C unmounts\n"
            "  FUSE options      passed on to the file system, e.g. -o allow_other\n"
            "\n"
            "A device meeting this computer for the first time asks \"Trust this computer?\";\n"
            "the command waits up to %d seconds for you to tap Trust (QUORVEL_TRUST_TIMEOUT\n"
            "sets another number of seconds).\n"
            "\n"
            "Unmount with: quorvel unmount MOUNTPOINT (or fusermount3 -u MOUNTPOINT).\n"
            "The file system logs to QUORVEL_LOG_DIR when set, else /var/log, else\n"
            "~/.local/state/quorvel. Devices are reached through usbmuxd, or through the\n"
            "server named by USBMUXD_SOCKET_ADDRESS (for example UNIX:/tmp/devsim.sock).\n",
            kDefaultTrustWaitSeconds);
}

struct MountRequest {
    std::string mountPoint;
    std::string udid;
    std::string location;
    bool foreground = false;
    std::vector<std::string> fuseOptions;
};

// 0 when parsed, otherwise the exit status to return (help: 0 after printing).
int parseMountArguments(int argc, char **argv, MountRequest &request, bool &helpShown) {
    helpShown = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto valueOf = [&](const std::string &name, std::string &into) {
            if (arg.rfind(name + "=", 0) == 0) {
                into = arg.substr(name.size() + 1);
                return true;
            }
            if (i + 1 >= argc) return false;
            into = argv[++i];
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            printMountUsage(stdout);
            helpShown = true;
            return 0;
        } else if (arg == "--udid" || arg.rfind("--udid=", 0) == 0) {
            if (!valueOf("--udid", request.udid) || request.udid.empty()) {
                fprintf(stderr, "quorvel mount: --udid needs a UDID (see `quorvel list`)\n");
                return 2;
            }
        } else if (arg == "--location" || arg.rfind("--location=", 0) == 0) {
            if (!valueOf("--location", request.location) || request.location.empty()) {
                fprintf(stderr, "quorvel mount: --location needs a location id (see `quorvel list`)\n");
                return 2;
            }
        } else if (arg == "--jpeg") {
            request.fuseOptions.push_back("-o");
            request.fuseOptions.push_back("jpeg");
        } else if (arg == "-f") {
            request.foreground = true;
        } else if (arg == "-devopt") {
            fprintf(stderr, "quorvel mount: name the device with --location ID; -devopt is added for you\n");
            return 2;
        } else if (arg == "-o") {
            if (i + 1 >= argc) {
                fprintf(stderr, "quorvel mount: -o needs a value\n");
                return 2;
            }
            request.fuseOptions.push_back(arg);
            request.fuseOptions.push_back(argv[++i]);
        } else if (arg.size() > 1 && arg[0] == '-') {
            // -d (debug) keeps FUSE in the foreground as -f does.
            if (arg == "-d") request.foreground = true;
            request.fuseOptions.push_back(arg);
        } else if (request.mountPoint.empty()) {
            request.mountPoint = arg;
        } else {
            fprintf(stderr, "quorvel mount: unexpected argument '%s' (one mount point only)\n\n", arg.c_str());
            printMountUsage(stderr);
            return 2;
        }
    }
    if (request.mountPoint.empty()) {
        fprintf(stderr, "quorvel mount: which folder? Give a mount point.\n\n");
        printMountUsage(stderr);
        return 2;
    }
    if (!request.udid.empty() && !request.location.empty()) {
        fprintf(stderr, "quorvel mount: name the device with --udid or with --location, not both\n");
        return 2;
    }
    return 0;
}

bool hasOption(const std::vector<std::string> &options, const std::string &name) {
    for (const std::string &option : options) {
        size_t start = 0;
        while (start <= option.size()) {
            size_t end = option.find(',', start);
            if (end == std::string::npos) end = option.size();
            if (option.compare(start, end - start, name) == 0 && end - start == name.size()) return true;
            start = end + 1;
        }
    }
    return false;
}

// "nonempty" is ours to honour: libfuse 3 mounts over a non-empty folder
// anyway and refuses the option as unknown, so it is never passed on.
std::vector<std::string> withoutOption(const std::vector<std::string> &options, const std::string &name) {
    std::vector<std::string> kept;
    for (size_t i = 0; i < options.size(); ++i) {
        if (options[i] != "-o" || i + 1 >= options.size()) {
            kept.push_back(options[i]);
            continue;
        }
        std::string remaining;
        const std::string &list = options[++i];
        size_t start = 0;
        while (start <= list.size()) {
            size_t end = list.find(',', start);
            if (end == std::string::npos) end = list.size();
            std::string one = list.substr(start, end - start);
            if (!one.empty() && one != name) remaining += (remaining.empty() ? "" : ",") + one;
            start = end + 1;
        }
        if (remaining.empty()) continue;
        kept.push_back("-o");
        kept.push_back(remaining);
    }
    return kept;
}

bool folderIsEmpty(const std::string &path) {
    DIR *dir = opendir(path.c_str());
    if (dir == nullptr) return true;  // unreadable: let FUSE have its say
    bool empty = true;
    while (dirent *entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            empty = false;
            break;
        }
    }
    closedir(dir);
    return empty;
}

// The mount point must be an existing empty folder that nothing is mounted on.
bool checkMountPoint(const std::string &path, const std::vector<std::string> &fuseOptions) {
    if (isDeadMount(path)) {
        fprintf(stderr,
                "quorvel mount: %s is still mounted by a file system that has stopped.\n"
                "Clear it with: quorvel unmount %s\n",
                path.c_str(), shellWord(path).c_str());
        return false;
    }
    MountEntry mounted;
    if (findMount(path, &mounted)) {
        fprintf(stderr, "quorvel mount: something (%s) is already mounted at %s.\nUnmount it first: quorvel unmount %s\n",
                mounted.type.c_str(), path.c_str(), shellWord(path).c_str());
        return false;
    }
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) {
            fprintf(stderr, "quorvel mount: %s does not exist. Create the folder first: mkdir %s\n", path.c_str(),
                    shellWord(path).c_str());
        } else {
            fprintf(stderr, "quorvel mount: cannot use %s: %s\n", path.c_str(), strerror(errno));
        }
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        fprintf(stderr, "quorvel mount: %s is not a folder; the mount point must be an empty folder.\n", path.c_str());
        return false;
    }
    if (!hasOption(fuseOptions, "nonempty") && !folderIsEmpty(path)) {
        fprintf(stderr,
                "quorvel mount: %s is not empty; mounting would hide what is in it.\n"
                "Choose an empty folder (or pass -o nonempty to mount over it anyway).\n",
                path.c_str());
        return false;
    }
    return true;
}

struct Attached {
    libiusb_device *device = nullptr;
    libiusb_device_info info{};
};

std::string displayName(const libiusb_device_info &info) {
    if (info.device_name[0] != '\0') return info.device_name;
    return std::string("the device ") + info.udid;
}

std::vector<Attached> attachedDevices(libiusb_context *context) {
    std::vector<Attached> found;
    libiusb_device **list = nullptr;
    if (libiusb_device_get_list(context, &list) != LIBIUSB_SUCCESS) return found;
    for (size_t i = 0; list != nullptr && list[i] != nullptr; ++i) {
        Attached entry;
        entry.device = list[i];
        if (libiusb_device_get_info(list[i], &entry.info) == LIBIUSB_SUCCESS) found.push_back(entry);
    }
    return found;
}

void printDeviceTable(FILE *out, const std::vector<Attached> &devices) {
    fprintf(out, "  %-12s %-28s %s\n", "LOCATION ID", "NAME", "UDID");
    for (const Attached &entry : devices) {
        fprintf(out, "  %-12u %-28s %s\n", entry.info.location_id,
                entry.info.device_name[0] != '\0' ? entry.info.device_name : "-", entry.info.udid);
    }
}

int connectToDeviceServer(libiusb_context **context) {
    libiusb_init_ex(nullptr, 1);
    int result = libiusb_context_init(context);
    if (result == LIBIUSB_SUCCESS) return result;
    const char *address = getenv("USBMUXD_SOCKET_ADDRESS");
    if (address != nullptr && *address != '\0') {
        fprintf(stderr,
                "quorvel mount: cannot reach usbmuxd at %s (set by USBMUXD_SOCKET_ADDRESS).\n"
                "Is the server behind that address running?\n",
                address);
    } else {
        fprintf(stderr,
                "quorvel mount: cannot reach usbmuxd at /var/run/usbmuxd.\n"
                "Is usbmuxd installed and running? It usually starts when a device is plugged in.\n");
    }
    return result;
}

// The device the request names, or the only one. Prints why not and
// returns false otherwise.
bool chooseDevice(const std::vector<Attached> &devices, const MountRequest &request, Attached &chosen) {
    if (devices.empty()) {
        fprintf(stderr, "No device found. Connect an iPhone or iPad, unlock it, and try again.\n");
        return false;
    }
    if (!request.udid.empty() || !request.location.empty()) {
        for (const Attached &entry : devices) {
            bool matches = !request.udid.empty() ? strcasecmp(entry.info.udid, request.udid.c_str()) == 0
                                                  : std::to_string(entry.info.location_id) == request.location;
            if (matches) {
                chosen = entry;
                return true;
            }
        }
        if (!request.udid.empty()) {
            fprintf(stderr, "No attached device has the UDID %s. Attached now:\n", request.udid.c_str());
        } else {
            fprintf(stderr, "No attached device has the location id %s. Attached now:\n", request.location.c_str());
        }
        printDeviceTable(stderr, devices);
        return false;
    }
    if (devices.size() > 1) {
        fprintf(stderr, "%zu devices are attached; name the one to mount with --udid UDID or --location ID:\n",
                devices.size());
        printDeviceTable(stderr, devices);
        fprintf(stderr, "For example: quorvel mount %s --location %u\n", shellWord(request.mountPoint).c_str(),
                devices[0].info.location_id);
        return false;
    }
    chosen = devices[0];
    return true;
}

int trustWaitSeconds() {
    const char *configured = getenv("QUORVEL_TRUST_TIMEOUT");
    if (configured != nullptr && *configured != '\0') {
        char *end = nullptr;
        long seconds = strtol(configured, &end, 10);
        if (*end == '\0' && seconds >= 0 && seconds <= 3600) return static_cast<int>(seconds);
    }
    return kDefaultTrustWaitSeconds;
}

// Opens the device once to learn that it will talk to us, waiting while it
// shows "Trust this computer?" or is locked. quorvelfs opens its own session.
bool waitUntilDeviceAnswers(libiusb_context *&context, Attached &chosen) {
    const int limit = trustWaitSeconds();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limit);
    bool announced = false;
    bool lockedHintShown = false;
    bool pairedAgain = false;
    for (;;) {
        libiusb_device_handle *handle = nullptr;
        int result = libiusb_device_open(chosen.device, &handle);
        if (result == LIBIUSB_SUCCESS) {
            if (chosen.info.device_name[0] == '\0') {
                // Name and details are only told to a trusting device.
                libiusb_device_info opened{};
                if (libiusb_device_get_info(handle, &opened) == LIBIUSB_SUCCESS && opened.device_name[0] != '\0')
                    memcpy(chosen.info.device_name, opened.device_name, sizeof(opened.device_name));
            }
            libiusb_device_close(handle);
            if (announced) printf("Trusted. Continuing.\n");
            return true;
        }
        if (result == LIBIUSB_ERROR_NO_DEVICE) {
            // The device may have come back under a new entry (a replug while
            // the prompt was up): look for it again by UDID.
            std::string udid = chosen.info.udid;
            libiusb_context_exit(context);
            context = nullptr;
            libiusb_device *again = nullptr;
            if (libiusb_context_init(&context) == LIBIUSB_SUCCESS &&
                libiusb_device_find_by_udid(context, udid.c_str(), &again) == LIBIUSB_SUCCESS &&
                libiusb_device_get_info(again, &chosen.info) == LIBIUSB_SUCCESS) {
                chosen.device = again;
                if (std::chrono::steady_clock::now() < deadline) continue;
            }
            fprintf(stderr, "quorvel mount: %s is no longer attached.\n", displayName(chosen.info).c_str());
            return false;
        }
        if (result == LIBIUSB_ERROR_PAIRING_REJECTED && !pairedAgain) {
            // Reset, or told to forget this computer: its old pairing is of
            // no use, so it is ended and made again, once.
            printf("%s no longer accepts this computer's pairing (it was reset or told to forget this computer).\n"
                   "Pairing again: tap Trust on the device when it asks.\n",
                   displayName(chosen.info).c_str());
            pairedAgain = true;
            int forgotten = libiusb_device_forget_pairing(chosen.device);
            if (forgotten == LIBIUSB_SUCCESS) continue;
            result = forgotten;
        }
        if (result == LIBIUSB_ERROR_PAIRING_DENIED) {
            fprintf(stderr,
                    "quorvel mount: %s does not trust this computer: \"Don't Trust\" was tapped.\n"
                    "Unplug it, plug it in again, tap Trust when it asks, and run quorvel mount again.\n",
                    displayName(chosen.info).c_str());
            return false;
        }
        if (result != LIBIUSB_ERROR_TRUST_PENDING && result != LIBIUSB_ERROR_PASSWORD_PROTECTED) {
            fprintf(stderr, "quorvel mount: cannot open %s: %s (code %d).\n", displayName(chosen.info).c_str(),
                    libiusb_error_name(result), result);
            return false;
        }
        if (!announced) {
            printf("Waiting for you to tap Trust on the device…\n");
            announced = true;
        }
        if (result == LIBIUSB_ERROR_PASSWORD_PROTECTED && !lockedHintShown) {
            printf("(It is locked: unlock it with its passcode first.)\n");
            lockedHintShown = true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            fprintf(stderr,
                    "quorvel mount: %s did not trust this computer within %d seconds.\n"
                    "Unlock it, tap Trust when it asks \"Trust this computer?\", and run quorvel mount again.\n",
                    displayName(chosen.info).c_str(), limit);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
}

volatile sig_atomic_t foregroundChild = 0;

void forwardStopSignal(int) {
    if (foregroundChild > 0) kill(static_cast<pid_t>(foregroundChild), SIGTERM);  // never 0 or -1
}

std::string exitDescription(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return std::string("signal ") + strsignal(WTERMSIG(status));
    return "status " + std::to_string(status);
}

// Waits until the mount point is listed as a FUSE mount, while `child` (if
// any) is alive. False when the child ended or time ran out.
bool waitForMount(const std::string &mountPoint, pid_t child, int seconds, int *childStatus) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        if (isFuseMount(mountPoint)) return true;
        if (child > 0 && waitChild(child, 0, childStatus)) return isFuseMount(mountPoint);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

// The first look inside makes the file system finish connecting; this is
// what the user's first `ls` would otherwise wait for.
bool mountAnswers(const std::string &mountPoint) {
    struct stat st;
    if (stat(mountPoint.c_str(), &st) == 0) return true;
    fprintf(stderr, "quorvel mount: the mount at %s does not answer: %s.\nIts log is in %s.\n", mountPoint.c_str(),
            strerror(errno), logFolderForMessages().c_str());
    return false;
}

} // namespace

int cmdMount(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    MountRequest request;
    bool helpShown = false;
    int parsed = parseMountArguments(argc, argv, request, helpShown);
    if (helpShown || parsed != 0) return parsed;

    std::string mountPoint = mountPointPath(request.mountPoint);
    if (!checkMountPoint(mountPoint, request.fuseOptions)) return 1;

    std::string folder = executableFolder();
    std::string fileSystem = firstExecutable({folder + "/quorvelfs"});
    if (fileSystem.empty()) {
        fprintf(stderr, "quorvel mount: the file-system program quorvelfs is not next to quorvel (in %s).\n",
                folder.c_str());
        return 1;
    }

    libiusb_context *context = nullptr;
    if (connectToDeviceServer(&context) != LIBIUSB_SUCCESS) return 1;
    Attached chosen;
    bool ready = chooseDevice(attachedDevices(context), request, chosen) && waitUntilDeviceAnswers(context, chosen);
    if (context != nullptr) libiusb_context_exit(context);
    if (!ready) return 1;
    std::string name = displayName(chosen.info);

    ChildSpec spec;
    spec.argv = {fileSystem, mountPoint};
    std::vector<std::string> passedOn = withoutOption(request.fuseOptions, "nonempty");
    spec.argv.insert(spec.argv.end(), passedOn.begin(), passedOn.end());
    if (request.foreground) spec.argv.push_back("-f");
    // quorvelfs takes "-devopt ID" as its last two arguments.
    spec.argv.push_back("-devopt");
    spec.argv.push_back(std::to_string(chosen.info.location_id));
    spec.ownProcessGroup = request.foreground;

    if (request.foreground) {
        struct sigaction forward {};
        forward.sa_handler = forwardStopSignal;
        sigemptyset(&forward.sa_mask);
        for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &forward, nullptr);
    }
    std::string error;
    pid_t child = startChild(spec, &error);
    if (child < 0) {
        fprintf(stderr, "quorvel mount: %s\n", error.c_str());
        return 1;
    }

    if (!request.foreground) {
        // quorvelfs mounts, then leaves a background process serving the
        // mount and exits: its status says whether mounting worked.
        int status = 0;
        if (!waitChild(child, 60000, &status)) {
            stopChild(child, 5000);
            fprintf(stderr, "quorvel mount: quorvelfs did not finish mounting within 60 seconds.\n");
            return 1;
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            fprintf(stderr, "quorvel mount: quorvelfs could not mount %s (%s); its messages are above.\n",
                    mountPoint.c_str(), exitDescription(status).c_str());
            return 1;
        }
        if (!waitForMount(mountPoint, -1, 20, nullptr)) {
            fprintf(stderr, "quorvel mount: the mount at %s did not appear. The file system's log is in %s.\n",
                    mountPoint.c_str(), logFolderForMessages().c_str());
            return 1;
        }
        if (!mountAnswers(mountPoint)) return 1;
        printf("Mounted %s at %s. Unmount with: quorvel unmount %s\n", name.c_str(), mountPoint.c_str(),
               shellWord(mountPoint).c_str());
        return 0;
    }

    foregroundChild = child;
    int status = 0;
    if (waitForMount(mountPoint, child, 60, &status) && mountAnswers(mountPoint)) {
        printf("Mounted %s at %s. Press Ctrl-C to unmount, or run: quorvel unmount %s\n", name.c_str(),
               mountPoint.c_str(), shellWord(mountPoint).c_str());
    } else if (!isFuseMount(mountPoint)) {
        if (waitChild(child, 0, &status)) {
            foregroundChild = 0;
            fprintf(stderr, "quorvel mount: quorvelfs could not mount %s (%s); its messages are above.\n",
                    mountPoint.c_str(), exitDescription(status).c_str());
            return 1;
        }
        fprintf(stderr, "quorvel mount: the mount at %s did not appear within 60 seconds; stopping.\n",
                mountPoint.c_str());
        stopChild(child, 10000);
        foregroundChild = 0;
        return 1;
    }
    waitChild(child, -1, &status);
    foregroundChild = 0;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        printf("Unmounted %s.\n", mountPoint.c_str());
        return 0;
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) return 0;
    fprintf(stderr, "quorvel mount: quorvelfs ended with %s.\n", exitDescription(status).c_str());
    return 1;
}
