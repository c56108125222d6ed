// The simulated device server: shared records and the functions each service
// file provides. One thread serves one client connection from start to end.
#pragma once

#include <plist/plist.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

struct ssl_st;  // OpenSSL's SSL

namespace devsim {

// Device ports a client may Connect to. Lockdown's port is the real one; the
// service ports are what StartService hands out.
constexpr uint16_t kLockdownPort = 62078;
constexpr uint16_t kAfcPort = 49201;
constexpr uint16_t kInstallationProxyPort = 49202;
constexpr uint16_t kHouseArrestPort = 49203;

// ---------------------------------------------------------------- image ---

struct AppInfo {
  std::string bundle_id;
  std::string display_name;
  bool file_sharing = false;
};

struct DeviceImage {
  std::string dir;  // absolute path of the image folder
  std::string name;
  std::string udid;
  std::string ios_version;
  std::string product_type;
  std::string build_version;
  std::string serial_number;
  uint32_t location_id = 0;
  uint64_t capacity_bytes = 0;
  uint32_t block_size = 4096;
  std::vector<AppInfo> apps;
  uint32_t hostile = 0;  // HostileKind bits from device.json
};

// Reads DIR/device.json. On failure returns false with a message that names
// the offending key. `fallback_location_id` is used when the key is absent.
bool load_device_image(const std::string& dir, uint32_t fallback_location_id, DeviceImage& image,
                       std::string& error);

// Bytes held in regular files under media/ and apps/ (each inode once).
uint64_t measure_stored_bytes(const std::string& image_dir);

// "Trust this computer?" and friends: derived from the product type.
std::string device_class_of(const DeviceImage& image);

// Writes the sample image folder used by demos and hand testing.
bool write_sample_image(const std::string& dir, std::string& error);

// -------------------------------------------------------------- hostile ---

// A hostile device answers part of its media tree, general_storage/Hostile,
// from made-up records that break the rules a client may be tempted to trust.
// Each kind adds one folder there.
enum HostileKind : uint32_t {
  kHostileNames = 1u << 0,     // names/: "/", "..", control characters, bad UTF-8, long names
  kHostileSizes = 1u << 1,     // sizes/: file info that disagrees with the bytes a read gives
  kHostileMillion = 1u << 2,   // million/ (1,000,000 entries), hundred-thousand/ (100,000)
  kHostileDeep = 1u << 3,      // deep/: folders nested kHostileDepth deep
  kHostileHalf = 1u << 4,      // half/: replies cut half-way, then the connection closed
  kHostileOversize = 1u << 5,  // oversize/: reply headers whose lengths lie, then closed
  kHostileAll = (1u << 6) - 1,
};
constexpr int kHostileDepth = 1000;

// The bit of a kind's name ("names", ..., "all"), or 0 for an unknown word.
uint32_t hostile_kind_by_name(const std::string& name);

// How a reply goes on the wire.
enum class ReplyShape {
  honest,
  half,                // header and half the bytes, then the connection closes
  entire_beyond,       // entire_length 4096 more than is sent
  entire_huge,         // entire_length 2^62
  entire_negative,     // entire_length -1 as a signed 64-bit number
  this_beyond_entire,  // this_length past entire_length and past what is sent
};

// One record of the made-up tree. `rel` is relative to the media root.
struct HostileRecord {
  bool exists = false;
  bool folder = false;
  std::string size_text;  // what get_file_info says st_size is
  std::string content;    // what reads give
  ReplyShape list_shape = ReplyShape::honest;
  ReplyShape read_shape = ReplyShape::honest;
};

constexpr char kHostileRoot[] = "general_storage/Hostile";
// True for kHostileRoot and everything below it.
bool is_hostile_path(const std::string& rel);
HostileRecord hostile_record(uint32_t kinds, const std::string& rel);
// The names a made-up folder lists, in order, without "." and "..".
std::vector<std::string> hostile_listing(uint32_t kinds, const std::string& rel);

// --------------------------------------------------------------- faults ---

struct AfcErrorRule {
  std::string pattern;  // fnmatch() pattern over the AFC path ("/" + relative)
  uint64_t error = 0;
  // Only requests of this kind ("remove", "rename", "open", "read", "write",
  // "info", "mkdir", "list"); empty: every request on the path.
  std::string request;
};

struct DeviceFaults {
  int64_t drop_after_requests = -1;  // -1: off
  int64_t drop_after_bytes = -1;
  int64_t requests_seen = 0;
  int64_t bytes_seen = 0;
  std::vector<AfcErrorRule> afc_errors;
  std::chrono::steady_clock::time_point trust_until{};
  std::string trust_error = "PairingDialogResponsePending";
  // StartService answers ServiceLimit while the device has this many
  // connections open; -1: off.
  int64_t service_limit = -1;
  // A passcode-locked phone answers Pair and StartSession with PasswordProtected.
  bool locked = false;
};

// ---------------------------------------------------------------- pairing ---

// A host the device accepted through Pair: its certificates are PEM text.
struct PairedHost {
  std::string host_id;
  std::string system_buid;
  std::string root_certificate;
  std::string host_certificate;
  std::string device_certificate;
};

// The user's answer to "Trust this computer?".
enum class TrustAnswer { none, pending, trusted, denied };

// ---------------------------------------------------------------- server ---

struct Device {
  DeviceImage image;

