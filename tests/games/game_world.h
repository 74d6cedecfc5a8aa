#pragma once

#include <set>

#include "games/game_library.h"
#include "support/snapshot_archive.h"
#include "tuf/trusted_client.h"

namespace tavro::games_test {

/// Targets by their digest, which stands before the last component of a remote name.
struct GameServer : Transport {
  std::map<std::string, std::string> files;
  /// Bytes of a transfer before the line is cut.
  std::size_t sends = -1;
  std::size_t sent = 0;

  const std::string& file(std::string_view remote) const;
  TransportResponse get(std::string_view, unsigned long long) override { return {404, ""}; }
  bool supports_resumption() const override { return true; }
  void download(std::string_view remote, const fs::path& to, unsigned long long size,
                const Progress& progress) override;
  void download_into(std::string_view remote, AllocatedFile& file, unsigned long long offset,
                     const Progress& progress,
                     const std::function<void(std::string_view)>& on_bytes,
                     const std::function<void()>& on_restart) override;
};

struct Build {
  std::string id;
  std::vector<TarEntry> files;
  bool encrypted = false;
  bool sdk = false;
};

/// The first file is the program, here a script.
Build build_of(const std::string& id, const std::string& script = "exit 0");

/// A repository of games, a data folder, and a library over it.
struct GameWorld {
  TrustedClient trusted;
  GameServer server;
  GameCatalog catalog;
  fs::path data = trusted.folder.path() / "data";
  /// The manifest of each build that was published.
  std::map<std::string, json> manifests;
  std::string game = "space";

  GameWorld();

  json manifest_of_build(const Build& build);
  /// Puts the build and the catalogue into the repository, and makes it the channel's newest.
  void publish(const Build& build, const std::string& channel = "stable");
  void put_manifest(const json& manifest, const std::string& channel = "stable");
  void put(const std::string& target, const std::string& bytes);

  TufClient& tuf() { return trusted.reopen(server); }
  GameLibrary library() const { return GameLibrary(data); }
  GameChange install() { return library().install(game, tuf(), {}); }
  /// Starts afresh, with nothing in the data folder.
  void clear();

  GamePaths paths() const { return {data, game}; }
  GameRecord record() const { return *GameStore(paths()).find(); }
  fs::path active_folder() const { return paths().version(record().active->version); }
  /// Whether the active build is this one, whole and without other files.
  bool stands(const std::string& build) const;
  /// Files of the data folder that nothing explains, saves aside.
  std::vector<std::string> unexplained() const;
  void save_something() const;
  bool saves_stand() const;
};

}  // namespace tavro::games_test
