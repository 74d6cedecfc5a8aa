#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "tuf/tuf.h"

namespace tavro {

/// The downloads of one run into a download store (see `download_receipt.h`): turns what a download
/// announces into durable receipts, and holds those of this run. A download goes on only when its
/// receipt is on stable media. One thread; the caller holds the lock of the store throughout.
class TargetDownloads {
 public:
  /// Holds no receipt yet. `root` is the store, whose two folders exist.
  explicit TargetDownloads(std::filesystem::path root);
  TargetDownloads(const TargetDownloads&) = delete;
  TargetDownloads& operator=(const TargetDownloads&) = delete;

  /// The observer for one target, to be handed to `TufClient::download` together with the scope
  /// of `target_download_resume_scope` for the same arguments. `reference` is null for the
  /// descriptor target. This object must outlive the answer.
  ///
  /// A new download gets a receipt; a resumed one must have kept its own, with a record of the
  /// partial file; a complete one changes its receipt, or takes over the one that a crash left
  /// behind with the file. What contradicts the store is refused before it is changed. Throws
  /// `launcher_download_uncertain`, `launcher_storage_full` (32 receipts; names the command that
  /// helps), and as `target_download_receipts`, `atomic_write` and `atomic_create`.
  DownloadObserver observer(std::string target, json reference);

 protected:
  /// Nonce to receipt, as it stands on disk, for every one that this run created, resumed or took
  /// over.
  std::map<std::string, json> owned_;
  std::filesystem::path root_;

  /// Where a receipt lies, and whether exactly this one lies there.
  std::filesystem::path path_of(const json& receipt) const;
  bool is_stored(const json& receipt) const;

 private:
  using Groups = std::map<std::string, json>;
  void heard(const json& receipt, bool resumed);
  bool adopt(const json& receipt, const Groups& groups);
  void resume(const json& receipt);
  void progress(const json& held, const json& receipt);
  void create(const json& receipt, const Groups& groups);
  bool is_left_behind(const json& group, const json& receipt) const;
};

}  // namespace tavro