  // Serialises every change of the stored bytes (writes, truncation, removal).
  std::mutex storage_mutex;
  uint64_t stored_bytes = 0;
  std::atomic<uint64_t> capacity_bytes{0};

  std::mutex faults_mutex;
  DeviceFaults faults;
  // HostileKind bits: which made-up folders the media tree shows.
  std::atomic<uint32_t> hostile{0};

  // Guarded by Server::mutex.
  bool attached = true;
  std::map<int, uint16_t> connection_fds;  // open connections to the device: fd -> device port

  // Pairing state (TLS mode), read from or made in image.dir/pairing at first
  // use; guarded by pairing_mutex.
  std::mutex pairing_mutex;
  bool pairing_loaded = false;
  std::string device_key_pem;
  std::vector<PairedHost> accepted_hosts;
  TrustAnswer trust_answer = TrustAnswer::none;

  // Bandwidth shaping is per device, as a USB link is.
  std::mutex link_mutex;
  std::chrono::steady_clock::time_point link_free_at{};
};

struct Listener {
  int fd = -1;
  std::mutex write_mutex;
};

struct Server {
  std::string socket_path;
  std::string control_path;
  bool verbose = false;
  // Lockdown sessions run TLS and pairing is real; false (--no-tls): plain
  // sessions and a made-up pair record.
  bool tls = true;
  std::vector<std::unique_ptr<Device>> devices;

  std::atomic<uint32_t> latency_us{0};
  std::atomic<uint32_t> bandwidth_mbps{0};  // megabytes (10^6) per second; 0 = unlimited
  std::atomic<bool> stopping{false};

  std::mutex mutex;  // guards what follows and Device::attached / connection_fds
  std::set<int> client_fds;
  std::vector<std::shared_ptr<Listener>> listeners;
  // Records saved for ids that are not a device's in TLS mode, every record in --no-tls mode.
  std::map<std::string, std::vector<char>> saved_pair_records;

