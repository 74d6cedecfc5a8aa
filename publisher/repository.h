#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "domain/progress.h"
#include "domain/unique_fd.h"
#include "publisher/delegation.h"
#include "publisher/publication.h"
#include "publisher/repository_state.h"
#include "publisher/root_metadata.h"
#include "publisher/signing.h"

namespace tavro {

/// When what is signed now expires, in UTC. `targets` holds for delegated roles too.
struct RepositoryExpiry {
  std::string targets, snapshot, timestamp;
};

/// A repository on disk, claimed by this publisher. Changes are collected and become visible
/// together with `publish`; without it nothing has changed. Throws what `read_repository` throws.
class Repository {
 public:
  explicit Repository(const std::filesystem::path& folder);

  /// Makes a repository without targets from its signed root, read back before it appears. Throws
  /// as `Assembly` and `publish`.
  static RepositoryState create(const std::filesystem::path& place, std::string_view root_bytes,
                                Signers& signers, const RepositoryExpiry& expiry);

  /// Takes the file under this target path, in place of what the role lists there, and returns the
  /// SHA-256 of what was taken. Throws
  /// `unknown_role`, `unsafe_path`, `target_not_delegated`, `target_conflict` (under plain names
  /// one path cannot have two contents, nor be a file and a folder), and as
  /// `Publication::put_target`.
  std::string put_target(const std::string& role, const std::string& path,
                         const std::filesystem::path& file, const Progress& progress);
  /// The same for a target that is made here.
  void put_target(const std::string& role, const std::string& path, std::string_view bytes);
  /// The content that a client would get of a target path that `look_up` finds, with what has
  /// changed so far. Throws `size_limit` for a larger one, `content_mismatch` when it is not what
  /// is listed, and as `read_file`.
  std::string read_target(const std::string& path, unsigned long long max_bytes) const;
  /// The bytes stay for clients that have the old metadata, until `prune`. `target_not_found`.
  void remove_target(const std::string& role, const std::string& path);

  /// Delegates to a new role without targets, or gives a role of this delegator other keys, paths
  /// or a place at the end; the role is signed anew. Throws `invalid_role` for a name that is not 1
  /// to 100 of "a-zA-Z0-9_-", or top-level, or delegated by another role; `invalid_threshold`;
  /// `size_limit` for more roles than clients visit; and what `shape` throws.
  void delegate(const std::string& delegator, const Delegation& delegation);
  /// Takes the delegation back. The snapshot keeps the role, which clients want to see again.
  void undelegate(const std::string& role);

  /// Signs a role again with the next version: "timestamp" alone, or another one with all above.
  void renew(const std::string& role);

  /// The next root, and all that its new keys must sign: they take effect together.
  void rotate(const RootRequest& root);

  /// Signs what has changed, proves it as a client would, and shows it in one step. Nothing is
  /// shown beside a root, or signed beside a snapshot or targets, that has expired. Throws
  /// `signature_threshold`, `key_unused`, `size_limit`, `expired_metadata`, and as `Publication`.
  void publish(Signers& signers, const RepositoryExpiry& expiry);

  /// Removes metadata and targets that the present metadata, and the chain of roots, do not name;
  /// their number.
  std::size_t prune();

  const RepositoryState& state() const { return state_; }

 private:
  Repository(const std::filesystem::path& folder, RepositoryState state);
  json& role_body(const std::string& role);
  std::string served_name(const std::string& role, const std::string& path,
                          const std::string& sha256);
  void require_no_conflict(const std::string& role, const std::string& path, const json& hashes);
  void publish_root(Signers& signers);
  void publish_role(const std::string& role, Signers& signers, const std::string& expires);
  std::string signed_text(const std::string& role, const json& body, Signers& signers);

  std::filesystem::path folder_;
  UniqueFd lock_;
  RepositoryState state_;
  std::optional<json> next_root_;
  std::set<std::string> changed_;
  Publication publication_;
};

}  // namespace tavro
