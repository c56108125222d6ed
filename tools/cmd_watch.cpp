// `quorvel watch`: plug a device in and it appears. Follows usbmuxd's attach
// and detach events; each attached device is waited for (through "Trust this
// computer?" and the passcode lock, without a time limit while it stays
// attached), then mounted with quorvelfs at DIR/<device name>. On detach its
// mount is taken away (lazily when a program still uses it) and its folder
// removed; a replug mounts it again.
//
// One thread does everything: libusbmuxd's event thread only queues the event
// and wakes us through a pipe, so device records are never shared. Every step
// is short (one open attempt, one look at the mount table), so a device that
// waits for Trust delays no other. The stop signals stay blocked and arrive
// through a signalfd, so a SIGTERM never cuts the clean-up short.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <usbmuxd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "device/libiusb.h"
#include "tools/commands.h"
#include "tools/pipe_messages.h"
#include "tools/process.h"

#ifdef QUORVEL_HAVE_LIBNOTIFY
#include <libnotify/notify.h>
#endif

using namespace quorvel_tools;

namespace {

using Clock = std::chrono::steady_clock;

// Seconds between open attempts while a device waits for Trust or its passcode.
constexpr int kRetrySeconds = 1;
// How long quorvelfs may take to make its mount appear before we give up on it.
constexpr int kMountAppearSeconds = 60;
// A file-system process still running this long after its lazy unmount is stopped.
constexpr int kStopGraceSeconds = 30;
// Quiet on the tray pipe this long ends a burst: the transfers so far become
// one summary, and a "Working on" notice whose work ended is closed.
constexpr int kBurstQuietSeconds = 2;
// Work that ends sooner than this shows no "Working on" notice: a notice that
// flashes up and goes for every short listing only distracts.
constexpr int kBusyNoticeAfterMilliseconds = 1000;

void printWatchUsage(FILE *out) {
    fprintf(out,
            "usage: quorvel watch [--dir DIR] [--jpeg]\n"
            "\n"
            "Mounts every iPhone or iPad as it is plugged in, at DIR/<device name>, and\n"
            "unmounts it when it is unplugged. While a device asks \"Trust this computer?\"\n"
            "or is locked, says what to do and waits for as long as it stays attached.\n"
            "A name already taken by another mount or a folder with files in it gets a\n"
            "suffix: \"Alpha Phone (2)\".\n"
            "\n"
            "DIR defaults to ~/Devices (created when missing): file managers list FUSE\n"
            "mounts below the home folder among their devices, and this folder needs\n"
            "no administrator to create.\n"
            "\n"
            "--jpeg shows each HEIC photo as a JPEG file, converted when read (as\n"
            "`quorvel mount --jpeg` does).\n"
            "\n"
            "Ctrl-C or SIGTERM unmounts everything it mounted, removes the folders and exits.\n");
}

// --jpeg: every mount shows HEIC stills as JPEG files.
bool jpegViews = false;

enum class DeviceState { Waiting, Mounting, Mounted, Ended };

struct WatchedDevice {
    std::string udid;
    uint32_t locationId = 0;
    std::string name;
    DeviceState state = DeviceState::Waiting;
    int lastRefusal = 0;  // the last open result told to the user, so each is said once
    bool pairedAgain = false;  // its refused pairing was ended and made afresh once already
    Clock::time_point nextTry;
    std::string mountPoint;
    pid_t pid = -1;
    Clock::time_point mountDeadline;
    // The tray pipe of its quorvelfs: a FIFO of ours, one per device, so every
    // message is known to be about this device.
    std::string pipePath;
    int pipeFd = -1;
    std::string pipeStream;
    int busyDepth = 0;
    // The "Working on" notice of the work running now: whether it was said,
    // and the desktop's handle to close it by (null on standard error).
    bool workingSaid = false;
    void *workingNotice = nullptr;
    Clock::time_point busySince, busyEnded;
    uint64_t filesRead = 0, bytesRead = 0, filesWritten = 0, bytesWritten = 0;
    Clock::time_point lastTransfer;
};

// A file-system process whose mount was detached lazily: it ends once the
// last program using the mount lets go.
struct Stopping {
    pid_t pid;
    Clock::time_point deadline;
};

struct DeviceEvent {
    int type;
    uint32_t handle;
    std::string udid;
};

std::mutex eventLock;
std::vector<DeviceEvent> pendingEvents;
int wakeWriteFd = -1;

// Called on libusbmuxd's thread: queue and wake the main loop, nothing more.
void onDeviceEvent(const usbmuxd_event_t *event, void *) {
    if (event == nullptr) return;
    if (event->event != UE_DEVICE_ADD && event->event != UE_DEVICE_REMOVE) return;
    // A device reached over Wi-Fi is listed a second time; only USB counts.
    if (event->event == UE_DEVICE_ADD && event->device.conn_type == CONNECTION_TYPE_NETWORK) return;
    {
        std::lock_guard<std::mutex> guard(eventLock);
        pendingEvents.push_back({event->event, event->device.handle, event->device.udid});
    }
    char byte = 1;
    ssize_t ignored = write(wakeWriteFd, &byte, 1);
    (void)ignored;
}

bool desktopNotices = false;

// Tells the user something about a device: a desktop notification when a
// session bus is there to show it, else one line on standard error (the
// sentence, which says it all). With `keep`, returns a handle for
// closeNotice (null when nothing stays open).
void *notice(const std::string &summary, const std::string &sentence, bool keep = false) {
#ifdef QUORVEL_HAVE_LIBNOTIFY
    if (desktopNotices) {
        NotifyNotification *shown = notify_notification_new(summary.c_str(), sentence.c_str(), "phone");
        if (notify_notification_show(shown, nullptr)) {
            if (keep) return shown;
            g_object_unref(shown);
            return nullptr;
        }
        g_object_unref(shown);  // the bus went away: say it on standard error instead
    }
#else
    (void)keep;
#endif
    fprintf(stderr, "%s\n", sentence.empty() ? summary.c_str() : sentence.c_str());
    return nullptr;
}

void closeNotice(void *&handle) {
#ifdef QUORVEL_HAVE_LIBNOTIFY
    if (handle != nullptr) {
        NotifyNotification *shown = static_cast<NotifyNotification *>(handle);
        notify_notification_close(shown, nullptr);
        g_object_unref(shown);
    }
#endif
    handle = nullptr;
}

// Notifications are tried only where a session bus is known to be: GLib
// would otherwise try to start one through X11.
bool sessionBusPresent() {
    const char *address = getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address != nullptr && *address != '\0') return true;
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    struct stat st;
    return runtime != nullptr && *runtime != '\0' && stat((std::string(runtime) + "/bus").c_str(), &st) == 0 &&
           S_ISSOCK(st.st_mode);
}