  // Timed actions (late appearance, replug), run by the scheduler thread.
  std::mutex schedule_mutex;
  std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> schedule;
};

// One accepted client socket. After a usbmux Connect, `device` is set and the
// same socket carries the device service's bytes.
struct Connection {
  Server& server;
  int fd;
  uint64_t id;
  Device* device = nullptr;
  // Set while a lockdown session runs TLS: reads and writes go through it.
  ::ssl_st* ssl = nullptr;
};

// ----------------------------------------------------------------- wire ---

void log_line(const char* format, ...) __attribute__((format(printf, 1, 2)));

enum class ReadStatus { ok, closed, truncated, failed };
const char* describe(ReadStatus status);

ReadStatus read_exact(Connection& conn, void* buffer, size_t length);
bool write_all(Connection& conn, const void* buffer, size_t length);

// Adds the configured round-trip latency before a reply.
void delay_reply(Connection& conn);

// Plist services (lockdown, installation_proxy, house_arrest): a big-endian
// u32 length, then an XML or binary plist.
constexpr uint32_t kMaxPlistMessage = 1u << 20;
ReadStatus read_plist_message(Connection& conn, plist_t& message, std::string& problem);
// The next request of a plist service, or null when the connection is to end:
// closed by the client, or unreadable (logged as "[id] SERVICE: why, closing").
plist_t next_plist_request(Connection& conn, const char* service);
bool send_plist_message(Connection& conn, plist_t message);

std::string plist_string(plist_t dict, const char* key);

// --------------------------------------------------------------- services ---

void serve_usbmux_client(Server& server, int fd, uint64_t id);
void serve_lockdown(Connection& conn);
void serve_installation_proxy(Connection& conn);
void serve_house_arrest(Connection& conn);
// Serves AFC over `conn` rooted at `root_dir` until the client leaves.
void serve_afc(Connection& conn, const std::string& root_dir);

// ------------------------------------------------- pairing (pairing.cpp) ---

// The pair record usbmux keeps for the device (its host side): false when
// there is none.
bool read_host_record(Device& device, std::vector<char>& record);
bool save_host_record(Device& device, const char* data, size_t length);
void delete_host_record(Device& device);
// The device's public key as PKCS#1 PEM, as GetValue DevicePublicKey gives
// it; "" when the key cannot be had.
std::string device_public_key(Device& device);
// The reply to Pair, ValidatePair or Unpair.
plist_t answer_pairing_request(Device& device, const std::string& name, plist_t request);
// After StartSession's reply: the TLS handshake as the device's side. False
// (logged) when it fails, for instance for a host the device does not accept.
bool begin_session_tls(Connection& conn, const std::string& host_id);
// After StopSession's reply: takes the client's close_notify and goes back to
// plain on the same connection. False when the connection cannot go on.
bool end_session_tls(Connection& conn);
// When the connection ends: frees its TLS state, if any, sending nothing.
void drop_session_tls(Connection& conn);
// Control commands: "unpaired", "forget-host", "trust", "deny".
void apply_pairing_command(Device& device, const std::string& verb);
// A replugged phone shows the prompt afresh.
void reset_trust_answer(Device& device);

// usbmux events
void set_device_attached(Server& server, Device& device, bool attached);
void drop_device_connections(Server& server, Device& device);

// --------------------------------------------------------------- control ---

// Applies one control command ("unplug UDID", ...). Returns "ok" or
// "error: ...".
std::string apply_control_command(Server& server, const std::string& line);
void schedule_action(Server& server, std::chrono::milliseconds delay, std::function<void()> action);
void run_scheduler(Server& server);

// Fault hooks used by the services.
// True while Pair and StartSession are to answer `error_name`: a trust prompt
// (trust-prompt) or a passcode lock (lock).
bool trust_prompt_active(Device& device, std::string& error_name);
// True when the device must refuse to start one more service now.
bool service_limit_reached(Server& server, Device& device);
// Connections open to the device's ports; port 0 counts every one.
size_t count_device_connections(Server& server, Device& device, uint16_t port);
// Returns the injected error for an AFC path, or 0.
// The error a rule injects for a request of kind `request` (see
// AfcErrorRule) on `path`, or 0.
uint64_t injected_afc_error(Device& device, const std::string& path, const char* request);
// Counts one served AFC request moving `data_bytes` of file data; true when
// the device must now drop every connection.
bool count_afc_request(Device& device, uint64_t data_bytes);

Device* find_device_by_udid(Server& server, const std::string& udid);
Device* find_device_by_id(Server& server, uint32_t device_id);

}  // namespace devsim
