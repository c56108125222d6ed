// AFC: the file service. Every path is resolved inside the connection's root
// folder (media/ or an app's container) by the kernel (openat2 with
// RESOLVE_IN_ROOT), so neither "..", absolute paths nor symbolic links can
// leave it.
#include "devsim/server.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>

namespace devsim {

namespace {

enum AfcOperation : uint64_t {
  kOpStatus = 0x01,
  kOpData = 0x02,
  kOpReadDir = 0x03,
  kOpTruncate = 0x07,
  kOpRemovePath = 0x08,
  kOpMakeDir = 0x09,
  kOpGetFileInfo = 0x0A,
  kOpGetDeviceInfo = 0x0B,
  kOpFileOpen = 0x0D,
  kOpFileOpenResult = 0x0E,
  kOpFileRead = 0x0F,
  kOpFileWrite = 0x10,
  kOpFileSeek = 0x11,
  kOpFileTell = 0x12,
  kOpFileTellResult = 0x13,
  kOpFileClose = 0x14,
  kOpFileSetSize = 0x15,
  kOpGetConnectionInfo = 0x16,
  kOpSetConnectionOptions = 0x17,
  kOpRenamePath = 0x18,
  kOpSetFsBlockSize = 0x19,
  kOpSetSocketBlockSize = 0x1A,
  kOpFileLock = 0x1B,
  kOpMakeLink = 0x1C,
  kOpSetFileModTime = 0x1E,
  kOpRemovePathAndContents = 0x22,
  kOpLastKnown = 0x28,
};

// Error numbers as a phone sends them (libimobiledevice's afc_error_t).
enum AfcError : uint64_t {
  kSuccess = 0,
  kUnknownError = 1,  // also what a phone answers for "directory not empty"
  kReadError = 4,     // reading a folder that is not one
  kUnknownPacketType = 6,
  kInvalidArg = 7,
  kObjectNotFound = 8,
  kObjectIsDir = 9,
  kPermDenied = 10,
  kObjectExists = 16,
  kNoSpaceLeft = 18,
  kWouldBlock = 19,
  kIoError = 20,
};

constexpr uint64_t kMaxParameters = 64 * 1024;
constexpr uint64_t kMaxPayload = 64ull * 1024 * 1024 + 4096;
constexpr uint64_t kMaxReadLength = 16ull * 1024 * 1024;

struct AfcHeader {
  char magic[8];
  uint64_t entire_length;
  uint64_t this_length;
  uint64_t packet_num;
  uint64_t operation;
};
static_assert(sizeof(AfcHeader) == 40, "AFC header is 40 bytes");

struct OpenFile {
  int fd = -1;  // -1: a made-up file of a hostile device, read from `content`
  uint64_t mode = 0;
  std::string path;  // as shown to fault patterns
  std::string content;
  uint64_t position = 0;
  ReplyShape read_shape = ReplyShape::honest;
};

struct Reply {
  uint64_t operation = kOpStatus;
  std::vector<char> data;
  ReplyShape shape = ReplyShape::honest;
};

struct Target {
  std::string rel;     // normalised, relative to the root; "" is the root
  std::string parent;  // folder holding it, relative; "" is the root
  std::string name;    // last component; "" for the root
  std::string shown;   // "/" + rel
};

struct Session {
  Connection& conn;
  Device& device;
  int root_fd = -1;
  bool media_root = false;  // hostile mode applies to the media tree only
  std::map<uint64_t, OpenFile> files;
  uint64_t next_handle = 1;
  uint64_t data_bytes = 0;  // file bytes moved by the current request
};

Reply status(uint64_t code) {
  Reply reply;
  reply.operation = kOpStatus;
  reply.data.resize(8);
  memcpy(reply.data.data(), &code, 8);
  return reply;
}

Reply number_reply(uint64_t operation, uint64_t value) {
  Reply reply = status(value);
  reply.operation = operation;
  return reply;
}

Reply strings_reply(const std::vector<std::string>& strings) {
  Reply reply;
  reply.operation = kOpData;
  for (const std::string& s : strings) {
    reply.data.insert(reply.data.end(), s.begin(), s.end());
    reply.data.push_back('\0');
  }
  return reply;
}

uint64_t afc_error_from_errno(int error) {
  switch (error) {
    case ENOENT: case ELOOP: return kObjectNotFound;
    case EEXIST: return kObjectExists;
    case ENOTDIR: return kReadError;
    case ENOTEMPTY: return kUnknownError;
    case EACCES: case EPERM: case EROFS: case EXDEV: return kPermDenied;
    case ENOSPC: case EDQUOT: return kNoSpaceLeft;
    case EISDIR: return kObjectIsDir;
    case EINVAL: case EBADF: case ENAMETOOLONG: return kInvalidArg;
    case EWOULDBLOCK: return kWouldBlock;
    default: return kIoError;
  }
}

Reply errno_status() { return status(afc_error_from_errno(errno)); }

// Lexical normalisation: "." and empty parts vanish, ".." never climbs above
// the root.
Target target_of(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string part = path.substr(start, end - start);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    start = end + 1;
  }
  Target target;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i + 1 < parts.size()) target.parent += (target.parent.empty() ? "" : "/") + parts[i];
  }
  target.name = parts.empty() ? "" : parts.back();
  target.rel = target.parent.empty() ? target.name : target.parent + "/" + target.name;
  target.shown = "/" + target.rel;
  return target;
}