void tell(const std::string &sentence) { printf("%s\n", sentence.c_str()); }

std::string defaultWatchFolder() {
    const char *home = getenv("HOME");
    std::string folder = home != nullptr && *home != '\0' ? home : "";
    if (folder.empty()) {
        struct passwd *user = getpwuid(getuid());
        if (user != nullptr && user->pw_dir != nullptr) folder = user->pw_dir;
    }
    return folder + "/Devices";
}

// A device name as one folder name: no "/", no leading "." (a hidden folder
// is not listed by file managers), never empty.
std::string folderName(const std::string &name, const std::string &udid) {
    std::string text = name;
    for (char &c : text) {
        if (c == '/' || static_cast<unsigned char>(c) < 0x20) c = '-';
    }
    while (!text.empty() && text[0] == '.') text.erase(0, 1);
    if (text.empty()) text = udid.empty() ? "iPhone" : udid;
    return text;
}

bool folderIsFree(const std::string &path) {
    if (findMount(path) || isDeadMount(path)) return false;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return errno == ENOENT;
    if (!S_ISDIR(st.st_mode)) return false;
    std::error_code error;
    return std::filesystem::is_empty(path, error) && !error;
}

// A mount whose file system died (a watcher killed with its children before
// they could unmount) answers "Transport endpoint is not connected" for
// ever: cleared at start, so its folder can be used again.
void clearDeadMounts(const std::string &watchFolder) {
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(watchFolder, error)) {
        std::string path = watchFolder + "/" + entry.path().filename().string();
        MountEntry mounted;
        if (!findMount(path, &mounted) || !isFuseType(mounted.type) || !isDeadMount(path)) continue;
        std::string output;
        runAndCapture({fusermountProgram(), "-u", "-z", path}, &output, 30);
        if (rmdir(path.c_str()) == 0) printf("Cleared a dead mount at %s.\n", path.c_str());
    }
}

