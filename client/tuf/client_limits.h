#pragma once

#include "tuf/metadata.h"

namespace tavro {

/// What a repository may grow to. A client that takes its limits from here accepts every document
/// within these numbers, whatever the kind of its keys, and a publisher signs nothing that would be
/// larger.
inline constexpr unsigned long long max_role_keys = 8;
inline constexpr unsigned long long max_delegated_roles = 256;
inline constexpr unsigned long long max_delegation_keys = 2;   // on the average, of each role
inline constexpr unsigned long long max_targets = 16384;       // of one role
inline constexpr unsigned long long max_root_rotations = 256;  // that a client can have missed

/// Sizes in the compact JSON form, in bytes. Keys and signatures count as ML-DSA-87, the largest
/// kind that a client verifies.
///
/// {"keyid":"","sig":""}, is 22, around an ID of 64 and a signature of 4627 bytes in hexadecimal.
inline constexpr unsigned long long signature_entry_bytes = 22 + 64 + 2 * 4627;
/// The public key of 2592 bytes has 2614 in DER and 3488 in base 64; 55 lines of it and the two
/// around them (26 and 24) make PEM, in which JSON writes each of 57 line ends with two characters.
/// "":{"keytype":"ml-dsa","keyval":{"public":""},"scheme":"ml-dsa-87/1"}, is 70, and the ID 64.
inline constexpr unsigned long long key_entry_bytes = 70 + 64 + 3488 + 26 + 24 + 2 * 57;
/// "timestamp":{"keyids":[],"threshold":8}, is 40, and each ID in quotes with its comma 67.
inline constexpr unsigned long long authority_bytes = 40 + 67 * max_role_keys;
/// Type, version, expiry and the punctuation around everything: some 200, and room.
inline constexpr unsigned long long envelope_bytes = 1024;
/// A name of up to 128, SHA-256 and SHA-512 (64 and 128), two numbers (20 each) and 70 around them.
inline constexpr unsigned long long reference_bytes = 512;
/// A path of up to 200, and the rest as in a reference; longer paths and `custom` take others'
/// room.
inline constexpr unsigned long long target_bytes = 512;
/// The patterns or prefixes of one delegation, its name and its terminating.
inline constexpr unsigned long long selector_bytes = 1024;

/// Four roles with keys of their own; signed by the old root keys and the new ones.
inline constexpr unsigned long long root_limit =
    envelope_bytes + 4 * max_role_keys * key_entry_bytes + 4 * authority_bytes +
    2 * max_role_keys * signature_entry_bytes;
inline constexpr unsigned long long timestamp_limit =
    envelope_bytes + reference_bytes + max_role_keys * signature_entry_bytes;
/// A full targets document that delegates to as many roles as there may be. The snapshot, with one
/// reference a role, is far below.
inline constexpr unsigned long long metadata_limit =
    envelope_bytes + max_role_keys * signature_entry_bytes + max_targets * target_bytes +
    max_delegated_roles *
        (authority_bytes + selector_bytes + max_delegation_keys * key_entry_bytes);

// Packages take a first root of this size, and transports a document of that.
static_assert(root_limit <= 524288);
static_assert(metadata_limit <= 16777216);

inline constexpr TufLimits client_limits{.root_bytes = root_limit,
                                         .timestamp_bytes = timestamp_limit,
                                         .metadata_bytes = metadata_limit,
                                         .root_rotations = max_root_rotations,
                                         .delegated_roles = 1 + max_delegated_roles};

}  // namespace tavro
