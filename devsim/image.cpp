// Device image folders: device.json, and the bytes stored in the image.
#include "devsim/server.h"

#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

namespace devsim {

namespace fs = std::filesystem;
using json = nlohmann::json;

namespace {

bool read_string(const json& doc, const char* key, std::string& out, std::string& error) {
  auto it = doc.find(key);
  if (it == doc.end() || it->is_null()) return true;
  if (!it->is_string()) {
    error = std::string("device.json: key \"") + key + "\" must be a string";
    return false;
  }
  out = it->get<std::string>();
  return true;
}

bool read_unsigned(const json& doc, const char* key, uint64_t maximum, uint64_t& out, std::string& error) {
  auto it = doc.find(key);
  if (it == doc.end() || it->is_null()) return true;
  if (!it->is_number_integer() || (it->is_number_integer() && !it->is_number_unsigned() && it->get<int64_t>() < 0) ||
      it->get<uint64_t>() > maximum) {
    error = std::string("device.json: key \"") + key + "\" must be a non-negative integer up to " +
            std::to_string(maximum);
    return false;
  }
  out = it->get<uint64_t>();
  return true;
}

// A stable 40-digit UDID for images that do not name one.
std::string udid_from_path(const std::string& path) {
  uint64_t a = std::hash<std::string>{}(path);
  uint64_t b = std::hash<std::string>{}(path + "#devsim");
  char text[48];
  snprintf(text, sizeof text, "%016llx%016llx%08x", static_cast<unsigned long long>(a),
           static_cast<unsigned long long>(b), static_cast<unsigned>(a >> 7) & 0xffffffffu);
  return text;
}

bool valid_bundle_id(const std::string& id) {
  if (id.empty() || id == "." || id == ".." || id.size() > 255) return false;
  for (char c : id) {
    if (c == '/' || c == '\0') return false;
  }
  return true;
}

}  // namespace

bool load_device_image(const std::string& dir, uint32_t fallback_location_id, DeviceImage& image,
                       std::string& error) {
  std::error_code ec;
  fs::path root = fs::absolute(dir, ec);
  if (ec || !fs::is_directory(root, ec)) {
    error = dir + ": not a folder";
    return false;
  }
  image = DeviceImage{};
  image.dir = root.lexically_normal().string();
  if (!image.dir.empty() && image.dir.back() == '/') image.dir.pop_back();

  std::ifstream in(root / "device.json");
  if (!in) {
    error = dir + ": device.json is missing or unreadable";
    return false;
  }
  std::stringstream text;
  text << in.rdbuf();
  json doc = json::parse(text.str(), nullptr, false);
  if (doc.is_discarded()) {
    error = dir + ": device.json is not valid JSON";
    return false;
  }
  if (!doc.is_object()) {
    error = dir + ": device.json must hold a JSON object";
    return false;
  }

  image.name = "iPhone";
  image.ios_version = "10.3.3";
  image.product_type = "iPhone9,3";
  image.build_version = "14G60";
  image.capacity_bytes = 32ull * 1000 * 1000 * 1000;
  image.block_size = 4096;
  uint64_t location_id = fallback_location_id;
  uint64_t block_size = image.block_size;

  std::string problem;
  if (!read_string(doc, "name", image.name, problem) || !read_string(doc, "udid", image.udid, problem) ||
      !read_string(doc, "ios_version", image.ios_version, problem) ||
      !read_string(doc, "product_type", image.product_type, problem) ||
      !read_string(doc, "build_version", image.build_version, problem) ||
      !read_string(doc, "serial_number", image.serial_number, problem) ||
      !read_unsigned(doc, "location_id", 0xffffffffu, location_id, problem) ||
      !read_unsigned(doc, "capacity_bytes", UINT64_MAX >> 1, image.capacity_bytes, problem) ||
      !read_unsigned(doc, "block_size", 1u << 24, block_size, problem)) {
    error = dir + ": " + problem;
    return false;
  }
  if (location_id == 0) {
    error = dir + ": device.json: key \"location_id\" must not be 0";
    return false;
  }
  if (block_size == 0) {
    error = dir + ": device.json: key \"block_size\" must not be 0";
    return false;
  }
  image.location_id = static_cast<uint32_t>(location_id);
  image.block_size = static_cast<uint32_t>(block_size);
  if (image.udid.empty()) image.udid = udid_from_path(image.dir);
  if (image.udid.size() > 200 || image.udid.find('/') != std::string::npos) {
    error = dir + ": device.json: key \"udid\" is not a usable UDID";
    return false;
  }
  if (image.serial_number.empty()) image.serial_number = image.udid.substr(0, 12);

  auto hostile = doc.find("hostile");
  if (hostile != doc.end() && !hostile->is_null()) {
    if (!hostile->is_array()) {
      error = dir + ": device.json: key \"hostile\" must be an array of kinds";
      return false;
    }
    for (const json& kind : *hostile) {
      uint32_t bit = kind.is_string() ? hostile_kind_by_name(kind.get<std::string>()) : 0;
      if (bit == 0) {
        error = dir + ": device.json: key \"hostile\" holds " + kind.dump() +
                ", not one of names, sizes, million, deep, half, oversize, all";
        return false;
      }
      image.hostile |= bit;
    }
  }

  auto apps = doc.find("apps");
  if (apps != doc.end() && !apps->is_null()) {
    if (!apps->is_array()) {
      error = dir + ": device.json: key \"apps\" must be an array";
      return false;
    }
    for (size_t i = 0; i < apps->size(); ++i) {
      const json& entry = (*apps)[i];
      std::string where = "device.json: key \"apps\"[" + std::to_string(i) + "]";
      if (!entry.is_object()) {
        error = dir + ": " + where + " must be an object";
        return false;
      }
      AppInfo app;
      if (!read_string(entry, "bundle_id", app.bundle_id, problem) ||
          !read_string(entry, "display_name", app.display_name, problem)) {
        error = dir + ": " + where + ": " + problem.substr(problem.find("key"));
        return false;
      }
      if (!valid_bundle_id(app.bundle_id)) {
        error = dir + ": " + where + ": key \"bundle_id\" is missing or not a usable bundle id";
        return false;
      }
      auto sharing = entry.find("file_sharing");
      if (sharing != entry.end() && !sharing->is_null()) {
        if (!sharing->is_boolean()) {
          error = dir + ": " + where + ": key \"file_sharing\" must be true or false";
          return false;
        }
        app.file_sharing = sharing->get<bool>();
      }
      if (app.display_name.empty()) app.display_name = app.bundle_id;
      image.apps.push_back(app);
    }
  }
  fs::create_directories(root / "media", ec);
  return true;
}

uint64_t measure_stored_bytes(const std::string& image_dir) {
  uint64_t total = 0;
  std::set<std::pair<dev_t, ino_t>> seen;
  for (const char* part : {"media", "apps"}) {
    std::error_code ec;
    fs::recursive_directory_iterator it(fs::path(image_dir) / part, fs::directory_options::skip_permission_denied,
                                        ec);
    for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      struct stat st;
      if (lstat(it->path().c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
      if (st.st_nlink > 1 && !seen.insert({st.st_dev, st.st_ino}).second) continue;
      total += static_cast<uint64_t>(st.st_size);
    }
  }
  return total;
}

std::string device_class_of(const DeviceImage& image) {
  for (const char* kind : {"iPad", "iPod", "iPhone", "AppleTV", "Watch"}) {
    if (image.product_type.rfind(kind, 0) == 0) return kind;
  }
  return "iPhone";
}

}  // namespace devsim
