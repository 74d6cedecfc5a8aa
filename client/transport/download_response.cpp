#include "transport/download_response.h"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "domain/error.h"

namespace tavro {
namespace {

constexpr std::size_t kLineBytes = 8192;
constexpr unsigned long long kHeaderBytes = 65536;
constexpr int kFields = 128;
constexpr int kHeads = 8;

std::string lowered(std::string_view text) {
  std::string result(text);
  for (char& byte : result)
    if (byte >= 'A' && byte <= 'Z') byte = static_cast<char>(byte - 'A' + 'a');
  return result;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// The whole text is one number: no sign, no space, no overflow.
unsigned long long decimal(std::string_view text) {
  unsigned long long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  require(error == std::errc() && end == text.data() + text.size(), "download_headers",
          "Invalid download length or range");
  return value;
}

bool is_printable(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value == '\t' || (value >= 32 && value != 127);
}

/// For a name that is lower-cased already.
bool is_name_byte(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
         std::string_view("!#$%&'*+-.^_`|~").find(byte) != std::string_view::npos;
}

bool is_framing(std::string_view name) {
  return name == "content-length" || name == "content-range" || name == "content-encoding" ||
         name == "transfer-encoding" || name == "content-type";
}

/// "bytes first-last/total"; the numbers are not proved to be any.
struct RangeText {
  std::string_view first, last, total;

  explicit RangeText(std::string_view value) {
    const std::size_t space = value.find(' ');
    const std::size_t hyphen = value.find('-', space);
    const std::size_t slash = value.find('/', hyphen);
    require(slash != std::string_view::npos && lowered(value.substr(0, space)) == "bytes",
            "download_range", "Invalid download content range");
    first = value.substr(space + 1, hyphen - space - 1);
    last = value.substr(hyphen + 1, slash - hyphen - 1);
    total = value.substr(slash + 1);
  }
};

}  // namespace

DownloadResponseHeaders::DownloadResponseHeaders(unsigned long long expected,
                                                 unsigned long long offset, bool exact)
    : expected_(expected), offset_(offset), start_(offset), exact_(exact) {
  require(offset <= expected, "download_range", "Resume offset exceeds authenticated length");
}

void DownloadResponseHeaders::line(std::string_view text) {
  require(text.size() <= kLineBytes && text.size() <= kHeaderBytes - header_bytes_,
          "download_headers", "Download headers exceed their bounded format");
  header_bytes_ += text.size();
  require(text.ends_with('\n'), "download_headers", "Download header line is incomplete");
  text.remove_suffix(1);
  if (text.ends_with('\r')) text.remove_suffix(1);
  require(std::ranges::all_of(text, is_printable), "download_headers",
          "Download header contains control bytes");
  if (text.starts_with("HTTP/")) return status_line(text);
  require(status_ != 0, "download_headers", "Download headers precede their status");
  if (!text.empty()) return field(text);
  if (!admitted_) admit();
}

void DownloadResponseHeaders::status_line(std::string_view text) {
  require(!body_started_ && heads_ < kHeads, "download_headers",
          "Unexpected download response sequence");
  ++heads_;
  const std::size_t space = text.find(' ');
  const std::string_view protocol = text.substr(0, space);
  const bool known = protocol == "HTTP/1.0" || protocol == "HTTP/1.1" || protocol == "HTTP/2" ||
                     protocol == "HTTP/3";
  const std::string_view rest =
      space == std::string_view::npos ? std::string_view() : text.substr(space + 1);
  require(known && rest.size() >= 3 && (rest.size() == 3 || rest[3] == ' '), "download_headers",
          "Invalid download status line");
  const unsigned long long status = decimal(rest.substr(0, 3));
  require(status >= 100 && status <= 599, "download_headers", "Invalid download status");

  status_ = static_cast<int>(status);
  admitted_ = false;
  fields_ = 0;
  content_length_.reset();
  for (std::string* value :
       {&content_range_, &content_encoding_, &transfer_encoding_, &content_type_})
    value->clear();
  framing_seen_.clear();
}

void DownloadResponseHeaders::field(std::string_view text) {
  require(text.front() != ' ' && text.front() != '\t' && fields_ < kFields, "download_headers",
          "Invalid or excessive download fields");
  ++fields_;
  const std::size_t colon = text.find(':');
  require(colon != std::string_view::npos && colon != 0, "download_headers",
          "Invalid download field");
  const std::string name = lowered(text.substr(0, colon));
  require(std::ranges::all_of(name, is_name_byte), "download_headers",
          "Invalid download field name");
  if (is_framing(name)) keep_framing(name, trimmed(text.substr(colon + 1)));
}

void DownloadResponseHeaders::keep_framing(const std::string& name, std::string_view value) {
  // A trailer comes too late, and two fields never merge, not even with equal values.
  require(!admitted_ && framing_seen_.insert(name).second, "download_headers",
          "Duplicate or late download framing field");
  if (name == "content-length") content_length_ = decimal(value);
  if (name == "content-range") content_range_ = value;
  if (name == "content-encoding") content_encoding_ = lowered(value);
  if (name == "transfer-encoding") transfer_encoding_ = lowered(value);
  if (name == "content-type") content_type_ = lowered(value);
}

void DownloadResponseHeaders::admit() {
  require(status_ != 101, "download_headers", "Download protocol upgrades are not supported");
  if (status_ < 200) return;
  require(status_ < 300 || status_ > 399, "redirect_rejected",
          "Server redirects are not permitted");
  require(status_ == 200 || status_ == 206, "http_status",
          [&] { return "Download failed with status " + std::to_string(status_); });
  admit_framing();
  admit_range();
  if (content_length_) {
    const bool fits = exact_ ? *content_length_ == remaining() : *content_length_ <= remaining();
    require(fits, "length_mismatch", "Server length differs from the authenticated download bound");
  }
  admitted_ = true;
}

void DownloadResponseHeaders::admit_framing() const {
  require(!framing_seen_.contains("content-encoding") || content_encoding_ == "identity",
          "download_headers", "Download content encoding changes authenticated bytes");
  const bool plain = !framing_seen_.contains("transfer-encoding");
  require(plain || (transfer_encoding_ == "chunked" && !content_length_), "download_headers",
          "Unsupported download transfer framing");
  require(!content_type_.starts_with("multipart/byteranges"), "download_range",
          "Multipart download ranges are not supported");
}

void DownloadResponseHeaders::admit_range() {
  const bool ranged = framing_seen_.contains("content-range");
  if (status_ == 200) {
    require(!ranged, "download_range", "A full response contains an unexpected range");
    start_ = 0;
    return;
  }
  require(offset_ > 0 && ranged, "download_range",
          "A partial response requires the requested single range");
  const RangeText range(content_range_);
  const unsigned long long first = decimal(range.first), last = decimal(range.last),
                           total = decimal(range.total);
  const bool requested =
      first == offset_ && last == expected_ - 1 && total == expected_ && first <= last;
  require(requested, "download_range",
          "Server range differs from the authenticated remaining bytes");
  start_ = first;
}

void DownloadResponseHeaders::body(unsigned long long size) {
  require(admitted_, "download_headers", "Download body precedes admitted headers");
  body_started_ = true;
  require(size <= remaining() - body_bytes_, "size_limit",
          "Download exceeds its authenticated length");
  require(!content_length_ || size <= *content_length_ - body_bytes_, "length_mismatch",
          "Download exceeds its declared response length");
  body_bytes_ += size;
}

void DownloadResponseHeaders::finish() const {
  require(admitted_, "download_headers", "Download has no admitted final response");
  const bool whole = (!content_length_ || body_bytes_ == *content_length_) &&
                     (!exact_ || body_bytes_ == remaining());
  require(whole, "length_mismatch",
          "Download body is shorter than its authenticated response length");
}

}  // namespace tavro
