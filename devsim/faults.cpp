// Faults and shaping: the control command language, the hooks the services
// call, and the scheduler for timed plug events.
#include "devsim/server.h"

#include <fnmatch.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <sstream>
#include <thread>

namespace devsim {

namespace {

bool parse_unsigned(const std::string& text, uint64_t& value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 19) return false;
  value = std::stoull(text);
  return true;
}

bool parse_seconds(const std::string& text, std::chrono::milliseconds& value) {
  char* end = nullptr;
  double seconds = strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !std::isfinite(seconds) || seconds < 0 || seconds > 86400) return false;
  value = std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
  return true;
}

// "*" selects every device.
std::vector<Device*> select_devices(Server& server, const std::string& udid) {
  std::vector<Device*> selected;
  for (auto& device : server.devices) {
    if (udid == "*" || device->image.udid == udid) selected.push_back(device.get());
  }
  return selected;
}

uint64_t afc_error_by_name(const std::string& text) {
  static const std::pair<const char*, uint64_t> names[] = {
      {"unknown", 1},          {"object-not-found", 8}, {"object-is-dir", 9}, {"permission-denied", 10},
      {"object-exists", 16},   {"no-space", 18},        {"io-error", 20},     {"dir-not-empty", 1},
      {"not-a-directory", 4},  {"busy", 17},            {"would-block", 19},  {"invalid-argument", 7}};
  for (auto& entry : names) {
    if (text == entry.first) return entry.second;
  }
  uint64_t number = 0;
  return parse_unsigned(text, number) ? number : 0;
}

}  // namespace

std::string apply_control_command(Server& server, const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  if (words.empty()) return "error: empty command";
  const std::string& verb = words[0];
  auto usage = [&](const char* form) { return std::string("error: usage: ") + form; };

  if (verb == "latency-us" || verb == "bandwidth-mbps") {
    uint64_t value = 0;
    if (words.size() != 2 || !parse_unsigned(words[1], value) || value > 100000000)
      return usage(verb == "latency-us" ? "latency-us MICROSECONDS" : "bandwidth-mbps MEGABYTES_PER_SECOND");
    (verb == "latency-us" ? server.latency_us : server.bandwidth_mbps) = static_cast<uint32_t>(value);
    return "ok";
  }
  if (verb == "ping") return "ok";

  if (words.size() < 2) return "error: " + verb + ": missing UDID";
  std::vector<Device*> devices = select_devices(server, words[1]);
  if (devices.empty()) return "error: no device with UDID " + words[1];

  if (verb == "drop-after-requests" || verb == "drop-after-bytes") {
    uint64_t count = 0;
    if (words.size() != 3 || !parse_unsigned(words[2], count) || count == 0)
      return usage("drop-after-requests|drop-after-bytes UDID N (N >= 1)");
    for (Device* device : devices) {
      std::lock_guard<std::mutex> lock(device->faults_mutex);
      (verb == "drop-after-requests" ? device->faults.drop_after_requests : device->faults.drop_after_bytes) =
          static_cast<int64_t>(count);
      device->faults.requests_seen = 0;
      device->faults.bytes_seen = 0;
    }
    return "ok";
  }
  if (verb == "drop-now") {
    for (Device* device : devices) drop_device_connections(server, *device);
    return "ok";
  }
  if (verb == "afc-error") {
    uint64_t code = words.size() == 4 || words.size() == 5 ? afc_error_by_name(words[3]) : 0;
    if (code == 0) return usage("afc-error UDID PATTERN CODE (CODE: number or name, not 0)");
    // An optional fifth word limits the rule to one kind of request, so that
    // (say) a file can be read whole but not removed.
    std::string request = words.size() == 5 ? words[4] : "";
    static const char* const kRequests[] = {"remove", "rename", "open", "read", "write", "info", "mkdir", "list"};
    if (!request.empty() && std::find(std::begin(kRequests), std::end(kRequests), request) == std::end(kRequests))
      return "error: afc-error REQUEST is one of remove, rename, open, read, write, info, mkdir, list";
    for (Device* device : devices) {
      std::lock_guard<std::mutex> lock(device->faults_mutex);
      device->faults.afc_errors.push_back(AfcErrorRule{words[2], code, request});
    }
    return "ok";
  }
  if (verb == "trust-prompt") {
    std::chrono::milliseconds duration{};
    if (words.size() < 3 || words.size() > 4 || !parse_seconds(words[2], duration))
      return usage("trust-prompt UDID SECONDS [PairingDialogResponsePending|PasswordProtected]");
    std::string error = words.size() == 4 ? words[3] : "PairingDialogResponsePending";
    if (error != "PairingDialogResponsePending" && error != "PasswordProtected")
      return "error: trust-prompt answers PairingDialogResponsePending or PasswordProtected";
    for (Device* device : devices) {
      std::lock_guard<std::mutex> lock(device->faults_mutex);
      device->faults.trust_until = std::chrono::steady_clock::now() + duration;
      device->faults.trust_error = error;
    }
    return "ok";
  }
  if (verb == "lock" || verb == "unlock") {
    if (words.size() != 2) return usage(verb == "lock" ? "lock UDID" : "unlock UDID");
    for (Device* device : devices) {
      std::lock_guard<std::mutex> lock(device->faults_mutex);
      device->faults.locked = verb == "lock";
    }
    return "ok";
  }
  if (verb == "unpaired" || verb == "forget-host" || verb == "trust" || verb == "deny") {
    if (words.size() != 2) return usage((verb + " UDID").c_str());
    if (!server.tls) return "error: " + verb + ": devsim runs with --no-tls, where nothing pairs";
    for (Device* device : devices) apply_pairing_command(*device, verb);
    return "ok";
  }
  if (verb == "unplug" || verb == "appear-after") {
    std::chrono::milliseconds delay{};
    bool timed = words.size() == 3;
    if (words.size() > 3 || (verb == "appear-after" && !timed) || (timed && !parse_seconds(words[2], delay)))
      return usage(verb == "unplug" ? "unplug UDID [SECONDS until replug]" : "appear-after UDID SECONDS");
    for (Device* device : devices) {
      set_device_attached(server, *device, false);
      if (timed) schedule_action(server, delay, [&server, device] { set_device_attached(server, *device, true); });
    }
    return "ok";
  }
  if (verb == "plug") {
    if (words.size() != 2) return usage("plug UDID");
    for (Device* device : devices) set_device_attached(server, *device, true);
    return "ok";
  }
  if (verb == "capacity") {
    uint64_t bytes = 0;
    if (words.size() != 3 || !parse_unsigned(words[2], bytes)) return usage("capacity UDID BYTES");
    for (Device* device : devices) device->capacity_bytes = bytes;
    return "ok";
  }
  if (verb == "service-limit") {
    uint64_t limit = 0;
    if (words.size() != 3 || !parse_unsigned(words[2], limit)) return usage("service-limit UDID N (0: no limit)");
    for (Device* device : devices) {
      std::lock_guard<std::mutex> lock(device->faults_mutex);
      device->faults.service_limit = limit == 0 ? -1 : static_cast<int64_t>(limit);
    }
    return "ok";
  }
  if (verb == "connections") {
    static const std::pair<const char*, uint16_t> services[] = {{"lockdown", kLockdownPort},
                                                                {"afc", kAfcPort},
                                                                {"installation_proxy", kInstallationProxyPort},
                                                                {"house_arrest", kHouseArrestPort}};
    uint16_t port = 0;
    if (words.size() == 3) {
      for (auto& service : services) {
        if (words[2] == service.first) port = service.second;
      }
    }
    if (words.size() > 3 || (words.size() == 3 && port == 0))
      return usage("connections UDID [lockdown|afc|installation_proxy|house_arrest]");
    size_t count = 0;
    for (Device* device : devices) count += count_device_connections(server, *device, port);
    return "ok " + std::to_string(count);
  }
  if (verb == "hostile") {
    uint32_t kinds = 0;
    for (size_t i = 2; i < words.size(); ++i) {
      uint32_t bit = words[i] == "none" ? 0 : hostile_kind_by_name(words[i]);
      if (bit == 0 && words[i] != "none") return usage("hostile UDID KIND... (names sizes million deep half oversize all none)");
      kinds |= bit;
    }
    if (words.size() < 3) return usage("hostile UDID KIND... (names sizes million deep half oversize all none)");
    for (Device* device : devices) device->hostile = kinds;
    return "ok";
  }
  if (verb == "clear") {
    if (words.size() != 2) return usage("clear UDID");
    for (Device* device : devices) {
      std::lock_guard<std::mutex> lock(device->faults_mutex);
      device->faults = DeviceFaults{};
    }
    return "ok";
  }
  return "error: unknown command \"" + verb + "\"";
}

