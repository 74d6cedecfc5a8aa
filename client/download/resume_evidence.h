#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"
#include "download/download_receipt.h"

/// The reader's side of the resume records that a download writes beside its partial file: for one
/// receipt, every such record and every torn write of one is either proved to be the system's own,
/// or stops the work. Nothing is changed or removed.
namespace tavro {

/// A file as it was read: groups of receipts list their own and the resume records.
struct FileEvidence {
  std::string name;
  unsigned long long length = 0;
  std::string sha256;

  static FileEvidence of(std::string_view name, std::string_view bytes);
};
json evidence_json(const std::vector<FileEvidence>& files);

/// The text that ties a download to its release, for `TufDownloadOptions::resume_scope`.
/// `reference` is null for the descriptor target.
std::string target_download_resume_scope(std::string_view target, const json& reference);

/// Whether the name is `resume_name`, a resume record's, or that of the temporary file of an atomic
/// write of it.
bool target_download_resume_file_name(std::string_view name, std::string_view resume_name);

/// The list of evidence from names and bytes alone. Whole records must be the receipt's and agree
/// in all but `received` and `prefix_sha256`; bytes under a temporary name may be cut off anywhere.
/// A null receipt has no records. Throws `launcher_download_uncertain`, `size_limit` (64 files),
/// and as `parse_json`, `validate_target_download_receipt` and `validate_target_resume_state`.
json parse_target_download_resume_files(const json& receipt,
                                        const std::map<std::string, std::string>& files);

/// The same from the disk, for the store below `root`. A partial file that is there must be the one
/// that the records name, and within its signed length; its content is not looked at. Also throws
/// `unsafe_path`, `size_limit` (96 entries in the folder of the target), and as
/// `AllocatedFile::verify_identity` and `read_file`.
json target_download_resume_files(const std::filesystem::path& root, const json& receipt);

/// The same for several receipts of one store: a folder is listed once. What comes into it
/// meanwhile is not seen.
class ResumeScan {
 public:
  explicit ResumeScan(std::filesystem::path root);
  std::vector<FileEvidence> files(const DownloadReceipt& receipt);

 private:
  std::map<std::string, std::string> read_named(const std::string& resume_name);
  const std::vector<std::string>& names_beside(const std::string& resume_name);
  std::vector<std::string> list(const std::string& folder) const;

  std::filesystem::path root_;
  /// By folder.
  std::map<std::string, std::vector<std::string>> names_;
};

}  // namespace tavro
