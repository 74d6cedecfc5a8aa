#pragma once

#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>

#include "support/signed_repository.h"
#include "support/temp_folder.h"
#include "tuf/tuf.h"

namespace tavro {

/// A trust folder with the repository's first root, and a client over it at will.
struct TrustedClient {
  SignedRepository repository;
  const std::string first_root = repository.root_bytes();
  TempFolder folder;
  std::filesystem::path trust = folder.path() / "trust";
  TufLimits limits{.root_bytes = 65536,
                   .timestamp_bytes = 16384,
                   .metadata_bytes = 65536,
                   .root_rotations = 8,
                   .delegated_roles = 8};
  TufTime now = parse_tuf_time("2030-01-01T00:00:00Z");
  std::optional<TufClient> client;

  TrustedClient() { TufClient::initialize(trust, first_root); }

  /// Opens the folder anew, as the next process would.
  TufClient& reopen() {
    client.reset();
    repository.requests.clear();
    return client.emplace(trust, repository, repository, limits, [this] { return now; });
  }

  /// What the folder holds, by file name.
  std::map<std::string, std::string> stored() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(trust)) {
      std::ifstream stream(entry.path(), std::ios::binary);
      files[entry.path().filename()] = {std::istreambuf_iterator<char>(stream), {}};
    }
    files.erase(".lock");
    return files;
  }

  void write(const char* name, std::string_view bytes) const {
    std::ofstream(trust / name, std::ios::binary) << bytes;
  }
};

}  // namespace tavro
