#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"
#include "download/download_receipt.h"
#include "download/resume_evidence.h"

/// The receipts of a download store, a folder with `downloads`, which holds finished targets,
/// partial files and their resume records, and `download-intents`, which holds one receipt a
/// download. Nothing here changes or removes a file: what is no receipt, and no write of one that a
/// crash cut off, stops the work and stays.
namespace tavro {

/// What the files of one nonce say together.
struct ReceiptGroup {
  std::string nonce;
  /// The best whole one, a complete one before a prepared one; none when all were cut off.
  std::optional<DownloadReceipt> receipt;
  /// Of the bytes of that receipt.
  std::string receipt_sha256;
  std::vector<FileEvidence> files;
  /// Resume records of the partial file.
  std::vector<FileEvidence> resume_files;

  /// From names and bytes alone, 1 to 64 of them, without resume records. Throws
  /// `launcher_download_uncertain`, and as `DownloadReceipt::parse` and `parse_json`.
  static ReceiptGroup parse(std::string_view nonce,
                            const std::map<std::string, std::string>& files);
  /// `nonce`, `receipt` and `receipt_sha256` (null without one), `files`, `resume_files`, and
  /// `phase`: "partial" with a receipt, else "metadata".
  json to_json() const;
};

using ReceiptGroups = std::map<std::string, ReceiptGroup>;

/// The groups of a whole store by nonce, each with the resume records of its partial file. The
/// caller holds the lock of the store. Throws as `folder_entries` (more than 64 files of receipts,
/// or a folder that cannot be listed), `launcher_download_uncertain`, and what
/// `target_download_resume_files` throws.
ReceiptGroups read_receipt_groups(const std::filesystem::path& root);

/// Whether a file of `download-intents` belongs to this nonce: its receipt, or the temporary file
/// of an atomic write of it. False for what is no nonce.
bool target_download_file_name(std::string_view name, std::string_view nonce);

/// `ReceiptGroup::parse` and `read_receipt_groups` as documents.
json parse_target_download_receipt_group(std::string_view nonce,
                                         const std::map<std::string, std::string>& files);
std::map<std::string, json> target_download_receipts(const std::filesystem::path& root);

}  // namespace tavro
