// Socket reads and writes with traffic shaping, plist service framing, logging.
#include "devsim/server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>

namespace devsim {

namespace {
std::mutex log_mutex;

// Holds the caller back until the device's link has carried `bytes` at the
// configured rate.
void shape_bytes(Connection& conn, size_t bytes) {
  uint32_t rate = conn.server.bandwidth_mbps.load();
  if (rate == 0 || conn.device == nullptr || bytes == 0) return;
  auto cost = std::chrono::nanoseconds(static_cast<int64_t>(bytes) * 1000 / rate);
  std::chrono::steady_clock::time_point until;
  {
    std::lock_guard<std::mutex> lock(conn.device->link_mutex);
    auto now = std::chrono::steady_clock::now();
    if (conn.device->link_free_at < now) conn.device->link_free_at = now;
    conn.device->link_free_at += cost;
    until = conn.device->link_free_at;
  }
  std::this_thread::sleep_until(until);
}

// What SSL_read or SSL_write's result means for read_exact and write_all:
// bytes moved, 0 at the peer's end (close_notify or end of stream), -1 on
// failure.
ssize_t tls_result(Connection& conn, int n, bool reading) {
  if (n > 0) return n;
  int error = SSL_get_error(conn.ssl, n);
  ERR_clear_error();
  return error == SSL_ERROR_ZERO_RETURN || (reading && error == SSL_ERROR_SYSCALL) ? 0 : -1;
}

// One recv, through the session's TLS while it runs.
ssize_t receive_some(Connection& conn, char* data, size_t length) {
  if (conn.ssl != nullptr) {
    ERR_clear_error();
    return tls_result(conn, SSL_read(conn.ssl, data, static_cast<int>(std::min<size_t>(length, INT_MAX))), true);
  }
  for (;;) {
    ssize_t n = recv(conn.fd, data, length, 0);
    if (n >= 0) return n;
    if (errno == ECONNRESET) return 0;
    if (errno != EINTR) return -1;
  }
}

// One send, through the session's TLS while it runs.
ssize_t send_some(Connection& conn, const char* data, size_t length) {
  if (conn.ssl != nullptr) {
    ERR_clear_error();
    return tls_result(conn, SSL_write(conn.ssl, data, static_cast<int>(std::min<size_t>(length, INT_MAX))), false);
  }
  for (;;) {
    ssize_t n = send(conn.fd, data, length, MSG_NOSIGNAL);
    if (n >= 0 || errno != EINTR) return n;
  }
}
}  // namespace

void log_line(const char* format, ...) {
  char text[2048];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  std::lock_guard<std::mutex> lock(log_mutex);
  fprintf(stderr, "devsim: %s\n", text);
  fflush(stderr);
}

const char* describe(ReadStatus status) {
  switch (status) {
    case ReadStatus::ok: return "ok";
    case ReadStatus::closed: return "closed by peer";
    case ReadStatus::truncated: return "truncated packet";
    case ReadStatus::failed: return "read error";
  }
  return "?";
}

ReadStatus read_exact(Connection& conn, void* buffer, size_t length) {
  char* out = static_cast<char*>(buffer);
  size_t done = 0;
  while (done < length) {
    ssize_t n = receive_some(conn, out + done, length - done);
    if (n == 0) return done == 0 ? ReadStatus::closed : ReadStatus::truncated;
    if (n < 0) return ReadStatus::failed;
    done += static_cast<size_t>(n);
  }
  shape_bytes(conn, length);
  return ReadStatus::ok;
}

bool write_all(Connection& conn, const void* buffer, size_t length) {
  shape_bytes(conn, length);
  const char* in = static_cast<const char*>(buffer);
  size_t done = 0;
  while (done < length) {
    ssize_t n = send_some(conn, in + done, length - done);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

void delay_reply(Connection& conn) {
  uint32_t us = conn.server.latency_us.load();
  if (us > 0) std::this_thread::sleep_for(std::chrono::microseconds(us));
}

ReadStatus read_plist_message(Connection& conn, plist_t& message, std::string& problem) {
  message = nullptr;
  uint32_t length_be = 0;
  ReadStatus status = read_exact(conn, &length_be, sizeof length_be);
  if (status != ReadStatus::ok) return status;
  uint32_t length = ntohl(length_be);
  if (length == 0 || length > kMaxPlistMessage) {
    problem = "plist message length " + std::to_string(length) + " out of range";
    return ReadStatus::failed;
  }
  std::vector<char> body(length);
  status = read_exact(conn, body.data(), length);
  if (status == ReadStatus::closed) status = ReadStatus::truncated;
  if (status != ReadStatus::ok) return status;
  if (plist_is_binary(body.data(), length)) {
    plist_from_bin(body.data(), length, &message);
  } else {
    plist_from_xml(body.data(), length, &message);
  }
  if (message == nullptr || plist_get_node_type(message) != PLIST_DICT) {
    if (message) plist_free(message);
    message = nullptr;
    problem = "message is not a plist dictionary";
    return ReadStatus::failed;
  }
  return ReadStatus::ok;
}

plist_t next_plist_request(Connection& conn, const char* service) {
  plist_t request = nullptr;
  std::string problem;
  ReadStatus status = read_plist_message(conn, request, problem);
  if (status != ReadStatus::ok && status != ReadStatus::closed) {
    log_line("[%llu] %s: %s, closing", static_cast<unsigned long long>(conn.id), service,
             problem.empty() ? describe(status) : problem.c_str());
  }
  return status == ReadStatus::ok ? request : nullptr;
}

bool send_plist_message(Connection& conn, plist_t message) {
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(message, &xml, &length);
  if (xml == nullptr) return false;
  std::vector<char> packet(4 + length);
  uint32_t length_be = htonl(length);
  memcpy(packet.data(), &length_be, 4);
  memcpy(packet.data() + 4, xml, length);
  free(xml);
  return write_all(conn, packet.data(), packet.size());
}

std::string plist_string(plist_t dict, const char* key) {
  plist_t node = plist_dict_get_item(dict, key);
  if (node == nullptr || plist_get_node_type(node) != PLIST_STRING) return "";
  char* value = nullptr;
  plist_get_string_val(node, &value);
  std::string result = value ? value : "";
  free(value);
  return result;
}

}  // namespace devsim