bool trust_prompt_active(Device& device, std::string& error_name) {
  std::lock_guard<std::mutex> lock(device.faults_mutex);
  if (device.faults.locked) {
    error_name = "PasswordProtected";
    return true;
  }
  if (std::chrono::steady_clock::now() >= device.faults.trust_until) return false;
  error_name = device.faults.trust_error;
  return true;
}

bool service_limit_reached(Server& server, Device& device) {
  int64_t limit;
  {
    std::lock_guard<std::mutex> lock(device.faults_mutex);
    limit = device.faults.service_limit;
  }
  return limit >= 0 && count_device_connections(server, device, 0) >= static_cast<uint64_t>(limit);
}

uint64_t injected_afc_error(Device& device, const std::string& path, const char* request) {
  std::lock_guard<std::mutex> lock(device.faults_mutex);
  for (const AfcErrorRule& rule : device.faults.afc_errors) {
    if (!rule.request.empty() && rule.request != request) continue;
    if (fnmatch(rule.pattern.c_str(), path.c_str(), 0) == 0) return rule.error;
  }
  return 0;
}

bool count_afc_request(Device& device, uint64_t data_bytes) {
  std::lock_guard<std::mutex> lock(device.faults_mutex);
  DeviceFaults& f = device.faults;
  f.requests_seen += 1;
  f.bytes_seen += static_cast<int64_t>(data_bytes);
  bool drop = false;
  if (f.drop_after_requests > 0 && f.requests_seen >= f.drop_after_requests) {
    f.drop_after_requests = -1;
    drop = true;
  }
  if (f.drop_after_bytes > 0 && f.bytes_seen >= f.drop_after_bytes) {
    f.drop_after_bytes = -1;
    drop = true;
  }
  return drop;
}

void schedule_action(Server& server, std::chrono::milliseconds delay, std::function<void()> action) {
  std::lock_guard<std::mutex> lock(server.schedule_mutex);
  server.schedule.emplace(std::chrono::steady_clock::now() + delay, std::move(action));
}

void run_scheduler(Server& server) {
  while (!server.stopping) {
    std::function<void()> due;
    {
      std::lock_guard<std::mutex> lock(server.schedule_mutex);
      auto first = server.schedule.begin();
      if (first != server.schedule.end() && first->first <= std::chrono::steady_clock::now()) {
        due = std::move(first->second);
        server.schedule.erase(first);
      }
    }
    if (due) {
      due();
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
}

}  // namespace devsim
