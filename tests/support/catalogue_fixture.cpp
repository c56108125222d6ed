#include "tests/support/catalogue_fixture.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <dirent.h>
#include <sys/stat.h>

#include <fstream>
#include <random>

#include "tarnifs/catalogue.h"
#include "tarnifs/info_queries.h"
#include "tarnifs/names.h"
#include "util/log.h"

std::string makeTempDir(const char *prefix) {
    std::string pattern = std::string("/tmp/") + prefix + "XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) return std::string();
    return buffer.data();
}

void removeTree(const std::string &path) {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
}

std::vector<std::string> readLogMessages(const std::string &file) {
    std::vector<std::string> messages;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        // "[14H05M09S][4711]" precedes every message.
        size_t second = line.find("][");
        size_t end = second == std::string::npos ? std::string::npos : line.find(']', second + 2);
        messages.push_back(end == std::string::npos ? line : line.substr(end + 1));
    }
    return messages;
}

void MountContextTest::SetUp() {
    tempDir = makeTempDir("quorvel-test-");
    ASSERT_FALSE(tempDir.empty());
    setenv("QUORVEL_LOG_DIR", tempDir.c_str(), 1);
    unsetenv("QUORVEL_LOGLEVEL");
    QNLogInit();
    if (gEncodedPath == nullptr) gEncodedPath = static_cast<char *>(calloc(kEncodedPathSize, 1));
    fuse.private_data = &context;
    SetFuseContextForTesting(&fuse);
}

void MountContextTest::TearDown() {
    FreeAllObjects(nullptr);
    SetFuseContextForTesting(nullptr);
    free(gEncodedPath);
    gEncodedPath = nullptr;
    removeTree(tempDir);
}

std::vector<std::string> MountContextTest::logMessages() const { return readLogMessages(QNLogPath()); }

bool MountContextTest::logContains(const std::string &message) const { return logCount(message) > 0; }

int MountContextTest::logCount(const std::string &message) const {
    std::vector<std::string> lines = logMessages();
    return static_cast<int>(std::count(lines.begin(), lines.end(), message));
}

std::vector<std::string> MountContextTest::childNames(const char *path) {
    std::vector<std::string> names;
    _KTL_OBJECT *record = FindObject(path);
    if (record == nullptr) return names;
    for (_KTL_LIST_ENTRY *link = record->child_list.next; link != &record->child_list; link = link->next)
        names.push_back(ObjectFromSibling(link)->file_name);
    return names;
}

_KTL_OBJECT *MountContextTest::folder(const char *path) {
    _KTL_OBJECT *record = GetObjectWithFileName(path);
    record->mode = KTL_MODE_FOLDER;
    record->enumerated = 1;
    if (strcmp(path, "/") != 0) LinkChildObject(GetParentObject(path), record);
    return record;
}

_KTL_OBJECT *MountContextTest::file(const char *path, uint64_t size) {
    _KTL_OBJECT *record = GetObjectWithFileName(path);
    record->mode = KTL_MODE_FILE;
    record->size = size;
    LinkChildObject(GetParentObject(path), record);
    return record;
}

void MountContextTest::noDialog() {
    std::lock_guard<std::mutex> guard(context.dialog.message_lock);
    memset(context.dialog.dialog_message, 0, sizeof(context.dialog.dialog_message));
    context.dialog.dialog_title = nullptr;
}

std::string MountContextTest::dialogText() {
    std::lock_guard<std::mutex> guard(context.dialog.message_lock);
    return context.dialog.dialog_message;
}

std::string MountContextTest::dialogTitle() {
    std::lock_guard<std::mutex> guard(context.dialog.message_lock);
    return context.dialog.dialog_title != nullptr ? context.dialog.dialog_title : "";
}

void ConnectedContextTest::SetUp() {
    MountContextTest::SetUp();
    if (devsim_program().empty()) GTEST_SKIP() << "needs devsim, which was not built";
}

void ConnectedContextTest::connectTo(const DevsimImage &image) {
    ASSERT_TRUE(sim.start({image})) << sim.error();
    ASSERT_EQ(libiusb_context_init(&context.context), 0);
    ASSERT_EQ(device_init(&context, context.context, image.location_id), 0);
}

void ConnectedContextTest::TearDown() {
    // Records first: they may hold device handles on these connections.
    FreeAllObjects(context.afc_handle);
    closeStorageInfoStream(&context);
    if (context.instproxy_handle != nullptr) libiusb_instproxy_exit(context.instproxy_handle);
    if (context.afc_handle != nullptr) libiusb_afc_exit(context.afc_handle);
    if (context.device_handle != nullptr) libiusb_device_close(context.device_handle);
    if (context.context != nullptr) libiusb_context_exit(context.context);
    context.instproxy_handle = nullptr;
    context.afc_handle = nullptr;
    context.device_handle = nullptr;
    context.context = nullptr;
    if (sim.running()) {
        EXPECT_TRUE(sim.stop()) << sim.error();
    }
    MountContextTest::TearDown();
}

std::string readLocal(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

bool writeLocal(const std::string &path, const std::string &bytes) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    return static_cast<bool>(out);
}

std::string randomBytes(size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char &byte : bytes) byte = static_cast<char>(generator() & 0xff);
    return bytes;
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool isFolder(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int statError(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? 0 : errno;
}

off_t sizeOf(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

namespace {

std::vector<std::string> readNames(const std::string &folder, int *error, bool withDots) {
    std::vector<std::string> names;
    DIR *dir = opendir(folder.c_str());
    if (dir == nullptr) {
        if (error != nullptr) *error = errno;
        return names;
    }
    errno = 0;
    while (struct dirent *entry = readdir(dir))
        if (withDots || (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0))
            names.push_back(entry->d_name);
    if (error != nullptr) *error = errno;
    closedir(dir);
    return names;
}

} // namespace

std::vector<std::string> namesIn(const std::string &folder, int *error) { return readNames(folder, error, false); }

std::vector<std::string> entriesIn(const std::string &folder, int *error) { return readNames(folder, error, true); }

size_t occurrences(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
    return count;
}

std::string numbered(const char *prefix, size_t index) {
    char name[64];
    snprintf(name, sizeof(name), "%s%05zu", prefix, index);
    return name;
}
