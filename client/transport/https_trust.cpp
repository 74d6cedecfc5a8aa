#include "transport/https_trust.h"

#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string>

#include "domain/deleter.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/host/host.h"
#include "transport/curl_library.h"

namespace tavro {
namespace {

constexpr unsigned long long kMaxCaBundle = 1048576;

using Names = std::unique_ptr<GENERAL_NAMES, Deleter<GENERAL_NAMES_free>>;

template <typename Value>
bool accepts(CURL* easy, CURLoption option, Value value) {
  return curl().easy_setopt(easy, option, value) == CURLE_OK;
}

void trust_system(CURL* easy) {
  const std::string bundle = host::certificate_bundle();
  const bool found = !host::needs_certificate_bundle() ||
                     (!bundle.empty() && accepts(easy, CURLOPT_CAINFO, bundle.c_str()));
  const bool chosen = found && accepts(easy, CURLOPT_SSL_OPTIONS, long{CURLSSLOPT_NATIVE_CA});
  require(chosen, "ca_bundle", "Cannot use the operating system's certificate trust");
}

void trust_bundle(CURL* easy, const std::filesystem::path& path) {
  std::string bytes = read_file(path, kMaxCaBundle);
  require(!bytes.empty(), "ca_bundle", "The configured CA bundle is empty");
  curl_blob blob{bytes.data(), bytes.size(), CURL_BLOB_COPY};
  require(accepts(easy, CURLOPT_CAINFO_BLOB, &blob), "ca_bundle",
          "The native HTTPS backend cannot use the configured CA bundle");
  require(accepts(easy, CURLOPT_SSL_OPTIONS, 0L), "ca_bundle",
          "Cannot restrict certificate trust to the configured CA bundle");
}

/// Whether the certificate lists any name or address of a host. The HTTP library compares them;
/// only where there is none would it fall back on the common name.
bool lists_hosts(const X509* certificate) {
  const Names names(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const int type = sk_GENERAL_NAME_value(names.get(), i)->type;
    if (type == GEN_DNS || type == GEN_IPADD) return true;
  }
  return false;
}

/// Called for each certificate of a chain, of which the server's own is the first; `proved` is what
/// was found so far.
int verify_certificate(int proved, X509_STORE_CTX* chain) {
  if (proved != 1 || X509_STORE_CTX_get_error_depth(chain) != 0) return proved;
  if (lists_hosts(X509_STORE_CTX_get_current_cert(chain))) return 1;
  X509_STORE_CTX_set_error(chain, X509_V_ERR_HOSTNAME_MISMATCH);
  return 0;
}

CURLcode check_certificates(CURL*, void* context, void*) {
  curl().ssl_ctx_set_verify(static_cast<SSL_CTX*>(context), SSL_VERIFY_PEER, verify_certificate);
  return CURLE_OK;
}

}  // namespace

void set_trust(CURL* easy, const std::filesystem::path& ca_bundle) {
  const char* none = nullptr;
  require(accepts(easy, CURLOPT_CAINFO, none) && accepts(easy, CURLOPT_CAPATH, none), "ca_bundle",
          "Cannot select the certificate trust source");
  if (ca_bundle.empty())
    trust_system(easy);
  else
    trust_bundle(easy, ca_bundle);
  require(accepts(easy, CURLOPT_SSL_CTX_FUNCTION, check_certificates), "transport",
          "Cannot enforce the service connection boundary");
}

}  // namespace tavro
