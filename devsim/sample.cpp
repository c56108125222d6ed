// `devsim make-sample DIR`: a small image that exercises the awkward cases
// (hidden files, both Unicode normal forms, shell metacharacters, duplicate
// app names, an app without file sharing) and a small media library.
#include "devsim/media_library.h"
#include "devsim/server.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>

namespace devsim {

namespace fs = std::filesystem;

namespace {

bool write_file(const fs::path& path, const std::string& contents, std::string& error) {
  std::error_code ec;
  fs::create_directories(path.parent_path(), ec);
  std::ofstream out(path, std::ios::binary);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  if (!out) {
    error = path.string() + ": cannot write";
    return false;
  }
  return true;
}

// Deterministic bytes, so copies can be compared against a fresh sample.
std::string pseudo_random_bytes(size_t length, uint32_t seed) {
  std::string bytes(length, '\0');
  uint32_t state = seed;
  for (size_t i = 0; i < length; ++i) {
    state = state * 1664525u + 1013904223u;
    bytes[i] = static_cast<char>(state >> 24);
  }
  return bytes;
}

bool write_storage(const fs::path& storage, std::string& error) {
  const std::string precomposed = "R\xC3\xA9sum\xC3\xA9.txt";   // "Résumé" with U+00E9
  const std::string decomposed = "Re\xCC\x81sume\xCC\x81.txt";  // "Résumé" with U+0301
  return write_file(storage / "Documents" / "Reports" / "2017" / "summary.txt", "Quarterly summary\n", error) &&
         write_file(storage / "Documents" / "Reports" / "2017" / "figures.csv", "month,total\n1,10\n2,12\n",
                    error) &&
         write_file(storage / "Documents" / "Reports" / "notes.txt", "Nested three levels deep.\n", error) &&
         write_file(storage / ".hidden_settings", "hidden=yes\n", error) &&
         write_file(storage / precomposed, "precomposed name\n", error) &&
         write_file(storage / decomposed, "decomposed name\n", error) &&
         write_file(storage / "Caf\xC3\xA9 Menu" / "today.txt", "soup\n", error) &&
         write_file(storage / "it's a \"quoted\" $(touch pwned) name.txt", "nothing runs\n", error) &&
         write_file(storage / "Big Files" / "random.bin", pseudo_random_bytes(3 * 1024 * 1024, 7), error) &&
         write_file(storage / "Big Files" / "zeros.bin", std::string(512 * 1024, '\0'), error);
}

// The media folders a phone has, and the demo's music, photo and voice
// memo libraries in them.
bool write_media(const fs::path& media, std::string& error) {
  std::error_code ec;
  for (const char* folder : {"iTunes_Control/iTunes", "iTunes_Control/Music", "PhotoData", "Recordings",
                             "DCIM/100APPLE", "Books"}) {
    fs::create_directories(media / folder, ec);
    if (ec) {
      error = (media / folder).string() + ": " + ec.message();
      return false;
    }
  }
  return write_media_library(media, sample_media_library(), error);
}

struct SampleApp {
  const char* bundle_id;
  const char* display_name;
  bool file_sharing;
};

const SampleApp kSampleApps[] = {
    {"com.example.notes", "Notes", true},
    {"org.sample.notes", "Notes", true},
    {"com.example.reader", "Reader", true},
    {"com.example.vault", "Vault", false},
};

bool write_apps(const fs::path& apps, std::string& error) {
  return write_file(apps / "com.example.notes" / "Documents" / "first note.txt", "Buy milk\n", error) &&
         write_file(apps / "com.example.notes" / "Documents" / "Drafts" / "draft.txt", "Unfinished\n", error) &&
         write_file(apps / "org.sample.notes" / "Documents" / "shopping.txt", "eggs\nflour\n", error) &&
         write_file(apps / "com.example.reader" / "Documents" / "book.txt", pseudo_random_bytes(64 * 1024, 11),
                    error) &&
         write_file(apps / "com.example.reader" / "Documents" / "Library" / "index.txt", "book.txt\n", error) &&
         write_file(apps / "com.example.vault" / "Documents" / "secret.txt", "not shared\n", error);
}

}  // namespace

bool write_sample_image(const std::string& dir, std::string& error) {
  fs::path root(dir);
  std::error_code ec;
  if (fs::exists(root, ec) && !fs::is_empty(root, ec)) {
    error = dir + ": folder exists and is not empty";
    return false;
  }
  fs::create_directories(root, ec);
  if (ec) {
    error = dir + ": " + ec.message();
    return false;
  }
  nlohmann::ordered_json doc;
  doc["name"] = "Sample iPhone";
  doc["udid"] = "5ab1e0c0ffee00112233445566778899aabbccdd";
  doc["ios_version"] = "10.3.3";
  doc["product_type"] = "iPhone9,3";
  doc["location_id"] = 7;
  doc["capacity_bytes"] = 16000000000ull;
  doc["block_size"] = 4096;
  doc["apps"] = nlohmann::ordered_json::array();
  for (const SampleApp& app : kSampleApps) {
    doc["apps"].push_back({{"bundle_id", app.bundle_id}, {"display_name", app.display_name},
                           {"file_sharing", app.file_sharing}});
  }
  return write_file(root / "device.json", doc.dump(2) + "\n", error) &&
         write_storage(root / "media" / "general_storage", error) && write_media(root / "media", error) &&
         write_apps(root / "apps", error);
}

}  // namespace devsim
