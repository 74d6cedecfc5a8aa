#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "domain/json.h"

/// Receipts say who owns a download before its first byte is taken. A download store is a folder
/// with `downloads`, which holds finished targets, partial files and their resume records, and
/// `download-intents`, which holds one receipt a download. Nothing here changes or removes a file:
/// what is no receipt, and no write of one that a crash cut off, stops the work and stays.
namespace tavro {

/// Bytes of a receipt.
inline constexpr std::size_t kDownloadReceiptBytes = 16384;

/// What `kind` says in a receipt, and in the scope of a download.
inline constexpr std::string_view kLauncherDownload = "tavro-launcher-download";

/// Where the receipt of a nonce lies, below the store.
std::string download_receipt_path(std::string_view nonce);

/// Whether the target is the descriptor of this platform's launcher, which is fetched before any
/// release is known.
bool is_launcher_descriptor_target(std::string_view target);

/// Whether a file of `download-intents` belongs to this nonce: its receipt, or the temporary file
/// of an atomic write of it. False for what is no nonce.
bool target_download_file_name(std::string_view name, std::string_view nonce);

/// Proves that the value is a receipt and nothing more: `authorization` (`length` and `hashes`, as
/// signed), `kind`, `nonce`, `phase` ("prepared" or "complete"), `reference` (null for the
/// descriptor, otherwise the release), `schema_version`, `target`, `temporary`. Throws
/// `launcher_download_uncertain`, `size_limit` (16384 bytes), and for the paths and the build as
/// `validate_relative_path` and `validate_identifier`.
void validate_target_download_receipt(const json& receipt);

/// What the files of one nonce say together, from their names and bytes alone: `nonce`, `receipt`
/// (null when no file holds a whole one), `receipt_sha256` of its bytes, `files` (`name`, `length`,
/// `sha256`), `resume_files` (empty here) and `phase` ("partial" with a receipt, else "metadata").
/// A complete receipt goes before a prepared one. 1 to 64 files. Throws
/// `launcher_download_uncertain`, and as `validate_target_download_receipt` and `parse_json`.
json parse_target_download_receipt_group(std::string_view nonce,
                                         const std::map<std::string, std::string>& files);

/// The groups of a whole store by nonce, each with the resume records of its partial file. The
/// caller holds the lock of the store. At most 64 files of receipts: `size_limit`. Also throws
/// `launcher_download_uncertain`, what `target_download_resume_files` throws, and
/// `std::filesystem::filesystem_error` for a folder that cannot be listed.
std::map<std::string, json> target_download_receipts(const std::filesystem::path& root);

}  // namespace tavro
