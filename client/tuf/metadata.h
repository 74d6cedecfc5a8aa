#pragma once

#include <chrono>
#include <string_view>

#include "domain/json.h"

namespace tavro {

/// Bounds of one repository client, chosen by its owner.
struct TufLimits {
  /// Bytes of a root document: the stored one, and each downloaded next one.
  unsigned long long root_bytes = 0;
  /// Bytes of the downloaded timestamp.
  unsigned long long timestamp_bytes = 0;
  /// Bytes of every other document, and of every stored one but the root.
  unsigned long long metadata_bytes = 0;
  /// Most next roots taken in one refresh; 0 leaves the root as it is.
  unsigned long long root_rotations = 0;
  /// Most roles that one look-up may visit, the top-level targets counted.
  unsigned long long delegated_roles = 0;
};

using TufTime = std::chrono::sys_time<std::chrono::microseconds>;

/// Proves structure, types and bounds of a document of `role` ("root", "timestamp", "snapshot" or
/// "targets", also for delegated targets); signatures, expiry and versions of others are not
/// looked at. Every later step reads the document by key. Unknown members are ignored. Throws
/// `invalid_metadata`, `metadata_type`, `unsupported_spec`, `invalid_version`, `invalid_expiry`,
/// `invalid_length`, `invalid_hashes`, `unsupported_hash`, `unsafe_path`, `size_limit`,
/// `keyid_mismatch`.
void shape(const json& document, std::string_view role);

/// A record of `keyids` and `threshold`; each ID must be a member of the delegator's `keys`.
/// Throws `invalid_metadata` or `invalid_version`.
void authority_shape(const json& record, const json& keys);

/// A non-empty object of `sha256` and `sha512` digests, of either case. Throws `invalid_hashes` or
/// `unsupported_hash`.
void hashes_shape(const json& hashes);

/// Whether the name is one of the four roles that a root names.
bool is_top_level_role(std::string_view role);

/// 1 to 64 characters of lower-case hexadecimal. Throws `invalid_metadata`.
void hash_prefix_shape(std::string_view prefix);

/// The `length` of a file description, in bytes. Throws `invalid_metadata` or `invalid_length`.
unsigned long long length(const json& description);

/// "YYYY-MM-DDTHH:MM:SS", up to nine digits of a fraction, and "Z"; cut to whole microseconds.
/// Throws `invalid_expiry`.
TufTime parse_tuf_time(std::string_view text);

/// Whether `now` has reached the time. Exact for every year: as nanoseconds, which the clock counts
/// in, a time after the year 2262 would overflow.
bool has_expired(TufTime expires, std::chrono::system_clock::time_point now);

/// The keys that sign while nobody watches: an object with the members `timestamp` and `snapshot`,
/// each of the role's key IDs and records. Two of them differ exactly when these keys were
/// rotated. `root_document` has passed `shape`.
json online_keys(const json& root_document);

}  // namespace tavro
