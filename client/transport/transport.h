#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "domain/progress.h"

namespace tavro {

class AllocatedFile;

/// What a server answered. `body` is empty for a transfer into a file.
struct TransportResponse {
  int status = 0;
  std::string body;
};

/// What the repository client needs from the network. All names are relative to the service that
/// the implementation was made for. One request at a time; nothing outlives its call.
class Transport {
 public:
  virtual ~Transport() = default;

  /// A document of at most `limit` bytes, in memory. Every status but a redirect comes back as an
  /// answer. `path` keeps its `/`.
  virtual TransportResponse get(std::string_view path, unsigned long long limit) = 0;

  /// As `get`, for a name that is one path segment whatever it holds, a `/` included.
  virtual TransportResponse get_component(std::string_view component, unsigned long long limit);

  /// Brings a file of at most `length` bytes into a new file at `destination`, whose folder
  /// becomes private. What arrived is proved by the caller, never here.
  virtual void download(std::string_view path, const std::filesystem::path& destination,
                        unsigned long long length, const Progress& progress) = 0;

  /// Whether `download_into` works.
  virtual bool supports_resumption() const;

  /// Continues `file`, whose first `offset` bytes are at hand, up to its reserved size, and leaves
  /// it open. `on_bytes` gets each block after it was written; `on_restart` is called when the
  /// server sends the whole file instead of the rest, before the first block of it. Throws
  /// `download_resume_unsupported` where there is no resumption.
  virtual void download_into(std::string_view path, AllocatedFile& file, unsigned long long offset,
                             const Progress& progress,
                             const std::function<void(std::string_view)>& on_bytes,
                             const std::function<void()>& on_restart);
};

}  // namespace tavro
