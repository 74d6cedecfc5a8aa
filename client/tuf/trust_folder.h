#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tavro {

/// What in a trust folder does not prove as a client proves it.
struct TrustDamage {
  /// The packaged root is due in the place of the stored one.
  bool root = false;
  /// File names of the other documents, in order; what they say is asked for anew.
  std::vector<std::string> documents;

  bool none() const { return !root && documents.empty(); }
};

/// Proves a trust folder offline, by `packaged_root`, the root of the sealed package, and the
/// client's limits; expiry is not asked. Changes nothing, and takes no lock.
///
/// The stored root stays when it is signed by its own keys and, as far as the two versions tell,
/// lies on one chain with the packaged one: the same version is the same body, and of two versions
/// next to each other the newer is signed by the older. It makes room for a packaged root that is
/// its next one, or when it does not prove. Every other document must have its role's signatures,
/// under that root or under the delegator that proves. A document older than its parent names
/// proves, too: the next refresh measures what the repository offers by it.
///
/// Throws `file_read` and `crypto_failure` (nobody knows whether such a document proves),
/// as `folder_entries` (more than 4096 entries, or a folder that cannot be listed), and for a
/// packaged root that does not prove what `TufClient::initialize` throws. A folder that is not
/// there lacks its root, and nothing else.
TrustDamage trust_damage(const std::filesystem::path& directory, std::string_view packaged_root);

/// Replaces a root, and removes every other document, that does not prove; answers what it did. A
/// folder without damage is left as it is, and a missing one made. Nothing that proves is lost, and
/// nothing gives way to something older that proves less. A kill at any instruction leaves what the
/// next call, or the next client, completes.
///
/// Throws `busy` while a client has the folder, what `FileLock`, `atomic_write` and
/// `sync_directory` throw, `file_remove`, and as `trust_damage`.
TrustDamage mend_trust_folder(const std::filesystem::path& directory,
                              std::string_view packaged_root);

}  // namespace tavro
