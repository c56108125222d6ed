// Malformed input to every service of the simulated device closes only the
// offending connection: a well-behaved client keeps being served throughout.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libimobiledevice/afc.h>
#include <libimobiledevice/libimobiledevice.h>
#include <libimobiledevice/lockdown.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>

#include "tests/support/devsim_fixture.h"

namespace {

int connect_mux(const std::string& path) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  timeval timeout{20, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  return fd;
}

void send_bytes(int fd, const std::string& bytes) { send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

std::string u32le(uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string u64le(uint64_t v) { return std::string(reinterpret_cast<const char*>(&v), 8); }
std::string u32be(uint32_t v) {
  v = htonl(v);
  return std::string(reinterpret_cast<const char*>(&v), 4);
}

std::string xml_of(plist_t dict) {
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(dict, &xml, &length);
  std::string text(xml, length);
  free(xml);
  return text;
}

std::string usbmux_packet(const std::string& body, uint32_t version = 1, uint32_t type = 8) {
  return u32le(static_cast<uint32_t>(16 + body.size())) + u32le(version) + u32le(type) + u32le(1) + body;
}

// Reads one usbmux reply and returns its "Number" (or -1).
int64_t read_result(int fd) {
  char header[16];
  if (recv(fd, header, 16, MSG_WAITALL) != 16) return -1;
  uint32_t length;
  memcpy(&length, header, 4);
  std::string body(length - 16, '\0');
  if (recv(fd, &body[0], body.size(), MSG_WAITALL) != static_cast<ssize_t>(body.size())) return -1;
  plist_t reply = nullptr;
  plist_from_xml(body.data(), static_cast<uint32_t>(body.size()), &reply);
  uint64_t number = UINT64_MAX;
  if (reply && plist_dict_get_item(reply, "Number")) plist_get_uint_val(plist_dict_get_item(reply, "Number"), &number);
  plist_free(reply);
  return number == UINT64_MAX ? -1 : static_cast<int64_t>(number);
}

// A raw connection through usbmux Connect to a device port; -1 on refusal.
int connect_port(const std::string& path, uint32_t device_id, uint16_t port, int64_t* result = nullptr) {
  int fd = connect_mux(path);
  plist_t request = plist_new_dict();
  plist_dict_set_item(request, "MessageType", plist_new_string("Connect"));
  plist_dict_set_item(request, "DeviceID", plist_new_uint(device_id));
  plist_dict_set_item(request, "PortNumber", plist_new_uint(htons(port)));
  send_bytes(fd, usbmux_packet(xml_of(request)));
  plist_free(request);
  int64_t number = read_result(fd);
  if (result) *result = number;
  if (number != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// True when the server closes the connection (rather than leaving it hanging).
bool closed_by_server(int fd) {
  char buffer[4096];
  for (;;) {
    ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    if (n == 0 || (n < 0 && errno == ECONNRESET)) {
      close(fd);
      return true;
    }
    if (n < 0) {
      close(fd);
      return false;  // timed out
    }
  }
}

std::string plist_message(const std::string& xml) { return u32be(static_cast<uint32_t>(xml.size())) + xml; }

std::string afc_header(uint64_t entire, uint64_t this_length, uint64_t operation, const char* magic = "CFA6LPAA") {
  return std::string(magic, 8) + u64le(entire) + u64le(this_length) + u64le(1) + u64le(operation);
}

class DevsimRobustnessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (devsim_program().empty()) GTEST_SKIP() << "devsim was not built";
    DevsimImage phone;
    phone.apps = {{"com.example.notes", "Notes", true}};
    phone.files = {{"media/general_storage/steady.txt", "still here"}};
    ASSERT_TRUE(sim_.start({phone})) << sim_.error();
    id_ = sim_.location_id(0);
    ASSERT_EQ(idevice_new(&device_, sim_.udid(0).c_str()), IDEVICE_E_SUCCESS);
    ASSERT_EQ(lockdownd_client_new_with_handshake(device_, &lockdown_, "devsim-test"), LOCKDOWN_E_SUCCESS);
    ASSERT_EQ(afc_client_start_service(device_, &afc_, "devsim-test"), AFC_E_SUCCESS);
  }
  void TearDown() override {
    if (afc_) afc_client_free(afc_);
    if (lockdown_) lockdownd_client_free(lockdown_);
    if (device_) idevice_free(device_);
    EXPECT_TRUE(sim_.stop()) << sim_.error();
  }

  uint16_t service_port(const char* name) {
    lockdownd_service_descriptor_t service = nullptr;
    EXPECT_EQ(lockdownd_start_service(lockdown_, name, &service), LOCKDOWN_E_SUCCESS);
    uint16_t port = service ? service->port : 0;
    lockdownd_service_descriptor_free(service);
    return port;
  }

  // The well-behaved client: its long-lived AFC connection and a fresh one.
  void expect_still_served(const std::string& after) {
    char** info = nullptr;
    EXPECT_EQ(afc_get_file_info(afc_, "/general_storage/steady.txt", &info), AFC_E_SUCCESS) << "after " << after;
    if (info) afc_dictionary_free(info);
    plist_t name = nullptr;
    EXPECT_EQ(lockdownd_get_value(lockdown_, nullptr, "DeviceName", &name), LOCKDOWN_E_SUCCESS) << "after " << after;
    plist_free(name);
  }

  void feed(uint16_t port, const std::string& label, const std::string& bytes, bool close_early = false) {
    int fd = connect_port(sim_.socket_path(), id_, port);
    ASSERT_GE(fd, 0) << label;
    send_bytes(fd, bytes);
    if (close_early) {
      close(fd);  // abrupt disconnect in the middle of a message
    } else {
      EXPECT_TRUE(closed_by_server(fd)) << label;
    }
    expect_still_served(label);
  }

  Devsim sim_;
  uint32_t id_ = 0;
  idevice_t device_ = nullptr;
  lockdownd_client_t lockdown_ = nullptr;
  afc_client_t afc_ = nullptr;
};

TEST_F(DevsimRobustnessTest, Usbmux) {
  struct Case {
    const char* label;
    std::string bytes;
  } cases[] = {
      {"length below the header", u32le(3) + u32le(1) + u32le(8) + u32le(1)},
      {"length of 4 GiB", u32le(0xffffffffu) + u32le(1) + u32le(8) + u32le(1)},
      {"body that is no plist", usbmux_packet("this is not a plist at all")},
      {"plist that is not a dict", usbmux_packet("<plist><array/></plist>")},
      {"unknown message type", usbmux_packet("<plist><dict><key>MessageType</key><string>Explode</string></dict></plist>")},
      {"binary protocol", usbmux_packet("xxxx", 0, 3)},
  };
  for (const Case& c : cases) {
    int fd = connect_mux(sim_.socket_path());
    send_bytes(fd, c.bytes);
    EXPECT_TRUE(closed_by_server(fd)) << c.label;
    expect_still_served(c.label);
  }
  int fd = connect_mux(sim_.socket_path());
  send_bytes(fd, u32le(200) + u32le(1) + u32le(8) + u32le(1) + "<plist>");
  close(fd);
  expect_still_served("truncated message");

  int64_t result = 0;
  EXPECT_EQ(connect_port(sim_.socket_path(), 4242, 62078, &result), -1);
  EXPECT_EQ(result, 2);  // no such device
  EXPECT_EQ(connect_port(sim_.socket_path(), id_, 1, &result), -1);
  EXPECT_EQ(result, 3);  // connection refused
  expect_still_served("refused connects");
}

TEST_F(DevsimRobustnessTest, Lockdown) {
  feed(62078, "length of 4 GiB", u32be(0xffffffffu));
  feed(62078, "zero length", u32be(0));
  feed(62078, "no plist", plist_message("garbage!"));
  feed(62078, "array", plist_message("<plist><array/></plist>"));
  feed(62078, "unknown request",
       plist_message("<plist><dict><key>Request</key><string>SelfDestruct</string></dict></plist>"));
  feed(62078, "truncated", u32be(500) + "<plist><dict>", true);
}

TEST_F(DevsimRobustnessTest, Afc) {
  uint16_t port = service_port("com.apple.afc");
  feed(port, "bad magic", afc_header(40, 40, 3, "XXXXXXXX"));
  feed(port, "this length below header", afc_header(40, 12, 3));
  feed(port, "entire below this", afc_header(40, 60, 3) + std::string(20, 'a'));
  feed(port, "negative length", afc_header(0x8000000000000000ull, 40, 3));
  feed(port, "oversize payload", afc_header(1ull << 40, 48, 0x10) + u64le(1));
  feed(port, "unknown operation", afc_header(40, 40, 0x99));
  feed(port, "reply operation as request", afc_header(48, 48, 0x01) + u64le(0));
  feed(port, "path without terminator", afc_header(45, 45, 0x03) + "/abcd");
  feed(port, "read with short parameters", afc_header(48, 48, 0x0F) + u64le(1));
  feed(port, "truncated write", afc_header(40 + 8 + 100000, 48, 0x10) + u64le(1) + "short", true);
}

TEST_F(DevsimRobustnessTest, InstallationProxyAndHouseArrest) {
  uint16_t proxy = service_port("com.apple.mobile.installation_proxy");
  feed(proxy, "proxy: length of 4 GiB", u32be(0xfffffff0u));
  feed(proxy, "proxy: no plist", plist_message("{json: maybe}"));
  feed(proxy, "proxy: unknown command",
       plist_message("<plist><dict><key>Command</key><string>Uninstall</string></dict></plist>"));
  uint16_t house = service_port("com.apple.mobile.house_arrest");
  feed(house, "house_arrest: no plist", plist_message("<plist><dict><key>"));
  feed(house, "house_arrest: unknown command",
       plist_message("<plist><dict><key>Command</key><string>VendEverything</string></dict></plist>"));
  // After a successful vend the connection is AFC, and equally guarded.
  std::string vend = plist_message(
      "<plist><dict><key>Command</key><string>VendDocuments</string>"
      "<key>Identifier</key><string>com.example.notes</string></dict></plist>");
  int fd = connect_port(sim_.socket_path(), id_, house);
  ASSERT_GE(fd, 0);
  send_bytes(fd, vend);
  char length[4];
  ASSERT_EQ(recv(fd, length, 4, MSG_WAITALL), 4);
  uint32_t size;
  memcpy(&size, length, 4);
  std::string reply(ntohl(size), '\0');
  ASSERT_EQ(recv(fd, &reply[0], reply.size(), MSG_WAITALL), static_cast<ssize_t>(reply.size()));
  EXPECT_NE(reply.find("Complete"), std::string::npos);
  send_bytes(fd, afc_header(40, 40, 0x77));
  EXPECT_TRUE(closed_by_server(fd));
  expect_still_served("garbage after vend");
  EXPECT_NE(sim_.log().find("afc: unknown operation 0x77, closing"), std::string::npos) << sim_.log();
}

}  // namespace