// DIR/<name>, or DIR/<name> (2), (3) ... when that is mounted over, holds
// files, or is already one of ours.
std::string chooseMountPoint(const std::string &watchFolder, const std::string &name,
                             const std::vector<WatchedDevice> &devices) {
    for (int n = 1;; ++n) {
        std::string candidate = watchFolder + "/" + name + (n == 1 ? "" : " (" + std::to_string(n) + ")");
        bool ours = false;
        for (const WatchedDevice &other : devices) ours |= other.mountPoint == candidate;
        if (!ours && folderIsFree(candidate)) return candidate;
    }
}

std::string shownName(const WatchedDevice &device);

// One attempt at opening the device, as quorvelfs will. Fills in its name,
// which a device tells even before it trusts us.
int tryOpen(WatchedDevice &device) {
    libiusb_context *context = nullptr;
    int result = libiusb_context_init(&context);
    if (result != LIBIUSB_SUCCESS) return result;
    libiusb_device *found = nullptr;
    result = libiusb_device_find(context, device.locationId, &found);
    libiusb_device_info info{};
    if (result == LIBIUSB_SUCCESS && device.name.empty() && libiusb_device_get_info(found, &info) == LIBIUSB_SUCCESS &&
        info.device_name[0] != '\0')
        device.name = info.device_name;
    libiusb_device_handle *handle = nullptr;
    if (result == LIBIUSB_SUCCESS) result = libiusb_device_open(found, &handle);
    if (result == LIBIUSB_ERROR_PAIRING_REJECTED && !device.pairedAgain) {
        // Reset, or told to forget this computer: the old pairing is ended and
        // made afresh, once; the device then asks "Trust This Computer?".
        device.pairedAgain = true;
        std::string name = shownName(device);
        notice(name + " no longer trusts this computer",
               name + " was reset or told to forget this computer. Pairing again: tap Trust on " + name +
                   " when it asks \"Trust This Computer?\".");
        int forgotten = libiusb_device_forget_pairing(found);
        result = forgotten == LIBIUSB_SUCCESS ? libiusb_device_open(found, &handle) : forgotten;
    }
    if (result == LIBIUSB_SUCCESS) {
        if (libiusb_device_get_info(handle, &info) == LIBIUSB_SUCCESS && info.device_name[0] != '\0')
            device.name = info.device_name;
        libiusb_device_close(handle);
    }
    libiusb_context_exit(context);
    return result;
}

std::string shownName(const WatchedDevice &device) {
    return device.name.empty() ? "the device " + device.udid : device.name;
}

// The private folder holding the devices' FIFOs: 0700, under
// $XDG_RUNTIME_DIR (the user's own, cleared at logout) or else /tmp.
std::string runtimeFolder;

bool makeRuntimeFolder() {
    const char *runtime = getenv("XDG_RUNTIME_DIR");
    struct stat st;
    std::string base = runtime != nullptr && *runtime != '\0' && stat(runtime, &st) == 0 && S_ISDIR(st.st_mode)
                           ? runtime
                           : "/tmp";
    std::string pattern = base + "/quorvel-watch-XXXXXX";
    if (mkdtemp(&pattern[0]) == nullptr) return false;
    runtimeFolder = pattern;
    return true;
}

