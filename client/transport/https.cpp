#include "transport/https.h"

#include <curl/curl.h>

#include <mutex>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/product_name.h"
#include "domain/relative_path.h"

namespace tavro {
namespace {

constexpr std::string_view kScheme = "https://";
constexpr unsigned long long kMaxDownloadLimit = 1073741824;

struct UrlDeleter {
  void operator()(CURLU* url) const noexcept { curl_url_cleanup(url); }
};

void initialize_https_once() {
  static std::once_flag once;
  std::call_once(once, [] {
    require(curl_global_init(CURL_GLOBAL_ALL) == CURLE_OK, "transport",
            "Cannot initialize HTTPS library");
  });
}

CURLUcode url_part(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  const CURLUcode result = curl_url_get(url, part, &text, 0);
  curl_free(text);
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
  const std::unique_ptr<CURLU, UrlDeleter> parsed(curl_url());
  // The library reads up to a NUL byte; what stands behind one would go unchecked.
  const bool parses = parsed && url.find('\0') == std::string::npos &&
                      curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK;
  require(parses, "invalid_url", "Invalid service URL");
  // The library would take the first name of a path for the host that is missing.
  const bool named =
      authority_end(url) > kScheme.size() && url_part(parsed.get(), CURLUPART_HOST) == CURLUE_OK;
  require(named, "invalid_url", "URL must contain a hostname");
  require_plain_parts(parsed.get(), url);
}

[[noreturn]] void refuse_transfer() {
  fail("transport", "Transfers over HTTPS are not part of this version");
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
  initialize_https_once();
  require_service_url(base_url_);
  origin_ = base_url_.substr(0, authority_end(base_url_));
  if (!base_url_.ends_with('/')) base_url_ += '/';
}

std::string HttpsTransport::url(std::string_view path) const {
  validate_relative_path(path, false);
  return base_url_ + quote_url(path, true);
}

TransportResponse HttpsTransport::get(std::string_view, unsigned long long) { refuse_transfer(); }

TransportResponse HttpsTransport::get_component(std::string_view, unsigned long long) {
  refuse_transfer();
}

void HttpsTransport::download(std::string_view, const std::filesystem::path&, unsigned long long,
                              const Progress&) {
  refuse_transfer();
}

}  // namespace tavro
