#pragma once

#include <string>

#include "domain/json.h"
#include "platform/storage/storage_volume.h"

namespace tavro {

struct SnapshotManifest;

/// A budget says what an operation needs on one volume at its peak, in bytes and in file entries.
/// All functions throw `volume_query` for a volume that `StorageVolume::validate` refuses, and
/// `size_limit` when a sum leaves 64 bits.

/// The budget of an operation that needs nothing yet but the control margin (16 MiB, 64 entries).
/// The caller sets what it needs, then calls `finish_storage_volume_budget`.
json make_storage_volume_budget(const StorageVolume& volume);

/// Adds the sums, the peaks and the shortfalls in place. Without counters the three members that
/// depend on them are null.
void finish_storage_volume_budget(json& budget);

/// The number of files, of distinct directories that their paths imply, and one for the root.
unsigned long long snapshot_storage_file_entries(const SnapshotManifest& manifest);

/// The plan of one install: the archive's download, unless it is cached and verified, and the
/// staged tree. `existing_archive_allocation_bytes` is what a partial download already takes; other
/// than 0 it needs `existing_partial`: `volume_query`. Nothing is reserved by a plan.
json plan_install_storage(const SnapshotManifest& manifest, const StorageVolume& volume,
                          bool verified_archive_cached,
                          unsigned long long existing_archive_allocation_bytes,
                          bool existing_partial);

/// The plan for staging two native payloads, such as a bootstrap and a launcher, with a control
/// margin of 20 MiB. `extra_entries` are further files or directories, charged one unit each.
json plan_native_payload_storage(const SnapshotManifest& first, const SnapshotManifest& second,
                                 const StorageVolume& volume, unsigned long long extra_entries);

/// Throws `insufficient_space`, with a sentence that says how much to free, when the plan shows a
/// shortfall. `game` names the game in the command to run next; empty for the system's own
/// payloads.
void require_install_storage(const json& plan, const std::string& game);

}  // namespace tavro