// Made by us (0600) and held open for reading and writing, so quorvelfs can
// always write and we never see end-of-file between its writes.
bool openPipe(WatchedDevice &device) {
    if (runtimeFolder.empty()) return false;
    device.pipePath = runtimeFolder + "/pipe-" + std::to_string(device.locationId);
    unlink(device.pipePath.c_str());
    if (mkfifo(device.pipePath.c_str(), 0600) != 0) {
        device.pipePath.clear();
        return false;
    }
    device.pipeFd = open(device.pipePath.c_str(), O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (device.pipeFd < 0) {
        unlink(device.pipePath.c_str());
        device.pipePath.clear();
        return false;
    }
    return true;
}

// "48 MB": whole units, powers of ten as file managers count.
std::string amountText(uint64_t bytes) {
    if (bytes < 1000) return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    if (bytes < 1000000) return std::to_string((bytes + 500) / 1000) + " kB";
    if (bytes < 1000000000) return std::to_string((bytes + 500000) / 1000000) + " MB";
    char text[32];
    snprintf(text, sizeof(text), "%.1f GB", static_cast<double>(bytes) / 1e9);
    return text;
}

std::string filesText(uint64_t count) { return std::to_string(count) + (count == 1 ? " file" : " files"); }

// One summary per burst of transfers, never one per file.
void flushTransfers(WatchedDevice &device) {
    std::string name = shownName(device);
    if (device.filesRead > 0) {
        notice("Copied " + filesText(device.filesRead) + " (" + amountText(device.bytesRead) + ") from " + name, "");
    }
    if (device.filesWritten > 0) {
        notice("Copied " + filesText(device.filesWritten) + " (" + amountText(device.bytesWritten) + ") to " + name, "");
    }
    device.filesRead = device.bytesRead = device.filesWritten = device.bytesWritten = 0;
}

void readPipe(WatchedDevice &device) {
    char chunk[4096];
    ssize_t got;
    while ((got = read(device.pipeFd, chunk, sizeof(chunk))) > 0) device.pipeStream.append(chunk, static_cast<size_t>(got));
    std::vector<PipeMessage> messages;
    takePipeMessages(device.pipeStream, &messages);
    for (const PipeMessage &message : messages) {
        if (message.kind == PipeMessageKind::BusyOn) {
            if (++device.busyDepth == 1) device.busySince = Clock::now();
        } else if (message.kind == PipeMessageKind::BusyOff) {
            if (device.busyDepth > 0 && --device.busyDepth == 0) device.busyEnded = Clock::now();
        } else if (message.kind == PipeMessageKind::Transfer) {
            if (message.record.kind == kTransferRead) {
                ++device.filesRead;
                device.bytesRead += message.record.size;
            } else if (message.record.kind == kTransferWritten) {
                ++device.filesWritten;
                device.bytesWritten += message.record.size;
            }
            device.lastTransfer = Clock::now();
        }
    }
}

// Ends bursts that have gone quiet.
void settlePipe(WatchedDevice &device) {
    auto quiet = std::chrono::seconds(kBurstQuietSeconds);
    if (device.busyDepth > 0 && !device.workingSaid &&
        Clock::now() - device.busySince >= std::chrono::milliseconds(kBusyNoticeAfterMilliseconds)) {
        device.workingNotice = notice("Working on " + shownName(device) + "…", "", true);
        device.workingSaid = true;
    }
    if ((device.filesRead > 0 || device.filesWritten > 0) && Clock::now() - device.lastTransfer >= quiet)
        flushTransfers(device);
    if (device.workingSaid && device.busyDepth == 0 && Clock::now() - device.busyEnded >= quiet) {
        closeNotice(device.workingNotice);
    device.workingSaid = false;
        device.workingSaid = false;
    }
}

void closePipe(WatchedDevice &device) {
    if (device.pipeFd >= 0) {
        readPipe(device);  // what was written before the end still counts
        close(device.pipeFd);
        unlink(device.pipePath.c_str());
    }
    flushTransfers(device);
    closeNotice(device.workingNotice);
    device.pipeFd = -1;
    device.pipePath.clear();
    device.pipeStream.clear();
    device.busyDepth = 0;
}

// What the user must do while the device will not talk to us yet.
void tellRefusal(WatchedDevice &device, int result) {
    if (result == device.lastRefusal) return;
    device.lastRefusal = result;
    std::string name = shownName(device);
    if (result == LIBIUSB_ERROR_TRUST_PENDING) {
        notice(name + " asks whether to trust this computer",
               "To use " + name + ", tap Trust on " + name + " when it asks \"Trust This Computer?\".");
    } else if (result == LIBIUSB_ERROR_PASSWORD_PROTECTED) {
        notice(name + " is locked", "To use " + name + ", unlock " + name + " with its passcode.");
    } else if (result == LIBIUSB_ERROR_PAIRING_DENIED || result == LIBIUSB_ERROR_NOT_PAIRED) {
        notice(name + " does not trust this computer",
               "You told " + name + " not to trust this computer. To use it, unplug it, plug it in again and tap Trust.");
    } else {
        notice("Cannot open " + name, "Cannot open " + name + " yet (" + libiusb_error_name(result) + "); trying again.");
    }
}

void startMount(WatchedDevice &device, const std::string &watchFolder, const std::string &fileSystem,
                const std::vector<WatchedDevice> &devices) {
    device.mountPoint = chooseMountPoint(watchFolder, folderName(device.name, device.udid), devices);
    if (mkdir(device.mountPoint.c_str(), 0755) != 0 && errno != EEXIST) {
        notice("Cannot mount " + shownName(device),
               "Cannot create " + device.mountPoint + " for " + shownName(device) + ": " + strerror(errno) + ".");
        device.mountPoint.clear();
        device.state = DeviceState::Ended;
        return;
    }
    ChildSpec spec;
    // In the foreground, so the process stays ours: we know when it ends.
    spec.argv = {fileSystem, device.mountPoint, "-f"};
    if (jpegViews) spec.argv.insert(spec.argv.end(), {"-o", "jpeg"});
    // -devopt and its id stay last: quorvelfs expects them there.
    spec.argv.insert(spec.argv.end(), {"-devopt", std::to_string(device.locationId)});
    spec.ownProcessGroup = true;  // a Ctrl-C at the terminal reaches only us; we stop it in order
    if (openPipe(device)) spec.environment.push_back("QUORVEL_PIPE=" + device.pipePath);
    std::string error;
    device.pid = startChild(spec, &error);
    if (device.pid < 0) {
        notice("Cannot mount " + shownName(device), "Cannot mount " + shownName(device) + ": " + error);
        closePipe(device);
        rmdir(device.mountPoint.c_str());
        device.mountPoint.clear();
        device.state = DeviceState::Ended;
        return;
    }
    device.state = DeviceState::Mounting;
    device.mountDeadline = Clock::now() + std::chrono::seconds(kMountAppearSeconds);
}

// Takes the device's mount away and removes its folder. A program still using
// the mount keeps its process alive until it lets go; that process is
// collected later, so no other device waits for it.
void takeDown(WatchedDevice &device, std::vector<Stopping> &stopping) {
    closePipe(device);
    if (!device.mountPoint.empty()) {
        std::string detail;
        UnmountResult result = unmountFuse(device.mountPoint, &detail);
        if (result == UnmountResult::Failed) {
            // Detached anyway: a dead mount point must never stay behind.
            std::string output;
            runAndCapture({fusermountProgram(), "-u", "-z", device.mountPoint}, &output, 30);
        }
        rmdir(device.mountPoint.c_str());
    }
    if (device.pid > 0) {
        int status = 0;
        if (!waitChild(device.pid, 0, &status))
            stopping.push_back({device.pid, Clock::now() + std::chrono::seconds(kStopGraceSeconds)});
    }
    device.pid = -1;
    device.mountPoint.clear();
}

void collectStopped(std::vector<Stopping> &stopping) {
    for (size_t i = 0; i < stopping.size();) {
        if (waitChild(stopping[i].pid, 0)) {
            stopping.erase(stopping.begin() + static_cast<long>(i));
            continue;
        }
        if (Clock::now() >= stopping[i].deadline) {
            signalChild(stopping[i].pid, SIGTERM);
            stopping[i].deadline = Clock::now() + std::chrono::seconds(kStopGraceSeconds);
        }
        ++i;
    }
}

// One step for one device; never waits for long.
void advance(WatchedDevice &device, const std::string &watchFolder, const std::string &fileSystem,
             std::vector<WatchedDevice> &devices, std::vector<Stopping> &stopping) {
    if (device.state == DeviceState::Waiting) {
        if (Clock::now() < device.nextTry) return;
        int result = tryOpen(device);
        if (result != LIBIUSB_SUCCESS) {
            // Gone from the list: its detach event is on the way, nothing to tell.
            if (result != LIBIUSB_ERROR_NO_DEVICE) tellRefusal(device, result);
            device.nextTry = Clock::now() + std::chrono::seconds(kRetrySeconds);
            return;
        }
        if (device.lastRefusal != 0) notice(shownName(device) + " is ready", shownName(device) + " trusts this computer now.");
        startMount(device, watchFolder, fileSystem, devices);
        return;
    }
    if (device.state == DeviceState::Mounting) {
        if (isFuseMount(device.mountPoint)) {
            device.state = DeviceState::Mounted;
            notice(shownName(device) + " is mounted", "Mounted " + shownName(device) + " at " + device.mountPoint + ".");
            return;
        }
        int status = 0;
        bool ended = waitChild(device.pid, 0, &status);
        if (ended || Clock::now() >= device.mountDeadline) {
            if (ended) device.pid = -1;
            notice("Could not mount " + shownName(device),
                   "Could not mount " + shownName(device) + " at " + device.mountPoint + "; the file system's log is in " +
                       logFolderForMessages() + ". Unplug it and plug it in again to retry.");
            takeDown(device, stopping);
            device.state = DeviceState::Ended;
        }
        return;
    }
    if (device.state == DeviceState::Mounted) {
        int status = 0;
        if (waitChild(device.pid, 0, &status)) {
            // Unmounted by someone else (quorvel unmount, the file manager's
            // eject): clear what is left, and mount again only on a replug.
            device.pid = -1;
            std::string point = device.mountPoint;
            takeDown(device, stopping);
            device.state = DeviceState::Ended;
            notice(shownName(device) + " was unmounted", shownName(device) + " was unmounted from " + point + ".");
        }
    }
}

void handleEvents(std::vector<WatchedDevice> &devices, std::vector<Stopping> &stopping) {
    std::vector<DeviceEvent> events;
    {
        std::lock_guard<std::mutex> guard(eventLock);
        events.swap(pendingEvents);
    }
    for (const DeviceEvent &event : events) {
        for (size_t i = 0; i < devices.size();) {
            WatchedDevice &device = devices[i];
            // A detach, or an attach of a UDID we still hold (a detach we missed).
            bool gone = event.type == UE_DEVICE_REMOVE ? device.locationId == event.handle : device.udid == event.udid;
            if (!gone) {
                ++i;
                continue;
            }
            std::string point = device.mountPoint;
            takeDown(device, stopping);
            if (!point.empty())
                notice(shownName(device) + " was unplugged", shownName(device) + " was unplugged; removed " + point + ".");
            devices.erase(devices.begin() + static_cast<long>(i));
        }
        if (event.type == UE_DEVICE_ADD) {
            WatchedDevice device;
            device.udid = event.udid;
            device.locationId = event.handle;
            device.nextTry = Clock::now();
            devices.push_back(device);
        }
    }
}

} // namespace

