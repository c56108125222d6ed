// The simulated device seen through libimobiledevice's own clients and the
// stock tools (ifuse among them), and fed raw bytes: usbmux, lockdown and
// pairing, AFC, house_arrest and installation_proxy, each fault it can inject,
// malformed input, image loading and shutdown.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libimobiledevice/afc.h>
#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/installation_proxy.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <usbmuxd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <vector>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"
#include "tests/support/fuse_mount.h"

namespace fs = std::filesystem;

namespace {

std::map<std::string, std::string> to_map(char** list) {
  std::map<std::string, std::string> result;
  for (int i = 0; list && list[i] && list[i + 1]; i += 2) result[list[i]] = list[i + 1];
  if (list) afc_dictionary_free(list);
  return result;
}

std::vector<std::string> listing(afc_client_t afc, const char* path) {
  char** names = nullptr;
  std::vector<std::string> out;
  if (afc_read_directory(afc, path, &names) != AFC_E_SUCCESS) return {"(failed)"};
  for (char** name = names; name && *name; ++name) out.push_back(*name);
  afc_dictionary_free(names);
  return out;
}

// A string or data value of a dictionary, "" when absent.
std::string dict_text(plist_t record, const char* key) {
  plist_t node = record ? plist_dict_get_item(record, key) : nullptr;
  char* text = nullptr;
  uint64_t length = 0;
  if (node && plist_get_node_type(node) == PLIST_STRING) plist_get_string_val(node, &text);
  if (node && plist_get_node_type(node) == PLIST_DATA) plist_get_data_val(node, &text, &length);
  std::string value = text ? (length ? std::string(text, length) : std::string(text)) : "";
  free(text);
  return value;
}

bool device_listed(const std::string& udid) {
  char** list = nullptr;
  int count = 0;
  if (idevice_get_device_list(&list, &count) != IDEVICE_E_SUCCESS) return false;
  bool found = false;
  for (int i = 0; i < count; ++i) found = found || udid == list[i];
  idevice_device_list_free(list);
  return found;
}

// StartService's answer; the service itself is not used.
lockdownd_error_t start_service(lockdownd_client_t client, const char* name) {
  lockdownd_service_descriptor_t service = nullptr;
  lockdownd_error_t result = lockdownd_start_service(client, name, &service);
  lockdownd_service_descriptor_free(service);
  return result;
}

// lockdownd_client_new_with_handshake, then StartService of AFC, as every
// client does; the first error met.
lockdownd_error_t handshake_and_start_afc(const std::string& udid) {
  idevice_t device = nullptr;
  if (idevice_new(&device, udid.c_str()) != IDEVICE_E_SUCCESS) return LOCKDOWN_E_MUX_ERROR;
  lockdownd_client_t client = nullptr;
  lockdownd_error_t result = lockdownd_client_new_with_handshake(device, &client, "devsim-test");
  if (result == LOCKDOWN_E_SUCCESS) result = start_service(client, "com.apple.afc");
  if (client) lockdownd_client_free(client);
  idevice_free(device);
  return result;
}

class DevsimAfcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (devsim_program().empty()) GTEST_SKIP() << "devsim was not built";
  }

  void TearDown() override {
    for (const std::string& mount : mounted_) run_program({fusermountProgram(), "-u", "-z", mount});
    if (afc_) afc_client_free(afc_);
    if (lockdown_) lockdownd_client_free(lockdown_);
    if (device_) idevice_free(device_);
    EXPECT_TRUE(sim_.stop()) << sim_.error();
  }

  // The phone most tests share (then the images in `more`), started and
  // reached through AFC.
  void start(const std::vector<std::string>& options = {}, const std::vector<DevsimImage>& more = {}) {
    DevsimImage phone;
    phone.name = "AFC Phone";
    phone.capacity_bytes = 50ull * 1000 * 1000;
    phone.apps = {{"com.example.notes", "Notes", true},
                  {"org.sample.notes", "Notes", true},
                  {"com.example.reader", "Reader", true},
                  {"com.example.vault", "Vault", false},
                  {"com.example.maps", "Maps", true}};
    phone.files = {{"media/general_storage/hello.txt", "hello world"},
                   {"media/general_storage/folder/inner.txt", "inner"},
                   {"media/general_storage/data.bin", std::string(1024 * 1024, 'd')},
                   {"media/general_storage/locked.txt", "locked"},
                   {"media/general_storage/open.txt", "open"},
                   {"apps/com.example.notes/Documents/note.txt", "a note"},
                   {"apps/com.example.vault/Documents/secret.txt", "vault"},
                   {"outside.txt", "must stay unreachable"}};
    std::vector<DevsimImage> images = {phone};
    images.insert(images.end(), more.begin(), more.end());
    ASSERT_TRUE(sim_.start(images, options)) << sim_.error();
    udid_ = sim_.udid(0);
    media_ = sim_.image_dir(0) + "/media";
    connect_afc();
  }

  void connect_afc() {
    if (afc_) afc_client_free(afc_);
    if (device_) idevice_free(device_);
    afc_ = nullptr;
    device_ = nullptr;
    ASSERT_EQ(idevice_new(&device_, udid_.c_str()), IDEVICE_E_SUCCESS);
    ASSERT_EQ(afc_client_start_service(device_, &afc_, "devsim-test"), AFC_E_SUCCESS);
  }

  uint64_t open(const std::string& path, afc_file_mode_t mode, afc_error_t expected = AFC_E_SUCCESS) {
    uint64_t handle = 0;
    EXPECT_EQ(afc_file_open(afc_, path.c_str(), mode, &handle), expected) << path << " mode " << mode;
    return handle;
  }

  void write(uint64_t handle, const std::string& data, afc_error_t expected = AFC_E_SUCCESS) {
    uint32_t written = 0;
    EXPECT_EQ(afc_file_write(afc_, handle, data.data(), static_cast<uint32_t>(data.size()), &written), expected);
  }

  std::string read(uint64_t handle, uint32_t length) {
    std::string data(length, '\0');
    uint32_t got = 0;
    EXPECT_EQ(afc_file_read(afc_, handle, &data[0], length, &got), AFC_E_SUCCESS);
    data.resize(got);
    return data;
  }

  std::map<std::string, std::string> info(const std::string& path, afc_error_t expected = AFC_E_SUCCESS) {
    char** list = nullptr;
    EXPECT_EQ(afc_get_file_info(afc_, path.c_str(), &list), expected) << path;
    return to_map(list);
  }

  afc_error_t stat_path(const char* path) {
    char** list = nullptr;
    afc_error_t result = afc_get_file_info(afc_, path, &list);
    to_map(list);
    return result;
  }

  std::map<std::string, std::string> device_info() {
    char** values = nullptr;
    EXPECT_EQ(afc_get_device_info(afc_, &values), AFC_E_SUCCESS);
    return to_map(values);
  }

  Devsim sim_;
  std::string udid_, media_;
  std::vector<std::string> mounted_;  // ifuse mounts, taken away before devsim stops
  idevice_t device_ = nullptr;
  lockdownd_client_t lockdown_ = nullptr;
  afc_client_t afc_ = nullptr;
};

