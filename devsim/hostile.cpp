// Hostile mode: a made-up tree under general_storage/Hostile whose records
// break what a client might take for granted. Nothing of it is on disk; every
// listing and record is computed from the path, so a folder of a million
// entries costs nothing until it is listed.
#include "devsim/server.h"

#include <cstdio>

namespace devsim {

namespace {

struct KindName {
  const char* name;
  uint32_t bit;
  const char* folder;  // the folder the kind adds under kHostileRoot
};

const KindName kKinds[] = {
    {"names", kHostileNames, "names"},         {"sizes", kHostileSizes, "sizes"},
    {"million", kHostileMillion, "million"},   {"million", kHostileMillion, "hundred-thousand"},
    {"deep", kHostileDeep, "deep"},            {"half", kHostileHalf, "half"},
    {"oversize", kHostileOversize, "oversize"},
};

// The names a phone should never send. The folder "a" with its file "b" is
// real, so a client that takes "a/b" for a path finds something else there.
std::vector<std::string> hostile_names() {
  return {".",
          "..",
          "../escape.txt",
          "a/b",
          "/absolute.txt",
          "",
          "line\nbreak.txt",
          "tab\there.txt",
          "control\x01.txt",
          "bad\xff\xfeutf8.txt",
          std::string(255, 'n'),
          std::string(256, 'o'),
          std::string(5000, 'p'),
          "plain.txt",
          "a"};
}

struct SizeLie {
  const char* name;
  const char* said;
  size_t real;
};

// get_file_info says `said`; a read gives `real` bytes.
const SizeLie kSizeLies[] = {
    {"more.bin", "1000000", 100},          {"fewer.bin", "10", 5000},
    {"negative.bin", "-1", 100},           {"wrapped.bin", "9223372036854775808", 100},
    {"garbage.bin", "lots", 100},          {"honest.bin", "100", 100},
};

struct Oversize {
  const char* name;
  ReplyShape shape;
};

const Oversize kOversize[] = {
    {"entire-beyond", ReplyShape::entire_beyond},
    {"entire-huge", ReplyShape::entire_huge},
    {"entire-negative", ReplyShape::entire_negative},
    {"this-beyond-entire", ReplyShape::this_beyond_entire},
};

HostileRecord folder_record(ReplyShape list_shape = ReplyShape::honest) {
  HostileRecord record;
  record.exists = true;
  record.folder = true;
  record.size_text = "102";
  record.list_shape = list_shape;
  return record;
}

HostileRecord file_record(std::string content, std::string size_text = "") {
  HostileRecord record;
  record.exists = true;
  if (size_text.empty()) size_text = std::to_string(content.size());
  record.size_text = size_text;
  record.content = std::move(content);
  return record;
}

// Splits rel below kHostileRoot: "names/a/b" -> {"names", "a", "b"}.
std::vector<std::string> parts_below_root(const std::string& rel) {
  std::vector<std::string> parts;
  std::string root = kHostileRoot;
  if (rel.size() <= root.size()) return parts;
  size_t start = root.size() + 1;
  while (start <= rel.size()) {
    size_t end = rel.find('/', start);
    if (end == std::string::npos) end = rel.size();
    parts.push_back(rel.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

bool kind_folder_on(uint32_t kinds, const std::string& folder) {
  for (const KindName& kind : kKinds) {
    if (folder == kind.folder) return (kinds & kind.bit) != 0;
  }
  return false;
}

// "f0000042" for entry 42 of a big folder, and the entry it names (-1: none).
std::string big_entry_name(size_t index) {
  char name[16];
  snprintf(name, sizeof name, "f%07zu", index);
  return name;
}

long big_entry_index(const std::string& name, size_t count) {
  if (name.size() != 8 || name[0] != 'f' || name.find_first_not_of("0123456789", 1) != std::string::npos) return -1;
  long index = std::stol(name.substr(1));
  return static_cast<size_t>(index) < count ? index : -1;
}

size_t big_folder_count(const std::string& folder) { return folder == "million" ? 1000000 : 100000; }

}  // namespace

uint32_t hostile_kind_by_name(const std::string& name) {
  if (name == "all") return kHostileAll;
  for (const KindName& kind : kKinds) {
    if (name == kind.name) return kind.bit;
  }
  return 0;
}

bool is_hostile_path(const std::string& rel) {
  std::string root = kHostileRoot;
  return rel.compare(0, root.size(), root) == 0 && (rel.size() == root.size() || rel[root.size()] == '/');
}

HostileRecord hostile_record(uint32_t kinds, const std::string& rel) {
  if (!is_hostile_path(rel)) return HostileRecord{};
  std::vector<std::string> parts = parts_below_root(rel);
  if (parts.empty()) return folder_record();
  const std::string& top = parts[0];
  if (!kind_folder_on(kinds, top)) return HostileRecord{};
  if (parts.size() == 1) return folder_record();
  const std::string& name = parts[1];
  if (top == "names") {
    if (parts.size() == 3 && name == "a" && parts[2] == "b") return file_record("the real a/b\n");
    if (parts.size() != 2) return HostileRecord{};
    if (name == "a") return folder_record();
    for (const std::string& hostile : hostile_names()) {
      if (hostile == name && !name.empty() && name != "." && name != "..") return file_record("hostile name\n");
    }
    return HostileRecord{};
  }
  if (top == "sizes" && parts.size() == 2) {
    for (const SizeLie& lie : kSizeLies) {
      if (name == lie.name) return file_record(std::string(lie.real, name[0]), lie.said);
    }
    return HostileRecord{};
  }
  if ((top == "million" || top == "hundred-thousand") && parts.size() == 2) {
    if (big_entry_index(name, big_folder_count(top)) < 0) return HostileRecord{};
    return file_record(name + " is small\n");
  }
  if (top == "deep") {
    // deep/d/d/.../d: kHostileDepth folders below deep/, the last holding bottom.txt.
    size_t folders = 0;
    while (1 + folders < parts.size() && parts[1 + folders] == "d") folders++;
    if (folders > static_cast<size_t>(kHostileDepth)) return HostileRecord{};
    if (1 + folders == parts.size()) return folder_record();
    if (2 + folders == parts.size() && parts.back() == "bottom.txt" && folders == static_cast<size_t>(kHostileDepth))
      return file_record("the bottom\n");
    return HostileRecord{};
  }
  if (top == "half" && parts.size() == 2) {
    if (name == "cut-listing") return folder_record(ReplyShape::half);
    if (name == "cut-read.bin") {
      HostileRecord record = file_record(std::string(4096, 'h'));
      record.read_shape = ReplyShape::half;
      return record;
    }
    if (name == "whole.txt") return file_record("whole\n");
    return HostileRecord{};
  }
  if (top == "oversize" && parts.size() == 2) {
    for (const Oversize& lie : kOversize) {
      if (name == lie.name) return folder_record(lie.shape);
    }
    if (name == "entire-huge.bin") {
      HostileRecord record = file_record(std::string(1000, 'e'));
      record.read_shape = ReplyShape::entire_huge;
      return record;
    }
    return HostileRecord{};
  }
  return HostileRecord{};
}

std::vector<std::string> hostile_listing(uint32_t kinds, const std::string& rel) {
  std::vector<std::string> parts = parts_below_root(rel);
  std::vector<std::string> names;
  if (parts.empty()) {
    for (const KindName& kind : kKinds) {
      if (kinds & kind.bit) names.push_back(kind.folder);
    }
    return names;
  }
  const std::string& top = parts[0];
  if (top == "names") {
    if (parts.size() == 2) return {"b"};
    return hostile_names();
  }
  if (top == "sizes") {
    for (const SizeLie& lie : kSizeLies) names.push_back(lie.name);
    return names;
  }
  if (top == "million" || top == "hundred-thousand") {
    size_t count = big_folder_count(top);
    names.reserve(count);
    for (size_t i = 0; i < count; ++i) names.push_back(big_entry_name(i));
    return names;
  }
  if (top == "deep") {
    if (parts.size() - 1 < static_cast<size_t>(kHostileDepth)) return {"d"};
    return {"bottom.txt"};
  }
  if (top == "half") {
    if (parts.size() == 1) return {"cut-listing", "cut-read.bin", "whole.txt"};
    return {"x", "y", "z"};
  }
  if (top == "oversize") {
    if (parts.size() == 1) {
      for (const Oversize& lie : kOversize) names.push_back(lie.name);
      names.push_back("entire-huge.bin");
      return names;
    }
    return {"x", "y", "z"};
  }
  return names;
}

}  // namespace devsim
