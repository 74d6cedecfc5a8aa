#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

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
  bool encrypt = false;          ///< game releases only: the archive under a key of its own
  ArchiveOptions archive;
};

/// A file of a release, with what its manifest says of it.
struct ReleaseFile {
  std::filesystem::path file;
  std::string target;  ///< repository target path
  std::string sha256;
};

/// What a release folder holds: the manifest and what it names.
struct Release {
  ReleaseKind kind = ReleaseKind::snapshot;
  std::filesystem::path manifest;
  std::string manifest_bytes;
  std::string build_id;
  /// In its encrypted form where there is one; the plain archive is not kept then.
  ReleaseFile archive;
  /// That of the encrypted form.
  std::optional<ReleaseFile> key;
};

/// "launcher-PLATFORM-BUILD.tar.zst", "bootstrap-...", "snapshot-..." or "game-...".
std::string default_archive_target(ReleaseKind kind, const SnapshotIdentity& identity);

/// Makes a release folder: the archive and its manifest ("launcher-PLATFORM.manifest.json",
/// "bootstrap-PLATFORM.manifest.json", "snapshot.manifest.json" or "game.manifest.json"). The rules
/// of the manifest are proved with the client's parser before the archive is written and again
/// afterwards; then the archive is extracted and compared as a client does, into the unfinished
/// folder, so the volume needs room for the tree and the archive; an encrypted archive is proved in
/// that form, with its key, and takes room twice. Errors of these steps pass unchanged.
Release make_release(const ReleaseRequest& request, const Progress& progress);

/// Reads a release folder that `make_release` made. Throws `invalid_release` unless it holds
/// exactly one manifest of that kind, and its archive with the right length, and its key if it has
/// one.
Release read_release(ReleaseKind kind, const std::filesystem::path& folder);

/// The same for a launcher, bootstrap or game release, whichever it is.
Release read_published_release(const std::filesystem::path& folder);

}  // namespace tavro
