// `quorvel unmount`: ends a mount made by `quorvel mount` (or any FUSE
// mount of ours), detaching it lazily when something still uses it.
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/commands.h"
#include "tools/process.h"

using namespace quorvel_tools;

namespace {

void printUnmountUsage(FILE *out) {
    fprintf(out,
            "usage: quorvel unmount MOUNTPOINT\n"
            "\n"
            "Unmounts the device mounted at MOUNTPOINT (runs fusermount3 -u, or fusermount\n"
            "-u where only FUSE 2's tools are installed). When the\n"
            "mount is busy (a shell is inside it, a program has a file open), it is\n"
            "detached at once instead (fusermount3 -u -z) and goes away completely as\n"
            "soon as nothing uses it. A mount left behind by a file-system process that\n"
            "stopped (\"Transport endpoint is not connected\") is cleared the same way.\n");
}

} // namespace

int cmdUnmount(int argc, char **argv) {
    std::string given;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            printUnmountUsage(stdout);
            return 0;
        }
        if (argv[i][0] == '-' || !given.empty()) {
            fprintf(stderr, "quorvel unmount: unexpected argument '%s'\n\n", argv[i]);
            printUnmountUsage(stderr);
            return 2;
        }
        given = argv[i];
    }
    if (given.empty()) {
        fprintf(stderr, "quorvel unmount: which mount? Give its mount point.\n\n");
        printUnmountUsage(stderr);
        return 2;
    }

    std::string mountPoint = mountPointPath(given);
    MountEntry mounted;
    bool listed = findMount(mountPoint, &mounted);
    if (!listed && !isDeadMount(mountPoint)) {
        fprintf(stderr, "quorvel unmount: nothing is mounted at %s.\n", mountPoint.c_str());
        return 1;
    }
    if (listed && !isFuseType(mounted.type)) {
        // fusermount run by root would unmount anything; only FUSE mounts are ours to end.
        fprintf(stderr, "quorvel unmount: %s is a %s mount, not a FUSE one; leaving it alone.\n", mountPoint.c_str(),
                mounted.type.c_str());
        return 1;
    }

    std::string detail;
    switch (unmountFuse(mountPoint, &detail)) {
    case UnmountResult::Unmounted:
    case UnmountResult::NotMounted:
        printf("Unmounted %s.\n", mountPoint.c_str());
        return 0;
    case UnmountResult::Detached:
        printf("%s was busy (a shell inside it or an open file); it is detached now and goes away\n"
               "completely once nothing uses it.\n",
               mountPoint.c_str());
        return 0;
    case UnmountResult::Failed:
        break;
    }
    fprintf(stderr, "quorvel unmount: could not unmount %s.\n", mountPoint.c_str());
    if (!detail.empty()) fprintf(stderr, "%s said: %s\n", fusermountProgram().c_str(), detail.c_str());
    return 1;
}
