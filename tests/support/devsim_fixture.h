// Runs the simulated device for a test: writes image folders into a private
// temporary folder, starts `devsim serve` on a private socket, points this
// process's libusbmuxd at it (USBMUXD_SOCKET_ADDRESS) and stops it cleanly.
//
//   Devsim sim;
//   DevsimImage phone;
//   phone.name = "Alice's iPhone";
//   phone.apps = {{"com.example.notes", "Notes", true}};
//   phone.files = {{"media/general_storage/a.txt", "hello"}};
//   ASSERT_TRUE(sim.start({phone})) << sim.error();
//   ... idevice_new(&dev, sim.udid(0)) ...
//   EXPECT_EQ(sim.control("unplug " + sim.udid(0)), "ok");
//
// Tests that need devsim call GTEST_SKIP() when devsim_program() is empty.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

struct DevsimApp {
  std::string bundle_id;
  std::string display_name;
  bool file_sharing = true;
};

struct DevsimFile {
  std::string path;  // relative to the image folder, e.g. "media/general_storage/a.txt"
  std::string contents;
};

struct DevsimImage {
  std::string name = "Test iPhone";
  std::string udid;  // empty: a unique 40-digit one is made up
  std::string ios_version = "10.3.3";
  std::string product_type = "iPhone9,3";
  uint32_t location_id = 0;  // 0: 1, 2, 3 ... by position
  uint64_t capacity_bytes = 8000000000ull;
  uint32_t block_size = 4096;
  std::vector<DevsimApp> apps;
  std::vector<DevsimFile> files;
  std::vector<std::string> folders;  // relative to the image folder, e.g. "media/DCIM"
  std::vector<std::string> hostile;  // hostile kinds ("names", ..., "all"); none when empty
};

// An image named `name` at `locationId` whose Storage holds `storageFiles`,
// each holding the name.
DevsimImage namedPhone(const std::string& name, uint32_t locationId, const std::vector<std::string>& storageFiles);

// The devsim program built with the tests, or "" when there is none.
std::string devsim_program();

// Writes DIR/device.json, DIR/media/, DIR/apps/<bundle id>/Documents/ and
// the files and folders. An empty udid or a zero location_id is left out,
// so devsim's defaults apply.
bool write_devsim_image(const std::string& dir, const DevsimImage& image, std::string* error = nullptr);

class Devsim {
 public:
  Devsim() = default;
  ~Devsim();
  Devsim(const Devsim&) = delete;
  Devsim& operator=(const Devsim&) = delete;

  // Writes each image into work_dir()/image<N>, starts devsim, waits for its
  // "ready:" line and sets USBMUXD_SOCKET_ADDRESS. `serve_options` go to
  // `devsim serve` (e.g. {"--latency-us", "300"} or {"--fault", "..."}).
  bool start(const std::vector<DevsimImage>& images, const std::vector<std::string>& serve_options = {});
  // Same, on image folders that already exist (for example a make-sample one).
  bool start_with_dirs(const std::vector<std::string>& image_dirs,
                       const std::vector<std::string>& serve_options = {});

  // Sends one control command (see docs/devsim.md); returns devsim's reply,
  // "ok" or "error: ...".
  std::string control(const std::string& command);
  // The connections devsim has open to image `index`, all of them or to one
  // service ("afc", "house_arrest", ...); -1 when devsim did not answer.
  int connections(size_t index, const std::string& service = "");

  // SIGTERM, then waits. True when devsim exited with status 0 and removed
  // its socket. Restores USBMUXD_SOCKET_ADDRESS and removes work_dir().
  // Unmount anything mounted from devsim first.
  bool stop();

  bool running() const { return pid_ > 0; }
  const std::string& work_dir() const { return work_dir_; }
  const std::string& socket_path() const { return socket_path_; }
  std::string image_dir(size_t index) const;
  std::string udid(size_t index) const;
  uint32_t location_id(size_t index) const;
  std::string log() const;  // devsim's standard error so far
  const std::string& error() const { return error_; }

 private:
  bool launch(const std::vector<std::string>& image_dirs, const std::vector<std::string>& serve_options);
  bool make_work_dir();

  pid_t pid_ = -1;
  std::string work_dir_;
  std::string socket_path_;
  std::string control_path_;
  std::vector<std::string> image_dirs_;
  std::vector<std::string> udids_;
  std::vector<uint32_t> location_ids_;
  std::string error_;
  bool had_socket_env_ = false;
  std::string saved_socket_env_;
};

// Runs a program (no shell) with its standard output and error captured
// together into *output; returns its exit status, or -1 when it could not be
// run or was killed after `timeout_seconds`.
int run_program(const std::vector<std::string>& argv, std::string* output = nullptr, int timeout_seconds = 120);
