#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "tuf/download_record.h"

namespace tavro {

/// Bytes of a receipt.
inline constexpr std::size_t kDownloadReceiptBytes = 16384;

/// What `kind` says in a receipt, and in the scope of a download.
inline constexpr std::string_view kLauncherDownload = "tavro-launcher-download";

/// The release for which a target is fetched.
struct DownloadRelease {
  std::string build_id, manifest_sha256;

  json to_json() const { return {{"build_id", build_id}, {"manifest_sha256", manifest_sha256}}; }
  bool operator==(const DownloadRelease&) const = default;
};

/// Says who owns a download, before its first byte is taken.
struct DownloadReceipt {
  enum class Phase { prepared, complete };

  /// Also names the receipt and the partial file.
  std::string nonce;
  /// The finished file, and the partial one, relative to the downloads of the store.
  std::string target, temporary;
  Phase phase = Phase::prepared;
  SignedContent authorization;
  /// None for the descriptor, which is fetched before any release is known.
  std::optional<DownloadRelease> release;

  /// Proves that the value is a receipt and nothing more. Throws `launcher_download_uncertain`,
  /// `size_limit` (16384 bytes), and for the paths and the build as `validate_relative_path` and
  /// `validate_identifier`.
  static DownloadReceipt parse(const json& receipt);
  json to_json() const;
  /// The document's bytes.
  std::string text() const { return to_json().dump(); }

  DownloadReceipt in_phase(Phase other) const;
  /// The same download, whoever started it and however far it has come.
  bool same_claim(const DownloadReceipt& other) const;
  bool operator==(const DownloadReceipt&) const = default;
};

/// `DownloadReceipt::parse`, for its checks alone.
void validate_target_download_receipt(const json& receipt);

/// Where the receipt of a nonce lies, below the store.
std::string download_receipt_path(std::string_view nonce);

/// Whether the target is the descriptor of this platform's launcher, which is fetched before any
/// release is known.
bool is_launcher_descriptor_target(std::string_view target);

}  // namespace tavro
