// `quorvel list`: every attached device with its location id (what `-devopt`
// takes), name, UDID and iOS version.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "device/libiusb.h"
#include "tools/commands.h"

namespace {

void printListUsage(FILE *out) {
    fprintf(out,
            "usage: quorvel list\n\n"
            "Shows every attached iPhone or iPad: its location id (the number a mount\n"
            "is given with -devopt), name, UDID and iOS version, or \"No device found.\".\n"
            "Devices are asked for through usbmuxd, or through the server named by\n"
            "USBMUXD_SOCKET_ADDRESS (for example UNIX:/tmp/devsim.sock) when it is set.\n");
}

// Columns are padded by characters, not bytes, so names in any script line up.
size_t displayWidth(const std::string &text) {
    size_t width = 0;
    for (unsigned char c : text) {
        if ((c & 0xC0) != 0x80) width++;
    }
    return width;
}

void printCell(const std::string &text, size_t width) {
    fputs(text.c_str(), stdout);
    for (size_t pad = displayWidth(text); pad < width; pad++) fputc(' ', stdout);
}

struct Row {
    std::string location_id, name, udid, ios_version;
};

std::string orDash(const char *text) { return text[0] == '\0' ? std::string("-") : std::string(text); }

} // namespace

int cmdList(int argc, char **argv) {
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            printListUsage(stdout);
            return 0;
        }
        fprintf(stderr, "quorvel list: unexpected argument '%s'\n\n", argv[i]);
        printListUsage(stderr);
        return 2;
    }

    libiusb_init_ex(nullptr, 1);
    libiusb_context *context = nullptr;
    int result = libiusb_context_init(&context);
    if (result != LIBIUSB_SUCCESS) {
        // Anything but "unreachable" is worth its own words.
        std::string why = result == LIBIUSB_ERROR_USBMUXD_UNREACHABLE
                              ? std::string()
                              : std::string(": ") + libiusb_error_name(result) + " (code " + std::to_string(result) + ")";
        const char *address = getenv("USBMUXD_SOCKET_ADDRESS");
        if (address != nullptr && *address != '\0') {
            fprintf(stderr,
                    "quorvel list: cannot reach usbmuxd at %s (set by USBMUXD_SOCKET_ADDRESS)%s.\n"
                    "Is the server behind that address running?\n",
                    address, why.c_str());
        } else {
            fprintf(stderr,
                    "quorvel list: cannot reach usbmuxd at /var/run/usbmuxd%s.\n"
                    "Is usbmuxd installed and running? It usually starts when a device is plugged in.\n",
                    why.c_str());
        }
        return 1;
    }

    libiusb_device **devices = nullptr;
    libiusb_device_get_list(context, &devices);
    std::vector<Row> rows;
    for (size_t i = 0; devices != nullptr && devices[i] != nullptr; i++) {
        libiusb_device_info info{};
        if (libiusb_device_get_info(devices[i], &info) != LIBIUSB_SUCCESS) continue;
        rows.push_back({std::to_string(info.location_id), orDash(info.device_name), orDash(info.udid),
                        orDash(info.ios_version)});
    }
    libiusb_context_exit(context);

    if (rows.empty()) {
        printf("No device found.\n");
        return 0;
    }
    Row heading{"LOCATION ID", "NAME", "UDID", "iOS"};
    size_t widths[3] = {displayWidth(heading.location_id), displayWidth(heading.name), displayWidth(heading.udid)};
    for (const Row &row : rows) {
        widths[0] = std::max(widths[0], displayWidth(row.location_id));
        widths[1] = std::max(widths[1], displayWidth(row.name));
        widths[2] = std::max(widths[2], displayWidth(row.udid));
    }
    rows.insert(rows.begin(), heading);
    for (const Row &row : rows) {
        printCell(row.location_id, widths[0] + 2);
        printCell(row.name, widths[1] + 2);
        printCell(row.udid, widths[2] + 2);
        printf("%s\n", row.ios_version.c_str());
    }
    return 0;
}
