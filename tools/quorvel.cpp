// `quorvel`: the user's entry to everything the project offers.
#include <cstdio>
#include <cstring>

#include "tools/commands.h"

namespace {

struct Subcommand {
    const char *name;
    int (*run)(int, char **);
    const char *summary;
};

const Subcommand subcommands[] = {
    {"list", cmdList, "show every attached device: location id, name, UDID, iOS version"},
    {"mount", cmdMount, "mount a device at a folder: quorvel mount MOUNTPOINT [--udid UDID | --location ID]"},
    {"unmount", cmdUnmount, "unmount it again: quorvel unmount MOUNTPOINT"},
    {"watch", cmdWatch, "mount every device as it is plugged in, at DIR/<name>: quorvel watch [--dir DIR]"},
    {"demo", cmdDemo, "mount a simulated iPhone at ./quorvel-demo to browse, until Ctrl-C"},
    {"tray", cmdTray, "listen on the notification pipe and print what the file system reports"},
    {"install-service", cmdInstallService, "start `quorvel watch` with your desktop session (systemd user unit)"},
};

void printUsage(FILE *out) {
    fprintf(out, "usage: quorvel <command> [arguments]\n\ncommands:\n");
    for (const Subcommand &sub : subcommands) fprintf(out, "  %-15s %s\n", sub.name, sub.summary);
    fprintf(out, "\n`quorvel <command> --help` explains each command.\n");
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        printUsage(stderr);
        return 2;
    }
    if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "help") == 0) {
        printUsage(stdout);
        return 0;
    }
    for (const Subcommand &sub : subcommands) {
        if (strcmp(argv[1], sub.name) == 0) return sub.run(argc - 1, argv + 1);
    }
    fprintf(stderr, "quorvel: unknown command '%s'\n\n", argv[1]);
    printUsage(stderr);
    return 2;
}
