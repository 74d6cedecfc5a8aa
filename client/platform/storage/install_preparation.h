#pragma once

#include <filesystem>

#include "domain/json.h"
#include "platform/storage/reserved_tree.h"

namespace tavro {

struct GameManifest;

/// The two documents by which a prepared install survives a restart. They bind a staging tree to
/// one manifest, one operation and one place; where they are stored, with `atomic_write`, is the
/// caller's business.
///
/// - The preparation is stored before the tree exists and again, completed with the tree's
///   identity, in `on_recorded` of `ReservedTree`: no space is taken that no record names.
/// - The readiness is stored when the tree is complete; then the tree may be renamed into place.
///
/// `reference` is an object of exactly `version` (the name of the staging directory and of the
/// final one), `build_id`, `manifest_ref` (digest of the manifest's document) and
/// `manifest_target`.
///
/// Whatever is no such document is refused and to be left as it is stored: `unsupported_schema`,
/// `size_limit` (more than 16384 bytes), `invalid_identity` or `unsafe_path` for a name, and
/// otherwise `install_preparation_state` or `install_ready_state`, called the state code below.

/// A preparation whose tree is not recorded yet. `versions_path` holds the installed versions.
/// Throws the state code for a reference that is malformed or not of this manifest.
json make_install_preparation(const GameManifest& manifest, const json& reference,
                              const std::filesystem::path& versions_path);

/// Adds the tree's identity, once. A failure leaves the document as it was.
void record_install_preparation(json& document, const TreeIdentity& identity);

/// Proves a preparation and, unless `ready` is null, that this readiness belongs to it.
void validate_install_preparation(const json& document, const json& ready);

void validate_install_ready(const json& document);

/// The readiness of a complete tree. Throws the state code (also for a tree on another volume than
/// `versions_path`), `allocation_changed` (not the tree of this snapshot), `destination_exists`.
json make_install_ready(const GameManifest& manifest, const json& reference,
                        const std::filesystem::path& versions_path, const ReservedTree& tree);

/// The clean-ups remove a tree only after they proved that it holds nothing but what was reserved,
/// by `ready_tree`. Everything else is preserved, and the failure says so: the state code for paths
/// that the document does not bind, or the codes of `ready_tree`. After an interruption they
/// complete each other's work.

/// Ends an operation that was prepared and is not ready. A tree whose identity was never recorded
/// cannot be proved, and neither can anything be said once a destination exists:
/// `allocation_changed`.
void cleanup_prepared_install(const GameManifest& manifest, const json& document,
                              const std::filesystem::path& staging,
                              const std::filesystem::path& destination);

/// Ends an operation that was ready, before or after the tree was renamed to `destination`; there
/// it stays, without a look at its content, when `keep_destination` is set.
void cleanup_ready_install(const GameManifest& manifest, const json& document,
                           const std::filesystem::path& staging,
                           const std::filesystem::path& destination, bool keep_destination);

/// The best-effort clean-up of a failed preparation: tries to remove the plain tree at `staging`,
/// unless that is empty. True when `staging` or `other` remains.
bool cleanup_install_preparation(const std::filesystem::path& staging,
                                 const std::filesystem::path& other);

}  // namespace tavro
