#pragma once

#include <filesystem>
#include <string_view>

#include "domain/json.h"
#include "domain/progress.h"

namespace tavro {

/// Proves that each key of a `keys` object stands under the SHA-256 of its canonical form, and is
/// at most 16384 bytes. Whether its type and scheme are known is only asked when it signs. Throws
/// `invalid_metadata`, `keyid_mismatch` or `size_limit`.
void verify_keys(const json& keys);

/// Proves that `document` carries valid signatures by at least `authority.threshold` different
/// keys out of `authority.keyids`, over the canonical form of its `signed`. A bad signature beside
/// enough good ones does no harm. `keys` is the delegator's, and is proved too. Throws
/// `invalid_metadata`, `keyid_mismatch`, `size_limit`, `invalid_version`, `invalid_threshold`,
/// `signature_threshold`; a document or authority that lacks a member throws the JSON library's
/// own exception.
void verify_threshold(const json& document, const json& keys, const json& authority);

/// The same for keys that `verify_keys` has proved already, as all keys of a shaped document are.
/// A delegator with many roles is thus not proved once for each of them.
void verify_threshold_by_proved_keys(const json& document, const json& keys, const json& authority);

/// Proves that the ordinary file at `path`, which may not be a link, has the signed length and all
/// signed hashes; each hash reads the file once. False from `progress` is `cancelled`. Throws
/// `unsafe_path`, `length_mismatch`, `invalid_hashes`, `hash_mismatch`, and as `length` and
/// `digest_file_progress`.
void verify_target_file(const std::filesystem::path& path, const json& description,
                        const Progress& progress);

/// Whether the whole `path` matches. `*` is any run of bytes but `/`, `?` one of them, `[...]` one
/// of a class, negated by `!` or `^`; there is no escape. Both are at most 4096 bytes, else
/// `size_limit`. Costs at most the product of the two lengths, whatever the pattern.
bool path_pattern_matches(std::string_view pattern, std::string_view path);

}  // namespace tavro