// Suites by subject, one fixture.
using DevsimUsbmuxTest = DevsimAfcTest;
using DevsimFaultsTest = DevsimAfcTest;
using DevsimRobustnessTest = DevsimAfcTest;

// Image files in media/ and in app containers; outside.txt is neither.
const uint64_t kStored = 11 + 5 + 1024 * 1024 + 6 + 4 + 6 + 5;

TEST_F(DevsimAfcTest, ListsDescribesFillsToCapacityAndServesHostileKindsAndChosenErrorsForMatchingPaths) {
  start();
  EXPECT_EQ(listing(afc_, "/general_storage"),
            (std::vector<std::string>{".", "..", "data.bin", "folder", "hello.txt", "locked.txt", "open.txt"}));
  // Kind, size and birth time are pinned in device_devsim_test.cpp, the
  // modification time to the nanosecond by the set-time round trip below.
  auto file = info("/general_storage/hello.txt");
  EXPECT_EQ(file["st_blocks"], "8");  // one 4096-byte block in 512-byte units
  EXPECT_EQ(file["st_nlink"], "1");
  char** entries = nullptr;
  EXPECT_EQ(afc_read_directory(afc_, "/general_storage/hello.txt", &entries), AFC_E_READ_ERROR);
  EXPECT_EQ(device_info()["Model"], "iPhone9,3");

  // Writes beyond the capacity fail with no space and write nothing.
  ASSERT_EQ(sim_.control("capacity " + udid_ + " " + std::to_string(kStored + 1000)), "ok");

  uint64_t h = open("/general_storage/fill.bin", AFC_FOPEN_WRONLY);
  write(h, std::string(600, 'a'));
  write(h, std::string(600, 'b'), AFC_E_NO_SPACE_LEFT);
  EXPECT_EQ(afc_file_truncate(afc_, h, 5000), AFC_E_NO_SPACE_LEFT);
  write(h, std::string(400, 'c'));
  write(h, "d", AFC_E_NO_SPACE_LEFT);
  afc_file_close(afc_, h);
  EXPECT_EQ(readLocal(media_ + "/general_storage/fill.bin"), std::string(600, 'a') + std::string(400, 'c'));

  EXPECT_EQ(device_info()["FSFreeBytes"], "0");
  // Removing a file gives its space back.
  EXPECT_EQ(afc_remove_path(afc_, "/general_storage/fill.bin"), AFC_E_SUCCESS);
  EXPECT_EQ(device_info()["FSFreeBytes"], "1000");

  // Hostile kinds come and go over the same tree.
  for (const char* kinds : {" names bogus", ""})
    EXPECT_EQ(sim_.control("hostile " + udid_ + kinds),
              "error: usage: hostile UDID KIND... (names sizes million deep half oversize all none)");
  ASSERT_EQ(sim_.control("hostile " + udid_ + " names deep"), "ok");
  EXPECT_EQ(listing(afc_, "/general_storage"),
            (std::vector<std::string>{".", "..", "Hostile", "data.bin", "folder", "hello.txt", "locked.txt",
                                      "open.txt"}));
  EXPECT_EQ(listing(afc_, "/general_storage/Hostile"), (std::vector<std::string>{".", "..", "names", "deep"}));
  EXPECT_EQ(stat_path("/general_storage/Hostile/sizes"), AFC_E_OBJECT_NOT_FOUND) << "a kind not chosen";
  // The made-up tree cannot be changed, and nothing was written to the image.
  EXPECT_EQ(afc_make_directory(afc_, "/general_storage/Hostile/names/new"), AFC_E_PERM_DENIED);
  open("/general_storage/Hostile/names/plain.txt", AFC_FOPEN_RW, AFC_E_PERM_DENIED);
  EXPECT_FALSE(exists(media_ + "/general_storage/Hostile"));
  ASSERT_EQ(sim_.control("clear " + udid_), "ok");
  EXPECT_EQ(stat_path("/general_storage/Hostile/names"), AFC_E_SUCCESS) << "clear leaves hostile kinds";
  ASSERT_EQ(sim_.control("hostile " + udid_ + " none"), "ok");
  EXPECT_EQ(stat_path("/general_storage/Hostile"), AFC_E_OBJECT_NOT_FOUND);

  // Chosen errors answer for matching paths only.
  ASSERT_EQ(sim_.control("afc-error " + udid_ + " /general_storage/lock* 10"), "ok");
  ASSERT_EQ(sim_.control("afc-error " + udid_ + " */data.bin no-space"), "ok");
  open("/general_storage/locked.txt", AFC_FOPEN_RDONLY, AFC_E_PERM_DENIED);
  open("/general_storage/data.bin", AFC_FOPEN_RW, AFC_E_NO_SPACE_LEFT);
  open("/general_storage/open.txt", AFC_FOPEN_RDONLY);
  EXPECT_EQ(sim_.control("afc-error " + udid_ + " /x"), "error: usage: afc-error UDID PATTERN CODE (CODE: number or name, not 0)");
  ASSERT_EQ(sim_.control("clear " + udid_), "ok");
  open("/general_storage/locked.txt", AFC_FOPEN_RDONLY);

  // A rule for one kind of request: the file opens and reads, but stays.
  ASSERT_EQ(sim_.control("afc-error " + udid_ + " /general_storage/open.txt permission-denied remove"), "ok");
  EXPECT_EQ(sim_.control("afc-error " + udid_ + " /x 10 delete"),
            "error: afc-error REQUEST is one of remove, rename, open, read, write, info, mkdir, list");
  uint64_t handle = open("/general_storage/open.txt", AFC_FOPEN_RDONLY);
  EXPECT_EQ(read(handle, 1), "o");
  EXPECT_EQ(afc_file_close(afc_, handle), AFC_E_SUCCESS);
  EXPECT_EQ(afc_remove_path(afc_, "/general_storage/open.txt"), AFC_E_PERM_DENIED);
  EXPECT_EQ(afc_remove_path(afc_, "/general_storage/locked.txt"), AFC_E_SUCCESS);
}

