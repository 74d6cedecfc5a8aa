#pragma once

#include "support/answers.h"

namespace tavro {

/// "/a/b 7" sets a member to 7, "/a/b" erases it; what names no member replaces the document. The
/// text "<9>" stands for 9 letters.
inline nlohmann::json damaged(nlohmann::json document, std::string damage) {
  if (const auto at = damage.find("\"<"); at != damage.npos)
    damage.replace(at + 1, damage.find('>') - at, std::stoul(damage.substr(at + 2)), 'x');
  if (!damage.starts_with('/')) return nlohmann::json::parse(damage);
  const std::size_t end = damage.find(' ');
  const nlohmann::json::json_pointer place(damage.substr(0, end));
  if (end != damage.npos)
    document[place] = nlohmann::json::parse(damage.substr(end));
  else
    document.at(place.parent_pointer()).erase(place.back());
  return document;
}

/// A valid snapshot of these files, of 1 byte each. "+" stands before an executable; the first file
/// is the entry point.
inline nlohmann::json snapshot_of(const std::vector<std::string>& files) {
  auto document = nlohmann::json::parse(R"({"schema_version": 1, "build_id": "build-1",
      "platform": "linux-x86_64", "archive": {"format": "tar.zst-v1", "target": "one.tar.zst",
      "length": 9, "sha256": "4bf5122f344554c53bde2ebb8cd2b7e3d1600ad631c385a5d7cce23c7785459a"}})");
  document["executable"] = files[0].substr(1);
  document["expanded_length"] = files.size();
  for (const std::string& file : files)
    document["files"].push_back({{"path", file.substr(file[0] == '+')},
                                 {"length", 1},
                                 {"mode", file[0] == '+' ? 0755 : 0644},
                                 {"sha256", document["archive"]["sha256"]}});
  return document;
}

}  // namespace tavro
