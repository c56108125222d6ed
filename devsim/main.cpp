// devsim: a usbmuxd-compatible server whose attached devices are image
// folders. Subcommands: serve, make-sample, make-media, control.
#include "devsim/media_library.h"
#include "devsim/server.h"

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace devsim {
namespace {

const char* const kUsage =
    "usage:\n"
    "  devsim serve --socket PATH [--control PATH] [--latency-us N] [--bandwidth-mbps N]\n"
    "               [--fault COMMAND]... [--no-tls] [--verbose] IMAGE_DIR [IMAGE_DIR ...]\n"
    "  devsim make-sample DIR\n"
    "  devsim make-media IMAGE_DIR --photo-family {ios10,older,cloud,modern} [--modern-version N]\n"
    "                    [--photos N] [--songs N] [--memos N] [--photo-size WxH]\n"
    "  devsim control CONTROL_PATH COMMAND [ARGS...]\n"
    "Clients reach the server with USBMUXD_SOCKET_ADDRESS=UNIX:PATH.\n"
    "The control socket defaults to PATH.control; see docs/devsim.md for its commands.\n";

std::mutex threads_mutex;
std::condition_variable threads_done;
int running_threads = 0;

bool fill_address(const std::string& path, sockaddr_un& address) {
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return false;
  memcpy(address.sun_path, path.c_str(), path.size());
  return true;
}

// Binds a listening UNIX socket, replacing a stale socket file but never a
// live server or anything that is not a socket.
int listen_unix(const std::string& path, std::string& error) {
  sockaddr_un address;
  if (!fill_address(path, address)) {
    error = path + ": socket path is empty or too long";
    return -1;
  }
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      error = path + ": exists and is not a socket";
      return -1;
    }
    int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool live = connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(probe);
    if (live) {
      error = path + ": another server is listening there";
      return -1;
    }
    unlink(path.c_str());
  }
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 64) != 0) {
    error = path + ": " + strerror(errno);
    if (fd >= 0) close(fd);
    return -1;
  }
  return fd;
}

void start_thread(std::function<void()> body) {
  {
    std::lock_guard<std::mutex> lock(threads_mutex);
    ++running_threads;
  }
  std::thread([body] {
    body();
    std::lock_guard<std::mutex> lock(threads_mutex);
    --running_threads;
    threads_done.notify_all();
  }).detach();
}

void accept_clients(Server& server, int listen_fd) {
  uint64_t next_id = 1;
  while (!server.stopping) {
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (server.stopping) break;
      if (errno == EMFILE || errno == ENFILE) {
        log_line("accept: %s", strerror(errno));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        continue;
      }
      break;
    }
    {
      std::lock_guard<std::mutex> lock(server.mutex);
      if (server.stopping) {
        close(fd);
        break;
      }
      server.client_fds.insert(fd);
    }
    uint64_t id = next_id++;
    start_thread([&server, fd, id] {
      serve_usbmux_client(server, fd, id);
      {
        std::lock_guard<std::mutex> lock(server.mutex);
        server.client_fds.erase(fd);
      }
      close(fd);
    });
  }
}

void serve_control_client(Server& server, int fd) {
  std::string pending;
  char buffer[1024];
  for (;;) {
    ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    pending.append(buffer, static_cast<size_t>(n));
    if (pending.size() > 64 * 1024) break;
    size_t end;
    while ((end = pending.find('\n')) != std::string::npos) {
      std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      std::string reply = apply_control_command(server, line);
      log_line("control: %s -> %s", line.c_str(), reply.c_str());
      reply += "\n";
      if (send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) < 0) break;
    }
  }
}

void accept_control(Server& server, int listen_fd) {
  while (!server.stopping) {
    int fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      break;
    }
    {
      std::lock_guard<std::mutex> lock(server.mutex);
      server.client_fds.insert(fd);
    }
    start_thread([&server, fd] {
      serve_control_client(server, fd);
      {
        std::lock_guard<std::mutex> lock(server.mutex);
        server.client_fds.erase(fd);
      }
      close(fd);
    });
  }
}

