// Each fault the simulated device can inject, observed from libimobiledevice.
#include <gtest/gtest.h>
#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <sys/stat.h>
#include <unistd.h>
#include <usbmuxd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <vector>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"

namespace {

bool device_listed(const std::string& udid) {
  char** list = nullptr;
  int count = 0;
  if (idevice_get_device_list(&list, &count) != IDEVICE_E_SUCCESS) return false;
  bool found = false;
  for (int i = 0; i < count; ++i) found = found || udid == list[i];
  idevice_device_list_free(list);
  return found;
}

lockdownd_error_t handshake(const std::string& udid) {
  idevice_t device = nullptr;
  if (idevice_new(&device, udid.c_str()) != IDEVICE_E_SUCCESS) return LOCKDOWN_E_MUX_ERROR;
  lockdownd_client_t client = nullptr;
  lockdownd_error_t result = lockdownd_client_new_with_handshake(device, &client, "devsim-test");
  if (client) lockdownd_client_free(client);
  idevice_free(device);
  return result;
}

class DevsimFaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (devsim_program().empty()) GTEST_SKIP() << "devsim was not built";
  }
  void TearDown() override {
    if (afc_) afc_client_free(afc_);
    if (device_) idevice_free(device_);
    EXPECT_TRUE(sim_.stop()) << sim_.error();
  }

  void start(const std::vector<std::string>& options = {}) {
    DevsimImage phone;
    phone.files = {{"media/general_storage/data.bin", std::string(1024 * 1024, 'd')},
                   {"media/general_storage/locked.txt", "locked"},
                   {"media/general_storage/open.txt", "open"}};
    ASSERT_TRUE(sim_.start({phone}, options)) << sim_.error();
    udid_ = sim_.udid(0);
  }

  void connect_afc() {
    if (afc_) afc_client_free(afc_);
    if (device_) idevice_free(device_);
    afc_ = nullptr;
    device_ = nullptr;
    ASSERT_EQ(idevice_new(&device_, udid_.c_str()), IDEVICE_E_SUCCESS);
    ASSERT_EQ(afc_client_start_service(device_, &afc_, "devsim-test"), AFC_E_SUCCESS);
  }

  afc_error_t stat_path(const char* path) {
    char** info = nullptr;
    afc_error_t result = afc_get_file_info(afc_, path, &info);
    if (info) afc_dictionary_free(info);
    return result;
  }

  Devsim sim_;
  std::string udid_;
  idevice_t device_ = nullptr;
  afc_client_t afc_ = nullptr;
};

TEST_F(DevsimFaultsTest, DropsEveryConnectionAfterNRequestsThenServesNewOnes) {
  start();
  connect_afc();
  ASSERT_EQ(sim_.control("drop-after-requests " + udid_ + " 5"), "ok");
  for (int i = 0; i < 5; ++i) EXPECT_EQ(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS) << i;
  EXPECT_NE(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS);
  connect_afc();
  EXPECT_EQ(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS);
}

TEST_F(DevsimFaultsTest, DropsAfterNBytesOfFileData) {
  start({"--fault", "drop-after-bytes * 300000"});
  connect_afc();
  uint64_t handle = 0;
  ASSERT_EQ(afc_file_open(afc_, "/general_storage/data.bin", AFC_FOPEN_RDONLY, &handle), AFC_E_SUCCESS);
  std::vector<char> buffer(65536);
  uint64_t total = 0;
  afc_error_t result = AFC_E_SUCCESS;
  while (result == AFC_E_SUCCESS && total < 1024 * 1024) {
    uint32_t got = 0;
    result = afc_file_read(afc_, handle, buffer.data(), static_cast<uint32_t>(buffer.size()), &got);
    if (got == 0) break;
    total += got;
  }
  EXPECT_NE(result, AFC_E_SUCCESS);
  EXPECT_GE(total, 300000u);
  EXPECT_LT(total, 1024u * 1024u);
}

