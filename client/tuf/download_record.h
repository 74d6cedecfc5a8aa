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

/// Proves that `state` is a resume record of the partial file `temporary`, in exactly the form that
/// a download writes: `authorization` (`length` and `hashes`, as signed), `identity` (device and
/// inode), `kind`, `prefix_sha256`, `received`, `schema_version`, `scope_sha256`, `target` and
/// `temporary`. The disk is not looked at. Throws `download_resume_state`, and `unsafe_path` for
/// the path of a target that no repository can name.
void validate_target_resume_state(const json& state, std::string_view temporary);

/// What a download is for: a partial file of anything else is never gone on with.
struct DownloadClaim {
  std::string target;
  /// `length` and `hashes` as the repository signs them.
  json authorization;
  std::string scope_sha256;
};

/// The partial file of a nonce, and its record, relative to the target directory.
std::string partial_name(std::string_view target, std::string_view nonce);
std::string resume_record_name(std::string_view temporary);

/// A partial file that can be gone on with, once its content is proved.
struct ResumeCandidate {
  std::string temporary;
  /// The record's exact bytes.
  std::string text;
  json record;
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
