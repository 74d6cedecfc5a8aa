#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string_view>

#include "domain/json.h"
#include "transport/transport.h"
#include "tuf/metadata.h"

namespace tavro {

/// The system's one view of a repository, kept in a trust folder. Every file of that folder is the
/// verbatim bytes of a document that was proved before it was stored; what is read back is proved
/// again before use. One client a folder, for as long as the object lives; one thread.
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

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavro
