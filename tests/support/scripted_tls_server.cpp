#include "support/scripted_tls_server.h"

#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <utility>

#include "domain/deleter.h"
#include "domain/unique_fd.h"

namespace tavro {
namespace {

using Context = std::unique_ptr<SSL_CTX, Deleter<SSL_CTX_free>>;
using Session = std::unique_ptr<SSL, Deleter<SSL_free>>;
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;

void must(bool done, const char* what) {
  if (!done) throw std::runtime_error(what);
}

Certificate self_signed(EVP_PKEY* key, const TlsCertificate& wanted) {
  Certificate certificate(X509_new());
  X509* x509 = certificate.get();
  X509_set_version(x509, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(x509), 1);
  X509_gmtime_adj(X509_getm_notBefore(x509), wanted.not_before);
  X509_gmtime_adj(X509_getm_notAfter(x509), wanted.not_after);
  X509_NAME* name = X509_get_subject_name(x509);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(wanted.host.c_str()), -1, -1,
                             0);
  X509_set_issuer_name(x509, name);
  X509_set_pubkey(x509, key);
  const Extension names(
      X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, ("DNS:" + wanted.host).c_str()));
  must(X509_add_ext(x509, names.get(), -1) == 1 && X509_sign(x509, key, EVP_sha256()) > 0,
       "certificate");
  return certificate;
}

/// Head and body of one request; cut short when the client goes away.
std::string read_request(SSL* session) {
  std::string request;
  std::size_t wanted = std::string::npos;
  char block[4096];
  while (request.size() < wanted) {
    const int count = SSL_read(session, block, sizeof block);
    if (count <= 0) break;
    request.append(block, static_cast<std::size_t>(count));
    const std::size_t end = request.find("\r\n\r\n");
    if (end == std::string::npos) continue;
    const std::size_t length = request.find("Content-Length: ");
    wanted = end + 4 + (length < end ? std::stoul(request.substr(length + 16)) : 0);
  }
  return request;
}

}  // namespace

struct ScriptedTlsServer::Impl {
  Answer answer;
  Context context{SSL_CTX_new(TLS_server_method())};
  UniqueFd listener{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  int port = 0;
  std::filesystem::path bundle{};
  mutable std::mutex mutex{};
  std::vector<std::string> requests{};
  std::thread thread{};

  void listen() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    must(::bind(listener.get(), generic, size) == 0 && ::listen(listener.get(), 16) == 0 &&
             ::getsockname(listener.get(), generic, &size) == 0,
         "listen");
    port = ntohs(address.sin_port);
  }

  void use(const std::filesystem::path& folder, const TlsCertificate& wanted) {
    const Key key(EVP_EC_gen("P-256"));
    const Certificate certificate = self_signed(key.get(), wanted);
    must(SSL_CTX_use_certificate(context.get(), certificate.get()) == 1 &&
             SSL_CTX_use_PrivateKey(context.get(), key.get()) == 1,
         "certificate");
    bundle = folder / (std::to_string(port) + ".pem");
    std::FILE* file = std::fopen(bundle.c_str(), "we");
    must(file != nullptr && PEM_write_X509(file, certificate.get()) == 1 && std::fclose(file) == 0,
         "bundle");
  }

  void serve() {
    for (;;) {
      const UniqueFd connection(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!connection) return;
      const Session session(SSL_new(context.get()));
      SSL_set_fd(session.get(), connection.get());
      if (SSL_accept(session.get()) != 1) continue;
      const std::string request = read_request(session.get());
      // A client that refused the certificate leaves without a word.
      if (request.empty()) continue;
      {
        const std::scoped_lock lock(mutex);
        requests.push_back(request);
      }
      const std::string bytes = answer(request);
      if (!bytes.empty()) SSL_write(session.get(), bytes.data(), static_cast<int>(bytes.size()));
      SSL_shutdown(session.get());
    }
  }
};

ScriptedTlsServer::ScriptedTlsServer(const std::filesystem::path& folder, Answer answer,
                                     const TlsCertificate& certificate)
    : impl_(new Impl{.answer = std::move(answer)}) {
  // A client that hangs up must not end the test program.
  std::ignore = std::signal(SIGPIPE, SIG_IGN);
  impl_->listen();
  impl_->use(folder, certificate);
  impl_->thread = std::thread([this] { impl_->serve(); });
}

ScriptedTlsServer::~ScriptedTlsServer() {
  ::shutdown(impl_->listener.get(), SHUT_RDWR);
  impl_->thread.join();
}

std::string ScriptedTlsServer::origin() const {
  return "https://localhost:" + std::to_string(impl_->port);
}

std::filesystem::path ScriptedTlsServer::bundle() const { return impl_->bundle; }

std::vector<std::string> ScriptedTlsServer::requests() const {
  const std::scoped_lock lock(impl_->mutex);
  return impl_->requests;
}

}  // namespace tavro