TEST_F(DevsimAfcTest, OpenModesKeepTheirPosixMeaningPathsNeverLeaveTheMediaFolderAndChangesGetAPhonesErrors) {
  start();
  open("/general_storage/folder", AFC_FOPEN_RDONLY, AFC_E_OBJECT_IS_DIR);

  // r: reads, cannot write.
  uint64_t h = open("/general_storage/hello.txt", AFC_FOPEN_RDONLY);
  EXPECT_EQ(read(h, 100), "hello world");
  write(h, "x", AFC_E_PERM_DENIED);
  afc_file_close(afc_, h);

  // r+: writes in place at the position.
  h = open("/general_storage/hello.txt", AFC_FOPEN_RW);
  ASSERT_EQ(afc_file_seek(afc_, h, 6, SEEK_SET), AFC_E_SUCCESS);
  write(h, "WORLD");
  uint64_t position = 0;
  ASSERT_EQ(afc_file_tell(afc_, h, &position), AFC_E_SUCCESS);
  EXPECT_EQ(position, 11u);
  afc_file_close(afc_, h);
  EXPECT_EQ(readLocal(media_ + "/general_storage/hello.txt"), "hello WORLD");

  // w: truncates; w+ creates and reads back.
  h = open("/general_storage/hello.txt", AFC_FOPEN_WRONLY);
  write(h, "new");
  afc_file_close(afc_, h);
  EXPECT_EQ(readLocal(media_ + "/general_storage/hello.txt"), "new");
  h = open("/general_storage/created.txt", AFC_FOPEN_WR);
  write(h, "abcdef");
  ASSERT_EQ(afc_file_seek(afc_, h, -3, SEEK_END), AFC_E_SUCCESS);
  EXPECT_EQ(read(h, 10), "def");
  afc_file_close(afc_, h);

  // a and a+: every write lands at the end, wherever the position is.
  h = open("/general_storage/created.txt", AFC_FOPEN_APPEND);
  ASSERT_EQ(afc_file_seek(afc_, h, 0, SEEK_SET), AFC_E_SUCCESS);
  write(h, "123");
  afc_file_close(afc_, h);
  h = open("/general_storage/created.txt", AFC_FOPEN_RDAPPEND);
  EXPECT_EQ(read(h, 3), "abc");
  ASSERT_EQ(afc_file_seek(afc_, h, 1, SEEK_SET), AFC_E_SUCCESS);
  write(h, "XY");
  afc_file_close(afc_, h);
  EXPECT_EQ(readLocal(media_ + "/general_storage/created.txt"), "abcdef123XY");

  // Handles are per connection and die with close.
  EXPECT_EQ(afc_file_close(afc_, 12345), AFC_E_INVALID_ARG);
  EXPECT_EQ(afc_file_seek(afc_, h, 0, SEEK_SET), AFC_E_INVALID_ARG);

  std::string outside = sim_.image_dir(0) + "/outside.txt";
  // A link planted in the image pointing at the host's copy of a file outside.
  fs::create_symlink(outside, media_ + "/general_storage/planted");
  fs::create_symlink("../../outside.txt", media_ + "/general_storage/relative");

  for (const char* path : {"../outside.txt", "/../outside.txt", "/general_storage/../../outside.txt",
                           "../../../../../../etc/passwd", "/general_storage/planted", "/general_storage/relative",
                           "//..//..//outside.txt"})
    open(path, AFC_FOPEN_RDONLY, AFC_E_OBJECT_NOT_FOUND);
  // Links made through AFC resolve inside the root too.
  ASSERT_EQ(afc_make_link(afc_, AFC_SYMLINK, "/../../../../etc/passwd", "/general_storage/made"), AFC_E_SUCCESS);
  open("/general_storage/made", AFC_FOPEN_RDONLY, AFC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(afc_make_link(afc_, AFC_HARDLINK, "../outside.txt", "/general_storage/hard"), AFC_E_OBJECT_NOT_FOUND);

  // ".." above the root is the root: writing there writes into media/.
  h = open("../../escaped.txt", AFC_FOPEN_WRONLY);
  write(h, "inside");
  afc_file_close(afc_, h);
  EXPECT_EQ(readLocal(media_ + "/escaped.txt"), "inside");
  EXPECT_FALSE(fs::exists(sim_.image_dir(0) + "/escaped.txt"));
  EXPECT_EQ(afc_rename_path(afc_, "/escaped.txt", "/../../../moved.txt"), AFC_E_SUCCESS);
  EXPECT_TRUE(fs::exists(media_ + "/moved.txt"));
  // Creating through a planted link lands inside, never at the link's host target.
  fs::create_symlink(sim_.work_dir() + "/created-outside.txt", media_ + "/dangling");
  open("/dangling", AFC_FOPEN_WRONLY, AFC_E_OBJECT_NOT_FOUND);
  EXPECT_FALSE(fs::exists(sim_.work_dir() + "/created-outside.txt"));
  EXPECT_EQ(afc_remove_path_and_contents(afc_, "/.."), AFC_E_PERM_DENIED);
  EXPECT_EQ(readLocal(outside), "must stay unreachable");

  EXPECT_EQ(afc_make_directory(afc_, "/general_storage/new"), AFC_E_SUCCESS);
  EXPECT_EQ(afc_make_directory(afc_, "/general_storage/new"), AFC_E_SUCCESS);  // already there: fine
  EXPECT_EQ(afc_make_directory(afc_, "/general_storage/hello.txt"), AFC_E_OBJECT_EXISTS);
  EXPECT_EQ(afc_make_directory(afc_, "/no/such/parent"), AFC_E_OBJECT_NOT_FOUND);

  EXPECT_EQ(afc_rename_path(afc_, "/general_storage/hello.txt", "/general_storage/new/moved.txt"), AFC_E_SUCCESS);
  EXPECT_EQ(readLocal(media_ + "/general_storage/new/moved.txt"), "new");
  EXPECT_EQ(afc_rename_path(afc_, "/general_storage/hello.txt", "/x"), AFC_E_OBJECT_NOT_FOUND);

  EXPECT_EQ(afc_remove_path_and_contents(afc_, "/general_storage/folder"), AFC_E_SUCCESS);
  EXPECT_FALSE(fs::exists(media_ + "/general_storage/folder"));

  // Truncation by path grows a file too.
  EXPECT_EQ(afc_truncate(afc_, "/general_storage/open.txt", 5000), AFC_E_SUCCESS);
  EXPECT_EQ(fs::file_size(media_ + "/general_storage/open.txt"), 5000u);
  EXPECT_EQ(afc_truncate(afc_, "/general_storage/none.bin", 1), AFC_E_OBJECT_NOT_FOUND);

  uint64_t when = 1500000000ull * 1000000000ull + 123;
  EXPECT_EQ(afc_set_file_time(afc_, "/general_storage/open.txt", when), AFC_E_SUCCESS);
  EXPECT_EQ(info("/general_storage/open.txt")["st_mtime"], std::to_string(when));

  EXPECT_EQ(afc_make_link(afc_, AFC_SYMLINK, "open.txt", "/general_storage/link"), AFC_E_SUCCESS);
  auto link = info("/general_storage/link");
  EXPECT_EQ(link["st_ifmt"], "S_IFLNK");
  EXPECT_EQ(link["LinkTarget"], "open.txt");
  EXPECT_EQ(afc_make_link(afc_, AFC_HARDLINK, "/general_storage/open.txt", "/general_storage/hard"),
            AFC_E_SUCCESS);
  EXPECT_EQ(info("/general_storage/hard")["st_nlink"], "2");
  EXPECT_EQ(afc_make_link(afc_, AFC_SYMLINK, "x", "/general_storage/hard"), AFC_E_OBJECT_EXISTS);

  h = open("/general_storage/open.txt", AFC_FOPEN_RDONLY);
  EXPECT_EQ(afc_file_lock(afc_, h, AFC_LOCK_EX), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_lock(afc_, h, AFC_LOCK_UN), AFC_E_SUCCESS);
  afc_file_close(afc_, h);
}

// ifuse, unmodified, mounts the media root and an app's Documents over a TLS
// lockdown session and copies 64 MiB both ways byte for byte; a mount needs a
// session, so none once the device forgot the computer. (Each AFC request it
// makes is pinned above; writes into an app's Documents in
// device_devsim_test.cpp.)
TEST_F(DevsimAfcTest, IfuseMountsMediaAndDocumentsWhileTheDeviceAcceptsTheComputer) {
  if (access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is missing or not usable";
  if (run_program({"sh", "-c", "command -v ifuse && { command -v fusermount3 || command -v fusermount; }"}) != 0)
    GTEST_SKIP() << "ifuse or fusermount is not installed";
  start();
  ASSERT_EQ(sim_.control("capacity " + udid_ + " 200000000"), "ok");
  ASSERT_TRUE(writeLocal(media_ + "/general_storage/sub folder/it's $(x).txt", "odd name\n"));
  const std::string mnt = sim_.work_dir() + "/mnt", docs = sim_.work_dir() + "/docs";
  std::string output;
  for (const std::string& where : {mnt, docs}) {
    std::vector<std::string> argv = {"ifuse", "-u", udid_, where};
    if (where == docs) argv.insert(argv.begin() + 3, {"--documents", "com.example.notes"});
    fs::create_directories(where);
    ASSERT_EQ(run_program(argv, &output), 0) << output << sim_.log();
    mounted_.push_back(where);
  }
  const std::string storage = mnt + "/general_storage";
  EXPECT_EQ(sorted(namesIn(storage)),
            (std::vector<std::string>{"data.bin", "folder", "hello.txt", "locked.txt", "open.txt", "sub folder"}));
  EXPECT_EQ(readLocal(storage + "/sub folder/it's $(x).txt"), "odd name\n");
  EXPECT_EQ(readLocal(docs + "/note.txt"), "a note");
  const std::string big = randomBytes(64 * 1024 * 1024, 12345);
  EXPECT_TRUE(writeLocal(storage + "/big.bin", big));
  EXPECT_TRUE(readLocal(media_ + "/general_storage/big.bin") == big);
  EXPECT_TRUE(readLocal(storage + "/big.bin") == big);

  ASSERT_EQ(sim_.control("forget-host " + udid_), "ok");
  fs::create_directories(sim_.work_dir() + "/refused");
  EXPECT_NE(run_program({"ifuse", "-u", udid_, sim_.work_dir() + "/refused"}, &output), 0) << output;
}

struct Vended {
  house_arrest_client_t house = nullptr;
  afc_client_t afc = nullptr;
  std::string error;
  ~Vended() {
    if (afc) afc_client_free(afc);
    if (house) house_arrest_client_free(house);
  }
};

// A house_arrest command; on success out.afc serves the app's folder, otherwise
// out.error says why and there is no client (AFC calls through none fail).
void vend(idevice_t device, const char* command, const char* app, Vended& out) {
  ASSERT_EQ(house_arrest_client_start_service(device, &out.house, "devsim-test"), HOUSE_ARREST_E_SUCCESS);
  ASSERT_EQ(house_arrest_send_command(out.house, command, app), HOUSE_ARREST_E_SUCCESS);
  plist_t result = nullptr;
  ASSERT_EQ(house_arrest_get_result(out.house, &result), HOUSE_ARREST_E_SUCCESS);
  out.error = dict_text(result, "Error");
  if (out.error.empty()) {
    EXPECT_EQ(dict_text(result, "Status"), "Complete");
    EXPECT_EQ(afc_client_new_from_house_arrest_client(out.house, &out.afc), AFC_E_SUCCESS);
  }
  plist_free(result);
}

// What a usbmuxd listener saw of the device with this id.
struct Events {
  uint32_t id;
  std::atomic<int> added{0}, removed{0};
};

void record_event(const usbmuxd_event_t* event, void* user_data) {
  auto* events = static_cast<Events*>(user_data);
  if (event->device.handle != events->id) return;
  if (event->event == UE_DEVICE_ADD) ++events->added;
  if (event->event == UE_DEVICE_REMOVE) ++events->removed;
}

// One phone carries every fault in turn; a second device appears late.
TEST_F(DevsimFaultsTest, CountsConnectionsLimitsServicesDropsUnplugsShapesTrafficAndShowsALateDevice) {
  DevsimImage late;
  late.udid = "1a7e00000000000000000000000000000000d3v5";
  start({"--latency-us", "300", "--bandwidth-mbps", "35", "--fault", "appear-after " + late.udid + " 2"},
        {late});
  EXPECT_FALSE(device_listed(late.udid));

  // The lockdown client that started the service is closed by now, but
  // devsim may not have seen it go yet.
  EXPECT_TRUE(eventually([&] { return sim_.control("connections " + udid_) == "ok 1"; }));
  EXPECT_EQ(sim_.control("connections " + udid_ + " afc"), "ok 1");
  EXPECT_EQ(sim_.control("connections " + udid_ + " house_arrest"), "ok 0");
  EXPECT_EQ(sim_.control("connections * lockdown"), "ok 0");
  EXPECT_EQ(sim_.control("connections " + udid_ + " usb"),
            "error: usage: connections UDID [lockdown|afc|installation_proxy|house_arrest]");

  // With the AFC connection and this lockdown client open, two is the limit.
  ASSERT_EQ(sim_.control("service-limit " + udid_ + " 2"), "ok");
  ASSERT_EQ(lockdownd_client_new_with_handshake(device_, &lockdown_, "devsim-test"), LOCKDOWN_E_SUCCESS);
  EXPECT_EQ(sim_.control("connections " + udid_ + " lockdown"), "ok 1");
  EXPECT_EQ(start_service(lockdown_, "com.apple.afc"), LOCKDOWN_E_SERVICE_LIMIT);
  ASSERT_EQ(sim_.control("service-limit " + udid_ + " 0"), "ok");
  EXPECT_EQ(start_service(lockdown_, "com.apple.afc"), LOCKDOWN_E_SUCCESS);
  lockdownd_client_free(lockdown_);
  lockdown_ = nullptr;
  EXPECT_TRUE(eventually([&] { return sim_.control("connections " + udid_ + " lockdown") == "ok 0"; }));
  // Closed connections are counted out: none left once AFC closes too.
  afc_client_free(afc_);
  afc_ = nullptr;
  EXPECT_TRUE(eventually([&] { return sim_.control("connections " + udid_) == "ok 0"; }));

  // Dropped after N requests, or unplugged: open connections are cut and new
  // ones served; listeners see the unplug.
  connect_afc();
  ASSERT_EQ(sim_.control("drop-after-requests " + udid_ + " 5"), "ok");
  for (int i = 0; i < 5; ++i) EXPECT_EQ(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS) << i;
  EXPECT_NE(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS);
  connect_afc();
  EXPECT_EQ(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS);
  ASSERT_EQ(sim_.control("clear " + udid_), "ok");

  Events events{sim_.location_id(0)};
  usbmuxd_subscription_context_t subscription = nullptr;
  ASSERT_EQ(usbmuxd_events_subscribe(&subscription, record_event, &events), 0);
  EXPECT_TRUE(eventually([&] { return events.added >= 1; }));
  ASSERT_EQ(sim_.control("unplug " + udid_ + " 1"), "ok");
  EXPECT_TRUE(eventually([&] { return events.removed >= 1; }));
  EXPECT_NE(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS);
  EXPECT_TRUE(eventually([&] { return events.added >= 2; }));  // plugged in again after a second
  usbmuxd_events_unsubscribe(subscription);
  connect_afc();
  EXPECT_EQ(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS);

  ASSERT_EQ(sim_.control("unplug " + udid_), "ok");
  EXPECT_FALSE(device_listed(udid_));
  ASSERT_EQ(sim_.control("plug " + udid_), "ok");
  EXPECT_TRUE(device_listed(udid_));

  EXPECT_TRUE(eventually([&] { return device_listed(late.udid); }));
  EXPECT_EQ(handshake_and_start_afc(late.udid), LOCKDOWN_E_SUCCESS);

  // Shaped traffic still carries the same bytes; a connection is dropped
  // once N more bytes of file data have gone.
  connect_afc();
  uint64_t handle = open("/general_storage/data.bin", AFC_FOPEN_RDONLY);
  EXPECT_EQ(read(handle, 1024 * 1024 + 10), std::string(1024 * 1024, 'd'));
  EXPECT_EQ(sim_.control("bandwidth-mbps 0"), "ok");
  EXPECT_EQ(sim_.control("latency-us nope"), "error: usage: latency-us MICROSECONDS");
  ASSERT_EQ(sim_.control("drop-after-bytes * 300000"), "ok");
  ASSERT_EQ(afc_file_seek(afc_, handle, 0, SEEK_SET), AFC_E_SUCCESS);
  std::string data(65536, '\0');
  uint32_t got = 0;
  uint64_t total = 0;
  afc_error_t result = AFC_E_SUCCESS;
  while (result == AFC_E_SUCCESS && total < 1024 * 1024) {
    result = afc_file_read(afc_, handle, &data[0], 65536, &got);
    if (got == 0) break;
    total += got;
  }
  EXPECT_NE(result, AFC_E_SUCCESS);
  EXPECT_GE(total, 300000u);
  EXPECT_LT(total, 1024u * 1024u);
}

// A value of the pair record usbmux serves for `udid`; "(no record)" when none is.
std::string record_text(const std::string& udid, const char* key) {
  char* record = nullptr;
  uint32_t size = 0;
  if (usbmuxd_read_pair_record(udid.c_str(), &record, &size) < 0) return "(no record)";
  plist_t parsed = nullptr;
  plist_from_memory(record, size, &parsed);
  free(record);
  std::string value = dict_text(parsed, key);
  plist_free(parsed);
  return value;
}

// StartSession with the served record's HostID (an empty one is refused, so
// the record must hold one); whether the device asked for TLS. After
// StopSession the connection must still answer in plain.
int session_then_plain(const std::string& udid) {
  std::string host_id = record_text(udid, "HostID");
  idevice_t device = nullptr;
  EXPECT_EQ(idevice_new(&device, udid.c_str()), IDEVICE_E_SUCCESS);
  lockdownd_client_t client = nullptr;
  EXPECT_EQ(lockdownd_client_new(device, &client, "devsim-test"), LOCKDOWN_E_SUCCESS);
  char* session = nullptr;
  int ssl_enabled = -1;
  EXPECT_EQ(lockdownd_start_session(client, host_id.c_str(), &session, &ssl_enabled), LOCKDOWN_E_SUCCESS);
  if (session) {
    EXPECT_EQ(lockdownd_stop_session(client, session), LOCKDOWN_E_SUCCESS);
  }
  free(session);
  plist_t value = nullptr;
  EXPECT_EQ(lockdownd_get_value(client, nullptr, "DeviceName", &value), LOCKDOWN_E_SUCCESS) << "plain after";
  plist_free(value);
  if (client) lockdownd_client_free(client);
  if (device) idevice_free(device);
  return ssl_enabled;
}

// The default pair record is a real pairing, kept across restarts until the
// device forgets it. idevice_id, ideviceinfo and idevicepair, unmodified,
// reach each image by its udid and meet a trust prompt, a denial, a passcode
// lock and a device that forgot the computer; with --no-tls the made-up record
// needs no pairing.
TEST_F(DevsimUsbmuxTest, PairingIsRealAndKeptAcrossRestartsAndStockToolsMeetPromptDenialLockAndForgottenHost) {
  const bool tools =
      run_program({"sh", "-c", "command -v idevicepair && command -v ideviceinfo && command -v idevice_id"}) == 0;
  std::string dir = makeTempDir("devsim-pairing-");
  ASSERT_FALSE(dir.empty());
  DevsimImage phone, second;
  phone.name = "Pairing Phone";
  phone.location_id = 9402;
  phone.udid = "9a1e0000000000000000000000000000000094a2";
  phone.capacity_bytes = 64000000000ull;
  second.name = "Second iPad";
  second.udid = "9a1e0000000000000000000000000000000094a1";
  second.location_id = 9401;
  second.product_type = "iPad6,11";
  second.ios_version = "11.4";
  const std::string udid = phone.udid;
  const std::vector<std::string> dirs = {dir + "/phone", dir + "/second"};
  ASSERT_TRUE(write_devsim_image(dirs[0], phone) && write_devsim_image(dirs[1], second));
  ASSERT_TRUE(sim_.start_with_dirs(dirs)) << sim_.error();

  for (const char* key :
       {"HostCertificate", "HostPrivateKey", "RootCertificate", "RootPrivateKey", "DeviceCertificate"}) {
    EXPECT_EQ(record_text(udid, key).rfind("-----BEGIN ", 0), 0u) << key;
  }
  char* buid = nullptr;
  ASSERT_EQ(usbmuxd_read_buid(&buid), 0);
  EXPECT_EQ(record_text(udid, "SystemBUID"), buid);
  free(buid);
  std::string served = record_text(udid, "HostID") + record_text(udid, "RootCertificate");

  EXPECT_EQ(handshake_and_start_afc(udid), LOCKDOWN_E_SUCCESS) << sim_.log();
  EXPECT_EQ(session_then_plain(udid), 1) << sim_.log();

  // A restart serves the same pairing, and the device still accepts it.
  ASSERT_TRUE(sim_.start_with_dirs(dirs)) << sim_.error();
  EXPECT_EQ(record_text(udid, "HostID") + record_text(udid, "RootCertificate"), served);
  EXPECT_EQ(handshake_and_start_afc(udid), LOCKDOWN_E_SUCCESS) << sim_.log();

  const std::string pending = "Please accept the trust dialog", denied = "the user denied the trust dialog",
                    paired = "SUCCESS: Paired", valid = "SUCCESS: Validated", passcode = "a passcode is set",
                    not_paired = "is not paired with this host", unpaired = "SUCCESS: Unpaired";
  struct Step {
    const char* control;  // sent first when not null
    std::vector<std::string> tool;
    int status;
    std::string says;
  };
  auto play = [&](const char* walk, const std::vector<Step>& steps) {
    for (size_t i = 0; tools && i < steps.size(); ++i) {
      const Step& step = steps[i];
      if (step.control) {
        ASSERT_EQ(sim_.control(std::string(step.control) + " " + udid), "ok") << step.control;
      }
      std::vector<std::string> argv = step.tool;
      argv.insert(argv.begin() + 1, {"-u", udid});
      std::string output;
      EXPECT_EQ(run_program(argv, &output, 60), step.status) << walk << " step " << i << ": " << output;
      EXPECT_NE(output.find(step.says), std::string::npos) << walk << " step " << i << ": " << output;
    }
  };
  if (tools) {
    std::string output;
    ASSERT_EQ(run_program({"idevice_id", "-l"}, &output), 0) << output;
    EXPECT_NE(output.find(sim_.udid(0)), std::string::npos) << output;
    EXPECT_NE(output.find(sim_.udid(1)), std::string::npos) << output;
    ASSERT_EQ(run_program({"ideviceinfo", "-u", udid, "-q", "com.apple.disk_usage", "-k", "TotalDiskCapacity"},
                          &output), 0) << output;
    EXPECT_EQ(output, "64000000000\n");
    // Every value of the second device; single keys are asked in the walks below.
    ASSERT_EQ(run_program({"ideviceinfo", "-u", sim_.udid(1)}, &output), 0) << output;
    const std::string lines[] = {"DeviceName: Second iPad\n", "ProductVersion: 11.4\n", "DeviceClass: iPad\n",
                                 "UniqueDeviceID: " + sim_.udid(1) + "\n"};
    for (const std::string& line : lines) EXPECT_NE(output.find(line), std::string::npos) << output;
    EXPECT_NE(run_program({"ideviceinfo", "-u", "0000000000000000000000000000000000000000", "-k", "DeviceName"},
                          &output),
              0);
  }
  play("paired", {{nullptr, {"idevicepair", "validate"}, 0, valid},
                  {nullptr, {"ideviceinfo", "-k", "DeviceName"}, 0, "Pairing Phone\n"}});

  // Forgotten: usbmux still serves the record, the handshake refuses it.
  EXPECT_EQ(sim_.control("forget-host " + udid), "ok");
  EXPECT_EQ(handshake_and_start_afc(udid), LOCKDOWN_E_SSL_ERROR);
  EXPECT_NE(record_text(udid, "HostID"), "(no record)");
  // Unpaired: no record, and a client must pair.
  EXPECT_EQ(sim_.control("unpaired " + udid), "ok");
  EXPECT_EQ(record_text(udid, "HostID"), "(no record)");
  EXPECT_EQ(handshake_and_start_afc(udid), LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING);

  play("unpaired", {
      // A new computer: the prompt until the user answers, on every try.
      {nullptr, {"ideviceinfo", "-k", "DeviceName"}, 255, "Pairing dialog response pending (-19)"},
      {nullptr, {"idevicepair", "pair"}, 1, pending},
      {nullptr, {"idevicepair", "pair"}, 1, pending},
      {"deny", {"idevicepair", "pair"}, 1, denied},
      {nullptr, {"idevicepair", "pair"}, 1, denied},
      {"trust", {"idevicepair", "pair"}, 0, paired},
      {nullptr, {"idevicepair", "validate"}, 0, valid},
      {nullptr, {"ideviceinfo", "-k", "DeviceName"}, 0, "Pairing Phone\n"},
      // Locked: pairing and sessions wait for the passcode.
      {"lock", {"idevicepair", "validate"}, 1, passcode},
      {nullptr, {"idevicepair", "pair"}, 1, passcode},
      {"unlock", {"idevicepair", "validate"}, 0, valid},
      // Forgotten: the stored record no longer opens a session.
      {"forget-host", {"idevicepair", "validate"}, 1, "error code -5"},
      {nullptr, {"ideviceinfo", "-k", "DeviceName"}, 255, "SSL error (-5)"},
      {nullptr, {"idevicepair", "unpair"}, 1, not_paired},
      {nullptr, {"idevicepair", "pair"}, 1, pending},
      {"trust", {"idevicepair", "pair"}, 0, paired},
      {nullptr, {"idevicepair", "unpair"}, 0, unpaired},
      // Unpaired from the host: no record left, so validating pairs anew.
      {nullptr, {"idevicepair", "validate"}, 1, pending},
  });

  // --no-tls: plain sessions on a made-up record, whatever the image holds.
  ASSERT_TRUE(sim_.start_with_dirs(dirs, {"--no-tls"})) << sim_.error();
  EXPECT_EQ(record_text(udid, "RootCertificate"), "");
  EXPECT_EQ(handshake_and_start_afc(udid), LOCKDOWN_E_SUCCESS) << sim_.log();
  EXPECT_EQ(session_then_plain(udid), 0) << sim_.log();
  EXPECT_EQ(sim_.control("trust " + udid).rfind("error: ", 0), 0u);
  play("no-tls", {{nullptr, {"idevicepair", "validate"}, 0, valid},
                  {nullptr, {"ideviceinfo", "-k", "DeviceName"}, 0, "Pairing Phone\n"},
                  {"lock", {"idevicepair", "validate"}, 1, passcode}});

  // Records for ids that are no device's are kept as given.
  char* saved_back = nullptr;
  uint32_t size = 0;
  const char saved[] = "saved record";
  ASSERT_EQ(usbmuxd_save_pair_record("unknown-device", saved, sizeof saved), 0);
  ASSERT_EQ(usbmuxd_read_pair_record("unknown-device", &saved_back, &size), 0);
  EXPECT_EQ(std::string(saved_back, size), std::string(saved, sizeof saved));
  free(saved_back);
  ASSERT_EQ(usbmuxd_delete_pair_record("unknown-device"), 0);
  EXPECT_LT(usbmuxd_read_pair_record("unknown-device", &saved_back, &size), 0);
  EXPECT_TRUE(sim_.stop()) << sim_.error();
  removeTree(dir);
  if (!tools) GTEST_SKIP() << "idevicepair/ideviceinfo/idevice_id (libimobiledevice-utils) not installed";
}

// A malformed device.json is refused naming its key, a sparse one served;
// make-sample writes a usable image that serves until SIGINT.
TEST_F(DevsimUsbmuxTest, RefusesMalformedDeviceJsonAndMakeSampleWritesAnImageThatServesUntilSigint) {
  std::string pattern = makeTempDir("devsim-sample-");
  ASSERT_FALSE(pattern.empty());
  struct Case {
    const char* json;
    const char* mentions;
  } cases[] = {
      {R"({"name": "x", "capacity_bytes": "big"})", "capacity_bytes"},
      {R"({"location_id": -4})", "location_id"},
      {R"({"apps": [{"display_name": "No id"}]})", "bundle_id"},
      {R"({"apps": [{"bundle_id": "a", "file_sharing": "yes"}]})", "file_sharing"},
      {R"({"apps": {"bundle_id": "a"}})", "apps"},
      {R"({"udid": 42})", "udid"},
      {R"({"name": )", "not valid JSON"},
      {R"({"hostile": ["names", "lies"]})", "key \"hostile\" holds \"lies\""},
  };
  std::string output;
  for (const Case& c : cases) {
    std::ofstream(pattern + "/device.json", std::ios::trunc) << c.json;
    EXPECT_EQ(run_program({devsim_program(), "serve", "--socket", pattern + "/s", pattern}, &output, 30), 2)
        << c.json;
    EXPECT_NE(output.find(c.mentions), std::string::npos) << c.json << " -> " << output;
    EXPECT_FALSE(fs::exists(pattern + "/s"));
  }
  // Missing optional keys get defaults; it is served beside the sample.
  std::ofstream(pattern + "/device.json", std::ios::trunc) << R"({"udid": "abc"})";
  std::string dir = pattern + "/image";
  ASSERT_EQ(run_program({devsim_program(), "make-sample", dir}, &output), 0) << output;
  EXPECT_NE(run_program({devsim_program(), "make-sample", dir}, &output), 0);  // never over an existing image
  std::string storage = dir + "/media/general_storage";
  for (const char* made : {"/.hidden_settings", "/R\xC3\xA9sum\xC3\xA9.txt", "/Re\xCC\x81sume\xCC\x81.txt",
                          "/it's a \"quoted\" $(touch pwned) name.txt", "/Documents/Reports/2017/summary.txt",
                          "/../../apps/com.example.notes/Documents/Drafts/draft.txt"})
    EXPECT_TRUE(fs::exists(storage + made)) << made;
  EXPECT_GE(fs::file_size(storage + "/Big Files/random.bin"), 2u * 1024 * 1024);

  ASSERT_TRUE(sim_.start_with_dirs({dir, pattern})) << sim_.error();
  EXPECT_EQ(sim_.udid(0).size(), 40u);
  EXPECT_TRUE(device_listed(sim_.udid(0)));
  EXPECT_TRUE(device_listed("abc"));
  EXPECT_TRUE(sim_.stop()) << sim_.error();
  EXPECT_FALSE(fs::exists(storage + "/pwned"));

  // SIGINT stops it cleanly, its sockets removed.
  std::string socket = pattern + "/mux.sock";
  pid_t pid = startProgram({devsim_program(), "serve", "--socket", socket, dir}, pattern + "/serve.log");
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(eventually([&] { return fs::exists(socket + ".control"); }, 30));
  EXPECT_EQ(exitStatusOf(pid, SIGINT, 30), 0);
  EXPECT_FALSE(fs::exists(socket));
  EXPECT_FALSE(fs::exists(socket + ".control"));
  removeTree(pattern);
}

int connect_mux(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

void send_bytes(int fd, const std::string& bytes) { send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

std::string u32le(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string u64le(uint64_t v) { return std::string(reinterpret_cast<const char*>(&v), 8); }
std::string u32be(uint32_t v) {
  v = htonl(v);
  return std::string(reinterpret_cast<const char*>(&v), 4);
}

std::string usbmux_packet(const std::string& body, uint32_t version = 1, uint32_t type = 8) {
  return u32le(static_cast<uint32_t>(16 + body.size())) + u32le(version) + u32le(type) + u32le(1) + body;
}

// True when the server closes the connection (rather than leaving it hanging
// until the timeout). libusbmuxd hands out non-blocking sockets.
bool closed_by_server(int fd) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  timeval timeout{20, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  char buffer[4096];
  ssize_t n;
  while ((n = recv(fd, buffer, sizeof buffer, 0)) > 0) {
  }
  bool closed = n == 0 || errno == ECONNRESET;
  close(fd);
  return closed;
}

std::string plist_message(const std::string& xml) { return u32be(static_cast<uint32_t>(xml.size())) + xml; }

std::string afc_header(uint64_t entire, uint64_t this_length, uint64_t operation, const char* magic = "CFA6LPAA") {
  return std::string(magic, 8) + u64le(entire) + u64le(this_length) + u64le(1) + u64le(operation);
}

// House arrest and the installation proxy answer as on a phone; lockdown
// answers values and starts services; malformed input to usbmux and
// to every service closes only the offending connection, while this
// well-behaved client (its long-lived AFC and lockdown connections) keeps
// being served throughout.
TEST_F(DevsimRobustnessTest, VendsSharedDocumentsBrowsesAppsInPartsServesValuesAndOutlastsMalformedInput) {
  start();
  {
    Vended documents;
    vend(device_, "VendDocuments", "com.example.notes", documents);
    EXPECT_EQ(listing(documents.afc, "/Documents"), (std::vector<std::string>{".", "..", "note.txt"}));
    uint64_t handle = 0;
    EXPECT_EQ(afc_file_open(documents.afc, "/../../../media/general_storage/hello.txt", AFC_FOPEN_RDONLY, &handle),
              AFC_E_OBJECT_NOT_FOUND);
  }
  for (const char* app : {"com.example.vault", "com.example.absent"}) {
    Vended refused;
    vend(device_, "VendDocuments", app, refused);
    EXPECT_EQ(refused.error, "InstallationLookupFailed") << app;
  }
  Vended container;
  vend(device_, "VendContainer", "com.example.vault", container);
  EXPECT_EQ(listing(container.afc, "/Documents"), (std::vector<std::string>{".", "..", "secret.txt"}));

  instproxy_client_t installer = nullptr;
  ASSERT_EQ(instproxy_client_start_service(device_, &installer, "devsim-test"), INSTPROXY_E_SUCCESS);
  plist_t options = instproxy_client_options_new();
  instproxy_client_options_add(options, "ApplicationType", "User", NULL);
  std::atomic<int> parts{0};
  auto count_parts = [](plist_t, plist_t status, void* parts) {
    if (plist_dict_get_item(status, "CurrentList")) ++*static_cast<std::atomic<int>*>(parts);
  };
  ASSERT_EQ(instproxy_browse_with_callback(installer, options, count_parts, &parts), INSTPROXY_E_SUCCESS);
  for (int i = 0; i < 100 && parts < 3; ++i) usleep(50000);
  EXPECT_EQ(parts.load(), 3);  // five apps arrive as 2 + 2 + 1

  instproxy_client_options_free(options);
  instproxy_client_free(installer);

  ASSERT_EQ(lockdownd_client_new_with_handshake(device_, &lockdown_, "devsim-test"), LOCKDOWN_E_SUCCESS);
  plist_t value = nullptr;
  ASSERT_EQ(lockdownd_get_value(lockdown_, "com.apple.disk_usage", "TotalDataAvailable", &value),
            LOCKDOWN_E_SUCCESS);
  uint64_t available = 0;
  plist_get_uint_val(value, &available);
  plist_free(value);
  EXPECT_EQ(available, 50000000u - kStored);
  value = nullptr;
  EXPECT_EQ(lockdownd_get_value(lockdown_, nullptr, "NoSuchKey", &value), LOCKDOWN_E_MISSING_VALUE);
  EXPECT_EQ(start_service(lockdown_, "com.apple.mobile.diagnostics_relay.nope"), LOCKDOWN_E_INVALID_SERVICE);

  auto expect_still_served = [&](const std::string& after) {
    EXPECT_EQ(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS) << "after " << after;
    plist_t name = nullptr;
    EXPECT_EQ(lockdownd_get_value(lockdown_, nullptr, "DeviceName", &name), LOCKDOWN_E_SUCCESS) << "after " << after;
    plist_free(name);
  };
  const uint32_t id = sim_.location_id(0);
  EXPECT_EQ(usbmuxd_connect(4242, 62078), -ENODEV) << "no such device";
  EXPECT_EQ(usbmuxd_connect(id, 1), -ECONNREFUSED) << "nothing listens on port 1";
  expect_still_served("refused connects");

  const char* mux = "usbmux";
  const char* afc = "com.apple.afc";
  const char* proxy = "com.apple.mobile.installation_proxy";
  const char* house = "com.apple.mobile.house_arrest";
  // After a successful vend the connection is AFC, and equally guarded.
  const std::string vend_request = plist_message(
      "<plist><dict><key>Command</key><string>VendDocuments</string>"
      "<key>Identifier</key><string>com.example.notes</string></dict></plist>");
  const struct {
    const char* service;  // null: lockdown itself
    const char* label;
    std::string bytes;
    bool close_early;  // an abrupt disconnect in the middle of a message
  } cases[] = {
      {mux, "length below the header", u32le(3) + u32le(1) + u32le(8) + u32le(1), false},
      {mux, "length of 4 GiB", u32le(0xffffffffu) + u32le(1) + u32le(8) + u32le(1), false},
      {mux, "body that is no plist", usbmux_packet("this is not a plist at all"), false},
      {mux, "plist that is not a dict", usbmux_packet("<plist><array/></plist>"), false},
      {mux, "unknown message type",
       usbmux_packet("<plist><dict><key>MessageType</key><string>Explode</string></dict></plist>"), false},
      {mux, "binary protocol", usbmux_packet("xxxx", 0, 3), false},
      {mux, "truncated message", u32le(200) + u32le(1) + u32le(8) + u32le(1) + "<plist>", true},
      {nullptr, "length of 4 GiB", u32be(0xffffffffu), false},
      {nullptr, "zero length", u32be(0), false},
      {nullptr, "no plist", plist_message("garbage!"), false},
      {nullptr, "array", plist_message("<plist><array/></plist>"), false},
      {nullptr, "unknown request",
       plist_message("<plist><dict><key>Request</key><string>SelfDestruct</string></dict></plist>"), false},
      {nullptr, "truncated", u32be(500) + "<plist><dict>", true},
      {afc, "bad magic", afc_header(40, 40, 3, "XXXXXXXX"), false},
      {afc, "this length below header", afc_header(40, 12, 3), false},
      {afc, "entire below this", afc_header(40, 60, 3) + std::string(20, 'a'), false},
      {afc, "negative length", afc_header(0x8000000000000000ull, 40, 3), false},
      {afc, "oversize payload", afc_header(1ull << 40, 48, 0x10) + u64le(1), false},
      {afc, "unknown operation", afc_header(40, 40, 0x99), false},
      {afc, "reply operation as request", afc_header(48, 48, 0x01) + u64le(0), false},
      {afc, "path without terminator", afc_header(45, 45, 0x03) + "/abcd", false},
      {afc, "read with short parameters", afc_header(48, 48, 0x0F) + u64le(1), false},
      {afc, "truncated write", afc_header(40 + 8 + 100000, 48, 0x10) + u64le(1) + "short", true},
      {proxy, "length of 4 GiB", u32be(0xfffffff0u), false},
      {proxy, "no plist", plist_message("{json: maybe}"), false},
      {proxy, "unknown command",
       plist_message("<plist><dict><key>Command</key><string>Uninstall</string></dict></plist>"), false},
      {house, "no plist", plist_message("<plist><dict><key>"), false},
      {house, "unknown command",
       plist_message("<plist><dict><key>Command</key><string>VendEverything</string></dict></plist>"), false},
      {house, "garbage after a vend", vend_request + afc_header(40, 40, 0x77), false},
  };
  for (const auto& c : cases) {
    std::string label = std::string(c.service ? c.service : "lockdown") + ": " + c.label;
    // Services start in plain from the TLS session.
    lockdownd_service_descriptor_t service = nullptr;
    if (c.service && c.service != mux) {
      EXPECT_EQ(lockdownd_start_service(lockdown_, c.service, &service), LOCKDOWN_E_SUCCESS) << label;
      EXPECT_EQ(service ? service->ssl_enabled : -1, 0) << label;
    }
    int fd = c.service == mux ? connect_mux(sim_.socket_path())
                              : usbmuxd_connect(id, service ? service->port : 62078);
    lockdownd_service_descriptor_free(service);
    ASSERT_GE(fd, 0) << label;
    send_bytes(fd, c.bytes);
    if (c.close_early) {
      close(fd);
    } else {
      EXPECT_TRUE(closed_by_server(fd)) << label;
    }
    expect_still_served(label);
  }
  // The bytes after the vend reached AFC.
  EXPECT_NE(sim_.log().find("afc: unknown operation 0x77, closing"), std::string::npos) << sim_.log();
}

}  // namespace
