#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>

#include "domain/json.h"
#include "publisher/archive.h"
#include "publisher/descriptors.h"

namespace tavro {

enum class ReleaseKind { snapshot, launcher, bootstrap, game };

struct ReleaseRequest {
  ReleaseKind kind = ReleaseKind::snapshot;
  std::filesystem::path folder;  ///< the expanded tree
  std::filesystem::path out;     ///< the release folder to make; must not exist
  SnapshotIdentity identity;     ///< an empty `archive_target` means `default_archive_target`
  LauncherContract contract;     ///< launcher releases only
  json game;                     ///< game releases only: what the manifest says of the game
  ArchiveOptions archive;
};

/// What a release folder holds: the manifest and the archive that it names.
struct Release {
  std::filesystem::path manifest;
  std::filesystem::path archive;
  std::string manifest_bytes;
  std::string build_id;
  std::string archive_target;
  std::string archive_sha256;  ///< as the manifest says
};

/// "launcher-PLATFORM-BUILD.tar.zst", "bootstrap-...", "snapshot-..." or "game-...".
std::string default_archive_target(ReleaseKind kind, const SnapshotIdentity& identity);

/// Makes a release folder: the archive and its manifest ("launcher-PLATFORM.manifest.json",
/// "bootstrap-PLATFORM.manifest.json", "snapshot.manifest.json" or "game.manifest.json"). The rules
/// of the manifest are proved with the client's parser before the archive is written and again
/// afterwards; then the archive is extracted and compared as a client does, into the unfinished
/// folder, so the volume needs room for the tree and the archive. Errors of these steps pass
/// unchanged.
Release make_release(const ReleaseRequest& request, const Progress& progress);

/// Reads a release folder that `make_release` made. Throws `invalid_release` unless it holds
/// exactly one manifest of that kind and its archive with the right length.
Release read_release(ReleaseKind kind, const std::filesystem::path& folder);

/// The same for a launcher or bootstrap release, whichever it is.
Release read_client_release(const std::filesystem::path& folder);

}  // namespace tavro
