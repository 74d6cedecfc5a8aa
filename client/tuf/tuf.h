#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "domain/progress.h"
#include "transport/transport.h"
#include "tuf/metadata.h"

namespace tavro {

/// What stands on disk when a download has looked around, for the caller to weigh.
struct DownloadAdmission {
  /// Where the final file goes.
  std::string directory;
  /// The final file is there and verified; nothing is needed.
  bool complete = false;
  /// A partial file is resumed. Only then the numbers below are set, in bytes: what was proved of
  /// it, what it takes on disk, and its present length.
  bool partial = false;
  unsigned long long written = 0;
  unsigned long long allocated = 0;
  unsigned long long size = 0;
};

struct TufDownloadOptions {
  /// What the download belongs to, at most 4096 bytes. A partial file is only resumed under the
  /// same scope; with an empty one nothing is resumed, and nothing partial is left.
  std::string resume_scope{};
  /// May be empty. Called before bytes are taken, and refuses by throwing.
  std::function<void(const DownloadAdmission&)> admission{};

  void admit(const DownloadAdmission& state) const {
    if (admission) admission(state);
  }
};

/// Hears what a download does, in time to record it first; refuses by throwing. `description` is
/// the signed target, `temporary` the partial file's path below the target directory. `state`:
/// "prepared", before a new partial file exists; "resumed", when an old one was proved and nothing
/// was fetched yet; "complete", when the final file is in place and durable. For a final file that
/// was there already only "complete" comes, with a `temporary` that names nothing.
using DownloadObserver = std::function<void(std::string_view state, const json& description,
                                            std::string_view temporary)>;

/// The system's one view of a repository, kept in a trust folder. Every document of that folder is
/// the verbatim bytes that were proved before they were stored. What is read back is proved again
/// before use; of the timestamp only shape and expiry, since a rotation of its keys removes it. One
/// client a folder, for as long as the object lives; one thread.
class TufClient {
 public:
  using Clock = std::function<std::chrono::system_clock::time_point()>;

  /// Stores the first trusted root, which must be signed by its own keys; whether it has expired
  /// is not asked. The folder is created, or must be private. Throws `already_initialized`,
  /// `busy`, the codes of `parse_json`, `shape` and `verify_threshold`, and those of a durable
  /// write. Nothing is stored on failure.
  static void initialize(const std::filesystem::path& directory, std::string_view root_bytes);

  /// Opens an initialised trust folder, and finishes what a crash left of a key rotation. The
  /// transports are borrowed. Throws `busy` while another client has the folder, `file_read`
  /// without a root, and as `initialize` for a root that does not prove itself.
  TufClient(const std::filesystem::path& directory, Transport& metadata_transport,
            Transport& target_transport, const TufLimits& limits, Clock clock);
  TufClient(TufClient&&) noexcept;
  TufClient& operator=(TufClient&&) noexcept;
  ~TufClient();

  /// Walks the chain of roots, then takes the timestamp, and what a new timestamp selects. May be
  /// called again at any time, and starts over. Throws `http_status`, `rollback`,
  /// `expired_metadata`, `version_mismatch`, `length_mismatch`, `hash_mismatch`,
  /// `invalid_trusted_metadata` (a stored document is damaged, and preserved), and the codes of
  /// shapes, thresholds and the transport. Stored documents stay at the last one that was proved;
  /// after a failure only another `refresh` or a new client may follow.
  void refresh();

  /// What the repository signs for this target path: `length`, `hashes` and perhaps `custom`.
  /// Refreshes on first use. Throws `unsafe_path` before any request, `target_not_found`,
  /// `delegation_limit`, `missing_role`, and as `refresh`.
  json target(std::string_view path);
  /// The same, or nothing where that throws `target_not_found`.
  std::optional<json> find_target(std::string_view path);

  /// Brings the target into the private folder `directory`, under its own relative path, and
  /// answers the path of the file, whose bytes are proved. A file that stands there already is
  /// proved first, and kept if it verifies. `progress` counts anew for each proof on disk and for
  /// the transfer; false ends the call with `cancelled`. `observer` may be empty.
  ///
  /// With a scope and a transport that resumes, a failure, a cancel or a crash leaves a partial
  /// file with a record of what is durable of it, for the next call to go on from; see
  /// `resume_download`. Otherwise a failure leaves nothing.
  ///
  /// Throws `size_limit`, `unsafe_path`, `length_mismatch`, `hash_mismatch`, the codes of
  /// `resume_download`, and as `target`, `private_directory` and the transport.
  std::filesystem::path download(std::string_view target, const std::filesystem::path& directory,
                                 Progress progress, DownloadObserver observer,
                                 TufDownloadOptions options);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavro
