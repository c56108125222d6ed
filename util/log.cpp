#include "util/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int g_logLevel = 3;
char logpath[1024];
char s[2048];
// The formatting buffer is shared by the request threads and the two
// background threads; the lock keeps their texts apart.
std::mutex logBufferLock;

// Where the "LogLevel" setting comes from on this platform: the environment.
// A missing or non-numeric value leaves the threshold at 3.
bool readConfiguredLogLevel(int *out) {
    const char *text = getenv("QUORVEL_LOGLEVEL");
    if (text == nullptr || *text == '\0') return false;
    char *end = nullptr;
    long value = strtol(text, &end, 10);
    if (end == text || *end != '\0') return false;
    *out = static_cast<int>(value);
    return true;
}

bool isWritableFolder(const std::string &dir) {
    struct stat st;
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && access(dir.c_str(), W_OK) == 0;
}

// /var/log when we may write there; QUORVEL_LOG_DIR overrides it; an
// unprivileged user falls back to $XDG_STATE_HOME/quorvel.
std::string chooseLogFolder() {
    const char *configured = getenv("QUORVEL_LOG_DIR");
    if (configured != nullptr && *configured != '\0') return configured;
    if (isWritableFolder("/var/log")) return "/var/log";
    std::string state;
    const char *xdg = getenv("XDG_STATE_HOME");
    if (xdg != nullptr && *xdg != '\0') {
        state = xdg;
    } else {
        const char *home = getenv("HOME");
        state = std::string(home != nullptr ? home : "/tmp") + "/.local/state";
    }
    std::string dir = state + "/quorvel";
    // Create the chain quietly; a failure shows up as "open log failed" later.
    std::string partial;
    for (size_t i = 1; i <= dir.size(); ++i) {
        if (i == dir.size() || dir[i] == '/') {
            partial = dir.substr(0, i);
            mkdir(partial.c_str(), 0700);
        }
    }
    return dir;
}

} // namespace

void QNLogInit() {
    // Each start-up decides the threshold afresh from its initial value.
    g_logLevel = 3;
    int configured = 3;
    if (readConfiguredLogLevel(&configured)) g_logLevel = configured;
    if (g_logLevel > 3) g_logLevel = 3;

    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char name[50] = {0};
    strftime(name, sizeof(name), "Quorvelfs%mM%dD.log", &local);

    std::string folder = chooseLogFolder();
    memset(logpath, 0, sizeof(logpath));
    snprintf(logpath, sizeof(logpath), "%s/%s", folder.c_str(), name);

    static const char *const enabledLines[] = {
        "[LOG_EMERG] Enabled", "[LOG_ALERT] Enabled", "[LOG_CRIT] Enabled",  "[LOG_ERR] Enabled",
        "[LOG_WARNING] Enabled", "[LOG_NOTICE] Enabled", "[LOG_INFO] Enabled", "[LOG_DEBUG] Enabled",
    };
    for (int level = 0; level < 8; ++level) QNLog(level, "%s", enabledLines[level]);
}

void QNLog(int level, const char *format, ...) {
    if (g_logLevel < level) return;
    time_t now = time(nullptr);

    std::lock_guard<std::mutex> guard(logBufferLock);
    FILE *file = fopen(logpath, "a+");
    if (file == nullptr) {
        perror("open log failed");
        return;
    }
    struct tm local;
    localtime_r(&now, &local);
    char stamp[64] = {0};
    strftime(stamp, sizeof(stamp), "[%HH%MM%SS]", &local);
    fputs(stamp, file);
    fprintf(file, "[%0d]", static_cast<int>(getpid()));

    memset(s, 0, sizeof(s));
    va_list args;
    va_start(args, format);
    vsnprintf(s, sizeof(s), format, args);
    va_end(args);
    fputs(s, file);
    fputc('\n', file);
    fclose(file);
}

const char *QNLogPath() { return logpath; }
