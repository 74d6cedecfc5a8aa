#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "download/download_receipt.h"
#include "download/receipt_group.h"
#include "tuf/tuf.h"

namespace tavro {

/// The downloads of one run into a download store (see `receipt_group.h`): turns what a download
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
  /// behind with the file. What contradicts the store is refused before it is changed. Where 32
  /// receipts stand in the way of a new one, those that own nothing go: downloads that failed
  /// before there was anything to keep. Throws `launcher_download_uncertain`,
  /// `launcher_storage_full` (32 receipts that own something; names the command that helps),
  /// `file_remove`, and as `read_receipt_groups`, `atomic_write` and `atomic_create`.
  DownloadObserver observer(std::string target, json reference);

 protected:
  /// Nonce to receipt, as it stands on disk, for every one that this run created, resumed or took
  /// over.
  std::map<std::string, DownloadReceipt> owned_;
  std::filesystem::path root_;

  /// Where a receipt lies, and whether exactly this one lies there.
  std::filesystem::path path_of(const DownloadReceipt& receipt) const;
  bool is_stored(const DownloadReceipt& receipt) const;
  void remove_receipt(const DownloadReceipt& receipt) const;

 private:
  void heard(const DownloadReceipt& receipt, bool resumed);
  bool adopt(const DownloadReceipt& receipt, const ReceiptGroups& groups);
  void resume(const DownloadReceipt& receipt);
  void progress(const DownloadReceipt& held, const DownloadReceipt& receipt);
  void create(const DownloadReceipt& receipt, const ReceiptGroups& groups);
  std::size_t drop_ownerless(const ReceiptGroups& groups) const;
  bool owns_nothing(const ReceiptGroup& group) const;
  bool is_left_behind(const ReceiptGroup& group, const DownloadReceipt& receipt) const;
  std::filesystem::path download(const std::string& name) const;
};

}  // namespace tavro
