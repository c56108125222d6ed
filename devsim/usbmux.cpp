// usbmux: the daemon side of libusbmuxd's plist protocol. Each message is a
// 16-byte header (length, version, type, tag; little-endian) and an XML plist.
#include "devsim/server.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace devsim {

namespace {

constexpr uint32_t kMessagePlist = 8;
constexpr uint32_t kMaxUsbmuxMessage = 1u << 20;
constexpr uint64_t kResultOk = 0;
constexpr uint64_t kResultBadDevice = 2;
constexpr uint64_t kResultConnectionRefused = 3;
constexpr uint64_t kNoSuchRecord = 2;  // ENOENT, as usbmuxd answers

constexpr const char* kSystemBuid = "5A1C2E3F-7B6D-4C8E-9F10-D1E2C3B4A596";
constexpr const char* kHostId = "2B5C9E1A-3D4F-4A6B-8C7D-E9F0A1B2C3D4";

struct UsbmuxHeader {
  uint32_t length;
  uint32_t version;
  uint32_t message;
  uint32_t tag;
};

bool send_usbmux_plist(int fd, uint32_t tag, plist_t message) {
  char* xml = nullptr;
  uint32_t xml_length = 0;
  plist_to_xml(message, &xml, &xml_length);
  if (xml == nullptr) return false;
  std::string packet(sizeof(UsbmuxHeader), '\0');
  UsbmuxHeader header{static_cast<uint32_t>(sizeof(UsbmuxHeader) + xml_length), 1, kMessagePlist, tag};
  memcpy(&packet[0], &header, sizeof header);
  packet.append(xml, xml_length);
  free(xml);
  size_t done = 0;
  while (done < packet.size()) {
    ssize_t n = send(fd, packet.data() + done, packet.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool send_result(int fd, uint32_t tag, uint64_t number) {
  plist_t reply = plist_new_dict();
  plist_dict_set_item(reply, "MessageType", plist_new_string("Result"));
  plist_dict_set_item(reply, "Number", plist_new_uint(number));
  bool sent = send_usbmux_plist(fd, tag, reply);
  plist_free(reply);
  return sent;
}

plist_t attached_message(const Device& device) {
  plist_t props = plist_new_dict();
  plist_dict_set_item(props, "ConnectionSpeed", plist_new_uint(480000000));
  plist_dict_set_item(props, "ConnectionType", plist_new_string("USB"));
  plist_dict_set_item(props, "DeviceID", plist_new_uint(device.image.location_id));
  plist_dict_set_item(props, "LocationID", plist_new_uint(device.image.location_id));
  plist_dict_set_item(props, "ProductID", plist_new_uint(0x12a8));
  plist_dict_set_item(props, "SerialNumber", plist_new_string(device.image.udid.c_str()));
  plist_dict_set_item(props, "USBSerialNumber", plist_new_string(device.image.udid.c_str()));
  plist_t message = plist_new_dict();
  plist_dict_set_item(message, "MessageType", plist_new_string("Attached"));
  plist_dict_set_item(message, "DeviceID", plist_new_uint(device.image.location_id));
  plist_dict_set_item(message, "Properties", props);
  return message;
}

// --no-tls: enough for a client to skip pairing, nothing to start TLS with.
std::string made_up_pair_record(const Device& device) {
  plist_t record = plist_new_dict();
  plist_dict_set_item(record, "HostID", plist_new_string(kHostId));
  plist_dict_set_item(record, "SystemBUID", plist_new_string(kSystemBuid));
  plist_dict_set_item(record, "UDID", plist_new_string(device.image.udid.c_str()));
  plist_dict_set_item(record, "WiFiMACAddress", plist_new_string("02:00:00:00:00:01"));
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(record, &xml, &length);
  plist_free(record);
  std::string text(xml != nullptr ? xml : "", length);
  free(xml);
  return text;
}

uint64_t uint_value(plist_t dict, const char* key, bool& present) {
  plist_t node = plist_dict_get_item(dict, key);
  present = node != nullptr && plist_get_node_type(node) == PLIST_UINT;
  uint64_t value = 0;
  if (present) plist_get_uint_val(node, &value);
  return value;
}

void send_device_list(Server& server, int fd, uint32_t tag) {
  plist_t list = plist_new_array();
  {
    std::lock_guard<std::mutex> lock(server.mutex);
    for (auto& device : server.devices) {
      if (device->attached) plist_array_append_item(list, attached_message(*device));
    }
  }
  plist_t reply = plist_new_dict();
  plist_dict_set_item(reply, "DeviceList", list);
  send_usbmux_plist(fd, tag, reply);
  plist_free(reply);
}

// Sends the current devices, then events as they happen, until the client
// hangs up.
void serve_listen(Connection& conn, uint32_t tag) {
  Server& server = conn.server;
  auto listener = std::make_shared<Listener>();
  listener->fd = conn.fd;
  std::vector<plist_t> initial;
  {
    std::lock_guard<std::mutex> write_lock(listener->write_mutex);
    {
      std::lock_guard<std::mutex> lock(server.mutex);
      server.listeners.push_back(listener);
      for (auto& device : server.devices) {
        if (device->attached) initial.push_back(attached_message(*device));
      }
    }
    send_result(conn.fd, tag, kResultOk);
    for (plist_t message : initial) {
      send_usbmux_plist(conn.fd, 0, message);
      plist_free(message);
    }
  }
  char byte;
  while (!server.stopping && recv(conn.fd, &byte, 1, 0) > 0) {
  }
  std::lock_guard<std::mutex> lock(server.mutex);
  for (auto it = server.listeners.begin(); it != server.listeners.end(); ++it) {
    if (*it == listener) {
      server.listeners.erase(it);
      break;
    }
  }
}

// The connection is already in device.connection_fds.
void serve_device_port(Connection& conn, Device& device, uint16_t port) {
  conn.device = &device;
  switch (port) {
    case kLockdownPort: serve_lockdown(conn); break;
    case kAfcPort: serve_afc(conn, device.image.dir + "/media"); break;
    case kInstallationProxyPort: serve_installation_proxy(conn); break;
    case kHouseArrestPort: serve_house_arrest(conn); break;
    default: break;
  }
  std::lock_guard<std::mutex> lock(conn.server.mutex);
  device.connection_fds.erase(conn.fd);
}

bool known_port(uint16_t port) {
  return port == kLockdownPort || port == kAfcPort || port == kInstallationProxyPort || port == kHouseArrestPort;
}

}  // namespace

Device* find_device_by_udid(Server& server, const std::string& udid) {
  for (auto& device : server.devices) {
    if (device->image.udid == udid) return device.get();
  }
  return nullptr;
}

Device* find_device_by_id(Server& server, uint32_t device_id) {
  for (auto& device : server.devices) {
    if (device->image.location_id == device_id) return device.get();
  }
  return nullptr;
}

size_t count_device_connections(Server& server, Device& device, uint16_t port) {
  std::lock_guard<std::mutex> lock(server.mutex);
  if (port == 0) return device.connection_fds.size();
  size_t count = 0;
  for (const auto& open : device.connection_fds) count += open.second == port;
  return count;
}

void drop_device_connections(Server& server, Device& device) {
  std::lock_guard<std::mutex> lock(server.mutex);
  for (const auto& open : device.connection_fds) shutdown(open.first, SHUT_RDWR);
}

void set_device_attached(Server& server, Device& device, bool attached) {
  std::vector<std::shared_ptr<Listener>> listeners;
  {
    std::lock_guard<std::mutex> lock(server.mutex);
    if (device.attached == attached) return;
    device.attached = attached;
    listeners = server.listeners;
    if (!attached) {
      for (const auto& open : device.connection_fds) shutdown(open.first, SHUT_RDWR);
    }
  }
  log_line("device %s %s", device.image.udid.c_str(), attached ? "attached" : "detached");
  if (!attached) reset_trust_answer(device);
  plist_t message;
  if (attached) {
    message = attached_message(device);
  } else {
    message = plist_new_dict();
    plist_dict_set_item(message, "MessageType", plist_new_string("Detached"));
    plist_dict_set_item(message, "DeviceID", plist_new_uint(device.image.location_id));
  }
  for (auto& listener : listeners) {
    std::lock_guard<std::mutex> lock(listener->write_mutex);
    send_usbmux_plist(listener->fd, 0, message);
  }
  plist_free(message);
}

void serve_usbmux_client(Server& server, int fd, uint64_t id) {
  Connection conn{server, fd, id};
  for (;;) {
    UsbmuxHeader header;
    ReadStatus status = read_exact(conn, &header, sizeof header);
    if (status == ReadStatus::closed) return;
    if (status != ReadStatus::ok) {
      log_line("[%llu] usbmux: %s, closing", static_cast<unsigned long long>(id), describe(status));
      return;
    }
    if (header.length < sizeof header || header.length > kMaxUsbmuxMessage) {
      log_line("[%llu] usbmux: malformed header (length %u), closing", static_cast<unsigned long long>(id),
               header.length);
      return;
    }
    std::vector<char> body(header.length - sizeof header);
    if (!body.empty()) {
      status = read_exact(conn, body.data(), body.size());
      if (status != ReadStatus::ok) {
        log_line("[%llu] usbmux: truncated message, closing", static_cast<unsigned long long>(id));
        return;
      }
    }
    if (header.version != 1 || header.message != kMessagePlist) {
      log_line("[%llu] usbmux: unsupported message (version %u, type %u), closing",
               static_cast<unsigned long long>(id), header.version, header.message);
      return;
    }
    plist_t request = nullptr;
    if (!body.empty()) plist_from_memory(body.data(), static_cast<uint32_t>(body.size()), &request);
    if (request == nullptr || plist_get_node_type(request) != PLIST_DICT) {
      if (request) plist_free(request);
      log_line("[%llu] usbmux: message is not a plist dictionary, closing", static_cast<unsigned long long>(id));
      return;
    }
    std::string type = plist_string(request, "MessageType");
    if (server.verbose) log_line("[%llu] usbmux: %s", static_cast<unsigned long long>(id), type.c_str());

    if (type == "ListDevices") {
      send_device_list(server, fd, header.tag);
    } else if (type == "Listen") {
      plist_free(request);
      serve_listen(conn, header.tag);
      return;
    } else if (type == "ReadBUID") {
      plist_t reply = plist_new_dict();
      plist_dict_set_item(reply, "BUID", plist_new_string(kSystemBuid));
      send_usbmux_plist(fd, header.tag, reply);
      plist_free(reply);
    } else if (type == "ReadPairRecord") {
      std::string record_id = plist_string(request, "PairRecordID");
      Device* device = nullptr;
      std::vector<char> record;
      bool found = false;
      {
        std::lock_guard<std::mutex> lock(server.mutex);
        device = find_device_by_udid(server, record_id);
        auto it = server.saved_pair_records.find(record_id);
        if (it != server.saved_pair_records.end() && !(server.tls && device != nullptr)) {
          record = it->second;
          found = true;
        }
      }
      if (device != nullptr && server.tls) {
        // What the host side keeps for the device, in its image.
        found = read_host_record(*device, record);
      } else if (device != nullptr && !found) {
        std::string made_up = made_up_pair_record(*device);
        record.assign(made_up.begin(), made_up.end());
        found = true;
      }
      if (!found) {
        send_result(fd, header.tag, kNoSuchRecord);
      } else {
        plist_t reply = plist_new_dict();
        plist_dict_set_item(reply, "PairRecordData", plist_new_data(record.data(), record.size()));
        send_usbmux_plist(fd, header.tag, reply);
        plist_free(reply);
      }
    } else if (type == "SavePairRecord") {
      std::string record_id = plist_string(request, "PairRecordID");
      plist_t data = plist_dict_get_item(request, "PairRecordData");
      Device* device = nullptr;
      {
        std::lock_guard<std::mutex> lock(server.mutex);
        device = find_device_by_udid(server, record_id);
      }
      if (record_id.empty() || data == nullptr || plist_get_node_type(data) != PLIST_DATA) {
        send_result(fd, header.tag, 22);  // EINVAL
      } else {
        uint64_t length = 0;
        const char* bytes = plist_get_data_ptr(data, &length);
        bool saved = true;
        if (device != nullptr && server.tls) {
          saved = save_host_record(*device, bytes, length);
        } else {
          std::lock_guard<std::mutex> lock(server.mutex);
          server.saved_pair_records[record_id] = std::vector<char>(bytes, bytes + length);
        }
        send_result(fd, header.tag, saved ? kResultOk : 5);  // EIO
      }
    } else if (type == "DeletePairRecord") {
      std::string record_id = plist_string(request, "PairRecordID");
      Device* device = nullptr;
      {
        std::lock_guard<std::mutex> lock(server.mutex);
        device = find_device_by_udid(server, record_id);
        server.saved_pair_records.erase(record_id);
      }
      if (device != nullptr && server.tls) delete_host_record(*device);
      send_result(fd, header.tag, kResultOk);
    } else if (type == "Connect") {
      bool has_device = false, has_port = false;
      uint64_t device_id = uint_value(request, "DeviceID", has_device);
      uint64_t port_field = uint_value(request, "PortNumber", has_port);
      plist_free(request);
      // The port travels in network byte order inside the integer.
      uint16_t port = ntohs(static_cast<uint16_t>(port_field));
      Device* device = nullptr;
      {
        std::lock_guard<std::mutex> lock(server.mutex);
        Device* found = has_device ? find_device_by_id(server, static_cast<uint32_t>(device_id)) : nullptr;
        if (found != nullptr && found->attached) device = found;
      }
      if (device == nullptr) {
        send_result(fd, header.tag, kResultBadDevice);
        continue;
      }
      if (!has_port || !known_port(port)) {
        send_result(fd, header.tag, kResultConnectionRefused);
        continue;
      }
      {
        // Counted before the client hears it may use the connection, so that
        // its next request (say, another StartService) already sees it.
        std::lock_guard<std::mutex> lock(server.mutex);
        device->connection_fds[fd] = port;
      }
      if (!send_result(fd, header.tag, kResultOk)) {
        std::lock_guard<std::mutex> lock(server.mutex);
        device->connection_fds.erase(fd);
        return;
      }
      if (server.verbose) log_line("[%llu] connected to port %u", static_cast<unsigned long long>(id), port);
      serve_device_port(conn, *device, port);
      return;
    } else {
      log_line("[%llu] usbmux: unknown message type \"%s\", closing", static_cast<unsigned long long>(id),
               type.c_str());
      plist_free(request);
      return;
    }
    plist_free(request);
  }
}

}  // namespace devsim