int open_in_root(int root_fd, const std::string& rel, int flags, mode_t mode = 0) {
  struct open_how how;
  memset(&how, 0, sizeof how);
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.mode = (flags & O_CREAT) ? mode : 0;
  how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
  for (;;) {
    long fd = syscall(SYS_openat2, root_fd, rel.empty() ? "." : rel.c_str(), &how, sizeof how);
    if (fd >= 0 || errno != EAGAIN) return static_cast<int>(fd);
  }
}

// The folder holding `target`, as an O_PATH descriptor; -1 with errno set.
int open_parent(Session& s, const Target& target) {
  return open_in_root(s.root_fd, target.parent, O_PATH | O_DIRECTORY);
}

struct FdGuard {
  int fd;
  ~FdGuard() {
    if (fd >= 0) close(fd);
  }
};

// ---- request parameters ----

struct Params {
  const std::vector<char>& bytes;
  size_t offset = 0;
  bool take_u64(uint64_t& value) {
    if (bytes.size() - offset < 8) return false;
    memcpy(&value, bytes.data() + offset, 8);
    offset += 8;
    return true;
  }
  bool take_string(std::string& value) {
    const char* begin = bytes.data() + offset;
    const void* nul = memchr(begin, '\0', bytes.size() - offset);
    if (nul == nullptr) return false;
    value.assign(begin, static_cast<const char*>(nul));
    offset += value.size() + 1;
    return true;
  }
};

// ---- storage accounting ----

uint64_t free_bytes(Device& device) {
  uint64_t capacity = device.capacity_bytes.load();
  return device.stored_bytes < capacity ? capacity - device.stored_bytes : 0;
}

void recount_storage(Device& device) { device.stored_bytes = measure_stored_bytes(device.image.dir); }

// Sets an open file's size, checking free space. Caller holds storage_mutex.
uint64_t resize_locked(Device& device, int fd, uint64_t new_size) {
  struct stat st;
  if (fstat(fd, &st) != 0) return afc_error_from_errno(errno);
  if (S_ISDIR(st.st_mode)) return kObjectIsDir;
  uint64_t old_size = static_cast<uint64_t>(st.st_size);
  if (new_size > old_size && new_size - old_size > free_bytes(device)) return kNoSpaceLeft;
  if (ftruncate(fd, static_cast<off_t>(new_size)) != 0) return afc_error_from_errno(errno);
  if (st.st_nlink > 0) {  // an unlinked file no longer counts
    uint64_t without = device.stored_bytes >= old_size ? device.stored_bytes - old_size : 0;
    device.stored_bytes = without + new_size;
  }
  return kSuccess;
}

