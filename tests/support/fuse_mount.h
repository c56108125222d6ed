// Runs the file-system process (quorvelfs) against a device server through a
// real FUSE mount, for end-to-end tests.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// Why a mount test cannot run here, or "" when it can.
std::string fuseUnavailableReason();

struct RecordedDialog {
    std::string kind, title, message, button;
};

// A QUORVEL_DIALOG program that appends each dialog to a file, so tests can
// read back exactly what a user would have been shown.
struct DialogRecorder {
    std::string script;
    std::string record;
    void create(const std::string &folder);
    std::vector<RecordedDialog> dialogs() const;
    // Dialogs are shown by their own thread: waits (up to 20 s) until at least `count` were recorded.
    std::vector<RecordedDialog> waitForDialogs(size_t count) const;
    // The same, then waits until no new one came for `quietRounds` tenths of
    // a second: a fault may fail several requests in flight, each with its dialog.
    std::vector<RecordedDialog> waitForDialogsToSettle(size_t count, int quietRounds) const;
};

struct QuorvelMount {
    std::string mountPoint;
    std::string logDir;
    std::vector<std::string> extraEnvironment;  // "NAME=value"
    pid_t pid = -1;

    // Starts quorvelfs in the foreground for `locationId` and waits until the
    // mount point is a FUSE mount. False when it did not appear in time.
    bool start(unsigned int locationId, const std::vector<std::string> &fuseOptions = {});
    // Unmounts and waits for the process; returns its exit status, or -1.
    int stop();
    // The messages of the mount's log, without time stamp and process id.
    std::vector<std::string> logMessages() const;
    int countLog(const std::string &message) const;
    // The log lines that start with `prefix`.
    int countLogStarting(const std::string &prefix) const;
};

bool isFuseMountPoint(const std::string &path);
// The quorvel program built with the tests, or "" when it was not built.
std::string quorvelProgram();
// fusermount3, or fusermount where only FUSE 2's tools are installed.
std::string fusermountProgram();
// Returns once every folder this process closed in the mount has been
// released by the file system (see the definition for why that matters).
void waitForQueuedReleases(const std::string &mountPoint);
// Runs a program with an argument vector; its standard output, and its exit status in *status.
std::string runProgram(const std::vector<std::string> &argv, int *status = nullptr);
// The same for a program whose output does not matter: only its exit status.
int runStatus(const std::vector<std::string> &argv);
// Starts a program left running, its standard output and error going to
// `outputFile`; should this process die first, it gets SIGTERM (as from
// Ctrl-C). Its process id.
pid_t startProgram(const std::vector<std::string> &argv, const std::string &outputFile);
// Waits up to `seconds` for `pid` to end, after sending it `sig` (0: none);
// its exit status, or -1 when a signal ended it or it did not end (it is then killed).
int exitStatusOf(pid_t pid, int sig, int seconds = 120);
