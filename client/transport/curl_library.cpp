#include "transport/curl_library.h"

#include <dlfcn.h>
#include <openssl/crypto.h>

#include "domain/error.h"

namespace tavro {
namespace {

// The library's own promise: this name changes when a function's meaning does.
constexpr const char* kName = "libcurl.so.4";

template <typename Function>
void find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
  require(function != nullptr, "transport", "Cannot initialize HTTPS library");
}

/// Certificates of its connections are read with this client's functions, so both must use one
/// library of cryptography.
void require_same_cryptography(void* library) {
  decltype(&::OpenSSL_version_num) version = nullptr;
  find(library, "OpenSSL_version_num", version);
  require(version() == ::OpenSSL_version_num(), "transport", "Cannot initialize HTTPS library");
}

CurlLibrary load() {
  void* library = ::dlopen(kName, RTLD_NOW | RTLD_LOCAL);
  require(library != nullptr, "transport", "Cannot initialize HTTPS library");
  CurlLibrary loaded{};
  find(library, "curl_global_init", loaded.global_init);
  find(library, "curl_easy_init", loaded.easy_init);
  find(library, "curl_easy_cleanup", loaded.easy_cleanup);
  find(library, "curl_easy_setopt", loaded.easy_setopt);
  find(library, "curl_easy_perform", loaded.easy_perform);
  find(library, "curl_easy_getinfo", loaded.easy_getinfo);
  find(library, "curl_easy_strerror", loaded.easy_strerror);
  find(library, "curl_slist_append", loaded.slist_append);
  find(library, "curl_slist_free_all", loaded.slist_free_all);
  find(library, "curl_url", loaded.url);
  find(library, "curl_url_cleanup", loaded.url_cleanup);
  find(library, "curl_url_get", loaded.url_get);
  find(library, "curl_url_set", loaded.url_set);
  find(library, "curl_free", loaded.free);
  find(library, "SSL_CTX_set_verify", loaded.ssl_ctx_set_verify);
  require_same_cryptography(library);
  require(loaded.global_init(CURL_GLOBAL_ALL) == CURLE_OK, "transport",
          "Cannot initialize HTTPS library");
  return loaded;
}

}  // namespace

const CurlLibrary& curl() {
  static const CurlLibrary library = load();
  return library;
}

}  // namespace tavro