TEST_F(DevsimFaultsTest, AnswersTheChosenErrorForMatchingPathsOnly) {
  start();
  ASSERT_EQ(sim_.control("afc-error " + udid_ + " /general_storage/lock* 10"), "ok");
  ASSERT_EQ(sim_.control("afc-error " + udid_ + " */data.bin no-space"), "ok");
  connect_afc();
  uint64_t handle = 0;
  EXPECT_EQ(afc_file_open(afc_, "/general_storage/locked.txt", AFC_FOPEN_RDONLY, &handle), AFC_E_PERM_DENIED);
  EXPECT_EQ(afc_file_open(afc_, "/general_storage/data.bin", AFC_FOPEN_RW, &handle), AFC_E_NO_SPACE_LEFT);
  EXPECT_EQ(afc_file_open(afc_, "/general_storage/open.txt", AFC_FOPEN_RDONLY, &handle), AFC_E_SUCCESS);
  EXPECT_EQ(sim_.control("afc-error " + udid_ + " /x"), "error: usage: afc-error UDID PATTERN CODE (CODE: number or name, not 0)");
  ASSERT_EQ(sim_.control("clear " + udid_), "ok");
  EXPECT_EQ(afc_file_open(afc_, "/general_storage/locked.txt", AFC_FOPEN_RDONLY, &handle), AFC_E_SUCCESS);

  // A rule for one kind of request: the file opens and reads, but stays.
  ASSERT_EQ(sim_.control("afc-error " + udid_ + " /general_storage/open.txt permission-denied remove"), "ok");
  EXPECT_EQ(sim_.control("afc-error " + udid_ + " /x 10 delete"),
            "error: afc-error REQUEST is one of remove, rename, open, read, write, info, mkdir, list");
  ASSERT_EQ(afc_file_open(afc_, "/general_storage/open.txt", AFC_FOPEN_RDONLY, &handle), AFC_E_SUCCESS);
  char byte = 0;
  uint32_t got = 0;
  EXPECT_EQ(afc_file_read(afc_, handle, &byte, 1, &got), AFC_E_SUCCESS);
  EXPECT_EQ(got, 1u);
  EXPECT_EQ(afc_file_close(afc_, handle), AFC_E_SUCCESS);
  EXPECT_EQ(afc_remove_path(afc_, "/general_storage/open.txt"), AFC_E_PERM_DENIED);
  EXPECT_EQ(afc_remove_path(afc_, "/general_storage/locked.txt"), AFC_E_SUCCESS);
}

TEST_F(DevsimFaultsTest, CountsOpenConnectionsPerServiceAndRefusesServicesPastTheLimit) {
  start();
  EXPECT_EQ(sim_.control("connections " + udid_), "ok 0");
  connect_afc();
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
  idevice_t device = nullptr;
  ASSERT_EQ(idevice_new(&device, udid_.c_str()), IDEVICE_E_SUCCESS);
  lockdownd_client_t lockdown = nullptr;
  ASSERT_EQ(lockdownd_client_new_with_handshake(device, &lockdown, "devsim-test"), LOCKDOWN_E_SUCCESS);
  EXPECT_EQ(sim_.control("connections " + udid_ + " lockdown"), "ok 1");
  lockdownd_service_descriptor_t service = nullptr;
  EXPECT_EQ(lockdownd_start_service(lockdown, "com.apple.afc", &service), LOCKDOWN_E_SERVICE_LIMIT);
  if (service) lockdownd_service_descriptor_free(service);
  service = nullptr;
  ASSERT_EQ(sim_.control("service-limit " + udid_ + " 0"), "ok");
  EXPECT_EQ(lockdownd_start_service(lockdown, "com.apple.afc", &service), LOCKDOWN_E_SUCCESS);
  if (service) lockdownd_service_descriptor_free(service);
  lockdownd_client_free(lockdown);
  idevice_free(device);
  EXPECT_TRUE(eventually([&] { return sim_.control("connections " + udid_ + " lockdown") == "ok 0"; }));
}

