#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace tavro {

struct HttpsBudget;
class TufClient;

/// How the client of a data folder reaches its repository.
struct RepositoryRecord {
  /// `https://` and a host, with a port if need be.
  std::string origin;
  /// The only certificates that count; empty for the system's.
  std::filesystem::path ca_bundle;

  /// Reads the text of a "repository.json". Throws `unsupported_schema` for another version's, and
  /// `invalid_state` for a damaged one.
  static RepositoryRecord parse(std::string_view text);
};

/// The one client of the repository of a data folder, as the process that updates it owns it: the
/// record of the folder says where, the trust folder what is trusted already, and `client_limits`
/// how much is taken.
///
///     RepositoryClient repository(root);
///     LauncherStore(root).stage(repository.tuf(), progress, {}, false);
class RepositoryClient {
 public:
  /// Reads the record and opens the trust folder; sends nothing. `budget` (may be null) bounds all
  /// requests of a check in passing, `download_limit` (in bytes per second, 0 for none) each
  /// download. Throws `native_install_incomplete` while setup has not
  /// finished in the folder, `not_installed` without a record, `busy` while another client has the
  /// trust folder, the codes of `RepositoryRecord::parse`, and what `HttpsTransport` and
  /// `TufClient` throw.
  explicit RepositoryClient(const std::filesystem::path& root,
                            const std::shared_ptr<HttpsBudget>& budget = nullptr,
                            unsigned long long download_limit = 0);
  RepositoryClient(const RepositoryClient&) = delete;
  RepositoryClient& operator=(const RepositoryClient&) = delete;
  ~RepositoryClient();

  /// Lives as long as this object.
  TufClient& tuf() noexcept;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavro
