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

TEST_F(DevsimUsbmuxTest, LockdownAnswersValuesAndStartsPlainServicesFromItsTlsSession) {
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

// The parsed pair record usbmux serves for `udid`, or null.
plist_t read_pair_record(const std::string& udid) {
  char* record = nullptr;
  uint32_t size = 0;
  if (usbmuxd_read_pair_record(udid.c_str(), &record, &size) < 0) return nullptr;
  plist_t parsed = nullptr;
  plist_from_memory(record, size, &parsed);
  free(record);
  return parsed;
}

std::string record_text(plist_t record, const char* key) {
  plist_t node = record ? plist_dict_get_item(record, key) : nullptr;
  char* text = nullptr;
  uint64_t length = 0;
  if (node && plist_get_node_type(node) == PLIST_STRING) plist_get_string_val(node, &text);
  if (node && plist_get_node_type(node) == PLIST_DATA) plist_get_data_val(node, &text, &length);
  std::string value = text ? (length ? std::string(text, length) : std::string(text)) : "";
  free(text);
  return value;
}

// lockdownd_client_new_with_handshake, then StartService of AFC, as every
// client does; the first error met.
lockdownd_error_t handshake_and_start_afc(const std::string& udid) {
  idevice_t device = nullptr;
  if (idevice_new(&device, udid.c_str()) != IDEVICE_E_SUCCESS) return LOCKDOWN_E_MUX_ERROR;
  lockdownd_client_t client = nullptr;
  lockdownd_error_t result = lockdownd_client_new_with_handshake(device, &client, "devsim-test");
  lockdownd_service_descriptor_t service = nullptr;
  if (result == LOCKDOWN_E_SUCCESS) result = lockdownd_start_service(client, "com.apple.afc", &service);
  if (service) lockdownd_service_descriptor_free(service);
  if (client) lockdownd_client_free(client);
  idevice_free(device);
  return result;
}

// StartSession with the served record's HostID: whether the device asked for
// TLS, and whether the connection still answers in plain after StopSession.
void session_then_plain(const std::string& udid, int& ssl_enabled, bool& plain_after) {
  ssl_enabled = -1;
  plain_after = false;
  plist_t record = read_pair_record(udid);
  std::string host_id = record_text(record, "HostID");
  plist_free(record);
  idevice_t device = nullptr;
  ASSERT_EQ(idevice_new(&device, udid.c_str()), IDEVICE_E_SUCCESS);
  lockdownd_client_t client = nullptr;
  ASSERT_EQ(lockdownd_client_new(device, &client, "devsim-test"), LOCKDOWN_E_SUCCESS);
  char* session = nullptr;
  EXPECT_EQ(lockdownd_start_session(client, host_id.c_str(), &session, &ssl_enabled), LOCKDOWN_E_SUCCESS);
  if (session) {
    EXPECT_EQ(lockdownd_stop_session(client, session), LOCKDOWN_E_SUCCESS);
  }
  free(session);
  plist_t value = nullptr;
  plain_after = lockdownd_get_value(client, nullptr, "DeviceName", &value) == LOCKDOWN_E_SUCCESS;
  plist_free(value);
  lockdownd_client_free(client);
  idevice_free(device);
}

TEST_F(DevsimUsbmuxTest, DefaultPairRecordIsARealPairingKeptAcrossRestartsUntilTheDeviceForgetsIt) {
  std::string dir = makeTempDir("devsim-pairing-");
  ASSERT_FALSE(dir.empty());
  DevsimImage image;
  image.udid = "9a1e0000000000000000000000000000000094a1";
  image.location_id = 9401;
  ASSERT_TRUE(write_devsim_image(dir + "/image", image));
  ASSERT_TRUE(sim_.start_with_dirs({dir + "/image"})) << sim_.error();

  plist_t record = read_pair_record(image.udid);
  ASSERT_NE(record, nullptr);
  for (const char* key :
       {"HostCertificate", "HostPrivateKey", "RootCertificate", "RootPrivateKey", "DeviceCertificate"}) {
    EXPECT_EQ(record_text(record, key).rfind("-----BEGIN ", 0), 0u) << key;
  }
  char* buid = nullptr;
  ASSERT_EQ(usbmuxd_read_buid(&buid), 0);
  EXPECT_EQ(record_text(record, "SystemBUID"), buid);
  free(buid);
  EXPECT_NE(record_text(record, "HostID"), "");
  std::string served = record_text(record, "HostID") + record_text(record, "RootCertificate");
  plist_free(record);

  EXPECT_EQ(handshake_and_start_afc(image.udid), LOCKDOWN_E_SUCCESS) << sim_.log();
  int ssl_enabled = -1;
  bool plain_after = false;
  session_then_plain(image.udid, ssl_enabled, plain_after);
  EXPECT_EQ(ssl_enabled, 1);
  EXPECT_TRUE(plain_after) << sim_.log();

  // A restart serves the same pairing, and the device still accepts it.
  ASSERT_TRUE(sim_.start_with_dirs({dir + "/image"})) << sim_.error();
  record = read_pair_record(image.udid);
  EXPECT_EQ(record_text(record, "HostID") + record_text(record, "RootCertificate"), served);
  plist_free(record);
  EXPECT_EQ(handshake_and_start_afc(image.udid), LOCKDOWN_E_SUCCESS) << sim_.log();

  // Forgotten: usbmux still serves the record, the handshake refuses it.
  EXPECT_EQ(sim_.control("forget-host " + image.udid), "ok");
  EXPECT_EQ(handshake_and_start_afc(image.udid), LOCKDOWN_E_SSL_ERROR);
  record = read_pair_record(image.udid);
  EXPECT_NE(record, nullptr);
  plist_free(record);
  // Unpaired: no record, and a client must pair.
  EXPECT_EQ(sim_.control("unpaired " + image.udid), "ok");
  EXPECT_EQ(read_pair_record(image.udid), nullptr);
  EXPECT_EQ(handshake_and_start_afc(image.udid), LOCKDOWN_E_PAIRING_DIALOG_RESPONSE_PENDING);

  // --no-tls: plain sessions on a made-up record, whatever the image holds.
  ASSERT_TRUE(sim_.start_with_dirs({dir + "/image"}, {"--no-tls"})) << sim_.error();
  record = read_pair_record(image.udid);
  EXPECT_NE(record_text(record, "HostID"), "");
  EXPECT_EQ(record_text(record, "RootCertificate"), "");
  plist_free(record);
  EXPECT_EQ(handshake_and_start_afc(image.udid), LOCKDOWN_E_SUCCESS) << sim_.log();
  session_then_plain(image.udid, ssl_enabled, plain_after);
  EXPECT_EQ(ssl_enabled, 0);
  EXPECT_TRUE(plain_after);
  EXPECT_EQ(sim_.control("trust " + image.udid).rfind("error: ", 0), 0u);

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
}

// idevicepair and ideviceinfo, unmodified, through a trust prompt, a denial,
// a passcode lock and a device that forgot the computer; then with --no-tls,
// where the made-up record needs no pairing.
TEST_F(DevsimUsbmuxTest, StockPairingToolsMeetPromptDenialLockAndForgottenHostAsOnAPhone) {
  if (!have_program("idevicepair") || !have_program("ideviceinfo"))
    GTEST_SKIP() << "idevicepair/ideviceinfo (libimobiledevice-utils) not installed";
  DevsimImage phone;
  phone.name = "Pairing Phone";
  phone.location_id = 9402;
  phone.udid = "9a1e0000000000000000000000000000000094a2";
  ASSERT_TRUE(sim_.start({phone})) << sim_.error();
  const std::string udid = phone.udid;
  const std::string pending = "Please accept the trust dialog", denied = "the user denied the trust dialog",
                    paired = "SUCCESS: Paired", valid = "SUCCESS: Validated", passcode = "a passcode is set",
                    not_paired = "is not paired with this host", unpaired = "SUCCESS: Unpaired";
  struct Step {
    const char* control;  // sent first when not null
    std::vector<std::string> tool;
    int status;
    std::string says;
  };
  const std::vector<Step> steps = {
      {nullptr, {"idevicepair", "validate"}, 0, valid},
      {nullptr, {"ideviceinfo", "-k", "DeviceName"}, 0, "Pairing Phone\n"},
      // A new computer: the prompt until the user answers, on every try.
      {"unpaired", {"ideviceinfo", "-k", "DeviceName"}, 255, "Pairing dialog response pending (-19)"},
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
  };
  auto play = [&](const std::vector<Step>& steps) {
    for (size_t i = 0; i < steps.size(); ++i) {
      const Step& step = steps[i];
      if (step.control) {
        ASSERT_EQ(sim_.control(std::string(step.control) + " " + udid), "ok") << step.control;
      }
      std::vector<std::string> argv = step.tool;
      argv.insert(argv.begin() + 1, {"-u", udid});
      std::string output;
      EXPECT_EQ(run_program(argv, &output, 60), step.status) << "step " << i << ": " << output;
      EXPECT_NE(output.find(step.says), std::string::npos) << "step " << i << ": " << output;
    }
  };
  play(steps);
  ASSERT_TRUE(sim_.start({phone}, {"--no-tls"})) << sim_.error();
  play({{nullptr, {"idevicepair", "validate"}, 0, valid},
        {nullptr, {"ideviceinfo", "-k", "DeviceName"}, 0, "Pairing Phone\n"},
        {"lock", {"idevicepair", "validate"}, 1, passcode}});
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
