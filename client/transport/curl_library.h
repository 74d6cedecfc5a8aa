#pragma once

#include <curl/curl.h>
#include <openssl/ssl.h>

#include <memory>

namespace tavro {

/// The functions of the HTTP library, which is loaded when the first of them is wanted: with all
/// that it brings it costs more than everything else of a command that never leaves the machine.
/// Inside this floor only.
struct CurlLibrary {
  decltype(&::curl_global_init) global_init;
  decltype(&::curl_easy_init) easy_init;
  decltype(&::curl_easy_cleanup) easy_cleanup;
  decltype(&::curl_easy_setopt) easy_setopt;
  decltype(&::curl_easy_perform) easy_perform;
  decltype(&::curl_easy_getinfo) easy_getinfo;
  decltype(&::curl_easy_strerror) easy_strerror;
  decltype(&::curl_slist_append) slist_append;
  decltype(&::curl_slist_free_all) slist_free_all;
  decltype(&::curl_url) url;
  decltype(&::curl_url_cleanup) url_cleanup;
  decltype(&::curl_url_get) url_get;
  decltype(&::curl_url_set) url_set;
  decltype(&::curl_free) free;
  /// Of the TLS library that it uses.
  decltype(&::SSL_CTX_set_verify) ssl_ctx_set_verify;
};

/// The loaded and initialised library; it stays for the life of the process. Safe from several
/// threads. Throws `transport`, again at each call while it cannot be had.
const CurlLibrary& curl();

struct CurlDeleter {
  void operator()(CURL* easy) const noexcept { curl().easy_cleanup(easy); }
  void operator()(CURLU* url) const noexcept { curl().url_cleanup(url); }
  void operator()(curl_slist* list) const noexcept { curl().slist_free_all(list); }
};

}  // namespace tavro
