#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace tavro {

/// Decides from the raw header lines alone, before the first body byte is written, whether a
/// response may be taken, and then holds the body to what headers and signed length allow.
/// Transfer decoding is the HTTP library's; everything else that could change bytes is refused
/// rather than interpreted. For downloads into files only. After a failure the object is of no
/// further use.
class DownloadResponseHeaders {
 public:
  /// `expected` is the signed length of the whole target, `offset` the bytes already held; the
  /// request asked for the rest. `exact`: the response must deliver all of it. Throws
  /// `download_range` for an offset beyond the length.
  DownloadResponseHeaders(unsigned long long expected, unsigned long long offset, bool exact);

  /// Takes one raw header line of any head, with its terminator. Throws `download_headers`,
  /// `redirect_rejected`, `http_status`, `download_range` or `length_mismatch`.
  void line(std::string_view text);

  /// Call it before `size` body bytes are written. Throws `download_headers`, `size_limit` or
  /// `length_mismatch`.
  void body(unsigned long long size);

  /// Call it once the transfer ended without error. Throws `download_headers` or
  /// `length_mismatch`.
  void finish() const;

  /// Where the admitted response begins: 0 when the server sends the whole file after all.
  unsigned long long start() const noexcept { return start_; }

  /// Of the current head; 0 before the first.
  int status() const noexcept { return status_; }

  /// Whether the current head may be followed by its body.
  bool admitted() const noexcept { return admitted_; }

 private:
  void status_line(std::string_view text);
  void field(std::string_view text);
  void keep_framing(const std::string& name, std::string_view value);
  void admit();
  void admit_framing() const;
  void admit_range();
  unsigned long long remaining() const noexcept { return expected_ - start_; }

  unsigned long long expected_;
  unsigned long long offset_;
  unsigned long long start_;
  unsigned long long header_bytes_ = 0;
  unsigned long long body_bytes_ = 0;
  std::optional<unsigned long long> content_length_;
  std::string content_range_;
  std::string content_encoding_;
  std::string transfer_encoding_;
  std::string content_type_;
  std::set<std::string> framing_seen_;
  int status_ = 0;
  int heads_ = 0;
  int fields_ = 0;
  bool exact_;
  bool admitted_ = false;
  bool body_started_ = false;
};

}  // namespace tavro
