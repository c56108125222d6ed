// The simulated device as usbmuxd + lockdownd: found and described by the
// stock libimobiledevice tools, pair records, image loading and shutdown.
#include <gtest/gtest.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <usbmuxd.h>

#include <filesystem>
#include <fstream>

#include "tests/support/catalogue_fixture.h"
#include "tests/support/devsim_fixture.h"

namespace fs = std::filesystem;

namespace {

bool have_program(const char* name) {
  std::string output;
  return run_program({"sh", "-c", std::string("command -v ") + name}, &output, 30) == 0;
}

class DevsimUsbmuxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (devsim_program().empty()) GTEST_SKIP() << "devsim was not built";
  }
  Devsim sim_;
};

TEST_F(DevsimUsbmuxTest, StockToolsReachEachImageByItsUdid) {
  if (!have_program("idevice_id") || !have_program("ideviceinfo"))
    GTEST_SKIP() << "idevice_id/ideviceinfo (libimobiledevice-utils) not installed";
  DevsimImage first, second;
  first.name = "First Phone";
  first.capacity_bytes = 64000000000ull;
  second.name = "Second iPad";
  second.product_type = "iPad6,11";
  second.ios_version = "11.4";
  ASSERT_TRUE(sim_.start({first, second})) << sim_.error();

  std::string output;
  ASSERT_EQ(run_program({"idevice_id", "-l"}, &output), 0) << output;
  EXPECT_NE(output.find(sim_.udid(0)), std::string::npos) << output;
  EXPECT_NE(output.find(sim_.udid(1)), std::string::npos) << output;

  ASSERT_EQ(run_program({"ideviceinfo", "-u", sim_.udid(0), "-k", "DeviceName"}, &output), 0) << output;
  EXPECT_EQ(output, "First Phone\n");
  ASSERT_EQ(run_program({"ideviceinfo", "-u", sim_.udid(1), "-k", "DeviceName"}, &output), 0) << output;
  EXPECT_EQ(output, "Second iPad\n");

  ASSERT_EQ(run_program({"ideviceinfo", "-u", sim_.udid(1)}, &output), 0) << output;
  EXPECT_NE(output.find("ProductVersion: 11.4\n"), std::string::npos) << output;
  EXPECT_NE(output.find("DeviceClass: iPad\n"), std::string::npos) << output;
  EXPECT_NE(output.find("UniqueDeviceID: " + sim_.udid(1) + "\n"), std::string::npos) << output;

  ASSERT_EQ(run_program({"ideviceinfo", "-u", sim_.udid(0), "-q", "com.apple.disk_usage", "-k", "TotalDiskCapacity"},
                        &output),
            0);
  EXPECT_EQ(output, "64000000000\n");
  EXPECT_NE(run_program({"ideviceinfo", "-u", "0000000000000000000000000000000000000000", "-k", "DeviceName"},
                        &output),
            0);
}

TEST_F(DevsimUsbmuxTest, LockdownAnswersValuesAndStartsServicesWithoutTls) {
  DevsimImage phone;
  phone.name = "Values";
  phone.capacity_bytes = 1000000;
  phone.files = {{"media/a.bin", std::string(1000, 'a')}, {"apps/x/Documents/b.bin", std::string(500, 'b')}};
  ASSERT_TRUE(sim_.start({phone})) << sim_.error();
  idevice_t device = nullptr;
  ASSERT_EQ(idevice_new(&device, sim_.udid(0).c_str()), IDEVICE_E_SUCCESS);
  lockdownd_client_t client = nullptr;
  ASSERT_EQ(lockdownd_client_new_with_handshake(device, &client, "devsim-test"), LOCKDOWN_E_SUCCESS);

  plist_t value = nullptr;
  ASSERT_EQ(lockdownd_get_value(client, "com.apple.disk_usage", "TotalDataAvailable", &value), LOCKDOWN_E_SUCCESS);
  uint64_t available = 0;
  plist_get_uint_val(value, &available);
  plist_free(value);
  EXPECT_EQ(available, 1000000u - 1500u);
  value = nullptr;
  EXPECT_EQ(lockdownd_get_value(client, nullptr, "NoSuchKey", &value), LOCKDOWN_E_MISSING_VALUE);

  lockdownd_service_descriptor_t service = nullptr;
  for (const char* name : {"com.apple.afc", "com.apple.mobile.installation_proxy", "com.apple.mobile.house_arrest"}) {
    ASSERT_EQ(lockdownd_start_service(client, name, &service), LOCKDOWN_E_SUCCESS) << name;
    EXPECT_NE(service->port, 0);
    EXPECT_EQ(service->ssl_enabled, 0);
    lockdownd_service_descriptor_free(service);
    service = nullptr;
  }
  EXPECT_EQ(lockdownd_start_service(client, "com.apple.mobile.diagnostics_relay.nope", &service),
            LOCKDOWN_E_INVALID_SERVICE);
  lockdownd_client_free(client);
  idevice_free(device);
}

