// The simulated device's file services, seen through libimobiledevice's own
// AFC, house_arrest and installation_proxy clients.
#include <gtest/gtest.h>
#include <libimobiledevice/afc.h>
#include <libimobiledevice/house_arrest.h>
#include <libimobiledevice/installation_proxy.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <map>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"

namespace fs = std::filesystem;

namespace {

std::map<std::string, std::string> to_map(char** list) {
  std::map<std::string, std::string> result;
  for (int i = 0; list && list[i] && list[i + 1]; i += 2) result[list[i]] = list[i + 1];
  if (list) afc_dictionary_free(list);
  return result;
}

std::vector<std::string> to_vector(char** list) {
  std::vector<std::string> result;
  for (int i = 0; list && list[i]; ++i) result.push_back(list[i]);
  if (list) afc_dictionary_free(list);
  return result;
}

class DevsimAfcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (devsim_program().empty()) GTEST_SKIP() << "devsim was not built";
    DevsimImage phone;
    phone.name = "AFC Phone";
    phone.capacity_bytes = 50ull * 1000 * 1000;
    phone.block_size = 4096;
    phone.apps = {{"com.example.notes", "Notes", true},
                  {"org.sample.notes", "Notes", true},
                  {"com.example.reader", "Reader", true},
                  {"com.example.vault", "Vault", false},
                  {"com.example.maps", "Maps", true}};
    phone.files = {{"media/general_storage/hello.txt", "hello world"},
                   {"media/general_storage/folder/inner.txt", "inner"},
                   {"apps/com.example.notes/Documents/note.txt", "a note"},
                   {"apps/com.example.vault/Documents/secret.txt", "vault"},
                   {"outside.txt", "must stay unreachable"}};
    ASSERT_TRUE(sim_.start({phone})) << sim_.error();
    media_ = sim_.image_dir(0) + "/media";
    ASSERT_EQ(idevice_new(&device_, sim_.udid(0).c_str()), IDEVICE_E_SUCCESS);
    ASSERT_EQ(afc_client_start_service(device_, &afc_, "devsim-test"), AFC_E_SUCCESS);
  }

  void TearDown() override {
    if (afc_) afc_client_free(afc_);
    if (device_) idevice_free(device_);
    EXPECT_TRUE(sim_.stop()) << sim_.error();
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

  Devsim sim_;
  std::string media_;
  idevice_t device_ = nullptr;
  afc_client_t afc_ = nullptr;
};

TEST_F(DevsimAfcTest, ListsFoldersAndDescribesFilesAsAPhoneDoes) {
  char** list = nullptr;
  ASSERT_EQ(afc_read_directory(afc_, "/general_storage", &list), AFC_E_SUCCESS);
  std::vector<std::string> names = to_vector(list);
  ASSERT_GE(names.size(), 4u);
  EXPECT_EQ(names[0], ".");
  EXPECT_EQ(names[1], "..");
  EXPECT_NE(std::find(names.begin(), names.end(), "hello.txt"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "folder"), names.end());

  auto file = info("/general_storage/hello.txt");
  EXPECT_EQ(file["st_ifmt"], "S_IFREG");
  EXPECT_EQ(file["st_size"], "11");
  EXPECT_EQ(file["st_blocks"], "8");  // one 4096-byte block in 512-byte units
  EXPECT_EQ(file["st_nlink"], "1");
  struct stat st;
  ASSERT_EQ(stat((media_ + "/general_storage/hello.txt").c_str(), &st), 0);
  EXPECT_EQ(file["st_mtime"], std::to_string(static_cast<uint64_t>(st.st_mtim.tv_sec) * 1000000000ull +
                                             static_cast<uint64_t>(st.st_mtim.tv_nsec)));
  EXPECT_FALSE(file["st_birthtime"].empty());
  EXPECT_EQ(info("/general_storage")["st_ifmt"], "S_IFDIR");
  info("/general_storage/missing", AFC_E_OBJECT_NOT_FOUND);

  char** entries = nullptr;
  EXPECT_EQ(afc_read_directory(afc_, "/general_storage/hello.txt", &entries), AFC_E_READ_ERROR);
  EXPECT_EQ(afc_read_directory(afc_, "/nothing/here", &entries), AFC_E_OBJECT_NOT_FOUND);

  char** device_info = nullptr;
  ASSERT_EQ(afc_get_device_info(afc_, &device_info), AFC_E_SUCCESS);
  auto values = to_map(device_info);
  EXPECT_EQ(values["Model"], "iPhone9,3");
  EXPECT_EQ(values["FSTotalBytes"], "50000000");
  EXPECT_EQ(values["FSBlockSize"], "4096");
  // Everything stored in the image counts: media, app containers.
  uint64_t stored = 11 + 5 + 6 + 5;
  EXPECT_EQ(values["FSFreeBytes"], std::to_string(50000000 - stored));
}

