// `quorvel tray`: the listening end of the notification pipe. It creates the
// FIFO, keeps it open while file systems come and go, and prints one line per
// busy signal and per transfer record.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tarnifs/notify.h"
#include "tools/pipe_messages.h"
#include "tools/commands.h"

namespace {

volatile sig_atomic_t stopRequested = 0;

void requestStop(int) { stopRequested = 1; }

void printTrayUsage(FILE *out) {
    fprintf(out,
            "usage: quorvel tray\n\n"
            "Listens on the notification pipe of the file system and prints one line per event:\n"
            "  busy on / busy off                 a long device operation began / ended\n"
            "  read N bytes .EXT                  a file was read from the device\n"
            "  written N bytes .EXT               a file was written to the device\n\n"
            "The pipe is /tmp/QNNOTIPIPE, or the path in QUORVEL_PIPE. It is created (mode 0600)\n"
            "when missing and removed at exit; an existing FIFO is used and left in place.\n"
            "Ctrl-C or SIGTERM ends the listener.\n");
}

void printRecord(const char *record) {
    _KTL_PIPE_DATA_BOX_FS_VALUE box;
    memcpy(&box, record, sizeof(box));
    char extension[sizeof(box.extension) + 1] = {0};
    memcpy(extension, box.extension, sizeof(box.extension));
    for (char *c = extension; *c != '\0'; ++c) {
        if (static_cast<unsigned char>(*c) < 0x20 || *c == 0x7f) *c = '?';  // keep the terminal sane
    }
    unsigned long long size = box.size;
    const char *dot = extension[0] != '\0' ? " ." : "";
    if (box.kind == kTransferRead)
        printf("read %llu bytes%s%s\n", size, dot, extension);
    else if (box.kind == kTransferWritten)
        printf("written %llu bytes%s%s\n", size, dot, extension);
    else
        printf("transfer of kind %u, %llu bytes%s%s\n", static_cast<unsigned>(box.kind), size, dot, extension);
}

// Prints every complete message at the front of the stream and drops it;
// an incomplete one stays for the next read.
void printMessages(std::string &stream) {
    std::vector<quorvel_tools::PipeMessage> messages;
    quorvel_tools::takePipeMessages(stream, &messages);
    for (const quorvel_tools::PipeMessage &message : messages) {
        switch (message.kind) {
        case quorvel_tools::PipeMessageKind::BusyOn: printf("busy on\n"); break;
        case quorvel_tools::PipeMessageKind::BusyOff: printf("busy off\n"); break;
        case quorvel_tools::PipeMessageKind::Transfer:
            printRecord(reinterpret_cast<const char *>(&message.record));
            break;
        case quorvel_tools::PipeMessageKind::UnreadableBatch:
            printf("unreadable batch (count %u)\n", static_cast<unsigned>(message.amount));
            break;
        case quorvel_tools::PipeMessageKind::Unknown: printf("skipped %zu unknown bytes\n", message.amount); break;
        }
    }
    fflush(stdout);
}

} // namespace

int cmdTray(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            printTrayUsage(stdout);
            return 0;
        }
        fprintf(stderr, "quorvel tray: unexpected argument '%s'\n\n", argv[i]);
        printTrayUsage(stderr);
        return 2;
    }

    const char *path = notifyPipePath();
    bool created = false;
    if (mkfifo(path, 0600) == 0) {
        created = true;
    } else if (errno == EEXIST) {
        struct stat st;
        if (lstat(path, &st) != 0 || !S_ISFIFO(st.st_mode)) {
            fprintf(stderr, "quorvel tray: %s exists and is not a FIFO; not using it\n", path);
            return 1;
        }
    } else {
        fprintf(stderr, "quorvel tray: cannot create %s: %s\n", path, strerror(errno));
        return 1;
    }

    // Signals are blocked except while waiting in ppoll, so a Ctrl-C can
    // never slip in between the check of the flag and the wait.
    sigset_t stopSignals, waitMask;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGHUP);
    sigprocmask(SIG_BLOCK, &stopSignals, &waitMask);
    sigdelset(&waitMask, SIGINT);
    sigdelset(&waitMask, SIGTERM);
    sigdelset(&waitMask, SIGHUP);
    struct sigaction onStop;
    memset(&onStop, 0, sizeof(onStop));
    onStop.sa_handler = requestStop;
    sigemptyset(&onStop.sa_mask);
    sigaction(SIGINT, &onStop, nullptr);
    sigaction(SIGTERM, &onStop, nullptr);
    sigaction(SIGHUP, &onStop, nullptr);
    // A closed standard output (`quorvel tray | head`) ends the loop below
    // through a failed write, so the FIFO is still cleaned up.
    signal(SIGPIPE, SIG_IGN);

    // Opened for reading and writing: holding a write end ourselves, we never
    // see end-of-file when a file system closes the pipe or stops, and the
    // open does not wait for a first writer.
    int fd = open(path, O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        fprintf(stderr, "quorvel tray: cannot open %s: %s\n", path, strerror(errno));
        if (created) unlink(path);
        return 1;
    }
    fprintf(stderr, "quorvel tray: listening on %s\n", path);
    setvbuf(stdout, nullptr, _IOLBF, 0);

    std::string stream;
    char chunk[4096];
    int status = 0;
    while (!stopRequested) {
        struct pollfd readable = {fd, POLLIN, 0};
        int ready = ppoll(&readable, 1, nullptr, &waitMask);
        if (ready < 0) {
            if (errno == EINTR) continue;
            fprintf(stderr, "quorvel tray: waiting on the pipe failed: %s\n", strerror(errno));
            status = 1;
            break;
        }
        ssize_t got = read(fd, chunk, sizeof(chunk));
        if (got < 0) {
            if (errno == EAGAIN || errno == EINTR) continue;
            fprintf(stderr, "quorvel tray: reading the pipe failed: %s\n", strerror(errno));
            status = 1;
            break;
        }
        stream.append(chunk, static_cast<size_t>(got));
        printMessages(stream);
        if (ferror(stdout)) break;
    }

    close(fd);
    if (created) unlink(path);
    return status;
}