bool parse_count(const char* text, uint32_t& value) {
  char* end = nullptr;
  errno = 0;
  unsigned long parsed = strtoul(text, &end, 10);
  if (*text == '\0' || *end != '\0' || errno != 0 || parsed > 100000000ul || text[0] == '-') return false;
  value = static_cast<uint32_t>(parsed);
  return true;
}

int run_serve(int argc, char** argv) {
  auto server = std::make_unique<Server>();
  std::vector<std::string> image_dirs, fault_commands;
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    auto value = [&](const char* name) -> const char* {
      if (i + 1 >= argc) {
        fprintf(stderr, "devsim: %s needs a value\n", name);
        exit(2);
      }
      return argv[++i];
    };
    uint32_t number = 0;
    if (arg == "--socket") {
      server->socket_path = value("--socket");
    } else if (arg == "--control") {
      server->control_path = value("--control");
    } else if (arg == "--latency-us" || arg == "--bandwidth-mbps") {
      if (!parse_count(value(arg.c_str()), number)) {
        fprintf(stderr, "devsim: %s needs a non-negative integer\n", arg.c_str());
        return 2;
      }
      (arg == "--latency-us" ? server->latency_us : server->bandwidth_mbps) = number;
    } else if (arg == "--fault") {
      fault_commands.push_back(value("--fault"));
    } else if (arg == "--no-tls") {
      server->tls = false;
    } else if (arg == "--verbose" || arg == "-v") {
      server->verbose = true;
    } else if (arg == "--help" || arg == "-h") {
      fputs(kUsage, stdout);
      return 0;
    } else if (!arg.empty() && arg[0] == '-') {
      fprintf(stderr, "devsim: unknown option %s\n%s", arg.c_str(), kUsage);
      return 2;
    } else {
      image_dirs.push_back(arg);
    }
  }
  if (server->socket_path.empty() || image_dirs.empty()) {
    fprintf(stderr, "devsim: serve needs --socket PATH and at least one image folder\n%s", kUsage);
    return 2;
  }
  if (server->control_path.empty()) server->control_path = server->socket_path + ".control";

  for (size_t i = 0; i < image_dirs.size(); ++i) {
    auto device = std::make_unique<Device>();
    std::string error;
    if (!load_device_image(image_dirs[i], static_cast<uint32_t>(i + 1), device->image, error)) {
      fprintf(stderr, "devsim: %s\n", error.c_str());
      return 2;
    }
    for (auto& other : server->devices) {
      if (other->image.udid == device->image.udid || other->image.location_id == device->image.location_id) {
        fprintf(stderr, "devsim: %s and %s have the same udid or location_id\n", other->image.dir.c_str(),
                device->image.dir.c_str());
        return 2;
      }
    }
    device->stored_bytes = measure_stored_bytes(device->image.dir);
    device->capacity_bytes = device->image.capacity_bytes;
    device->hostile = device->image.hostile;
    server->devices.push_back(std::move(device));
  }

  // Signals are taken by sigwait() below, never by the serving threads.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  for (const std::string& command : fault_commands) {
    std::string reply = apply_control_command(*server, command);
    if (reply != "ok") {
      fprintf(stderr, "devsim: --fault \"%s\": %s\n", command.c_str(), reply.c_str());
      return 2;
    }
  }

  std::string error;
  int listen_fd = listen_unix(server->socket_path, error);
  if (listen_fd < 0) {
    fprintf(stderr, "devsim: %s\n", error.c_str());
    return 1;
  }
  int control_fd = listen_unix(server->control_path, error);
  if (control_fd < 0) {
    fprintf(stderr, "devsim: %s\n", error.c_str());
    close(listen_fd);
    unlink(server->socket_path.c_str());
    return 1;
  }

  Server& s = *server;
  std::thread scheduler([&s] { run_scheduler(s); });
  std::thread acceptor([&s, listen_fd] { accept_clients(s, listen_fd); });
  std::thread controller([&s, control_fd] { accept_control(s, control_fd); });
  for (auto& device : s.devices) {
    log_line("device %s \"%s\" (id %u) from %s", device->image.udid.c_str(), device->image.name.c_str(),
             device->image.location_id, device->image.dir.c_str());
  }
  printf("ready: %zu device(s) on %s\n", s.devices.size(), s.socket_path.c_str());
  fflush(stdout);

  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  log_line("stopping on signal %d", signal_number);

  s.stopping = true;
  shutdown(listen_fd, SHUT_RDWR);
  shutdown(control_fd, SHUT_RDWR);
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    for (int fd : s.client_fds) shutdown(fd, SHUT_RDWR);
  }
  acceptor.join();
  controller.join();
  scheduler.join();
  close(listen_fd);
  close(control_fd);
  unlink(s.socket_path.c_str());
  unlink(s.control_path.c_str());
  bool all_done;
  {
    std::unique_lock<std::mutex> lock(threads_mutex);
    all_done = threads_done.wait_for(lock, std::chrono::seconds(5), [] { return running_threads == 0; });
  }
  log_line("stopped");
  if (!all_done) {
    // A connection thread is stuck in a file operation; do not wait for it.
    fflush(nullptr);
    _exit(0);
  }
  return 0;
}