uint64_t remove_tree_at(int dir_fd, const std::string& name) {
  struct stat st;
  if (fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return afc_error_from_errno(errno);
  if (!S_ISDIR(st.st_mode)) {
    return unlinkat(dir_fd, name.c_str(), 0) == 0 ? kSuccess : afc_error_from_errno(errno);
  }
  int child = openat(dir_fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (child < 0) return afc_error_from_errno(errno);
  DIR* dir = fdopendir(child);
  if (dir == nullptr) {
    close(child);
    return afc_error_from_errno(errno);
  }
  std::vector<std::string> names;
  while (struct dirent* entry = readdir(dir)) {
    std::string entry_name = entry->d_name;
    if (entry_name != "." && entry_name != "..") names.push_back(entry_name);
  }
  uint64_t result = kSuccess;
  for (const std::string& entry_name : names) {
    uint64_t r = remove_tree_at(dirfd(dir), entry_name);
    if (r != kSuccess && result == kSuccess) result = r;
  }
  closedir(dir);
  if (result != kSuccess) return result;
  return unlinkat(dir_fd, name.c_str(), AT_REMOVEDIR) == 0 ? kSuccess : afc_error_from_errno(errno);
}

uint64_t nanoseconds(const struct statx_timestamp& t) {
  return static_cast<uint64_t>(t.tv_sec) * 1000000000ull + t.tv_nsec;
}

// ---- operations ----

Reply read_directory(Session& s, const Target& target) {
  int fd = open_in_root(s.root_fd, target.rel, O_RDONLY | O_DIRECTORY);
  if (fd < 0) return errno_status();
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    close(fd);
    return errno_status();
  }
  std::vector<std::string> names;
  while (struct dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  // A hostile device shows its made-up folder in the storage folder.
  if (s.media_root && s.device.hostile.load() != 0 && target.rel == "general_storage" &&
      std::find(names.begin(), names.end(), "Hostile") == names.end()) {
    names.push_back("Hostile");
  }
  std::sort(names.begin(), names.end());
  names.insert(names.begin(), {".", ".."});
  return strings_reply(names);
}

Reply file_info(Session& s, const Target& target) {
  int parent = target.name.empty() ? -1 : open_parent(s, target);
  if (!target.name.empty() && parent < 0) return errno_status();
  FdGuard guard{parent};
  struct statx stx;
  int rc = target.name.empty()
               ? statx(s.root_fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &stx)
               : statx(parent, target.name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &stx);
  if (rc != 0) return errno_status();
  const char* kind = "S_IFREG";
  if (S_ISDIR(stx.stx_mode)) kind = "S_IFDIR";
  if (S_ISLNK(stx.stx_mode)) kind = "S_IFLNK";
  if (S_ISCHR(stx.stx_mode)) kind = "S_IFCHR";
  if (S_ISBLK(stx.stx_mode)) kind = "S_IFBLK";
  if (S_ISFIFO(stx.stx_mode)) kind = "S_IFIFO";
  if (S_ISSOCK(stx.stx_mode)) kind = "S_IFSOCK";
  uint64_t block = s.device.image.block_size;
  uint64_t size = S_ISREG(stx.stx_mode) || S_ISLNK(stx.stx_mode) ? stx.stx_size : 0;
  if (S_ISDIR(stx.stx_mode)) size = 64 + 32ull * stx.stx_nlink;
  uint64_t blocks = (size + block - 1) / block * block / 512;
  uint64_t mtime = nanoseconds(stx.stx_mtime);
  uint64_t birth = (stx.stx_mask & STATX_BTIME) ? nanoseconds(stx.stx_btime) : mtime;
  std::vector<std::string> info = {"st_size",  std::to_string(size),     "st_blocks",    std::to_string(blocks),
                                   "st_nlink", std::to_string(stx.stx_nlink), "st_ifmt", kind,
                                   "st_mtime", std::to_string(mtime),    "st_birthtime", std::to_string(birth)};
  if (S_ISLNK(stx.stx_mode)) {
    char link[4096];
    ssize_t n = readlinkat(parent, target.name.c_str(), link, sizeof link - 1);
    if (n >= 0) {
      info.push_back("LinkTarget");
      info.push_back(std::string(link, static_cast<size_t>(n)));
    }
  }
  return strings_reply(info);
}

Reply device_info(Session& s) {
  uint64_t free_now;
  {
    std::lock_guard<std::mutex> lock(s.device.storage_mutex);
    free_now = free_bytes(s.device);
  }
  return strings_reply({"Model", s.device.image.product_type, "FSTotalBytes",
                        std::to_string(s.device.capacity_bytes.load()), "FSFreeBytes", std::to_string(free_now),
                        "FSBlockSize", std::to_string(s.device.image.block_size)});
}

bool readable(uint64_t mode) { return mode == 1 || mode == 2 || mode == 4 || mode == 6; }
bool writable(uint64_t mode) { return mode >= 2 && mode <= 6; }

Reply file_open(Session& s, uint64_t mode, const Target& target) {
  static const int kFlags[] = {0,
                               O_RDONLY,
                               O_RDWR | O_CREAT,
                               O_WRONLY | O_CREAT,
                               O_RDWR | O_CREAT,
                               O_WRONLY | O_APPEND | O_CREAT,
                               O_RDWR | O_APPEND | O_CREAT};
  if (mode < 1 || mode > 6) return status(kInvalidArg);
  if (target.rel.empty()) return status(kObjectIsDir);
  bool truncating = mode == 3 || mode == 4;
  std::lock_guard<std::mutex> lock(s.device.storage_mutex);
  int fd = open_in_root(s.root_fd, target.rel, kFlags[mode], 0644);
  if (fd < 0) return errno_status();
  struct stat st;
  if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    close(fd);
    return status(kObjectIsDir);
  }
  if (truncating) {
    uint64_t result = resize_locked(s.device, fd, 0);
    if (result != kSuccess) {
      close(fd);
      return status(result);
    }
  }
  uint64_t handle = s.next_handle++;
  OpenFile file;
  file.fd = fd;
  file.mode = mode;
  file.path = target.shown;
  s.files[handle] = file;
  return number_reply(kOpFileOpenResult, handle);
}

Reply file_read(Session& s, OpenFile& file, uint64_t length) {
  if (!readable(file.mode)) return status(kPermDenied);
  length = std::min(length, kMaxReadLength);
  Reply reply;
  reply.operation = kOpData;
  reply.data.resize(length);
  size_t done = 0;
  while (done < length) {
    ssize_t n = read(file.fd, reply.data.data() + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno_status();
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  reply.data.resize(done);
  s.data_bytes += done;
  return reply;
}

Reply file_write(Session& s, OpenFile& file, const std::vector<char>& payload) {
  if (!writable(file.mode)) return status(kPermDenied);
  s.data_bytes += payload.size();
  std::lock_guard<std::mutex> lock(s.device.storage_mutex);
  struct stat st;
  if (fstat(file.fd, &st) != 0) return errno_status();
  uint64_t size = static_cast<uint64_t>(st.st_size);
  bool append = file.mode == 5 || file.mode == 6;
  off_t position = lseek(file.fd, 0, SEEK_CUR);
  if (position < 0) return errno_status();
  uint64_t end = (append ? size : static_cast<uint64_t>(position)) + payload.size();
  uint64_t growth = end > size ? end - size : 0;
  if (growth > free_bytes(s.device)) return status(kNoSpaceLeft);
  size_t done = 0;
  while (done < payload.size()) {
    ssize_t n = write(file.fd, payload.data() + done, payload.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      recount_storage(s.device);
      return errno_status();
    }
    done += static_cast<size_t>(n);
  }
  if (st.st_nlink > 0) s.device.stored_bytes += growth;
  return status(kSuccess);
}

Reply file_seek(OpenFile& file, uint64_t whence, int64_t offset) {
  if (whence > 2) return status(kInvalidArg);
  int how = whence == 0 ? SEEK_SET : whence == 1 ? SEEK_CUR : SEEK_END;
  if (lseek(file.fd, offset, how) < 0) return status(kInvalidArg);
  return status(kSuccess);
}

Reply file_set_size(Session& s, OpenFile& file, uint64_t size) {
  if (!writable(file.mode)) return status(kPermDenied);
  std::lock_guard<std::mutex> lock(s.device.storage_mutex);
  return status(resize_locked(s.device, file.fd, size));
}

Reply truncate_path(Session& s, const Target& target, uint64_t size) {
  if (target.rel.empty()) return status(kObjectIsDir);
  std::lock_guard<std::mutex> lock(s.device.storage_mutex);
  int fd = open_in_root(s.root_fd, target.rel, O_WRONLY);
  if (fd < 0) return errno_status();
  FdGuard guard{fd};
  return status(resize_locked(s.device, fd, size));
}

Reply remove_path(Session& s, const Target& target) {
  if (target.rel.empty()) return status(kPermDenied);
  int parent = open_parent(s, target);
  if (parent < 0) return errno_status();
  FdGuard guard{parent};
  std::lock_guard<std::mutex> lock(s.device.storage_mutex);
  struct stat st;
  if (fstatat(parent, target.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return errno_status();
  int flags = S_ISDIR(st.st_mode) ? AT_REMOVEDIR : 0;
  if (unlinkat(parent, target.name.c_str(), flags) != 0) return errno_status();
  if (S_ISREG(st.st_mode) && st.st_nlink == 1) {
    uint64_t size = static_cast<uint64_t>(st.st_size);
    s.device.stored_bytes = s.device.stored_bytes >= size ? s.device.stored_bytes - size : 0;
  } else if (S_ISREG(st.st_mode)) {
    recount_storage(s.device);
  }
  return status(kSuccess);
}

Reply remove_all(Session& s, const Target& target) {
  if (target.rel.empty()) return status(kPermDenied);
  int parent = open_parent(s, target);
  if (parent < 0) return errno_status();
  FdGuard guard{parent};
  std::lock_guard<std::mutex> lock(s.device.storage_mutex);
  uint64_t result = remove_tree_at(parent, target.name);
  recount_storage(s.device);
  return status(result);
}

Reply make_directory(Session& s, const Target& target) {
  if (target.rel.empty()) return status(kSuccess);
  int parent = open_parent(s, target);
  if (parent < 0) return errno_status();
  FdGuard guard{parent};
  if (mkdirat(parent, target.name.c_str(), 0755) == 0) return status(kSuccess);
  if (errno != EEXIST) return errno_status();
  // Making a folder that is already there succeeds on a phone.
  struct stat st;
  if (fstatat(parent, target.name.c_str(), &st, 0) == 0 && S_ISDIR(st.st_mode)) return status(kSuccess);
  return status(kObjectExists);
}

Reply rename_path(Session& s, const Target& from, const Target& to) {
  if (from.rel.empty() || to.rel.empty()) return status(kPermDenied);
  int from_parent = open_parent(s, from);
  if (from_parent < 0) return errno_status();
  FdGuard from_guard{from_parent};
  int to_parent = open_parent(s, to);
  if (to_parent < 0) return errno_status();
  FdGuard to_guard{to_parent};
  std::lock_guard<std::mutex> lock(s.device.storage_mutex);
  struct stat st;
  bool replaces_file = fstatat(to_parent, to.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
  if (renameat(from_parent, from.name.c_str(), to_parent, to.name.c_str()) != 0) return errno_status();
  if (replaces_file) recount_storage(s.device);
  return status(kSuccess);
}

Reply make_link(Session& s, uint64_t type, const std::string& link_target, const Target& link) {
  if (type != 1 && type != 2) return status(kInvalidArg);
  if (link_target.empty()) return status(kInvalidArg);
  if (link.rel.empty()) return status(kObjectExists);
  int parent = open_parent(s, link);
  if (parent < 0) return errno_status();
  FdGuard guard{parent};
  if (type == 2) {
    // The link text is stored as given; following it later still resolves
    // inside the root.
    if (symlinkat(link_target.c_str(), parent, link.name.c_str()) != 0) return errno_status();
    return status(kSuccess);
  }
  Target source = target_of(link_target);
  if (source.rel.empty()) return status(kPermDenied);
  int source_parent = open_parent(s, source);
  if (source_parent < 0) return errno_status();
  FdGuard source_guard{source_parent};
  if (linkat(source_parent, source.name.c_str(), parent, link.name.c_str(), 0) != 0) return errno_status();
  return status(kSuccess);
}

Reply set_mod_time(Session& s, const Target& target, uint64_t ns) {
  struct timespec times[2];
  times[0].tv_sec = 0;
  times[0].tv_nsec = UTIME_OMIT;
  times[1].tv_sec = static_cast<time_t>(ns / 1000000000ull);
  times[1].tv_nsec = static_cast<long>(ns % 1000000000ull);
  if (target.rel.empty()) {
    int fd = open_in_root(s.root_fd, "", O_RDONLY | O_DIRECTORY);
    if (fd < 0) return errno_status();
    FdGuard guard{fd};
    return futimens(fd, times) == 0 ? status(kSuccess) : errno_status();
  }
  int parent = open_parent(s, target);
  if (parent < 0) return errno_status();
  FdGuard guard{parent};
  if (utimensat(parent, target.name.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) return errno_status();
  return status(kSuccess);
}

Reply file_lock(OpenFile& file, uint64_t operation) {
  // AFC's lock operations are flock()'s numbers (4 = do not block).
  if (operation != (LOCK_SH | LOCK_NB) && operation != (LOCK_EX | LOCK_NB) && operation != (LOCK_UN | LOCK_NB)) {
    return status(kInvalidArg);
  }
  if (flock(file.fd, static_cast<int>(operation)) != 0) return errno_status();
  return status(kSuccess);
}

// ---- hostile mode ----

bool hostile_target(Session& s, const Target& target) {
  return s.media_root && s.device.hostile.load() != 0 && is_hostile_path(target.rel);
}

// A request on the made-up tree. Anything that would change it is refused.
Reply hostile_path_request(Session& s, uint64_t operation, uint64_t mode, const Target& target) {
  if (operation != kOpReadDir && operation != kOpGetFileInfo && operation != kOpFileOpen) return status(kPermDenied);
  if (operation == kOpFileOpen && mode != 1) return status(kPermDenied);
  uint32_t kinds = s.device.hostile.load();
  HostileRecord record = hostile_record(kinds, target.rel);
  if (!record.exists) return status(kObjectNotFound);
  if (operation == kOpReadDir) {
    if (!record.folder) return status(kReadError);
    std::vector<std::string> names = hostile_listing(kinds, target.rel);
    names.insert(names.begin(), {".", ".."});
    Reply reply = strings_reply(names);
    reply.shape = record.list_shape;
    return reply;
  }
  if (operation == kOpGetFileInfo) {
    return strings_reply({"st_size", record.size_text, "st_blocks", "8", "st_nlink", record.folder ? "3" : "1",
                          "st_ifmt", record.folder ? "S_IFDIR" : "S_IFREG", "st_mtime", "1500000000000000000",
                          "st_birthtime", "1500000000000000000"});
  }
  if (operation == kOpFileOpen) {
    if (record.folder) return status(kObjectIsDir);
    uint64_t handle = s.next_handle++;
    OpenFile file;
    file.mode = mode;
    file.path = target.shown;
    file.content = record.content;
    file.read_shape = record.read_shape;
    s.files[handle] = file;
    return number_reply(kOpFileOpenResult, handle);
  }
  return status(kPermDenied);
}

Reply hostile_file_request(uint64_t operation, OpenFile& file, uint64_t first, uint64_t second) {
  if (operation == kOpFileRead) {
    uint64_t start = std::min<uint64_t>(file.position, file.content.size());
    uint64_t length = std::min<uint64_t>(std::min(first, kMaxReadLength), file.content.size() - start);
    Reply reply;
    reply.operation = kOpData;
    reply.data.assign(file.content.begin() + static_cast<long>(start),
                      file.content.begin() + static_cast<long>(start + length));
    reply.shape = file.read_shape;
    file.position = start + length;
    return reply;
  }
  if (operation == kOpFileSeek) {
    int64_t base = first == 0 ? 0 : first == 1 ? static_cast<int64_t>(file.position)
                                                : static_cast<int64_t>(file.content.size());
    int64_t to = base + static_cast<int64_t>(second);
    if (first > 2 || to < 0) return status(kInvalidArg);
    file.position = static_cast<uint64_t>(to);
    return status(kSuccess);
  }
  if (operation == kOpFileTell) return number_reply(kOpFileTellResult, file.position);
  return status(kPermDenied);
}

// The kind of request an injected error may be limited to (see AfcErrorRule).
const char* request_kind(uint64_t operation) {
  switch (operation) {
    case kOpRemovePath:
    case kOpRemovePathAndContents: return "remove";
    case kOpRenamePath: return "rename";
    case kOpFileOpen: return "open";
    case kOpFileRead: return "read";
    case kOpFileWrite:
    case kOpFileSetSize:
    case kOpTruncate: return "write";
    case kOpGetFileInfo: return "info";
    case kOpMakeDir: return "mkdir";
    case kOpReadDir: return "list";
    default: return "";
  }
}

// Parses and runs one request. nullopt: the parameters are malformed.
std::optional<Reply> handle_request(Session& s, uint64_t operation, const std::vector<char>& parameters,
                                    const std::vector<char>& payload) {
  Params p{parameters};
  auto injected = [&](const std::string& path) { return injected_afc_error(s.device, path, request_kind(operation)); };
  auto with_file = [&](auto action) -> std::optional<Reply> {
    uint64_t handle = 0;
    if (!p.take_u64(handle)) return std::nullopt;
    auto it = s.files.find(handle);
    if (it == s.files.end()) return status(kInvalidArg);
    if (uint64_t error = injected(it->second.path)) return status(error);
    if (it->second.fd < 0 && operation != kOpFileClose) {
      Params numbers{parameters, 8};
      uint64_t first = 0, second = 0;
      numbers.take_u64(first);
      numbers.take_u64(second);
      return hostile_file_request(operation, it->second, first, second);
    }
    return action(it->second);
  };
  auto with_path = [&](auto action) -> std::optional<Reply> {
    std::string path;
    if (!p.take_string(path)) return std::nullopt;
    Target target = target_of(path);
    if (uint64_t error = injected(target.shown)) return status(error);
    if (hostile_target(s, target)) {
      Params mode{parameters};
      uint64_t number = 0;
      if (operation == kOpFileOpen) mode.take_u64(number);
      return hostile_path_request(s, operation, number, target);
    }
    return action(target);
  };

  switch (operation) {
    case kOpReadDir:
      return with_path([&](const Target& t) { return read_directory(s, t); });
    case kOpGetFileInfo:
      return with_path([&](const Target& t) { return file_info(s, t); });
    case kOpGetDeviceInfo:
      return device_info(s);
    case kOpMakeDir:
      return with_path([&](const Target& t) { return make_directory(s, t); });
    case kOpRemovePath:
      return with_path([&](const Target& t) { return remove_path(s, t); });
    case kOpRemovePathAndContents:
      return with_path([&](const Target& t) { return remove_all(s, t); });
    case kOpTruncate:
    case kOpSetFileModTime:
    case kOpFileOpen: {
      uint64_t number = 0;
      if (!p.take_u64(number)) return std::nullopt;
      return with_path([&](const Target& t) {
        if (operation == kOpTruncate) return truncate_path(s, t, number);
        if (operation == kOpSetFileModTime) return set_mod_time(s, t, number);
        return file_open(s, number, t);
      });
    }
    case kOpRenamePath: {
      std::string from, to;
      if (!p.take_string(from) || !p.take_string(to)) return std::nullopt;
      Target source = target_of(from), destination = target_of(to);
      if (uint64_t error = injected(source.shown)) return status(error);
      if (uint64_t error = injected(destination.shown)) return status(error);
      return rename_path(s, source, destination);
    }
    case kOpMakeLink: {
      uint64_t type = 0;
      std::string link_target, link_name;
      if (!p.take_u64(type) || !p.take_string(link_target) || !p.take_string(link_name)) return std::nullopt;
      Target link = target_of(link_name);
      if (uint64_t error = injected(link.shown)) return status(error);
      return make_link(s, type, link_target, link);
    }
    case kOpFileRead: {
      uint64_t handle = 0, length = 0;
      Params peek{parameters};
      if (!peek.take_u64(handle) || !peek.take_u64(length)) return std::nullopt;
      return with_file([&](OpenFile& f) { return file_read(s, f, length); });
    }
    case kOpFileWrite:
      return with_file([&](OpenFile& f) { return file_write(s, f, payload); });
    case kOpFileSeek: {
      uint64_t handle = 0, whence = 0, offset = 0;
      Params peek{parameters};
      if (!peek.take_u64(handle) || !peek.take_u64(whence) || !peek.take_u64(offset)) return std::nullopt;
      return with_file([&](OpenFile& f) { return file_seek(f, whence, static_cast<int64_t>(offset)); });
    }
    case kOpFileTell:
      return with_file([&](OpenFile& f) {
        off_t position = lseek(f.fd, 0, SEEK_CUR);
        if (position < 0) return errno_status();
        return number_reply(kOpFileTellResult, static_cast<uint64_t>(position));
      });
    case kOpFileClose: {
      uint64_t handle = 0;
      if (!p.take_u64(handle)) return std::nullopt;
      auto it = s.files.find(handle);
      if (it == s.files.end()) return status(kInvalidArg);
      if (it->second.fd >= 0) close(it->second.fd);
      s.files.erase(it);
      return status(kSuccess);
    }
    case kOpFileSetSize: {
      uint64_t handle = 0, size = 0;
      Params peek{parameters};
      if (!peek.take_u64(handle) || !peek.take_u64(size)) return std::nullopt;
      return with_file([&](OpenFile& f) { return file_set_size(s, f, size); });
    }
    case kOpFileLock: {
      uint64_t handle = 0, lock_operation = 0;
      Params peek{parameters};
      if (!peek.take_u64(handle) || !peek.take_u64(lock_operation)) return std::nullopt;
      return with_file([&](OpenFile& f) { return file_lock(f, lock_operation); });
    }
    case kOpGetConnectionInfo:
    case kOpSetConnectionOptions:
    case kOpSetFsBlockSize:
    case kOpSetSocketBlockSize:
      return status(kSuccess);
    default:
      return status(kUnknownPacketType);
  }
}

bool is_request_operation(uint64_t operation) {
  return operation >= kOpReadDir && operation <= kOpLastKnown && operation != kOpFileOpenResult &&
         operation != kOpFileTellResult && operation != 0x24;
}

// A reply of any shape but honest goes out and then the connection closes:
// after a lying header nothing more could be framed. False: the connection is
// to end.
bool send_lying_reply(Connection& conn, AfcHeader header, const Reply& reply) {
  size_t sent_data = reply.data.size();
  switch (reply.shape) {
    case ReplyShape::honest: break;
    case ReplyShape::half: sent_data = reply.data.size() / 2; break;
    case ReplyShape::entire_beyond: header.entire_length += 4096; break;
    case ReplyShape::entire_huge: header.entire_length = 1ull << 62; break;
    case ReplyShape::entire_negative: header.entire_length = UINT64_MAX; break;
    case ReplyShape::this_beyond_entire: header.this_length = header.entire_length + 64; break;
  }
  log_line("[%llu] afc: hostile reply (entire %llu, this %llu, %zu of %zu bytes), closing",
           static_cast<unsigned long long>(conn.id), static_cast<unsigned long long>(header.entire_length),
           static_cast<unsigned long long>(header.this_length), sent_data, reply.data.size());
  if (write_all(conn, &header, sizeof header) && sent_data > 0) write_all(conn, reply.data.data(), sent_data);
  return false;
}

bool send_reply(Connection& conn, uint64_t packet_num, const Reply& reply) {
  AfcHeader header;
  memcpy(header.magic, "CFA6LPAA", 8);
  bool inline_parameters = reply.operation != kOpData;
  header.this_length = sizeof header + (inline_parameters ? reply.data.size() : 0);
  header.entire_length = sizeof header + reply.data.size();
  header.packet_num = packet_num;
  header.operation = reply.operation;
  delay_reply(conn);
  if (reply.shape != ReplyShape::honest) return send_lying_reply(conn, header, reply);
  if (reply.data.size() <= 64 * 1024) {
    std::vector<char> packet(sizeof header + reply.data.size());
    memcpy(packet.data(), &header, sizeof header);
    if (!reply.data.empty()) memcpy(packet.data() + sizeof header, reply.data.data(), reply.data.size());
    return write_all(conn, packet.data(), packet.size());
  }
  return write_all(conn, &header, sizeof header) && write_all(conn, reply.data.data(), reply.data.size());
}

}  // namespace

void serve_afc(Connection& conn, const std::string& root_dir) {
  unsigned long long id = conn.id;
  Session s{conn, *conn.device, -1, false, {}, 1, 0};
  s.media_root = root_dir == conn.device->image.dir + "/media";
  s.root_fd = open(root_dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (s.root_fd < 0) {
    log_line("[%llu] afc: cannot open root %s: %s", id, root_dir.c_str(), strerror(errno));
    return;
  }
  std::vector<char> parameters, payload;
  for (;;) {
    AfcHeader header;
    ReadStatus read_status = read_exact(conn, &header, sizeof header);
    if (read_status != ReadStatus::ok) {
      if (read_status != ReadStatus::closed) log_line("[%llu] afc: %s, closing", id, describe(read_status));
      break;
    }
    if (memcmp(header.magic, "CFA6LPAA", 8) != 0) {
      log_line("[%llu] afc: bad magic in packet header, closing", id);
      break;
    }
    if (header.this_length < sizeof header || header.entire_length < header.this_length ||
        header.this_length - sizeof header > kMaxParameters ||
        header.entire_length - header.this_length > kMaxPayload) {
      log_line("[%llu] afc: packet lengths out of range (entire %llu, this %llu), closing", id,
               static_cast<unsigned long long>(header.entire_length),
               static_cast<unsigned long long>(header.this_length));
      break;
    }
    if (!is_request_operation(header.operation)) {
      log_line("[%llu] afc: unknown operation 0x%llx, closing", id,
               static_cast<unsigned long long>(header.operation));
      break;
    }
    parameters.resize(header.this_length - sizeof header);
    payload.resize(header.entire_length - header.this_length);
    if ((!parameters.empty() && read_exact(conn, parameters.data(), parameters.size()) != ReadStatus::ok) ||
        (!payload.empty() && read_exact(conn, payload.data(), payload.size()) != ReadStatus::ok)) {
      log_line("[%llu] afc: truncated packet, closing", id);
      break;
    }
    if (conn.server.verbose) {
      log_line("[%llu] afc: op 0x%llx #%llu", id, static_cast<unsigned long long>(header.operation),
               static_cast<unsigned long long>(header.packet_num));
    }
    s.data_bytes = 0;
    std::optional<Reply> reply = handle_request(s, header.operation, parameters, payload);
    if (!reply) {
      log_line("[%llu] afc: malformed parameters for operation 0x%llx, closing", id,
               static_cast<unsigned long long>(header.operation));
      break;
    }
    if (!send_reply(conn, header.packet_num, *reply)) break;
    if (count_afc_request(s.device, s.data_bytes)) {
      log_line("device %s: dropping every connection (fault)", s.device.image.udid.c_str());
      drop_device_connections(conn.server, s.device);
    }
  }
  for (auto& entry : s.files) {
    if (entry.second.fd >= 0) close(entry.second.fd);
  }
  close(s.root_fd);
}

}  // namespace devsim
