// Pairing and session TLS as a phone does them: the device's key, the hosts
// it accepted, the record usbmux keeps for the host side, and the TLS server
// that runs on a lockdown connection between StartSession and StopSession.
//
// Everything lives in IMAGE/pairing/, made at first use so that a restart
// keeps what was paired:
//   device-key.pem         the device's private key
//   accepted-hosts.plist   the hosts the device accepted (certificates, HostID)
//   host-record.plist      the record usbmux serves (absent: not paired)
#include "devsim/server.h"

#include <openssl/encoder.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace devsim {

namespace {

namespace fs = std::filesystem;

// Phones of the iOS versions devsim plays have 1024-bit device keys; the
// default record's keys are as small so that a first start stays cheap.
constexpr int kKeyBits = 1024;
constexpr const char* kSystemBuid = "5A1C2E3F-7B6D-4C8E-9F10-D1E2C3B4A596";

struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertFree {
  void operator()(X509* cert) const { X509_free(cert); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using Cert = std::unique_ptr<X509, CertFree>;

std::string bio_text(BIO* bio) {
  char* data = nullptr;
  long length = BIO_get_mem_data(bio, &data);
  std::string text(data, length > 0 ? static_cast<size_t>(length) : 0);
  BIO_free(bio);
  return text;
}

std::string private_key_pem(EVP_PKEY* key) {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  return bio_text(bio);
}

// "-----BEGIN RSA PUBLIC KEY-----": the form the client reads with
// PEM_read_bio_RSAPublicKey.
std::string public_key_pkcs1_pem(EVP_PKEY* key) {
  BIO* bio = BIO_new(BIO_s_mem());
  OSSL_ENCODER_CTX* encoder =
      OSSL_ENCODER_CTX_new_for_pkey(key, EVP_PKEY_PUBLIC_KEY, "PEM", "type-specific", nullptr);
  bool ok = encoder != nullptr && OSSL_ENCODER_to_bio(encoder, bio) == 1;
  OSSL_ENCODER_CTX_free(encoder);
  std::string text = bio_text(bio);
  return ok ? text : "";
}

std::string certificate_pem(X509* cert) {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(bio, cert);
  return bio_text(bio);
}

Key key_from_pem(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  Key key(PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr));
  BIO_free(bio);
  return key;
}

Cert certificate_from_pem(const std::string& pem) {
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  Cert cert(PEM_read_bio_X509(bio, nullptr, nullptr, nullptr));
  BIO_free(bio);
  ERR_clear_error();
  return cert;
}

bool add_extension(X509* cert, X509* parent, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, parent, cert, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (extension == nullptr) return false;
  X509_add_ext(cert, extension, -1);
  X509_EXTENSION_free(extension);
  return true;
}

// A certificate for `subject`'s public key, signed by `signer`, the key of
// the `parent` certificate (null and the subject's own key: self-signed).
// Ten years, no names, as a host makes pairing certificates.
Cert make_certificate(EVP_PKEY* subject, EVP_PKEY* signer, X509* parent, bool authority) {
  Cert cert(X509_new());
  X509_set_version(cert.get(), 2);
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 10L * 365 * 24 * 3600);
  X509_set_pubkey(cert.get(), subject);
  X509* parent_cert = parent != nullptr ? parent : cert.get();
  bool ok = add_extension(cert.get(), parent_cert, NID_basic_constraints,
                          authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
  if (!authority) {
    ok = ok && add_extension(cert.get(), parent_cert, NID_key_usage, "critical,digitalSignature,keyEncipherment");
  }
  if (!ok || X509_sign(cert.get(), signer, EVP_sha256()) == 0) return Cert();
  return cert;
}

std::string new_uuid() {
  unsigned char bytes[16];
  RAND_bytes(bytes, sizeof bytes);
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
  char text[37];
  snprintf(text, sizeof text, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", bytes[0],
           bytes[1], bytes[2], bytes[3], bytes[4], bytes[5], bytes[6], bytes[7], bytes[8], bytes[9], bytes[10],
           bytes[11], bytes[12], bytes[13], bytes[14], bytes[15]);
  return text;
}

std::string pairing_dir(const Device& device) { return device.image.dir + "/pairing"; }

bool read_file(const std::string& path, std::string& bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream text;
  text << in.rdbuf();
  bytes = text.str();
  return true;
}

// Whole or not at all: a reader never meets half a file.
bool write_file(const std::string& path, const std::string& bytes) {
  std::string temporary = path + ".new";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) return false;
  }
  std::error_code ec;
  fs::rename(temporary, path, ec);
  if (ec) log_line("%s: %s", path.c_str(), ec.message().c_str());
  return !ec;
}