TEST_F(DevsimAfcTest, OpenModesKeepTheirPosixMeaning) {
  open("/general_storage/absent.txt", AFC_FOPEN_RDONLY, AFC_E_OBJECT_NOT_FOUND);
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
}

TEST_F(DevsimAfcTest, ChangesTheNamespaceWithAPhonesErrors) {
  EXPECT_EQ(afc_make_directory(afc_, "/general_storage/new"), AFC_E_SUCCESS);
  EXPECT_EQ(afc_make_directory(afc_, "/general_storage/new"), AFC_E_SUCCESS);  // already there: fine
  EXPECT_EQ(afc_make_directory(afc_, "/general_storage/hello.txt"), AFC_E_OBJECT_EXISTS);
  EXPECT_EQ(afc_make_directory(afc_, "/no/such/parent"), AFC_E_OBJECT_NOT_FOUND);
  EXPECT_TRUE(fs::is_directory(media_ + "/general_storage/new"));

  EXPECT_EQ(afc_rename_path(afc_, "/general_storage/hello.txt", "/general_storage/new/moved.txt"), AFC_E_SUCCESS);
  EXPECT_EQ(readLocal(media_ + "/general_storage/new/moved.txt"), "hello world");
  EXPECT_EQ(afc_rename_path(afc_, "/general_storage/hello.txt", "/x"), AFC_E_OBJECT_NOT_FOUND);

  // A folder with something in it is refused; the client reports it as not empty.
  EXPECT_EQ(afc_remove_path(afc_, "/general_storage/new"), AFC_E_DIR_NOT_EMPTY);
  EXPECT_EQ(afc_remove_path(afc_, "/general_storage/new/moved.txt"), AFC_E_SUCCESS);
  EXPECT_EQ(afc_remove_path(afc_, "/general_storage/new"), AFC_E_SUCCESS);
  EXPECT_EQ(afc_remove_path(afc_, "/general_storage/new"), AFC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(afc_remove_path_and_contents(afc_, "/general_storage/folder"), AFC_E_SUCCESS);
  EXPECT_FALSE(fs::exists(media_ + "/general_storage/folder"));

  // Truncation by path and through a handle.
  uint64_t h = open("/general_storage/sized.bin", AFC_FOPEN_WR);
  write(h, std::string(1000, 'z'));
  EXPECT_EQ(afc_file_truncate(afc_, h, 10), AFC_E_SUCCESS);
  afc_file_close(afc_, h);
  EXPECT_EQ(fs::file_size(media_ + "/general_storage/sized.bin"), 10u);
  EXPECT_EQ(afc_truncate(afc_, "/general_storage/sized.bin", 5000), AFC_E_SUCCESS);
  EXPECT_EQ(fs::file_size(media_ + "/general_storage/sized.bin"), 5000u);
  EXPECT_EQ(afc_truncate(afc_, "/general_storage/none.bin", 1), AFC_E_OBJECT_NOT_FOUND);

  uint64_t when = 1500000000ull * 1000000000ull + 123;
  EXPECT_EQ(afc_set_file_time(afc_, "/general_storage/sized.bin", when), AFC_E_SUCCESS);
  EXPECT_EQ(info("/general_storage/sized.bin")["st_mtime"], std::to_string(when));

  EXPECT_EQ(afc_make_link(afc_, AFC_SYMLINK, "sized.bin", "/general_storage/link"), AFC_E_SUCCESS);
  auto link = info("/general_storage/link");
  EXPECT_EQ(link["st_ifmt"], "S_IFLNK");
  EXPECT_EQ(link["LinkTarget"], "sized.bin");
  EXPECT_EQ(afc_make_link(afc_, AFC_HARDLINK, "/general_storage/sized.bin", "/general_storage/hard"), AFC_E_SUCCESS);
  EXPECT_EQ(info("/general_storage/hard")["st_nlink"], "2");
  EXPECT_EQ(afc_make_link(afc_, AFC_SYMLINK, "x", "/general_storage/hard"), AFC_E_OBJECT_EXISTS);

  h = open("/general_storage/sized.bin", AFC_FOPEN_RDONLY);
  EXPECT_EQ(afc_file_lock(afc_, h, AFC_LOCK_EX), AFC_E_SUCCESS);
  EXPECT_EQ(afc_file_lock(afc_, h, AFC_LOCK_UN), AFC_E_SUCCESS);
  afc_file_close(afc_, h);
}

TEST_F(DevsimAfcTest, PathsNeverLeaveTheMediaFolder) {
  std::string outside = sim_.image_dir(0) + "/outside.txt";
  // A link planted in the image pointing at the host's copy of a file outside.
  fs::create_symlink(outside, media_ + "/general_storage/planted");
  fs::create_symlink("../../outside.txt", media_ + "/general_storage/relative");

  for (const char* path : {"../outside.txt", "/../outside.txt", "/general_storage/../../outside.txt",
                           "../../../../../../etc/passwd", "/general_storage/planted", "/general_storage/relative",
                           "//..//..//outside.txt"}) {
    uint64_t handle = 0;
    EXPECT_EQ(afc_file_open(afc_, path, AFC_FOPEN_RDONLY, &handle), AFC_E_OBJECT_NOT_FOUND) << path;
  }
  // Links made through AFC resolve inside the root too.
  ASSERT_EQ(afc_make_link(afc_, AFC_SYMLINK, "/../../../../etc/passwd", "/general_storage/made"), AFC_E_SUCCESS);
  open("/general_storage/made", AFC_FOPEN_RDONLY, AFC_E_OBJECT_NOT_FOUND);
  EXPECT_EQ(afc_make_link(afc_, AFC_HARDLINK, "../outside.txt", "/general_storage/hard"), AFC_E_OBJECT_NOT_FOUND);

  // ".." above the root is the root: writing there writes into media/.
  uint64_t h = open("../../escaped.txt", AFC_FOPEN_WRONLY);
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
}

TEST_F(DevsimAfcTest, WritesBeyondCapacityFailWithNoSpaceAndWriteNothing) {
  char** device_info = nullptr;
  ASSERT_EQ(afc_get_device_info(afc_, &device_info), AFC_E_SUCCESS);
  uint64_t free_bytes = std::stoull(to_map(device_info)["FSFreeBytes"]);
  ASSERT_EQ(sim_.control("capacity " + sim_.udid(0) + " " + std::to_string(50000000 - free_bytes + 1000)), "ok");

  uint64_t h = open("/general_storage/fill.bin", AFC_FOPEN_WRONLY);
  write(h, std::string(600, 'a'));
  write(h, std::string(600, 'b'), AFC_E_NO_SPACE_LEFT);
  EXPECT_EQ(afc_file_truncate(afc_, h, 5000), AFC_E_NO_SPACE_LEFT);
  write(h, std::string(400, 'c'));
  write(h, "d", AFC_E_NO_SPACE_LEFT);
  afc_file_close(afc_, h);
  EXPECT_EQ(readLocal(media_ + "/general_storage/fill.bin"), std::string(600, 'a') + std::string(400, 'c'));

  ASSERT_EQ(afc_get_device_info(afc_, &device_info), AFC_E_SUCCESS);
  EXPECT_EQ(to_map(device_info)["FSFreeBytes"], "0");
  // Removing a file gives its space back.
  EXPECT_EQ(afc_remove_path(afc_, "/general_storage/fill.bin"), AFC_E_SUCCESS);
  ASSERT_EQ(afc_get_device_info(afc_, &device_info), AFC_E_SUCCESS);
  EXPECT_EQ(to_map(device_info)["FSFreeBytes"], "1000");
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

void vend(idevice_t device, const char* command, const char* app, Vended& out) {
  ASSERT_EQ(house_arrest_client_start_service(device, &out.house, "devsim-test"), HOUSE_ARREST_E_SUCCESS);
  ASSERT_EQ(house_arrest_send_command(out.house, command, app), HOUSE_ARREST_E_SUCCESS);
  plist_t result = nullptr;
  ASSERT_EQ(house_arrest_get_result(out.house, &result), HOUSE_ARREST_E_SUCCESS);
  plist_t error_node = plist_dict_get_item(result, "Error");
  if (error_node) {
    char* text = nullptr;
    plist_get_string_val(error_node, &text);
    out.error = text ? text : "";
    free(text);
  } else {
    EXPECT_EQ(afc_client_new_from_house_arrest_client(out.house, &out.afc), AFC_E_SUCCESS);
  }
  plist_free(result);
}

TEST_F(DevsimAfcTest, HouseArrestVendsOnlySharedDocumentsLikeAPhone) {
  {
    Vended documents;
    vend(device_, "VendDocuments", "com.example.notes", documents);
    ASSERT_NE(documents.afc, nullptr);
    char** list = nullptr;
    ASSERT_EQ(afc_read_directory(documents.afc, "/Documents", &list), AFC_E_SUCCESS);
    auto names = to_vector(list);
    EXPECT_NE(std::find(names.begin(), names.end(), "note.txt"), names.end());
    uint64_t handle = 0;
    EXPECT_EQ(afc_file_open(documents.afc, "/../../../media/general_storage/hello.txt", AFC_FOPEN_RDONLY, &handle),
              AFC_E_OBJECT_NOT_FOUND);
  }
  {
    Vended refused;
    vend(device_, "VendDocuments", "com.example.vault", refused);
    EXPECT_EQ(refused.afc, nullptr);
    EXPECT_EQ(refused.error, "InstallationLookupFailed");
  }
  {
    Vended unknown;
    vend(device_, "VendDocuments", "com.example.absent", unknown);
    EXPECT_EQ(unknown.error, "InstallationLookupFailed");
  }
  Vended container;
  vend(device_, "VendContainer", "com.example.vault", container);
  ASSERT_NE(container.afc, nullptr);
  uint64_t handle = 0;
  ASSERT_EQ(afc_file_open(container.afc, "/Documents/secret.txt", AFC_FOPEN_RDONLY, &handle), AFC_E_SUCCESS);
  char buffer[16];
  uint32_t got = 0;
  EXPECT_EQ(afc_file_read(container.afc, handle, buffer, sizeof buffer, &got), AFC_E_SUCCESS);
  EXPECT_EQ(std::string(buffer, got), "vault");
}

void count_parts(plist_t command, plist_t status, void* user_data) {
  (void)command;
  if (plist_dict_get_item(status, "CurrentList")) ++*static_cast<std::atomic<int>*>(user_data);
}

TEST_F(DevsimAfcTest, InstallationProxyBrowsesAppsInSeveralParts) {
  instproxy_client_t proxy = nullptr;
  ASSERT_EQ(instproxy_client_start_service(device_, &proxy, "devsim-test"), INSTPROXY_E_SUCCESS);
  plist_t options = instproxy_client_options_new();
  instproxy_client_options_add(options, "ApplicationType", "User", NULL);
  plist_t apps = nullptr;
  ASSERT_EQ(instproxy_browse(proxy, options, &apps), INSTPROXY_E_SUCCESS);
  ASSERT_EQ(plist_array_get_size(apps), 5u);
  std::map<std::string, bool> sharing;
  int notes = 0;
  for (uint32_t i = 0; i < plist_array_get_size(apps); ++i) {
    plist_t app = plist_array_get_item(apps, i);
    char* id = nullptr;
    char* name = nullptr;
    uint8_t shared = 0;
    plist_get_string_val(plist_dict_get_item(app, "CFBundleIdentifier"), &id);
    plist_get_string_val(plist_dict_get_item(app, "CFBundleDisplayName"), &name);
    plist_get_bool_val(plist_dict_get_item(app, "UIFileSharingEnabled"), &shared);
    sharing[id] = shared != 0;
    if (std::string(name) == "Notes") ++notes;
    free(id);
    free(name);
  }
  plist_free(apps);
  EXPECT_EQ(notes, 2);
  EXPECT_FALSE(sharing["com.example.vault"]);
  EXPECT_TRUE(sharing["com.example.maps"]);

  std::atomic<int> parts{0};
  ASSERT_EQ(instproxy_browse_with_callback(proxy, options, count_parts, &parts), INSTPROXY_E_SUCCESS);
  for (int i = 0; i < 100 && parts < 3; ++i) usleep(50000);
  EXPECT_EQ(parts.load(), 3);  // five apps arrive as 2 + 2 + 1

  instproxy_client_options_free(options);
  instproxy_client_free(proxy);
}

}  // namespace
