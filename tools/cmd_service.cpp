// `quorvel install-service`: makes `quorvel watch` a systemd user service
// that starts with the user's graphical session, or takes it away again.
// It only ever acts for the user who runs it: the unit goes into that user's
// own configuration and systemctl is asked with --user.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "tools/commands.h"
#include "tools/process.h"
#include "tools/unit_template.h"

using namespace quorvel_tools;

namespace {

constexpr const char *kUnitName = "quorvel-watch.service";
// Exit status when there is no systemd user manager to hand the unit to
// (systemctl missing, or `systemctl --user` cannot reach the manager), so a
// script can fall back to starting `quorvel watch` some other way.
constexpr int kNoUserManager = 3;

void printServiceUsage(FILE *out) {
    fprintf(out,
            "usage: quorvel install-service [--no-enable | --uninstall]\n"
            "\n"
            "Makes `quorvel watch` start with your graphical session, as a systemd user\n"
            "service (it runs as you, never as root):\n"
            "  1. writes the unit %s into $XDG_CONFIG_HOME/systemd/user\n"
            "     (default ~/.config/systemd/user), running this quorvel's `watch`,\n"
            "  2. runs `systemctl --user daemon-reload` and\n"
            "     `systemctl --user enable --now %s`.\n"
            "\n"
            "  --no-enable    only write the unit; systemctl is not run\n"
            "  --uninstall    disable and stop the service, then remove the unit\n"
            "\n"
            "Exit status: 0 done; 1 failed; 2 wrong arguments; %d no systemd user\n"
            "manager (systemctl missing or not answering): the unit is written, start\n"
            "`quorvel watch` from your session's autostart instead.\n",
            kUnitName, kUnitName, kNoUserManager);
}

// Where systemd looks for the user's own units.
std::string userUnitFolder(std::string *error) {
    const char *config = getenv("XDG_CONFIG_HOME");
    // The base directory rules ignore a relative value.
    if (config != nullptr && config[0] == '/') return std::string(config) + "/systemd/user";
    const char *home = getenv("HOME");
    if (home == nullptr || home[0] != '/') {
        *error = "neither XDG_CONFIG_HOME nor HOME names a folder to keep the unit in";
        return "";
    }
    return std::string(home) + "/.config/systemd/user";
}

// A path as one ExecStart word: systemd splits on spaces, reads quotes and
// backslashes, and expands "%" specifiers and "$" variables, so a build or
// install folder with any of these must not change the program it names.
std::string execStartWord(const std::string &path) {
    std::string word;
    bool quote = false;
    for (char c : path) {
        if (c == '%') {
            word += "%%";
        } else if (c == '$') {
            word += "$$";
        } else if (c == '\\' || c == '"') {
            word += '\\';
            word += c;
            quote = true;
        } else {
            if (c == ' ' || c == '\t' || c == '\'' || c == ';') quote = true;
            word += c;
        }
    }
    return quote ? "\"" + word + "\"" : word;
}

// The unit's text: the installed unit's, naming the program at `quorvelPath`.
std::string unitText(const std::string &quorvelPath) {
    std::string text = kUnitTemplate;
    size_t at = text.find(kUnitPathPlaceholder);
    if (at != std::string::npos) text.replace(at, strlen(kUnitPathPlaceholder), execStartWord(quorvelPath));
    return text;
}

// Runs `systemctl --user ARGS...`. 0 when it succeeded; otherwise prints why
// and returns the exit status the command should end with.
int userSystemctl(const std::vector<std::string> &args) {
    std::vector<std::string> argv = {"systemctl", "--user"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string output;
    int status = runAndCapture(argv, &output, 120);
    if (status == 0) return 0;
    while (!output.empty() && output.back() == '\n') output.pop_back();
    std::string command;
    for (const std::string &arg : argv) command += (command.empty() ? "" : " ") + arg;
    if (status == -1 && output.find("not found") != std::string::npos) {
        fprintf(stderr, "quorvel install-service: systemctl was not found: this system does not run systemd.\n");
        return kNoUserManager;
    }
    // systemctl says "Failed to connect to bus" when no user manager runs for
    // us (a su or sudo shell, a container): nothing it was asked could happen.
    if (output.find("Failed to connect to bus") != std::string::npos ||
        output.find("XDG_RUNTIME_DIR") != std::string::npos) {
        fprintf(stderr,
                "quorvel install-service: the systemd user manager did not answer `%s`:\n  %s\n"
                "Run this as yourself in your desktop session (not through su or sudo).\n",
                command.c_str(), output.c_str());
        return kNoUserManager;
    }
    fprintf(stderr, "quorvel install-service: `%s` failed:\n  %s\n", command.c_str(), output.c_str());
    return 1;
}

bool writeUnit(const std::string &folder, const std::string &text, std::string *error) {
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    if (ec) {
        *error = "cannot create " + folder + ": " + ec.message();
        return false;
    }
    // Written beside and renamed over, so the manager never reads half a unit.
    std::string target = folder + "/" + kUnitName;
    std::string temporary = target + ".new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << text;
        out.close();
        if (!out) {
            *error = "cannot write " + temporary;
            std::filesystem::remove(temporary, ec);
            return false;
        }
    }
    std::filesystem::rename(temporary, target, ec);
    if (ec) {
        *error = "cannot write " + target + ": " + ec.message();
        std::filesystem::remove(temporary, ec);
        return false;
    }
    return true;
}

int install(bool enable) {
    std::string error;
    std::string folder = userUnitFolder(&error);
    if (folder.empty()) {
        fprintf(stderr, "quorvel install-service: %s.\n", error.c_str());
        return 1;
    }
    char exe[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (length <= 0) {
        fprintf(stderr, "quorvel install-service: cannot tell where this quorvel is (/proc/self/exe).\n");
        return 1;
    }
    exe[length] = '\0';
    if (!writeUnit(folder, unitText(exe), &error)) {
        fprintf(stderr, "quorvel install-service: %s.\n", error.c_str());
        return 1;
    }
    std::string unitPath = folder + "/" + kUnitName;
    printf("Wrote %s (runs %s watch).\n", unitPath.c_str(), exe);
    if (!enable) {
        printf("Start it with: systemctl --user enable --now %s\n", kUnitName);
        return 0;
    }
    int status = userSystemctl({"daemon-reload"});
    if (status == 0) status = userSystemctl({"enable", "--now", kUnitName});
    if (status != 0) {
        fprintf(stderr, "The unit is written; `quorvel watch` is not running as a service.\n");
        return status;
    }
    printf("Enabled and started %s: devices are mounted as they are plugged in.\n", kUnitName);
    return 0;
}

int uninstall() {
    std::string error;
    std::string folder = userUnitFolder(&error);
    if (folder.empty()) {
        fprintf(stderr, "quorvel install-service: %s.\n", error.c_str());
        return 1;
    }
    std::string unitPath = folder + "/" + kUnitName;
    std::error_code ec;
    if (!std::filesystem::exists(std::filesystem::symlink_status(unitPath, ec))) {
        printf("%s is not installed for this user; nothing to do.\n", unitPath.c_str());
        return 0;
    }
    // Disabled while the unit still exists: systemctl finds the links to
    // remove by reading its [Install] section.
    int status = userSystemctl({"disable", "--now", kUnitName});
    if (status == kNoUserManager) {
        // Without a manager, the link `enable` made is removed by hand, so no
        // dangling name is left in the session's target.
        std::string link = folder + "/graphical-session.target.wants/" + kUnitName;
        if (std::filesystem::is_symlink(std::filesystem::symlink_status(link, ec))) std::filesystem::remove(link, ec);
    } else if (status != 0) {
        fprintf(stderr, "The unit is left in place: %s\n", unitPath.c_str());
        return status;
    }
    if (!std::filesystem::remove(unitPath, ec) && ec) {
        fprintf(stderr, "quorvel install-service: cannot remove %s: %s.\n", unitPath.c_str(), ec.message().c_str());
        return 1;
    }
    printf("Removed %s.\n", unitPath.c_str());
    if (status == 0) status = userSystemctl({"daemon-reload"});
    return status;
}

} // namespace

int cmdInstallService(int argc, char **argv) {
    bool enable = true;
    bool remove = false;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            printServiceUsage(stdout);
            return 0;
        }
        if (strcmp(argv[i], "--no-enable") == 0) {
            enable = false;
        } else if (strcmp(argv[i], "--uninstall") == 0) {
            remove = true;
        } else {
            fprintf(stderr, "quorvel install-service: unexpected argument '%s'\n\n", argv[i]);
            printServiceUsage(stderr);
            return 2;
        }
    }
    if (remove && !enable) {
        fprintf(stderr, "quorvel install-service: --no-enable and --uninstall do not go together.\n\n");
        printServiceUsage(stderr);
        return 2;
    }
    // Root's own user manager has no desktop session, and a unit written there
    // would mount devices as root: the service is each desktop user's.
    if (geteuid() == 0) {
        fprintf(stderr, "quorvel install-service: run this as the user who logs in to the desktop, not as root.\n");
        return 1;
    }
    return remove ? uninstall() : install(enable);
}
