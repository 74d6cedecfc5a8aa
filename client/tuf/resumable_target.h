#pragma once

#include <nlohmann/json.hpp>

#include <filesystem>
#include <string>

#include "domain/json.h"
#include "domain/progress.h"
#include "tuf/tuf.h"

namespace tavro {

/// One target to be brought in; `TufClient::download` has prepared the private folder.
struct TargetRequest {
  std::string target;
  /// Where the transport finds it.
  std::string remote;
  /// As signed; `target` has looked at it.
  json description;
  /// The target directory, and the final file in it.
  std::filesystem::path directory;
  std::filesystem::path final_path;
  Progress progress;
  DownloadObserver observer;
  TufDownloadOptions options;
};

/// Goes on with a partial file of the same target, content and scope, or starts one, until the
/// final file is in place. Beside the partial file stands a record (see
/// `validate_target_resume_state`) that is renewed after every 8 MiB, once those bytes are durable;
/// a crash costs at most what came after it. A partial file is only used when its name, identity,
/// claim and content all agree with its record, and the complete file is hashed again from disk.
///
/// Bytes that can never become the target are removed with their record; every other failure keeps
/// both. Nothing that fails its own proof is ever deleted. Throws `download_resume_changed` (what
/// the record promises was changed), `length_mismatch`, `hash_mismatch`, `cancelled`, and as
/// `find_resumable`, `AllocatedFile` and the transport; a failed rename surfaces as
/// `std::filesystem::filesystem_error`.
void resume_download(Transport& transport, const TargetRequest& request);

/// The admission of a download that has nothing at hand.
DownloadAdmission unused_admission(const std::filesystem::path& final_path);

/// Gives a verified file its final name, which replaces what stood there, and makes that durable.
/// Throws `std::filesystem::filesystem_error` or `file_sync`.
void place_target(const std::filesystem::path& staged, const std::filesystem::path& final_path);

}  // namespace tavro
