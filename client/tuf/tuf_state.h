#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "platform/files/file_locks.h"
#include "tuf/tuf.h"

namespace tavro {

struct TargetRequest;

/// Bytes of the first root of a folder, and of the root that a package carries.
inline constexpr unsigned long long kFirstRootBytes = 524288;

/// The file of a role's document. The four top-level roles have their own names; the name of any
/// other role only decides a digest, and never becomes a file name itself.
std::string role_file_name(std::string_view role);
bool is_delegated_file_name(std::string_view name);

/// Where a role's document is stored.
std::filesystem::path role_cache(const std::filesystem::path& directory, std::string_view role);

/// Stands in the folder from a rotation of the online keys until what they signed is gone.
inline constexpr std::string_view kRotationMarker = "root-invalidation.json";
std::filesystem::path rotation_marker(const std::filesystem::path& directory);
/// Durable, before the root of this version may be stored.
void write_rotation_marker(const std::filesystem::path& directory, unsigned long long version);

/// A root document that is signed by its own keys at its own threshold; anything else throws.
json self_signed_root(std::string_view bytes, unsigned long long max_bytes);

/// The state behind a client. Inside this floor only.
struct TufClient::Impl {
  std::filesystem::path directory;
  FileLock lock;
  Transport& metadata_transport;
  Transport& target_transport;
  TufLimits limits;
  Clock clock;
  /// When the running refresh started: the one instant of all its expiry checks.
  std::chrono::system_clock::time_point now{};
  json root{}, timestamp{}, snapshot{}, targets{};
  bool refreshed = false;
  bool selected_loaded = false;
  /// Proved, and not yet stored: only the comparison with the stored snapshot lets it in.
  std::optional<std::string> pending_snapshot{};

  // Storage
  std::optional<json> local(std::string_view role) const;
  void persist(std::string_view role, std::string_view bytes) const;
  void clear_rotated_state() const;

  // Refresh
  void refresh();
  bool take_next_root();
  void take_timestamp();
  bool supersedes_stored_timestamp(const json& candidate, const json& stored) const;
  void load_selected_metadata();
  json load_role(std::string_view role, const json& reference, const json& keys,
                 const json& authority, std::string_view type);
  std::string fetch_role(std::string_view role, const json& reference) const;
  json verified_role(std::string_view bytes, const json& reference, const json& keys,
                     const json& authority, std::string_view type) const;
  void require_unexpired(const json& document) const;

  // Look-up
  struct Walk {
    std::string_view path;
    std::set<std::string, std::less<>> visited;
    /// A terminating delegation selected the path and was exhausted.
    bool terminated = false;
  };
  json target(std::string_view path);
  std::optional<json> find_target(std::string_view path);
  std::optional<json> visit(Walk& walk, const std::string& role, const json& document);
  std::optional<json> visit_delegation(Walk& walk, const json& record, const json& keys);

  // Download
  void bring_in(TargetRequest& request);
  std::string remote_name(const std::string& name, const json& description) const;
};

}  // namespace tavro