std::string data_string(plist_t dict, const char* key) {
  plist_t node = plist_dict_get_item(dict, key);
  if (node == nullptr || plist_get_node_type(node) != PLIST_DATA) return "";
  uint64_t length = 0;
  const char* bytes = plist_get_data_ptr(node, &length);
  return std::string(bytes, length);
}

void set_data(plist_t dict, const char* key, const std::string& bytes) {
  plist_dict_set_item(dict, key, plist_new_data(bytes.data(), bytes.size()));
}

std::string xml_of(plist_t node) {
  char* xml = nullptr;
  uint32_t length = 0;
  plist_to_xml(node, &xml, &length);
  std::string text(xml != nullptr ? xml : "", length);
  free(xml);
  return text;
}

bool save_accepted_hosts(const Device& device) {
  plist_t list = plist_new_array();
  for (const PairedHost& host : device.accepted_hosts) {
    plist_t entry = plist_new_dict();
    plist_dict_set_item(entry, "HostID", plist_new_string(host.host_id.c_str()));
    plist_dict_set_item(entry, "SystemBUID", plist_new_string(host.system_buid.c_str()));
    set_data(entry, "RootCertificate", host.root_certificate);
    set_data(entry, "HostCertificate", host.host_certificate);
    set_data(entry, "DeviceCertificate", host.device_certificate);
    plist_array_append_item(list, entry);
  }
  std::string xml = xml_of(list);
  plist_free(list);
  return write_file(pairing_dir(device) + "/accepted-hosts.plist", xml);
}

void load_accepted_hosts(Device& device) {
  device.accepted_hosts.clear();
  std::string xml;
  if (!read_file(pairing_dir(device) + "/accepted-hosts.plist", xml)) return;
  plist_t list = nullptr;
  plist_from_memory(xml.data(), static_cast<uint32_t>(xml.size()), &list);
  if (list == nullptr || plist_get_node_type(list) != PLIST_ARRAY) {
    log_line("%s/accepted-hosts.plist: not a plist array; the device accepts no host", pairing_dir(device).c_str());
    if (list) plist_free(list);
    return;
  }
  for (uint32_t i = 0; i < plist_array_get_size(list); ++i) {
    plist_t entry = plist_array_get_item(list, i);
    if (plist_get_node_type(entry) != PLIST_DICT) continue;
    device.accepted_hosts.push_back(PairedHost{plist_string(entry, "HostID"), plist_string(entry, "SystemBUID"),
                                               data_string(entry, "RootCertificate"),
                                               data_string(entry, "HostCertificate"),
                                               data_string(entry, "DeviceCertificate")});
  }
  plist_free(list);
}

