#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "documents/manifest.h"

namespace tavro {

struct BootstrapPaths;

/// Bound on a bootstrap's descriptor, published or stored, in bytes.
inline constexpr std::size_t bootstrap_descriptor_bytes = 524288;

/// The repository target that describes the newest bootstrap for this platform.
std::string bootstrap_manifest_target();

/// Proves that a bootstrap release can take the place of the installed one: this platform, this
/// lifetime contract and application schema, and the inventory. Throws as
/// `validate_bootstrap_contract` and `check_bootstrap_inventory`, and `launcher_incompatible`.
void validate_bootstrap_update(const SnapshotManifest& manifest);

/// What an update holds on any platform: at most 4096 files, and 1 GiB each of archive and tree:
/// `size_limit`. No file or folder has the extension of replaced files, since it could not be told
/// from one: `invalid_manifest`.
void check_bootstrap_inventory(const SnapshotManifest& manifest);

/// Reads the descriptor of an update. Throws as `parse_json`, `SnapshotManifest::parse` and
/// `validate_bootstrap_update`, and `invalid_manifest`.
SnapshotManifest parse_bootstrap_update(std::string_view text);

/// The note of the release that was given up last, by the digest of its descriptor's text. Reading
/// throws as `read_file`, noting as `atomic_write`.
bool is_rejected_bootstrap(const BootstrapPaths& paths, std::string_view text);
void note_rejected_bootstrap(const BootstrapPaths& paths, std::string_view text);

}  // namespace tavro
