#include "transport/https.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/product_name.h"
#include "domain/relative_path.h"
#include "platform/files/durable_files.h"
#include "platform/host/system_calls.h"
#include "transport/curl_library.h"
#include "transport/https_request.h"

namespace tavro {
namespace {

constexpr std::string_view kScheme = "https://";
constexpr unsigned long long kMaxDownloadLimit = 1073741824;
constexpr unsigned long long kMaxMemoryResponse = 16777216;
constexpr unsigned long long kMaxPostResponse = 16384;
constexpr unsigned long long kMaxReport = 104857600;
constexpr std::size_t kMaxPostBody = 4096;
constexpr std::size_t kMaxComponentBytes = 8192;

using Url = std::unique_ptr<CURLU, CurlDeleter>;

CURLUcode url_part(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  const CURLUcode result = curl().url_get(url, part, &text, 0);
  curl().free(text);
  return result;
}

/// Where the authority of an HTTPS URL ends.
std::size_t authority_end(const std::string& url) {
  const std::size_t slash = url.find('/', kScheme.size());
  return slash == std::string::npos ? url.size() : slash;
}

void require_plain_parts(CURLU* parsed, const std::string& url) {
  // The library drops an empty part, which would still swallow every path put behind it.
  const std::string_view authority = std::string_view(url).substr(0, authority_end(url));
  bool plain =
      url.find_first_of("?#") == std::string::npos && authority.find('@') == std::string_view::npos;
  for (const CURLUPart part :
       {CURLUPART_USER, CURLUPART_PASSWORD, CURLUPART_QUERY, CURLUPART_FRAGMENT})
    plain = plain && url_part(parsed, part) != CURLUE_OK;
  require(plain, "invalid_url", "Service URL must not contain credentials, query, or fragment");
}

void require_service_url(const std::string& url) {
  require(url.starts_with(kScheme), "https_required",
          [] { return branded("Tavro service URLs must use HTTPS"); });
  const Url parsed(curl().url());
  // The library reads up to a NUL byte; what stands behind one would go unchecked.
  const bool parses = parsed && url.find('\0') == std::string::npos &&
                      curl().url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK;
  require(parses, "invalid_url", "Invalid service URL");
  // The library would take the first name of a path for the host that is missing.
  const bool named =
      authority_end(url) > kScheme.size() && url_part(parsed.get(), CURLUPART_HOST) == CURLUE_OK;
  require(named, "invalid_url", "URL must contain a hostname");
  require_plain_parts(parsed.get(), url);
}

void require_memory_limit(unsigned long long limit) {
  require(limit <= kMaxMemoryResponse, "size_limit", "In-memory response limit exceeds 16 MiB");
}

bool is_plain_file(const struct stat& status, unsigned long long size) {
  return S_ISREG(status.st_mode) && static_cast<unsigned long long>(status.st_size) == size;
}

/// Opens what was frozen, and proves on the descriptor that nothing took its place.
UniqueFd open_snapshot(const std::filesystem::path& snapshot, unsigned long long size) {
  const auto require_frozen = [&](int result, const struct stat& status) {
    require(result == 0 && is_plain_file(status, size), "crash_changed",
            "Frozen upload snapshot is invalid");
  };
  struct stat status {};
  require_frozen(::lstat(snapshot.c_str(), &status), status);
  UniqueFd stream(retried(
      [&] { return ::open(snapshot.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC); }));
  require(static_cast<bool>(stream), "file_read", "Cannot open reviewed upload snapshot");
  require_frozen(::fstat(stream.get(), &status), status);
  return stream;
}

/// Whether the answer to a range was no, or another range.
bool refuses_range(const Error& error, const Transfer& transfer) {
  constexpr int not_satisfiable = 416;
  return transfer.offset != 0 && transfer.received == 0 &&
         (error.code == "download_range" ||
          (error.code == "http_status" && transfer.headers->status() == not_satisfiable));
}

}  // namespace

std::string quote_url(std::string_view text, bool keep_slash) {
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string result;
  for (const char byte : text) {
    if (kPlain.find(byte) != std::string_view::npos || (keep_slash && byte == '/')) {
      result += byte;
      continue;
    }
    const auto value = static_cast<unsigned char>(byte);
    result += '%';
    result += kDigits[value >> 4];
    result += kDigits[value & 15];
  }
  return result;
}

HttpsTransport::HttpsTransport(std::string_view base_url, std::filesystem::path ca_bundle,
                               unsigned long long download_limit,
                               std::shared_ptr<HttpsBudget> budget)
    : base_url_(base_url),
      ca_bundle_(std::move(ca_bundle)),
      download_limit_(download_limit),
      budget_(std::move(budget)) {
  initialize_client_runtime();
  require(download_limit <= kMaxDownloadLimit, "download_limit", "Download limit exceeds 1 GiB/s");
  curl();
  require_service_url(base_url_);
  origin_ = base_url_.substr(0, authority_end(base_url_));
  if (!base_url_.ends_with('/')) base_url_ += '/';
}

std::string HttpsTransport::url(std::string_view path) const {
  validate_relative_path(path, false);
  return base_url_ + quote_url(path, true);
}

TransportResponse HttpsTransport::fetch(const std::string& address,
                                        unsigned long long limit) const {
  Transfer transfer{.limit = limit, .budget = budget_.get()};
  const int status = request(address, ca_bundle_, transfer, download_limit_, nullptr);
  return {status, std::move(transfer.body)};
}

TransportResponse HttpsTransport::get(std::string_view path, unsigned long long limit) {
  require_memory_limit(limit);
  return fetch(url(path), limit);
}

TransportResponse HttpsTransport::get_component(std::string_view component,
                                                unsigned long long limit) {
  const bool named = !component.empty() && component.size() <= kMaxComponentBytes &&
                     component != "." && component != "..";
  require(named, "size_limit", "Metadata filename exceeds its component bound");
  require_memory_limit(limit);
  return fetch(base_url_ + quote_url(component, false), limit);
}

void HttpsTransport::download(std::string_view path, const std::filesystem::path& destination,
                              unsigned long long length, const Progress& progress) {
  private_directory(destination.parent_path());
  AllocatedFile file(destination, length, {});
  Transfer transfer{.limit = length,
                    .file = &file,
                    .progress = progress,
                    .budget = budget_.get(),
                    .length = length};
  transfer.headers = std::make_unique<DownloadResponseHeaders>(length, 0, false);
  const int status = request(url(path), ca_bundle_, transfer, download_limit_, nullptr);
  require(status == 200, "http_status",
          [&] { return "Download failed with status " + std::to_string(status); });
  file.finish(false);
}

bool HttpsTransport::supports_resumption() const { return true; }

void HttpsTransport::download_into(std::string_view path, AllocatedFile& file,
                                   unsigned long long offset, const Progress& progress,
                                   const std::function<void(std::string_view)>& on_bytes,
                                   const std::function<void()>& on_restart) {
  const unsigned long long size = file.reservation().size;
  require(offset == file.written() && (offset < size || offset == 0), "download_range",
          "Download cursor differs from the recorded prefix");
  const auto ask = [&](bool ranged) {
    Transfer transfer{.limit = size - offset,
                      .file = &file,
                      .progress = progress,
                      .budget = budget_.get(),
                      .offset = offset,
                      .length = size,
                      .ranged = ranged,
                      .on_bytes = on_bytes,
                      .on_restart = on_restart};
    transfer.headers = std::make_unique<DownloadResponseHeaders>(size, offset, true);
    try {
      request(url(path), ca_bundle_, transfer, download_limit_, nullptr);
      return true;
    } catch (const Error& error) {
      if (!ranged || !refuses_range(error, transfer)) throw;
      return false;
    }
  };
  // A server that cannot give the rest never will: then it is asked for the whole file, once. What
  // is at hand stays until it sends that.
  if (!ask(true)) ask(false);
}

TransportResponse HttpsTransport::send(std::string_view path, Upload& upload,
                                       const Progress& progress) const {
  Transfer transfer{.limit = kMaxPostResponse, .progress = progress};
  const int status = request(url(path), ca_bundle_, transfer, download_limit_, &upload);
  return {status, std::move(transfer.body)};
}

TransportResponse HttpsTransport::post_json(std::string_view path, const json& body,
                                            const Progress& progress) {
  Upload upload{.body = body.dump()};
  require(upload.body.size() <= kMaxPostBody, "size_limit", "Ticket request exceeds 4 KiB");
  return send(path, upload, progress);
}

TransportResponse HttpsTransport::upload_report(std::string_view path,
                                                const std::filesystem::path& snapshot,
                                                unsigned long long size, const std::string& token,
                                                const Progress& progress) {
  require(size >= 1 && size <= kMaxReport, "size_limit", "Report upload exceeds 100 MiB");
  require(is_lower_hex(token, 64), "crash_ticket", "Upload capability is invalid");
  Upload upload{.stream = open_snapshot(snapshot, size), .remaining = size, .bearer = token};
  return send(path, upload, progress);
}

}  // namespace tavro
