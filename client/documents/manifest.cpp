#include "documents/manifest.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"

namespace tavro {
namespace {

bool folded_less(std::string_view left, std::string_view right) {
  return std::lexicographical_compare(
      left.begin(), left.end(), right.begin(), right.end(),
      [](char a, char b) { return case_folded(a) < case_folded(b); });
}

// The tree of all paths with names compared without case. One node a component keeps the work on a
// path linear in its length, where a set of its prefixes would be quadratic. Names are views of the
// document, which outlives the tree.
class PathTree {
 public:
  PathTree() : nodes_(1) {}

  /// Throws `path_collision` for a path that differs from an earlier one in case alone, as a whole
  /// or in one of its folders.
  void add_file(std::string_view path) {
    std::size_t node = 0;
    bool same_spelling = true;
    for (std::string_view rest = path; !rest.empty();) {
      const std::string_view name = rest.substr(0, rest.find('/'));
      rest.remove_prefix(std::min(rest.size(), name.size() + 1));
      const auto [child, fresh] = children_.try_emplace({node, name}, nodes_.size());
      nodes_[node].is_parent = true;
      if (fresh) nodes_.emplace_back();
      same_spelling = same_spelling && child->first.name == name;
      node = child->second;
    }
    require(!nodes_[node].is_file, "path_collision",
            "Package contains duplicate or case-colliding paths");
    require(same_spelling, "path_collision", "Package directories differ only in case");
    nodes_[node].is_file = true;
  }

  bool has_file_as_parent() const {
    return std::any_of(nodes_.begin(), nodes_.end(),
                       [](const Node& node) { return node.is_file && node.is_parent; });
  }

 private:
  struct Node {
    bool is_file = false;
    bool is_parent = false;
  };
  struct Edge {
    std::size_t parent;
    std::string_view name;
    bool operator<(const Edge& other) const {
      if (parent != other.parent) return parent < other.parent;
      return folded_less(name, other.name);
    }
  };

  std::vector<Node> nodes_;
  std::map<Edge, std::size_t> children_;
};

bool is_printable_ascii(std::string_view path) {
  return std::all_of(path.begin(), path.end(),
                     [](char byte) { return byte >= 0x20 && byte <= 0x7e; });
}

bool file_mode_is_executable(const json& mode) {
  constexpr unsigned long long kOrdinary = 0644;
  constexpr unsigned long long kExecutable = 0755;
  const bool executable = is_integer(mode, kExecutable);
  // A mode that is no number at all is a malformed field, not a wrong mode.
  static_cast<void>(mode.get<std::uint64_t>());
  require(executable || is_integer(mode, kOrdinary), "invalid_manifest",
          "Package modes must be 0644 or 0755");
  return executable;
}

void read_archive(SnapshotManifest& manifest, const json& archive) {
  require(archive.at("format") == kSnapshotFormat, "invalid_manifest",
          "Unsupported snapshot format");
  manifest.archive_target = archive.at("target").get<std::string>();
  validate_relative_path(manifest.archive_target, true);
  manifest.archive_length = size_value(archive.at("length"));
  require(manifest.archive_length >= 1 && manifest.archive_length <= kMaxSnapshotBytes,
          "size_limit", "Snapshot exceeds archive size bounds");
  manifest.archive_sha256 = sha256(archive.at("sha256"));
}

void read_file_entry(SnapshotManifest& manifest, PathTree& tree, std::uint64_t& total,
                     const json& entry) {
  const auto& path = entry.at("path").get_ref<const std::string&>();
  validate_relative_path(path, true);
  require(is_printable_ascii(path), "invalid_manifest",
          "The v1 package profile requires ASCII file paths");
  tree.add_file(path);
  PackageFile file;
  file.length = size_value(entry.at("length"));
  require(file.length <= kMaxSnapshotBytes - total, "size_limit",
          "Expanded package exceeds size bounds");
  total += file.length;
  file.executable = file_mode_is_executable(entry.at("mode"));
  file.sha256 = sha256(entry.at("sha256"));
  // Inventories are mostly written in order: the hint makes that case constant.
  manifest.files.emplace_hint(manifest.files.end(), path, std::move(file));
}

std::uint64_t read_inventory(SnapshotManifest& manifest, const json& files) {
  require(files.is_array() && !files.empty() && files.size() <= kMaxSnapshotFiles, "size_limit",
          "Package file count exceeds bounds");
  PathTree tree;
  std::uint64_t total = 0;
  for (const json& entry : files) read_file_entry(manifest, tree, total, entry);
  require(!tree.has_file_as_parent(), "path_collision",
          "Package file is another file's parent directory");
  return total;
}

void read_snapshot(SnapshotManifest& manifest) {
  const json& document = manifest.document;
  manifest.build_id = document.at("build_id").get<std::string>();
  validate_identifier(manifest.build_id);
  manifest.platform = document.at("platform").get<std::string>();
  require(is_known_platform(manifest.platform), "invalid_manifest", "Unknown snapshot platform");
  manifest.executable = document.at("executable").get<std::string>();
  validate_relative_path(manifest.executable, true);
  read_archive(manifest, document.at("archive"));
  const std::uint64_t total = read_inventory(manifest, document.at("files"));
  require(manifest.has_executable(manifest.executable), "invalid_manifest",
          "Declared executable is missing or not executable");
  manifest.expanded_length = size_value(document.at("expanded_length"));
  require(manifest.expanded_length == total, "invalid_manifest",
          "Expanded length differs from file inventory");
}

}  // namespace

SnapshotManifest SnapshotManifest::parse(const json& document) { return parse(json(document)); }

SnapshotManifest SnapshotManifest::parse(json&& document) {
  return read_fields("invalid_manifest", "Snapshot manifest has missing or malformed fields", [&] {
    require(document.is_object() && is_integer(document.at("schema_version"), 1),
            "unsupported_schema", "Unsupported snapshot schema; nothing was rewritten");
    SnapshotManifest manifest;
    manifest.document = std::move(document);
    read_snapshot(manifest);
    return manifest;
  });
}

std::size_t SnapshotManifest::longest_native_path() const {
  std::size_t longest = 0;
  for (const auto& [path, file] : files) longest = std::max(longest, native_length(path));
  return longest;
}

bool SnapshotManifest::has_executable(std::string_view path) const {
  const auto found = files.find(std::string(path));
  return found != files.end() && found->second.executable;
}

bool is_known_platform(std::string_view platform) {
  return platform == "linux-x86_64" || platform == "windows-x86_64" || platform == "macos-aarch64";
}

std::uint64_t size_value(const json& value) {
  require(value.is_number_unsigned() ||
              (value.is_number_integer() && value.get<json::number_integer_t>() >= 0),
          "invalid_manifest", "Manifest length must be a non-negative integer");
  return value.get<std::uint64_t>();
}

std::string sha256(const json& value) {
  const auto& text = value.get_ref<const std::string&>();
  require(is_lower_hex(text, 64), "invalid_manifest", "Manifest needs a lower-case SHA-256 digest");
  return text;
}

}  // namespace tavro
