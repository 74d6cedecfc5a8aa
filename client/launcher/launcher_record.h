#pragma once

#include <cstddef>
#include <string_view>

#include "domain/json.h"

namespace tavro {

/// Bound on the stored record.
inline constexpr std::size_t launcher_record_bytes = 32768;
/// Bound on a stored descriptor.
inline constexpr std::size_t launcher_descriptor_bytes = 524288;
/// Bound on a staging intent.
inline constexpr std::size_t staging_intent_bytes = 4096;

/// The record of a store that never saved one.
json default_launcher_record();

/// Proves a stored record; it is not changed. Throws `unsupported_schema`, `launcher_state` or
/// `invalid_version`; exceptions of the JSON library become `launcher_state`.
void check_launcher_record(const json& record);

/// Null, or an object with `manifest_sha256` and `build_id`; further keys are allowed. Throws
/// `launcher_state`, or what `validate_identifier` throws for the build.
void reference_shape(const json& reference);

/// The name of a version: 64 lower-case hexadecimal characters; throws `launcher_state`.
void hash_identity(std::string_view name);

/// 32 lower-case hexadecimal characters; throws `launcher_state`.
void nonce_identity(std::string_view nonce);

/// The document that explains the folder `staging/<nonce>`: what it is to become, or was.
json staging_intent(std::string_view nonce, const json& reference);

/// Whether the bytes are the intent of this folder; nothing else may be removed in its name.
bool is_staging_intent(std::string_view bytes, std::string_view nonce);

}  // namespace tavro
