#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

/// Bytes of a resume record.
inline constexpr unsigned long long kResumeRecordBytes = 16384;

/// What `kind` says in one.
inline constexpr std::string_view kResumeRecordKind = "tavro-target-resume";

/// What a repository signs of a file: how long it is, and its hashes by algorithm.
struct SignedContent {
  unsigned long long length = 0;
  /// As signed. Whoever compares digests proves that they are texts.
  json hashes;

  json to_json() const { return {{"length", length}, {"hashes", hashes}}; }
  bool operator==(const SignedContent&) const = default;
};

/// How far a partial file has come, in the document beside it.
struct ResumeRecord {
  std::string target;
  /// The partial file, relative to the target directory.
  std::string temporary;
  SignedContent authorization;
  /// Of what the download belongs to.
  std::string scope_sha256;
  unsigned long long device = 0, inode = 0;
  /// Bytes that are durable, and their digest.
  unsigned long long received = 0;
  std::string prefix_sha256;

  /// Reads the record of the partial file `temporary`, which has exactly the form that a download
  /// writes. The disk is not looked at. Throws `download_resume_state`, and `unsafe_path` for the
  /// path of a target that no repository can name.
  static ResumeRecord parse(const json& state, std::string_view temporary);
  /// The document's bytes.
  std::string text() const;
};

/// `ResumeRecord::parse`, for its checks alone.
void validate_target_resume_state(const json& state, std::string_view temporary);

/// What a download is for: a partial file of anything else is never gone on with.
struct DownloadClaim {
  std::string target;
  SignedContent authorization;
  std::string scope_sha256;

  /// Whether the record is of this download.
  bool covers(const ResumeRecord& record) const;
};

/// The partial file of a nonce, and its record, relative to the target directory.
std::string partial_name(std::string_view target, std::string_view nonce);
std::string resume_record_name(std::string_view temporary);

/// A partial file that can be gone on with, once its content is proved.
struct ResumeCandidate {
  ResumeRecord record;
  /// Its exact bytes.
  std::string text;
};

/// The partial file of this claim with the most bytes, by the records in the folder of the final
/// file; the first in the folder's order among equals. Records of other claims, and those whose
/// partial file is gone, are passed over and stay, but count. Nothing is changed.
///
/// Throws `size_limit` (4096 entries), `download_resume_capacity` (32 records of one final name,
/// unless one of them is the answer), `download_resume_state` for a record of unknown name or form,
/// and as `read_file`, `parse_json` and `safe_join`.
std::optional<ResumeCandidate> find_resumable(const std::filesystem::path& directory,
                                              const DownloadClaim& claim);

}  // namespace tavro
