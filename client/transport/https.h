#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "transport/transport.h"

namespace tavro {

struct Upload;

/// What all requests of one optional update check may take together. Not synchronised: requests
/// that share a budget run one at a time.
struct HttpsBudget {
  /// 1 ms to 30 seconds ahead whenever a request starts.
  std::chrono::steady_clock::time_point deadline;
  /// Response bytes allowed in total, and received so far.
  unsigned long long limit = 0;
  unsigned long long used = 0;
  /// May be empty; true stops the check.
  std::function<bool()> cancel;
};

/// A service at one base URL, reached over verified HTTPS alone: no proxy, no redirect, no content
/// decoding, no credentials. Holds configuration only; no connection survives a request.
class HttpsTransport : public Transport {
 public:
  /// `base_url` may carry a path. An empty `ca_bundle` means the system's trust store; otherwise
  /// only the certificates of that file count, and they are read anew for each request.
  /// `download_limit` is in bytes per second, at most 1 GiB/s, 0 for none. `budget` may be null.
  /// Nothing is sent. Throws `download_limit`, `https_required`, `invalid_url` or `transport`.
  HttpsTransport(std::string_view base_url, std::filesystem::path ca_bundle,
                 unsigned long long download_limit, std::shared_ptr<HttpsBudget> budget);

  /// Scheme and authority, without the `/` behind them.
  const std::string& origin() const noexcept { return origin_; }

  /// Where a request for this relative path goes. Throws `unsafe_path`.
  std::string url(std::string_view path) const;

  /// `limit` is at most 16 MiB. Throws `size_limit`, also when the server sends more.
  TransportResponse get(std::string_view path, unsigned long long limit) override;
  /// The name has 1 to 8192 bytes.
  TransportResponse get_component(std::string_view component, unsigned long long limit) override;
  /// The response may be shorter than `length`, but not longer.
  void download(std::string_view path, const std::filesystem::path& destination,
                unsigned long long length, const Progress& progress) override;
  bool supports_resumption() const override;
  /// `offset` is what `file.written()` says. The response must deliver all remaining bytes. After a
  /// failure the file holds what was written until then.
  void download_into(std::string_view path, AllocatedFile& file, unsigned long long offset,
                     const Progress& progress,
                     const std::function<void(std::string_view)>& on_bytes,
                     const std::function<void()>& on_restart) override;

  /// Posts a value of at most 4096 bytes; the response has at most 16384. The budget does not
  /// apply.
  TransportResponse post_json(std::string_view path, const json& body, const Progress& progress);

  /// Posts the file `snapshot`, of exactly `size` bytes (1 byte to 100 MiB), under the capability
  /// `token`, 64 lower-case hexadecimal characters; otherwise as `post_json`. Throws `size_limit`,
  /// `crash_ticket`, `crash_changed` when the file is not, or does not stay, as it was frozen, and
  /// `file_read`.
  TransportResponse upload_report(std::string_view path, const std::filesystem::path& snapshot,
                                  unsigned long long size, const std::string& token,
                                  const Progress& progress);

 private:
  TransportResponse fetch(const std::string& address, unsigned long long limit) const;
  TransportResponse send(std::string_view path, Upload& upload, const Progress& progress) const;

  std::string base_url_;
  std::string origin_;
  std::filesystem::path ca_bundle_;
  unsigned long long download_limit_;
  std::shared_ptr<HttpsBudget> budget_;
};

/// Percent-encoding: letters, digits and "-._~" stay, and `/` when `keep_slash` is true; every
/// other byte becomes `%` and two upper-case hexadecimal digits.
std::string quote_url(std::string_view text, bool keep_slash);

}  // namespace tavro