int cmdWatch(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string watchFolder;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            printWatchUsage(stdout);
            return 0;
        }
        if (arg == "--jpeg") {
            jpegViews = true;
        } else if (arg == "--dir" && i + 1 < argc) {
            watchFolder = argv[++i];
        } else if (arg.rfind("--dir=", 0) == 0) {
            watchFolder = arg.substr(6);
        } else {
            fprintf(stderr, "quorvel watch: unexpected argument '%s'\n\n", arg.c_str());
            printWatchUsage(stderr);
            return 2;
        }
    }
    if (watchFolder.empty()) watchFolder = defaultWatchFolder();
    std::error_code error;
    std::filesystem::create_directories(watchFolder, error);
    if (error || !std::filesystem::is_directory(watchFolder)) {
        fprintf(stderr, "quorvel watch: cannot use %s as the folder for devices: %s\n", watchFolder.c_str(),
                error ? error.message().c_str() : "not a folder");
        return 1;
    }
    watchFolder = mountPointPath(watchFolder);

    clearDeadMounts(watchFolder);

    std::string fileSystem = firstExecutable({executableFolder() + "/quorvelfs"});
    if (fileSystem.empty()) {
        fprintf(stderr, "quorvel watch: the file-system program quorvelfs is not next to quorvel (in %s).\n",
                executableFolder().c_str());
        return 1;
    }

    // Blocked before libusbmuxd starts its thread, which inherits the mask.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stopSignals, sig);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);
    int signalFd = signalfd(-1, &stopSignals, SFD_CLOEXEC);
    int wake[2];
    if (signalFd < 0 || pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) {
        fprintf(stderr, "quorvel watch: %s\n", strerror(errno));
        return 1;
    }
    wakeWriteFd = wake[1];

    if (!makeRuntimeFolder())
        fprintf(stderr, "quorvel watch: no private folder for the tray pipes (%s); no transfer summaries.\n",
                strerror(errno));