int run_control(int argc, char** argv) {
  if (argc < 2) {
    fputs(kUsage, stderr);
    return 2;
  }
  sockaddr_un address;
  if (!fill_address(argv[0], address)) {
    fprintf(stderr, "devsim: %s: bad control socket path\n", argv[0]);
    return 2;
  }
  std::string line;
  for (int i = 1; i < argc; ++i) line += (i > 1 ? " " : "") + std::string(argv[i]);
  line += "\n";
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    fprintf(stderr, "devsim: %s: %s\n", argv[0], strerror(errno));
    close(fd);
    return 1;
  }
  send(fd, line.data(), line.size(), MSG_NOSIGNAL);
  std::string reply;
  char c;
  while (recv(fd, &c, 1, 0) == 1 && c != '\n') reply += c;
  close(fd);
  printf("%s\n", reply.c_str());
  return reply == "ok" ? 0 : 1;
}

// Sets device.json's ios_version to one the photo family runs on, since the
// file system picks its photo queries by the version. Keeps the other keys
// and their order.
bool set_ios_version(const std::filesystem::path& device_json, const std::string& version, std::string& error) {
  std::ifstream in(device_json);
  nlohmann::ordered_json doc = nlohmann::ordered_json::parse(in, nullptr, false);
  if (doc.is_discarded() || !doc.is_object()) {
    error = device_json.string() + ": not a JSON object";
    return false;
  }
  doc["ios_version"] = version;
  std::ofstream out(device_json, std::ios::trunc);
  out << doc.dump(2) << "\n";
  if (!out) {
    error = device_json.string() + ": cannot write";
    return false;
  }
  return true;
}

