// lockdownd: device values, pairing, sessions (TLS unless --no-tls), and
// service start.
#include "devsim/server.h"

namespace devsim {

namespace {

// `public_key`: the device's, in TLS mode; "" leaves it out.
plist_t global_domain(const DeviceImage& image, const std::string& public_key) {
  plist_t values = plist_new_dict();
  auto put = [&](const char* key, const std::string& value) {
    plist_dict_set_item(values, key, plist_new_string(value.c_str()));
  };
  put("ActivationState", "Activated");
  put("BuildVersion", image.build_version);
  put("CPUArchitecture", "arm64");
  put("DeviceClass", device_class_of(image));
  put("DeviceColor", "black");
  put("DeviceName", image.name);
  put("FirmwareVersion", "iBoot-3406.0.0.0.0");
  put("HardwareModel", "D101AP");
  put("HardwarePlatform", "t8010");
  put("ModelNumber", "MN8X2");
  put("ProductName", "iPhone OS");
  put("ProductType", image.product_type);
  put("ProductVersion", image.ios_version);
  put("ProtocolVersion", "2");
  put("SerialNumber", image.serial_number);
  put("TimeZone", "Europe/London");
  put("UniqueDeviceID", image.udid);
  put("WiFiAddress", "02:00:00:00:00:01");
  put("BluetoothAddress", "02:00:00:00:00:02");
  plist_dict_set_item(values, "PasswordProtected", plist_new_bool(0));
  if (!public_key.empty()) {
    plist_dict_set_item(values, "DevicePublicKey", plist_new_data(public_key.data(), public_key.size()));
  }
  plist_dict_set_item(values, "UniqueChipID", plist_new_uint(image.location_id * 7919ull));
  return values;
}

plist_t disk_usage_domain(Device& device) {
  uint64_t capacity = device.capacity_bytes.load();
  uint64_t stored;
  {
    std::lock_guard<std::mutex> lock(device.storage_mutex);
    stored = device.stored_bytes;
  }
  uint64_t available = stored < capacity ? capacity - stored : 0;
  plist_t values = plist_new_dict();
  plist_dict_set_item(values, "TotalDiskCapacity", plist_new_uint(capacity));
  plist_dict_set_item(values, "TotalDataCapacity", plist_new_uint(capacity));
  plist_dict_set_item(values, "TotalDataAvailable", plist_new_uint(available));
  plist_dict_set_item(values, "AmountDataAvailable", plist_new_uint(available));
  plist_dict_set_item(values, "AmountDataReserved", plist_new_uint(0));
  plist_dict_set_item(values, "TotalSystemCapacity", plist_new_uint(0));
  plist_dict_set_item(values, "TotalSystemAvailable", plist_new_uint(0));
  return values;
}

plist_t reply_for(const std::string& request) {
  plist_t reply = plist_new_dict();
  plist_dict_set_item(reply, "Request", plist_new_string(request.c_str()));
  return reply;
}

void set_error(plist_t reply, const char* error) { plist_dict_set_item(reply, "Error", plist_new_string(error)); }
void set_success(plist_t reply) { plist_dict_set_item(reply, "Result", plist_new_string("Success")); }

plist_t get_value(Connection& conn, plist_t request) {
  Device& device = *conn.device;
  plist_t reply = reply_for("GetValue");
  std::string domain = plist_string(request, "Domain");
  std::string key = plist_string(request, "Key");
  plist_t values = nullptr;
  if (domain.empty()) {
    bool wants_key = key.empty() || key == "DevicePublicKey";
    values = global_domain(device.image, conn.server.tls && wants_key ? device_public_key(device) : "");
  } else if (domain == "com.apple.disk_usage" || domain == "com.apple.disk_usage.factory") {
    values = disk_usage_domain(device);
  } else {
    values = plist_new_dict();
  }
  if (!domain.empty()) plist_dict_set_item(reply, "Domain", plist_new_string(domain.c_str()));
  if (key.empty()) {
    plist_dict_set_item(reply, "Value", values);
    set_success(reply);
    return reply;
  }
  plist_dict_set_item(reply, "Key", plist_new_string(key.c_str()));
  plist_t value = plist_dict_get_item(values, key.c_str());
  if (value == nullptr) {
    set_error(reply, "MissingValue");
  } else {
    plist_dict_set_item(reply, "Value", plist_copy(value));
    set_success(reply);
  }
  plist_free(values);
  return reply;
}

plist_t start_service(Connection& conn, plist_t request) {
  plist_t reply = reply_for("StartService");
  std::string service = plist_string(request, "Service");
  uint16_t port = 0;
  if (service == "com.apple.afc") port = kAfcPort;
  if (service == "com.apple.mobile.installation_proxy") port = kInstallationProxyPort;
  if (service == "com.apple.mobile.house_arrest") port = kHouseArrestPort;
  if (service.empty()) {
    set_error(reply, "MissingService");
  } else if (port == 0) {
    set_error(reply, "InvalidService");
  } else if (service_limit_reached(conn.server, *conn.device)) {
    set_error(reply, "ServiceLimit");
  } else {
    plist_dict_set_item(reply, "Service", plist_new_string(service.c_str()));
    plist_dict_set_item(reply, "Port", plist_new_uint(port));
    plist_dict_set_item(reply, "EnableServiceSSL", plist_new_bool(0));
  }
  return reply;
}

void serve_lockdown_requests(Connection& conn) {
  Device& device = *conn.device;
  unsigned long long id = conn.id;
  uint64_t session_counter = 0;
  for (;;) {
    plist_t request = next_plist_request(conn, "lockdown");
    if (request == nullptr) return;
    std::string name = plist_string(request, "Request");
    if (conn.server.verbose) log_line("[%llu] lockdown: %s", id, name.c_str());
    plist_t reply = nullptr;
    bool close_after = false;
    bool start_tls = false, stop_tls = false;
    std::string trust_error, host_id;
    if (name == "QueryType") {
      reply = reply_for(name);
      plist_dict_set_item(reply, "Type", plist_new_string("com.apple.mobile.lockdown"));
    } else if (name == "GetValue") {
      reply = get_value(conn, request);
    } else if (name == "StartSession") {
      reply = reply_for(name);
      if (trust_prompt_active(device, trust_error)) {
        set_error(reply, trust_error.c_str());
      } else if ((host_id = plist_string(request, "HostID")).empty()) {
        set_error(reply, "InvalidHostID");
      } else {
        std::string session = "5E55-" + std::to_string(id) + "-" + std::to_string(++session_counter);
        plist_dict_set_item(reply, "SessionID", plist_new_string(session.c_str()));
        // The host presents its certificate in the handshake that follows;
        // a host the device does not accept fails there, not here.
        start_tls = conn.server.tls && conn.ssl == nullptr;
        plist_dict_set_item(reply, "EnableSessionSSL", plist_new_bool(start_tls));
        set_success(reply);
      }
    } else if (name == "StopSession") {
      reply = reply_for(name);
      set_success(reply);
      stop_tls = true;
    } else if ((name == "Pair" || name == "ValidatePair") && trust_prompt_active(device, trust_error)) {
      reply = reply_for(name);
      set_error(reply, trust_error.c_str());
    } else if ((name == "Pair" || name == "ValidatePair" || name == "Unpair") && conn.server.tls) {
      reply = answer_pairing_request(device, name, request);
    } else if (name == "Pair" || name == "ValidatePair" || name == "Unpair") {
      reply = reply_for(name);
      set_success(reply);
    } else if (name == "SetValue" || name == "RemoveValue") {
      reply = reply_for(name);
      set_success(reply);
    } else if (name == "StartService") {
      reply = start_service(conn, request);
    } else if (name == "Goodbye") {
      reply = reply_for(name);
      set_success(reply);
      close_after = true;
    } else {
      log_line("[%llu] lockdown: unknown request \"%s\", closing", id, name.c_str());
      plist_free(request);
      return;
    }
    plist_free(request);
    delay_reply(conn);
    bool sent = send_plist_message(conn, reply);
    plist_free(reply);
    if (!sent || close_after) return;
    if (start_tls && !begin_session_tls(conn, host_id)) return;
    if (stop_tls && !end_session_tls(conn)) return;
  }
}

}  // namespace

void serve_lockdown(Connection& conn) {
  serve_lockdown_requests(conn);
  drop_session_tls(conn);
}

}  // namespace devsim
