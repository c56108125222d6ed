#include "tests/support/devsim_fixture.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/fuse_mount.h"

extern char** environ;

namespace fs = std::filesystem;

namespace {

std::atomic<unsigned> udid_counter{0};

std::string made_up_udid() {
  char text[48];
  snprintf(text, sizeof text, "de75e%011x%08x%016x", static_cast<unsigned>(getpid()),
           static_cast<unsigned>(time(nullptr)), ++udid_counter);
  return text;
}

bool write_text(const fs::path& path, const std::string& contents, std::string& error) {
  if (!writeLocal(path.string(), contents)) error = "cannot write " + path.string();
  return error.empty();
}

}  // namespace

DevsimImage namedPhone(const std::string& name, uint32_t locationId, const std::vector<std::string>& storageFiles) {
  DevsimImage image;
  image.name = name;
  image.location_id = locationId;
  for (const std::string& file : storageFiles) image.files.push_back({"media/general_storage/" + file, name});
  return image;
}

std::string devsim_program() {
#ifdef DEVSIM_PATH
  if (access(DEVSIM_PATH, X_OK) == 0) return DEVSIM_PATH;
#endif
  return "";
}

bool write_devsim_image(const std::string& dir, const DevsimImage& image, std::string* error) {
  std::string problem;
  nlohmann::ordered_json doc;
  doc["name"] = image.name;
  if (!image.udid.empty()) doc["udid"] = image.udid;
  doc["ios_version"] = image.ios_version;
  doc["product_type"] = image.product_type;
  if (image.location_id != 0) doc["location_id"] = image.location_id;
  doc["capacity_bytes"] = image.capacity_bytes;
  doc["block_size"] = image.block_size;
  if (!image.hostile.empty()) doc["hostile"] = image.hostile;
  doc["apps"] = nlohmann::ordered_json::array();
  for (const DevsimApp& app : image.apps) {
    doc["apps"].push_back(
        {{"bundle_id", app.bundle_id}, {"display_name", app.display_name}, {"file_sharing", app.file_sharing}});
  }
  std::error_code ec;
  fs::path root(dir);
  fs::create_directories(root / "media", ec);
  bool ok = !ec && write_text(root / "device.json", doc.dump(2) + "\n", problem);
  for (const DevsimApp& app : image.apps) {
    if (ok) fs::create_directories(root / "apps" / app.bundle_id / "Documents", ec);
    if (ec) ok = false;
  }
  for (const std::string& folder : image.folders) {
    if (ok) fs::create_directories(root / folder, ec);
    if (ec) ok = false;
  }
  for (const DevsimFile& file : image.files) {
    if (ok) ok = write_text(root / file.path, file.contents, problem);
  }
  if (!ok && problem.empty()) problem = "cannot create folders in " + dir + ": " + ec.message();
  if (!ok && error) *error = problem;
  return ok;
}

Devsim::~Devsim() { stop(); }

bool Devsim::make_work_dir() {
  if (running()) stop();
  error_.clear();
  work_dir_ = makeTempDir("devsim-test-");
  if (work_dir_.empty()) {
    error_ = std::string("mkdtemp: ") + strerror(errno);
    return false;
  }
  socket_path_ = work_dir_ + "/usbmuxd.sock";
  control_path_ = work_dir_ + "/devsim.control";
  return true;
}

bool Devsim::start(const std::vector<DevsimImage>& images, const std::vector<std::string>& serve_options) {
  if (!make_work_dir()) return false;
  std::vector<std::string> dirs;
  for (size_t i = 0; i < images.size(); ++i) {
    DevsimImage image = images[i];
    if (image.udid.empty()) image.udid = made_up_udid();
    if (image.location_id == 0) image.location_id = static_cast<uint32_t>(i + 1);
    std::string dir = work_dir_ + "/image" + std::to_string(i);
    if (!write_devsim_image(dir, image, &error_)) return false;
    dirs.push_back(dir);
  }
  return launch(dirs, serve_options);
}

bool Devsim::start_with_dirs(const std::vector<std::string>& image_dirs,
                             const std::vector<std::string>& serve_options) {
  return make_work_dir() && launch(image_dirs, serve_options);
}

bool Devsim::launch(const std::vector<std::string>& image_dirs, const std::vector<std::string>& serve_options) {
  image_dirs_ = image_dirs;
  udids_.clear();
  location_ids_.clear();
  for (const std::string& dir : image_dirs) {
    std::ifstream in(dir + "/device.json");
    nlohmann::json doc = nlohmann::json::parse(in, nullptr, false);
    bool usable = !doc.is_discarded() && doc.is_object();
    udids_.push_back(usable && doc.contains("udid") && doc["udid"].is_string() ? doc["udid"].get<std::string>() : "");
    location_ids_.push_back(usable && doc.contains("location_id") && doc["location_id"].is_number_unsigned()
                                ? doc["location_id"].get<uint32_t>()
                                : static_cast<uint32_t>(location_ids_.size() + 1));  // devsim's default
  }
  std::string program = devsim_program();
  if (program.empty()) {
    error_ = "devsim was not built";
    return false;
  }
  std::vector<std::string> args = {program, "serve", "--socket", socket_path_, "--control", control_path_};
  args.insert(args.end(), serve_options.begin(), serve_options.end());
  args.insert(args.end(), image_dirs.begin(), image_dirs.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);

  std::string log_path = work_dir_ + "/devsim.log", out_path = work_dir_ + "/devsim.out";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  int rc = posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    pid_ = -1;
    error_ = std::string("cannot start devsim: ") + strerror(rc);
    return false;
  }
  // Ready once it says "ready: N device(s) on PATH"; given up on once it ended.
  auto said_ready = [&] {
    std::string output = readLocal(out_path);
    return output.find("ready: ") != std::string::npos && output.find('\n') != std::string::npos;
  };
  eventually([&] {
    if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
    return pid_ <= 0 || said_ready();
  }, 30);
  if (pid_ <= 0 || !said_ready()) {
    error_ = "devsim did not become ready; output: " + readLocal(out_path) + " log: " + log();
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
    return false;
  }
  const char* previous = getenv("USBMUXD_SOCKET_ADDRESS");
  had_socket_env_ = previous != nullptr;
  saved_socket_env_ = previous ? previous : "";
  setenv("USBMUXD_SOCKET_ADDRESS", ("UNIX:" + socket_path_).c_str(), 1);
  return true;
}