TEST_F(DevsimUsbmuxTest, ServesPairRecordsSoNoPairingIsNeeded) {
  ASSERT_TRUE(sim_.start({DevsimImage{}})) << sim_.error();
  char* record = nullptr;
  uint32_t size = 0;
  ASSERT_EQ(usbmuxd_read_pair_record(sim_.udid(0).c_str(), &record, &size), 0);
  plist_t parsed = nullptr;
  plist_from_memory(record, size, &parsed);
  free(record);
  ASSERT_NE(parsed, nullptr);
  EXPECT_NE(plist_dict_get_item(parsed, "HostID"), nullptr);
  EXPECT_NE(plist_dict_get_item(parsed, "SystemBUID"), nullptr);
  plist_free(parsed);

  char* buid = nullptr;
  ASSERT_EQ(usbmuxd_read_buid(&buid), 0);
  EXPECT_NE(std::string(buid), "");
  free(buid);

  EXPECT_LT(usbmuxd_read_pair_record("unknown-device", &record, &size), 0);
  const char saved[] = "saved record";
  ASSERT_EQ(usbmuxd_save_pair_record("unknown-device", saved, sizeof saved), 0);
  ASSERT_EQ(usbmuxd_read_pair_record("unknown-device", &record, &size), 0);
  EXPECT_EQ(std::string(record, size), std::string(saved, sizeof saved));
  free(record);
  ASSERT_EQ(usbmuxd_delete_pair_record("unknown-device"), 0);
  EXPECT_LT(usbmuxd_read_pair_record("unknown-device", &record, &size), 0);
}

TEST_F(DevsimUsbmuxTest, RefusesMalformedDeviceJsonNamingTheKey) {
  std::string dir = makeTempDir("devsim-json-");
  ASSERT_FALSE(dir.empty());
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
  };
  for (const Case& c : cases) {
    std::ofstream(dir + "/device.json", std::ios::trunc) << c.json;
    std::string output;
    EXPECT_EQ(run_program({devsim_program(), "serve", "--socket", dir + "/s", dir}, &output, 30), 2) << c.json;
    EXPECT_NE(output.find(c.mentions), std::string::npos) << c.json << " -> " << output;
    EXPECT_FALSE(fs::exists(dir + "/s"));
  }
  // Missing optional keys get defaults.
  std::ofstream(dir + "/device.json", std::ios::trunc) << R"({"udid": "abc"})";
  ASSERT_TRUE(sim_.start_with_dirs({dir})) << sim_.error();
  EXPECT_TRUE(sim_.stop()) << sim_.error();
  removeTree(dir);
}

TEST_F(DevsimUsbmuxTest, MakeSampleWritesAUsableImage) {
  std::string pattern = makeTempDir("devsim-sample-");
  ASSERT_FALSE(pattern.empty());
  std::string dir = pattern + "/image";
  std::string output;
  ASSERT_EQ(run_program({devsim_program(), "make-sample", dir}, &output), 0) << output;
  EXPECT_NE(run_program({devsim_program(), "make-sample", dir}, &output), 0);  // never over an existing image
  std::string storage = dir + "/media/general_storage";
  EXPECT_TRUE(fs::exists(storage + "/.hidden_settings"));
  EXPECT_TRUE(fs::exists(storage + "/R\xC3\xA9sum\xC3\xA9.txt"));
  EXPECT_TRUE(fs::exists(storage + "/Re\xCC\x81sume\xCC\x81.txt"));
  EXPECT_TRUE(fs::exists(storage + "/it's a \"quoted\" $(touch pwned) name.txt"));
  EXPECT_TRUE(fs::exists(storage + "/Documents/Reports/2017/summary.txt"));
  EXPECT_GE(fs::file_size(storage + "/Big Files/random.bin"), 2u * 1024 * 1024);
  EXPECT_TRUE(fs::exists(dir + "/apps/com.example.notes/Documents/Drafts/draft.txt"));

  ASSERT_TRUE(sim_.start_with_dirs({dir})) << sim_.error();
  EXPECT_EQ(sim_.udid(0).size(), 40u);
  idevice_t device = nullptr;
  EXPECT_EQ(idevice_new(&device, sim_.udid(0).c_str()), IDEVICE_E_SUCCESS);
  if (device) idevice_free(device);
  EXPECT_TRUE(sim_.stop()) << sim_.error();
  EXPECT_FALSE(fs::exists(storage + "/pwned"));
  removeTree(pattern);
}

TEST_F(DevsimUsbmuxTest, StopsOnSigintAndRemovesItsSockets) {
  std::string dir = makeTempDir("devsim-sigint-");
  ASSERT_FALSE(dir.empty());
  DevsimImage image;
  image.udid = "5161e700000000000000000000000000000000aa";
  ASSERT_TRUE(write_devsim_image(dir + "/image", image));
  std::string socket = dir + "/mux.sock";
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    execl(devsim_program().c_str(), "devsim", "serve", "--socket", socket.c_str(), (dir + "/image").c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  bool ready = false;
  for (int i = 0; i < 600 && !ready; ++i) {
    ready = fs::exists(socket + ".control");
    usleep(50000);
  }
  EXPECT_TRUE(ready);
  kill(pid, SIGINT);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(fs::exists(socket));
  EXPECT_FALSE(fs::exists(socket + ".control"));
  removeTree(dir);
}

}  // namespace
