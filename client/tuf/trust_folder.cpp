#include "tuf/trust_folder.h"

#include <nlohmann/json.hpp>

#include <iterator>
#include <set>
#include <system_error>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/folder_access.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "tuf/client_limits.h"
#include "tuf/threshold.h"
#include "tuf/tuf_state.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_entries = 4096;

unsigned long long version_of(const json& document) {
  return positive_version(document.at("signed").at("version"));
}

/// The document that `proof` answers; null when there is none that proves.
template <typename Proof>
json unless_damaged(const fs::path& file, Proof&& proof) {
  if (!bears_name(file)) return nullptr;
  try {
    return proof();
  } catch (const Error& error) {
    if (says_nothing(error, file)) throw;
  } catch (const json::exception&) {
  }
  return nullptr;
}

json proved_document(const fs::path& file, std::string_view type, const json& keys,
                     const json& authority) {
  return unless_damaged(file, [&] {
    constexpr unsigned long long limit = client_limits.metadata_bytes;
    json document = parse_json(read_file(file, limit), limit);
    shape(document, type);
    verify_threshold_by_proved_keys(document, keys, authority);
    return document;
  });
}

bool signs(const json& root, const json& next) {
  try {
    verify_threshold(next, root.at("signed").at("keys"), root.at("signed").at("roles").at("root"));
    return true;
  } catch (const Error& error) {
    if (error.code == "crypto_failure") throw;
    return false;
  }
}

bool follows(const json& older, const json& newer) {
  return version_of(older) + 1 == version_of(newer);
}

/// False when the two roots show that no chain leads from one to the other. Roots further apart
/// show nothing.
bool may_share_a_chain(const json& left, const json& right) {
  if (version_of(left) == version_of(right)) return left.at("signed") == right.at("signed");
  if (follows(left, right)) return signs(left, right);
  if (follows(right, left)) return signs(right, left);
  return true;
}

/// Reads a trust folder, and proves it from the root down.
class Proof {
 public:
  Proof(const fs::path& directory, std::string_view packaged_root) : directory_(directory) {
    json packaged = self_signed_root(packaged_root, kFirstRootBytes);
    list();
    choose_root(std::move(packaged));
    prove_online_roles();
    prove_targets();
    // A marker that cannot be told from a right one is followed: it costs one request.
    if (stands(kRotationMarker)) damage.documents.emplace_back(kRotationMarker);
  }

  TrustDamage damage;
  /// The packaged root follows the stored one, and has other online keys.
  bool rotates = false;
  unsigned long long root_version() const { return version_of(root_); }

 private:
  bool stands(std::string_view name) const { return names_.contains(name); }
  fs::path file(std::string_view name) const { return directory_ / name; }

  void list() {
    if (!bears_name(directory_)) return;
    for (const auto& entry :
         folder_entries(directory_, max_entries, "Trust folder holds too many entries"))
      names_.insert(path_utf8(entry.filename()));
  }

  void choose_root(json packaged) {
    const fs::path path = file(role_file_name("root"));
    json stored = unless_damaged(path, [&] {
      return self_signed_root(read_file(path, client_limits.root_bytes), client_limits.root_bytes);
    });
    const bool proves = !stored.is_null() && may_share_a_chain(stored, packaged);
    damage.root = !proves || follows(stored, packaged);
    rotates = proves && damage.root && online_keys(stored) != online_keys(packaged);
    root_ = std::move(damage.root ? packaged : stored);
  }

  /// What other online keys signed goes whole: the old ones may have been stolen.
  void prove_online_roles() {
    const bool rotated = rotates || stands(kRotationMarker);
    for (const char* role : {"snapshot", "timestamp"}) {
      const std::string name = role_file_name(role);
      if (stands(name) && (rotated || top_level(role).is_null())) damage.documents.push_back(name);
    }
  }

  void prove_targets() {
    const std::string name = role_file_name("targets");
    json targets = top_level("targets");
    if (stands(name) && targets.is_null()) damage.documents.push_back(name);
    const std::set<std::string> proved = proved_delegated(std::move(targets));
    for (const std::string& entry : names_)
      if (is_delegated_file_name(entry) && !proved.contains(entry))
        damage.documents.push_back(entry);
  }

  /// Documents of delegated roles are reached from the top, as a look-up reaches them.
  std::set<std::string> proved_delegated(json targets) const {
    std::set<std::string> proved;
    std::vector<json> open;
    if (!targets.is_null()) open.push_back(std::move(targets));
    while (!open.empty()) {
      const json parent = std::move(open.back());
      open.pop_back();
      const json* delegations = find_member(parent.at("signed"), "delegations");
      if (delegations == nullptr) continue;
      for (const json& record : delegations->at("roles")) {
        std::string name = role_file_name(record.at("name").get_ref<const std::string&>());
        if (!stands(name) || proved.contains(name)) continue;
        json child = proved_document(file(name), "targets", delegations->at("keys"), record);
        if (child.is_null()) continue;
        proved.insert(std::move(name));
        open.push_back(std::move(child));
      }
    }
    return proved;
  }

  json top_level(const char* role) const {
    const json& body = root_.at("signed");
    return proved_document(file(role_file_name(role)), role, body.at("keys"),
                           body.at("roles").at(role));
  }

  const fs::path& directory_;
  std::set<std::string, std::less<>> names_;
  json root_;
};

/// What is no ordinary file is somebody else's, and keeps all that it holds under another name.
void set_stranger_aside(const fs::path& path) {
  if (bears_name(path) && !fs::is_regular_file(fs::symlink_status(path)))
    native_files::rename_replace(path, path.native() + ".set-aside-" + random_id());
}

void remove_entry(const fs::path& path) {
  set_stranger_aside(path);
  native_files::remove_or_trash(path, path.parent_path());
}

void place_root(const fs::path& path, std::string_view bytes) {
  set_stranger_aside(path);
  atomic_write(path, bytes);
}

}  // namespace

TrustDamage trust_damage(const fs::path& directory, std::string_view packaged_root) {
  return Proof(directory, packaged_root).damage;
}

TrustDamage mend_trust_folder(const fs::path& directory, std::string_view packaged_root) {
  const FileLock lock(directory / ".lock", false, LockMode::exclusive);
  Proof proof(directory, packaged_root);
  const TrustDamage& damage = proof.damage;
  const fs::path marker = directory / kRotationMarker;
  if (proof.rotates && !bears_name(marker)) write_rotation_marker(directory, proof.root_version());
  if (damage.root) place_root(directory / role_file_name("root"), packaged_root);
  for (const std::string& name : damage.documents)
    if (name != kRotationMarker) remove_entry(directory / name);
  if (damage.none()) return damage;
  // The marker goes last: until the removals are durable, the next start must repeat them.
  sync_directory(directory);
  if (bears_name(marker)) {
    remove_entry(marker);
    sync_directory(directory);
  }
  return std::move(proof.damage);
}

}  // namespace tavro