std::string Devsim::control(const std::string& command) {
  sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  if (control_path_.size() >= sizeof address.sun_path) return "error: control path too long";
  memcpy(address.sun_path, control_path_.c_str(), control_path_.size());
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  timeval timeout{10, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return std::string("error: cannot reach devsim: ") + strerror(errno);
  }
  std::string line = command + "\n";
  send(fd, line.data(), line.size(), MSG_NOSIGNAL);
  std::string reply;
  char c;
  while (recv(fd, &c, 1, 0) == 1 && c != '\n') reply += c;
  close(fd);
  return reply.empty() ? "error: no reply" : reply;
}

int Devsim::connections(size_t index, const std::string& service) {
  std::string reply = control("connections " + udid(index) + (service.empty() ? "" : " " + service));
  return reply.rfind("ok ", 0) == 0 ? atoi(reply.c_str() + 3) : -1;
}

bool Devsim::stop() {
  bool clean = true;
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
    int status = 0;
    pid_t done = 0;
    eventually([&] { return done != 0 || (done = waitpid(pid_, &status, WNOHANG)) != 0; }, 15);
    if (done != pid_) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      clean = false;
      error_ = "devsim did not stop on SIGTERM";
    } else if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      clean = false;
      error_ = "devsim exited abnormally; log: " + log();
    }
    struct stat st;
    if (lstat(socket_path_.c_str(), &st) == 0) {
      clean = false;
      error_ = "devsim left its socket behind";
    }
    pid_ = -1;
    if (had_socket_env_) {
      setenv("USBMUXD_SOCKET_ADDRESS", saved_socket_env_.c_str(), 1);
    } else {
      unsetenv("USBMUXD_SOCKET_ADDRESS");
    }
  }
  removeTree(work_dir_);
  work_dir_.clear();
  return clean;
}

std::string Devsim::image_dir(size_t index) const { return index < image_dirs_.size() ? image_dirs_[index] : ""; }
std::string Devsim::udid(size_t index) const { return index < udids_.size() ? udids_[index] : ""; }
uint32_t Devsim::location_id(size_t index) const { return index < location_ids_.size() ? location_ids_[index] : 0; }

std::string Devsim::log() const { return work_dir_.empty() ? "" : readLocal(work_dir_ + "/devsim.log"); }

namespace {

struct Captured {
  bool started = false;
  int status = -1;  // the exit status; -1 when killed or ended by a signal
  std::string text;
};

// Runs argv (looked up in PATH) with its standard output, and its standard
// error when `with_errors`, read until it closes. `no_input` gives it
// /dev/null to read; a timeout of 0 waits as long as it takes.
Captured run_captured(const std::vector<std::string>& argv, bool with_errors, bool no_input, int timeout_seconds) {
  Captured result;
  std::vector<std::string> args = argv;
  std::vector<char*> pointers;
  for (std::string& arg : args) pointers.push_back(&arg[0]);
  pointers.push_back(nullptr);
  int out[2];
  if (args.empty() || pipe2(out, O_CLOEXEC) != 0) return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  if (with_errors) posix_spawn_file_actions_adddup2(&actions, out[1], 2);
  if (no_input) posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  pid_t pid = -1;
  int rc = posix_spawnp(&pid, args[0].c_str(), &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  if (rc != 0) {
    close(out[0]);
    result.text = args[0] + ": " + strerror(rc);
    return result;
  }
  result.started = true;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  bool killed = false;
  for (;;) {
    pollfd p{out[0], POLLIN, 0};
    if (poll(&p, 1, 100) > 0) {
      char buffer[4096];
      ssize_t n = read(out[0], buffer, sizeof buffer);
      if (n <= 0) break;
      result.text.append(buffer, static_cast<size_t>(n));
    }
    if (timeout_seconds > 0 && std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      killed = true;
      break;
    }
  }
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (!killed && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

}  // namespace

int run_program(const std::vector<std::string>& argv, std::string* output, int timeout_seconds) {
  Captured run = run_captured(argv, true, true, timeout_seconds);
  if (output) *output = run.text;
  return run.status;
}

std::string runProgram(const std::vector<std::string>& argv, int* status) {
  Captured run = run_captured(argv, false, false, 0);
  // A program that cannot be started fails as a shell says "not found".
  if (status != nullptr) *status = run.started ? run.status : 127;
  return run.started ? run.text : "";
}

int runStatus(const std::vector<std::string>& argv) {
  int status = -1;
  runProgram(argv, &status);
  return status;
}
