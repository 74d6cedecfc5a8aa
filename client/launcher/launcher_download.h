#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "download/target_download.h"

namespace tavro {

/// `target_download_resume_scope` under the launcher's name.
std::string launcher_download_resume_scope(std::string_view target, const json& reference);

/// `target_download_receipts` under the launcher's name: before a staging it is called for its
/// checks alone, since a store that cannot be explained must not be added to.
std::map<std::string, json> launcher_download_receipts(const std::filesystem::path& root);

/// The downloads of one staging into the launcher store, whose folder `launcher` is the root.
class LauncherDownloads : public TargetDownloads {
 public:
  using TargetDownloads::TargetDownloads;

  /// Ends this run's claim on its downloads: removes each receipt whose download has nothing open
  /// any more, and then forgets all of them. Before it, the release's descriptor must be stored as
  /// `manifests/<manifest_sha256>.json`: it is what the receipts are measured by. The final files
  /// stay, and are proved again. A receipt stays where a crash left a torn write or a resume record
  /// beside it; a later run takes it over.
  ///
  /// A failure ends the operation: receipts removed so far were each proved by themselves, all
  /// others stay on disk. Throws `launcher_download_uncertain`, `file_remove`, `file_sync`, and as
  /// `target_download_receipts`, `verify_target_file`, `read_file` and `LauncherManifest::parse`.
  void retire(const json& reference);

 private:
  void retire_one(const DownloadReceipt& receipt, std::string_view manifest_sha256) const;
};

}  // namespace tavro