// The device's key, and the pairing of a host that "already paired" (what a
// phone in daily use has): its record with private keys goes to usbmux, its
// certificates to the accepted hosts.
bool make_identity(Device& device) {
  Key device_key(EVP_RSA_gen(kKeyBits));
  Key root_key(EVP_RSA_gen(kKeyBits));
  Key host_key(EVP_RSA_gen(kKeyBits));
  if (!device_key || !root_key || !host_key) return false;
  Cert root = make_certificate(root_key.get(), root_key.get(), nullptr, true);
  if (!root) return false;
  Cert host = make_certificate(host_key.get(), root_key.get(), root.get(), false);
  Cert device_cert = make_certificate(device_key.get(), root_key.get(), root.get(), false);
  if (!host || !device_cert) return false;

  PairedHost paired{new_uuid(), kSystemBuid, certificate_pem(root.get()), certificate_pem(host.get()),
                    certificate_pem(device_cert.get())};
  plist_t record = plist_new_dict();
  set_data(record, "DeviceCertificate", paired.device_certificate);
  set_data(record, "HostCertificate", paired.host_certificate);
  set_data(record, "HostPrivateKey", private_key_pem(host_key.get()));
  set_data(record, "RootCertificate", paired.root_certificate);
  set_data(record, "RootPrivateKey", private_key_pem(root_key.get()));
  plist_dict_set_item(record, "HostID", plist_new_string(paired.host_id.c_str()));
  plist_dict_set_item(record, "SystemBUID", plist_new_string(kSystemBuid));
  plist_dict_set_item(record, "WiFiMACAddress", plist_new_string("02:00:00:00:00:01"));
  std::string record_xml = xml_of(record);
  plist_free(record);

  device.accepted_hosts = {paired};
  device.device_key_pem = private_key_pem(device_key.get());
  // The key is written last: its presence says the folder is complete.
  return save_accepted_hosts(device) && write_file(pairing_dir(device) + "/host-record.plist", record_xml) &&
         write_file(pairing_dir(device) + "/device-key.pem", device.device_key_pem);
}

// With pairing_mutex held.
bool load_pairing(Device& device) {
  if (device.pairing_loaded) return true;
  std::error_code ec;
  fs::create_directories(pairing_dir(device), ec);
  if (read_file(pairing_dir(device) + "/device-key.pem", device.device_key_pem) &&
      key_from_pem(device.device_key_pem)) {
    load_accepted_hosts(device);
  } else if (!make_identity(device)) {
    log_line("%s: cannot make the device's pairing identity", pairing_dir(device).c_str());
    ERR_clear_error();
    return false;
  }
  device.pairing_loaded = true;
  return true;
}

plist_t reply_to(const std::string& request) {
  plist_t reply = plist_new_dict();
  plist_dict_set_item(reply, "Request", plist_new_string(request.c_str()));
  return reply;
}

plist_t error_reply(const std::string& request, const char* error) {
  plist_t reply = reply_to(request);
  plist_dict_set_item(reply, "Error", plist_new_string(error));
  return reply;
}

// The host of a request's PairRecord that the device accepted, or end().
std::vector<PairedHost>::iterator find_host(Device& device, plist_t record) {
  std::string host_id = record ? plist_string(record, "HostID") : "";
  std::string root = record ? data_string(record, "RootCertificate") : "";
  auto it = device.accepted_hosts.begin();
  for (; it != device.accepted_hosts.end(); ++it) {
    if (!host_id.empty() && it->host_id == host_id && (root.empty() || it->root_certificate == root)) break;
  }
  return it;
}

// A new host's record is sound when its device certificate carries this
// device's key and its root certificate can be read.
bool sound_pair_record(Device& device, const PairedHost& host) {
  Key key = key_from_pem(device.device_key_pem);
  Cert device_cert = certificate_from_pem(host.device_certificate);
  Cert root = certificate_from_pem(host.root_certificate);
  bool sound = key && device_cert && root && !host.host_id.empty() &&
               EVP_PKEY_eq(X509_get0_pubkey(device_cert.get()), key.get()) == 1;
  ERR_clear_error();
  return sound;
}

plist_t answer_pair(Device& device, plist_t record) {
  PairedHost host;
  if (record != nullptr) {
    host = PairedHost{plist_string(record, "HostID"), plist_string(record, "SystemBUID"),
                      data_string(record, "RootCertificate"), data_string(record, "HostCertificate"),
                      data_string(record, "DeviceCertificate")};
  }
  if (record == nullptr || !sound_pair_record(device, host)) return error_reply("Pair", "InvalidPairRecord");
  auto known = find_host(device, record);
  if (known == device.accepted_hosts.end()) {
    // A new host needs the user's yes; a host already trusted pairs again
    // without asking.
    switch (device.trust_answer) {
      case TrustAnswer::none:
      case TrustAnswer::pending:
        device.trust_answer = TrustAnswer::pending;
        return error_reply("Pair", "PairingDialogResponsePending");
      case TrustAnswer::denied: return error_reply("Pair", "UserDeniedPairing");
      case TrustAnswer::trusted: break;
    }
    device.accepted_hosts.push_back(host);
  } else {
    *known = host;
  }
  device.trust_answer = TrustAnswer::none;
  if (!save_accepted_hosts(device)) return error_reply("Pair", "SavePairRecordFailed");
  log_line("device %s paired with host %s", device.image.udid.c_str(), host.host_id.c_str());
  plist_t reply = reply_to("Pair");
  unsigned char escrow_bag[64];
  RAND_bytes(escrow_bag, sizeof escrow_bag);
  plist_dict_set_item(reply, "EscrowBag", plist_new_data(reinterpret_cast<char*>(escrow_bag), sizeof escrow_bag));
  return reply;
}

