#pragma once

#include <filesystem>
#include <string>

#include "domain/progress.h"

namespace tavro {

class TufClient;

/// What a look for a newer bootstrap came to.
struct BootstrapStaging {
  /// A new update is ready for the next start.
  bool staged = false;
  /// "staged"; or why not: "pending" (one waits already), "not_published", "current" (this very
  /// descriptor is installed), "rejected" (this very descriptor failed here before).
  std::string status;
  /// The published build; empty when the repository was not asked, or publishes none.
  std::string build_id;
};

/// Downloads the published bootstrap into the data folder `root`, proves it and lets it wait for
/// the next start; nothing of it has run. The room for archive and tree is proved before the
/// archive is fetched; with an update waiting the repository is not asked at all.
///
/// `progress` (may be empty) gets bytes done and total of the archive's download, the extraction
/// and the verification, each from 0; false ends the call with `cancelled`. The update exists from
/// the one durable write on that ends the staging: whatever fails or is cut before that leaves the
/// installed bootstrap, and at most one tree and one download, which the next call removes.
///
/// Throws `not_installed`, `native_install_incomplete`, `busy` while another process stages or
/// applies, `size_limit`, `content_mismatch`, `insufficient_space`, and as
/// `parse_bootstrap_update`, `NativeFileLock`, `TufClient::download` and `extract_snapshot`.
BootstrapStaging stage_bootstrap_update(const std::filesystem::path& root, TufClient& tuf,
                                        const Progress& progress);

}  // namespace tavro