#ifdef QUORVEL_HAVE_LIBNOTIFY
    desktopNotices = sessionBusPresent() && notify_init("Quorvel");
#endif

    libiusb_init_ex(nullptr, 1);
    usbmuxd_subscription_context_t subscription = nullptr;
    if (usbmuxd_events_subscribe(&subscription, onDeviceEvent, nullptr) != 0) {
        fprintf(stderr, "quorvel watch: cannot follow usbmuxd's device events.\n");
        return 1;
    }
    tell("Watching for devices; each is mounted in " + watchFolder + ". Ctrl-C stops.");

    std::vector<WatchedDevice> devices;
    std::vector<Stopping> stopping;
    bool stop = false;
    while (!stop) {
        std::vector<pollfd> fds = {{signalFd, POLLIN, 0}, {wake[0], POLLIN, 0}};
        for (const WatchedDevice &device : devices)
            if (device.pipeFd >= 0) fds.push_back({device.pipeFd, POLLIN, 0});
        poll(fds.data(), fds.size(), 200);
        if (fds[0].revents & POLLIN) {
            signalfd_siginfo info;
            if (read(signalFd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) stop = true;
        }
        if (fds[1].revents & POLLIN) {
            char drain[64];
            while (read(wake[0], drain, sizeof(drain)) > 0) {
            }
        }
        if (stop) break;
        for (WatchedDevice &device : devices) {
            if (device.pipeFd < 0) continue;
            readPipe(device);
            settlePipe(device);
        }
        handleEvents(devices, stopping);
        for (WatchedDevice &device : devices) advance(device, watchFolder, fileSystem, devices, stopping);
        collectStopped(stopping);
    }

    usbmuxd_events_unsubscribe(subscription);
    for (WatchedDevice &device : devices) {
        std::string point = device.mountPoint;
        takeDown(device, stopping);
        if (!point.empty()) notice(shownName(device) + " was unmounted", "Unmounted " + shownName(device) + " from " + point + ".");
    }
    for (const Stopping &child : stopping) stopChild(child.pid, 10000);
    if (!runtimeFolder.empty()) std::filesystem::remove_all(runtimeFolder, error);
#ifdef QUORVEL_HAVE_LIBNOTIFY
    if (desktopNotices) notify_uninit();
#endif
    tell("Stopped watching.");
    return 0;
}