// The certificates of accepted hosts, for the handshake's check.
struct AcceptedCertificates {
  std::vector<Cert> roots;
  std::vector<Cert> hosts;
};

// The client shows the root certificate of its pair record (libimobiledevice
// with OpenSSL) or the host certificate (with GnuTLS): either is accepted when
// it is, or is signed by, the root of a pairing the device accepted.
int check_host_certificate(X509_STORE_CTX* store, void* arg) {
  const auto* accepted = static_cast<const AcceptedCertificates*>(arg);
  X509* shown = X509_STORE_CTX_get0_cert(store);
  bool ok = false;
  for (const Cert& host : accepted->hosts) ok = ok || (shown != nullptr && X509_cmp(shown, host.get()) == 0);
  for (const Cert& root : accepted->roots) {
    ok = ok || (shown != nullptr &&
                (X509_cmp(shown, root.get()) == 0 || X509_verify(shown, X509_get0_pubkey(root.get())) == 1));
  }
  ERR_clear_error();
  if (!ok) X509_STORE_CTX_set_error(store, X509_V_ERR_CERT_REJECTED);
  return ok ? 1 : 0;
}

std::string openssl_errors() {
  std::string text;
  for (unsigned long code; (code = ERR_get_error()) != 0;) {
    char line[256];
    ERR_error_string_n(code, line, sizeof line);
    text += text.empty() ? line : std::string("; ") + line;
  }
  return text.empty() ? "connection closed" : text;
}

}  // namespace

bool read_host_record(Device& device, std::vector<char>& record) {
  std::lock_guard<std::mutex> lock(device.pairing_mutex);
  std::string bytes;
  if (!load_pairing(device) || !read_file(pairing_dir(device) + "/host-record.plist", bytes)) return false;
  record.assign(bytes.begin(), bytes.end());
  return true;
}

bool save_host_record(Device& device, const char* data, size_t length) {
  std::lock_guard<std::mutex> lock(device.pairing_mutex);
  return load_pairing(device) && write_file(pairing_dir(device) + "/host-record.plist", std::string(data, length));
}

void delete_host_record(Device& device) {
  std::lock_guard<std::mutex> lock(device.pairing_mutex);
  if (!load_pairing(device)) return;
  std::error_code ec;
  fs::remove(pairing_dir(device) + "/host-record.plist", ec);
}

std::string device_public_key(Device& device) {
  std::lock_guard<std::mutex> lock(device.pairing_mutex);
  if (!load_pairing(device)) return "";
  Key key = key_from_pem(device.device_key_pem);
  return key ? public_key_pkcs1_pem(key.get()) : "";
}

plist_t answer_pairing_request(Device& device, const std::string& name, plist_t request) {
  std::lock_guard<std::mutex> lock(device.pairing_mutex);
  if (!load_pairing(device)) return error_reply(name, "InvalidPairRecord");
  plist_t record = plist_dict_get_item(request, "PairRecord");
  if (record != nullptr && plist_get_node_type(record) != PLIST_DICT) record = nullptr;
  if (name == "Pair") return answer_pair(device, record);

  auto known = find_host(device, record);
  if (known == device.accepted_hosts.end()) return error_reply(name, "InvalidHostID");
  if (name == "Unpair") {
    log_line("device %s unpaired host %s", device.image.udid.c_str(), known->host_id.c_str());
    device.accepted_hosts.erase(known);
    save_accepted_hosts(device);
  }
  plist_t reply = reply_to(name);
  plist_dict_set_item(reply, "Result", plist_new_string("Success"));
  return reply;
}