int run_make_media(int argc, char** argv) {
  std::string image_dir, family_name;
  uint32_t counts[3] = {1000, 200, 10};  // photos, songs, memos
  uint32_t modern_version = 0;           // 0: not given
  int photo_width = 64, photo_height = 48;
  const char* const count_options[3] = {"--photos", "--songs", "--memos"};
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    bool known = false;
    for (int c = 0; c < 3; ++c) {
      if (arg != count_options[c]) continue;
      known = true;
      if (i + 1 >= argc || !parse_count(argv[++i], counts[c]) || counts[c] > 10000000) {
        fprintf(stderr, "devsim: %s needs a count up to 10000000\n", arg.c_str());
        return 2;
      }
    }
    if (known) continue;
    if (arg == "--photo-family" && i + 1 < argc) {
      family_name = argv[++i];
    } else if (arg == "--photo-size") {
      // The size of the modern family's HEIC stills (12-megapixel ones for
      // benchmarks: 4032x3024).
      char x = 0;
      int width = 0, height = 0;
      if (i + 1 >= argc || sscanf(argv[++i], "%d%c%d", &width, &x, &height) != 3 || x != 'x' || width < 2 ||
          height < 2 || width > 16384 || height > 16384) {
        fprintf(stderr, "devsim: --photo-size needs WIDTHxHEIGHT, e.g. 4032x3024\n");
        return 2;
      }
      photo_width = width;
      photo_height = height;
    } else if (arg == "--modern-version") {
      if (i + 1 >= argc || !parse_count(argv[++i], modern_version) ||
          modern_ios_version(static_cast<int>(modern_version)).empty()) {
        fprintf(stderr, "devsim: --modern-version needs 14, 15, 16, 17 or 18\n");
        return 2;
      }
    } else if (!arg.empty() && arg[0] != '-' && image_dir.empty()) {
      image_dir = arg;
    } else {
      fprintf(stderr, "devsim: make-media: unexpected %s\n%s", arg.c_str(), kUsage);
      return 2;
    }
  }
  struct Family {
    const char* name;
    PhotoFamily family;
    const char* ios_version;
  };
  const Family families[] = {{"ios10", PhotoFamily::ios10, "10.3.3"},
                             {"cloud", PhotoFamily::cloud, "9.3.5"},
                             {"older", PhotoFamily::older, "9.2.1"},
                             {"modern", PhotoFamily::modern, nullptr}};
  const Family* chosen = nullptr;
  for (const Family& f : families) {
    if (family_name == f.name) chosen = &f;
  }
  if (image_dir.empty() || !chosen) {
    fprintf(stderr, "devsim: make-media needs IMAGE_DIR and --photo-family ios10, older, cloud or modern\n%s",
            kUsage);
    return 2;
  }
  const bool modern = chosen->family == PhotoFamily::modern;
  if (modern_version && !modern) {
    fprintf(stderr, "devsim: --modern-version goes with --photo-family modern\n");
    return 2;
  }
  const auto start = std::chrono::steady_clock::now();
  MediaLibrary library = generated_media_library(chosen->family, static_cast<int>(counts[0]),
                                                 static_cast<int>(counts[1]), static_cast<int>(counts[2]),
                                                 photo_width, photo_height);
  if (modern && modern_version) library.modern_version = static_cast<int>(modern_version);
  const std::string ios_version = modern ? modern_ios_version(library.modern_version) : chosen->ios_version;
  const std::filesystem::path root(image_dir);
  std::string error;
  if (!write_media_library(root / "media", library, error)) {
    fprintf(stderr, "devsim: %s\n", error.c_str());
    return 1;
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const std::string family_label =
      modern ? "modern iOS " + std::to_string(library.modern_version) : std::string(chosen->name);
  printf("wrote %u photos (%s photo library), %u songs and %u voice memos to %s in %.1f s\n", counts[0],
         family_label.c_str(), counts[1], counts[2], (root / "media").c_str(), seconds);
  std::error_code ec;
  if (std::filesystem::exists(root / "device.json", ec)) {
    if (!set_ios_version(root / "device.json", ios_version, error)) {
      fprintf(stderr, "devsim: %s\n", error.c_str());
      return 1;
    }
    printf("set ios_version to %s in %s\n", ios_version.c_str(), (root / "device.json").c_str());
  }
  return 0;
}

}  // namespace
}  // namespace devsim

int main(int argc, char** argv) {
  if (argc < 2) {
    fputs(devsim::kUsage, stderr);
    return 2;
  }
  std::string command = argv[1];
  if (command == "serve") return devsim::run_serve(argc - 2, argv + 2);
  if (command == "control") return devsim::run_control(argc - 2, argv + 2);
  if (command == "make-media") return devsim::run_make_media(argc - 2, argv + 2);
  if (command == "make-sample") {
    if (argc != 3) {
      fputs(devsim::kUsage, stderr);
      return 2;
    }
    std::string error;
    if (!devsim::write_sample_image(argv[2], error)) {
      fprintf(stderr, "devsim: %s\n", error.c_str());
      return 1;
    }
    printf("sample image written to %s\n", argv[2]);
    return 0;
  }
  if (command == "--help" || command == "-h" || command == "help") {
    fputs(devsim::kUsage, stdout);
    return 0;
  }
  fprintf(stderr, "devsim: unknown command %s\n%s", command.c_str(), devsim::kUsage);
  return 2;
}
