#pragma once

#include <map>
#include <optional>
#include <string>

#include "domain/input.h"
#include "support/failure.h"
#include "support/signed_repository.h"
#include "support/temp_folder.h"
#include "tuf/tuf.h"

namespace tavro {

inline constexpr const char* kNow = "2030-01-01T00:00:00Z";

/// A trust folder with the repository's first root, and a client over it at will.
struct TrustedClient {
  SignedRepository repository;
  TempFolder folder;
  std::filesystem::path trust = folder.path() / "trust";
  TufLimits limits{65536, 16384, 65536, 8, 8};
  TufTime now = parse_tuf_time(kNow);
  std::optional<TufClient> client;

  TrustedClient() { TufClient::initialize(trust, repository.root_bytes()); }

  /// Opens the folder anew, as the next process would.
  TufClient& reopen() {
    client.reset();
    repository.requests.clear();
    return client.emplace(trust, repository, repository, limits, [this] { return now; });
  }
  std::string refresh_code() {
    return code_of([&] { reopen().refresh(); });
  }

  /// What the folder holds, by file name.
  std::map<std::string, std::string> stored() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(trust))
      files[entry.path().filename()] = read_file(entry.path(), 1048576);
    files.erase(".lock");
    return files;
  }
};

}  // namespace tavro