bool begin_session_tls(Connection& conn, const std::string& host_id) {
  Device& device = *conn.device;
  AcceptedCertificates accepted;
  Key key;
  Cert shown;
  {
    std::lock_guard<std::mutex> lock(device.pairing_mutex);
    if (!load_pairing(device)) return false;
    key = key_from_pem(device.device_key_pem);
    for (const PairedHost& host : device.accepted_hosts) {
      if (Cert root = certificate_from_pem(host.root_certificate)) accepted.roots.push_back(std::move(root));
      if (Cert cert = certificate_from_pem(host.host_certificate)) accepted.hosts.push_back(std::move(cert));
      if (host.host_id == host_id) shown = certificate_from_pem(host.device_certificate);
    }
  }
  if (!key) return false;
  // For a host it does not know, the device still shows a certificate (its
  // own); the handshake then fails on the host's.
  if (!shown) shown = make_certificate(key.get(), key.get(), nullptr, false);

  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  if (context == nullptr) return false;
  // As the client: level 0 admits its SHA-1 certificates and small keys. Up
  // to TLS 1.2, whose handshake waits for the device's verdict on the host's
  // certificate, so a refusal fails the handshake itself.
  SSL_CTX_set_security_level(context, 0);
  SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
  SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  SSL_CTX_set_cert_verify_callback(context, check_host_certificate, &accepted);
  bool ready = SSL_CTX_use_certificate(context, shown.get()) == 1 && SSL_CTX_use_PrivateKey(context, key.get()) == 1;
  SSL* ssl = ready ? SSL_new(context) : nullptr;
  SSL_CTX_free(context);  // the SSL keeps its own reference
  if (ssl == nullptr || SSL_set_fd(ssl, conn.fd) != 1) {
    log_line("[%llu] lockdown: cannot set up TLS: %s", static_cast<unsigned long long>(conn.id),
             openssl_errors().c_str());
    SSL_free(ssl);
    return false;
  }
  ERR_clear_error();
  if (SSL_accept(ssl) != 1) {
    log_line("[%llu] lockdown: TLS handshake failed (%s), closing", static_cast<unsigned long long>(conn.id),
             openssl_errors().c_str());
    SSL_free(ssl);
    return false;
  }
  if (conn.server.verbose) {
    log_line("[%llu] lockdown: session TLS %s %s", static_cast<unsigned long long>(conn.id), SSL_get_version(ssl),
             SSL_get_cipher(ssl));
  }
  conn.ssl = ssl;
  return true;
}

bool end_session_tls(Connection& conn) {
  if (conn.ssl == nullptr) return true;
  // The client sends close_notify and goes on in plain without waiting for
  // ours, so none is sent: its bytes would land in the plain stream.
  char byte;
  ERR_clear_error();
  int got = SSL_read(conn.ssl, &byte, 1);
  int error = SSL_get_error(conn.ssl, got);
  SSL_free(conn.ssl);
  conn.ssl = nullptr;
  ERR_clear_error();
  if (got > 0) {
    log_line("[%llu] lockdown: data instead of the end of TLS, closing", static_cast<unsigned long long>(conn.id));
  }
  return got <= 0 && error == SSL_ERROR_ZERO_RETURN;
}

void drop_session_tls(Connection& conn) {
  SSL_free(conn.ssl);
  conn.ssl = nullptr;
  ERR_clear_error();
}

void apply_pairing_command(Device& device, const std::string& verb) {
  std::lock_guard<std::mutex> lock(device.pairing_mutex);
  if (verb == "trust" || verb == "deny") {
    device.trust_answer = verb == "trust" ? TrustAnswer::trusted : TrustAnswer::denied;
    return;
  }
  if (!load_pairing(device)) return;
  device.accepted_hosts.clear();
  device.trust_answer = TrustAnswer::none;
  save_accepted_hosts(device);
  if (verb == "unpaired") {
    std::error_code ec;
    fs::remove(pairing_dir(device) + "/host-record.plist", ec);
  }
}

void reset_trust_answer(Device& device) {
  std::lock_guard<std::mutex> lock(device.pairing_mutex);
  device.trust_answer = TrustAnswer::none;
}

}  // namespace devsim
