#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace tavro {

/// Where a client is to get everything from now on, and whom it is to trust.
struct RepositoryChoice {
  /// `https://` and a host, with a port if need be.
  std::string origin;
  /// A root of that repository that reached the user another way than over this network.
  std::string root_bytes;
  /// Certificates in PEM form, the only ones that count; empty for the system's.
  std::string ca_bundle;
};

/// Points the client of a data folder to this repository. That it is there, and proves itself from
/// this root on, is found out in a folder of its own first, `repository-proof`; only then the trust
/// and the record are replaced. A kill between these two leaves a client that takes nothing from
/// anywhere, until the same is done again.
///
/// Throws `native_install_incomplete`, `busy` while a client of the folder or another such change
/// works, `invalid_url` for an origin with a path, and what `HttpsTransport`, `TufClient` and the
/// durable writes throw.
void change_repository(const std::filesystem::path& data_root, const RepositoryChoice& choice);

}  // namespace tavro
