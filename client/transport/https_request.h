#pragma once

#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "domain/progress.h"
#include "domain/unique_fd.h"
#include "platform/storage/allocated_file.h"
#include "transport/download_response.h"
#include "transport/https.h"

namespace tavro {

/// What one request receives, and how it went so far. Inside this floor only.
struct Transfer {
  /// Response bytes allowed, and received so far.
  unsigned long long limit = 0;
  unsigned long long received = 0;
  std::string body{};
  /// Null for a transfer into memory; then `headers` is null too.
  AllocatedFile* file = nullptr;
  Progress progress{};
  bool size_exceeded = false;
  bool cancelled = false;
  bool budget_exceeded = false;
  bool deadline_exceeded = false;
  HttpsBudget* budget = nullptr;
  bool uploading = false;
  /// What a callback threw: exceptions never cross the HTTP library.
  std::exception_ptr error{};
  std::unique_ptr<DownloadResponseHeaders> headers{};
  /// Where the response is written, and the length of the whole file.
  unsigned long long offset = 0;
  unsigned long long length = 0;
  /// Whether only what follows the offset is asked for. The answer may be the whole file anyway.
  bool ranged = true;
  std::function<void(std::string_view)> on_bytes{};
  std::function<void()> on_restart{};
};

/// What one request sends: a stream of exactly `remaining` bytes, or else `body`.
struct Upload {
  UniqueFd stream{};
  unsigned long long remaining = 0;
  std::string body{};
  std::string bearer{};
  std::exception_ptr error{};
};

/// Carries out one request and returns its status, never a redirect. An empty `ca_bundle` means the
/// system's trust. `upload` may be null. The budget, as far as the transfer has one, is proved
/// first. Throws `transport`, `ca_bundle`, `discovery_budget`, `discovery_timeout`, `cancelled`,
/// `size_limit`, `network`, `redirect_rejected`, `crash_changed`, and what the transfer's headers,
/// file and callbacks throw.
int request(const std::string& url, const std::filesystem::path& ca_bundle, Transfer& transfer,
            unsigned long long download_limit, Upload* upload);

}  // namespace tavro
