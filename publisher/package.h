#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "domain/progress.h"
#include "package/native_package.h"

namespace tavro {

struct PackageRequest {
  std::filesystem::path out;  ///< the package folder to make; must not exist
  std::string platform;
  std::string origin;
  std::filesystem::path root;       ///< signed root metadata
  std::filesystem::path bootstrap;  ///< release folders
  std::filesystem::path launcher;
  std::optional<Brand> brand;       ///< its `icon` is not looked at
  std::filesystem::path icon;       ///< only with a brand; empty means none
  std::filesystem::path theme;      ///< its folder, likewise
  std::filesystem::path ca_bundle;  ///< empty means none
  std::optional<FeaturedGame> featured_game;
};

/// A package before it is on disk.
struct PackagePlan {
  /// Small files by name, the descriptor "initial-package.json" among them.
  std::map<std::string, std::string> documents;
  /// Archives by name, with the files that they are copied from.
  std::map<std::string, std::filesystem::path> archives;
  std::string seal;
};

/// Reads what the request names and writes the descriptor. Of the rules of a package it proves only
/// those that the reading needs, and that no two files share a name (`invalid_package`).
PackagePlan plan_package(const PackageRequest& request);

/// Makes the package folder and returns its seal. It is read back as the installer reads it before
/// it appears, and a theme is proved as a front end proves it; errors of that pass unchanged. A CA
/// bundle without a certificate, or with a private key, is `invalid_package`. The archives are
/// copied, not linked: a package shares no bytes on disk with anything that may change.
std::string assemble_package(const PackageRequest& request, const Progress& progress);

}  // namespace tavro