TEST_F(DevsimFaultsTest, TrustPromptRefusesSessionsUntilItEnds) {
  start();
  ASSERT_EQ(sim_.control("trust-prompt " + udid_ + " 2"), "ok");
  EXPECT_EQ(handshake(udid_), LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING);
  EXPECT_TRUE(eventually([&] { return handshake(udid_) == LOCKDOWN_E_SUCCESS; }));

  ASSERT_EQ(sim_.control("trust-prompt " + udid_ + " 600 PasswordProtected"), "ok");
  EXPECT_EQ(handshake(udid_), LOCKDOWN_E_PASSWORD_PROTECTED);
  ASSERT_EQ(sim_.control("trust-prompt " + udid_ + " 0"), "ok");
  EXPECT_EQ(handshake(udid_), LOCKDOWN_E_SUCCESS);
}

TEST_F(DevsimFaultsTest, LateDeviceAppearsAfterItsDelay) {
  DevsimImage late;
  late.udid = "1a7e00000000000000000000000000000000d3v5";
  ASSERT_TRUE(sim_.start({DevsimImage{}, late}, {"--fault", "appear-after " + late.udid + " 2"})) << sim_.error();
  EXPECT_TRUE(device_listed(sim_.udid(0)));
  EXPECT_FALSE(device_listed(late.udid));
  idevice_t device = nullptr;
  EXPECT_NE(idevice_new(&device, late.udid.c_str()), IDEVICE_E_SUCCESS);
  EXPECT_TRUE(eventually([&] { return device_listed(late.udid); }));
  EXPECT_EQ(handshake(late.udid), LOCKDOWN_E_SUCCESS);
}

struct Events {
  std::mutex mutex;
  std::vector<std::pair<int, uint32_t>> seen;  // event, device id
};

void record_event(const usbmuxd_event_t* event, void* user_data) {
  auto* events = static_cast<Events*>(user_data);
  std::lock_guard<std::mutex> lock(events->mutex);
  events->seen.emplace_back(event->event, event->device.handle);
}

TEST_F(DevsimFaultsTest, UnplugIsSeenByListenersAndCutsOpenConnections) {
  start();
  connect_afc();
  Events events;
  usbmuxd_subscription_context_t subscription = nullptr;
  ASSERT_EQ(usbmuxd_events_subscribe(&subscription, record_event, &events), 0);
  uint32_t id = sim_.location_id(0);
  auto saw = [&](int event) {
    std::lock_guard<std::mutex> lock(events.mutex);
    for (auto& e : events.seen) {
      if (e.first == event && e.second == id) return true;
    }
    return false;
  };
  EXPECT_TRUE(eventually([&] { return saw(UE_DEVICE_ADD); }));

  ASSERT_EQ(sim_.control("unplug " + udid_ + " 1"), "ok");
  EXPECT_TRUE(eventually([&] { return saw(UE_DEVICE_REMOVE); }));
  EXPECT_NE(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS);
  {
    std::lock_guard<std::mutex> lock(events.mutex);
    events.seen.clear();
  }
  EXPECT_TRUE(eventually([&] { return saw(UE_DEVICE_ADD); }));
  usbmuxd_events_unsubscribe(subscription);
  connect_afc();
  EXPECT_EQ(stat_path("/general_storage/open.txt"), AFC_E_SUCCESS);

  ASSERT_EQ(sim_.control("unplug " + udid_), "ok");
  EXPECT_FALSE(device_listed(udid_));
  ASSERT_EQ(sim_.control("plug " + udid_), "ok");
  EXPECT_TRUE(device_listed(udid_));
}

TEST_F(DevsimFaultsTest, ShapedTrafficStillCarriesTheSameBytes) {
  start({"--latency-us", "300", "--bandwidth-mbps", "35"});
  connect_afc();
  uint64_t handle = 0;
  ASSERT_EQ(afc_file_open(afc_, "/general_storage/data.bin", AFC_FOPEN_RDONLY, &handle), AFC_E_SUCCESS);
  std::string data(1024 * 1024 + 10, '\0');
  uint32_t got = 0;
  ASSERT_EQ(afc_file_read(afc_, handle, &data[0], static_cast<uint32_t>(data.size()), &got), AFC_E_SUCCESS);
  data.resize(got);
  EXPECT_EQ(data, std::string(1024 * 1024, 'd'));
  EXPECT_EQ(sim_.control("bandwidth-mbps 0"), "ok");
  EXPECT_EQ(sim_.control("latency-us nope"), "error: usage: latency-us MICROSECONDS");
}

}  // namespace

namespace {

std::vector<std::string> listing(afc_client_t afc, const char* path) {
  char** names = nullptr;
  std::vector<std::string> out;
  if (afc_read_directory(afc, path, &names) != AFC_E_SUCCESS) return {"(failed)"};
  for (char** name = names; name && *name; ++name) out.push_back(*name);
  afc_dictionary_free(names);
  return out;
}

TEST_F(DevsimFaultsTest, HostileKindsComeAndGoAndLeaveTheStoredImageAlone) {
  start();
  connect_afc();
  EXPECT_EQ(stat_path("/general_storage/Hostile"), AFC_E_OBJECT_NOT_FOUND) << "an honest device by default";
  EXPECT_EQ(sim_.control("hostile " + udid_ + " names bogus"),
            "error: usage: hostile UDID KIND... (names sizes million deep half oversize all none)");
  EXPECT_EQ(sim_.control("hostile " + udid_), "error: usage: hostile UDID KIND... (names sizes million deep half oversize all none)");
  ASSERT_EQ(sim_.control("hostile " + udid_ + " names deep"), "ok");
  EXPECT_EQ(listing(afc_, "/general_storage"),
            (std::vector<std::string>{".", "..", "Hostile", "data.bin", "locked.txt", "open.txt"}));
  EXPECT_EQ(listing(afc_, "/general_storage/Hostile"), (std::vector<std::string>{".", "..", "names", "deep"}));
  EXPECT_EQ(stat_path("/general_storage/Hostile/sizes"), AFC_E_OBJECT_NOT_FOUND) << "a kind not chosen";
  // The made-up tree cannot be changed, and nothing was written to the image.
  EXPECT_EQ(afc_make_directory(afc_, "/general_storage/Hostile/names/new"), AFC_E_PERM_DENIED);
  uint64_t handle = 0;
  EXPECT_EQ(afc_file_open(afc_, "/general_storage/Hostile/names/plain.txt", AFC_FOPEN_RW, &handle), AFC_E_PERM_DENIED);
  struct stat st;
  EXPECT_NE(stat((sim_.image_dir(0) + "/media/general_storage/Hostile").c_str(), &st), 0);
  ASSERT_EQ(sim_.control("clear " + udid_), "ok");
  EXPECT_EQ(stat_path("/general_storage/Hostile/names"), AFC_E_SUCCESS) << "clear leaves hostile kinds";
  ASSERT_EQ(sim_.control("hostile " + udid_ + " none"), "ok");
  EXPECT_EQ(stat_path("/general_storage/Hostile"), AFC_E_OBJECT_NOT_FOUND);
}

TEST_F(DevsimFaultsTest, AnImageNamingAnUnknownHostileKindIsRefused) {
  std::string dir = makeTempDir("devsim-hostile-");
  ASSERT_FALSE(dir.empty());
  std::ofstream(dir + "/device.json") << R"({"hostile": ["names", "lies"]})";
  std::string said;
  EXPECT_EQ(run_program({devsim_program(), "serve", "--socket", dir + "/sock", dir}, &said), 2);
  EXPECT_NE(said.find("key \"hostile\" holds \"lies\""), std::string::npos) << said;
  removeTree(dir);
}

}  // namespace
