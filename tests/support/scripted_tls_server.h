#pragma once

#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "domain/deleter.h"
#include "domain/unique_fd.h"
#include "support/testing.h"

namespace tavro {

/// An HTTPS server on a free port of the loopback that says byte for byte what a test wants: one
/// request a connection, then the answer, then the end of the connection.
class ScriptedTlsServer {
 public:
  /// Keeps its self-signed certificate, which is its own bundle, in `folder`. It is good from two
  /// hours before `until` (seconds from now). Its common name is "localhost"; `names` are those it
  /// lists, and may be empty.
  explicit ScriptedTlsServer(const std::filesystem::path& folder,
                             const std::string& names = "DNS:localhost", long until = 3600) {
    // A client that hangs up must not end the test.
    if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR || !listen() || !certify(folder, names, until))
      throw std::runtime_error("no scripted server");
    thread_ = std::thread([this] { serve(); });
  }
  ~ScriptedTlsServer() {
    ::shutdown(listener_.get(), SHUT_RDWR);
    thread_.join();
  }
  ScriptedTlsServer(const ScriptedTlsServer&) = delete;
  ScriptedTlsServer& operator=(const ScriptedTlsServer&) = delete;

  /// All that is sent for each request from now on; then the connection ends, or with `stall` the
  /// server says no more until the client leaves.
  void say(const std::string& answer, bool stall = false) {
    const std::scoped_lock lock(mutex_);
    answer_ = answer;
    stall_ = stall;
  }
  /// The same for requests of a range alone; "" answers them as all others.
  void say_to_ranges(const std::string& answer) {
    const std::scoped_lock lock(mutex_);
    range_answer_ = answer;
  }
  /// What the next requests get, one each, before all others get what `say` said.
  void say_first(std::deque<std::string> answers) {
    const std::scoped_lock lock(mutex_);
    first_answers_ = std::move(answers);
  }
  /// The requests so far, head and body as they came.
  std::vector<std::string> requests() const {
    const std::scoped_lock lock(mutex_);
    return requests_;
  }
  /// Names "localhost", whatever the certificate lists.
  std::string origin() const { return "https://localhost:" + port_; }
  const std::filesystem::path& bundle() const { return bundle_; }

 private:
  using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
  using Certificate = std::unique_ptr<X509, Deleter<X509_free>>;
  using Extension = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;
  using Session = std::unique_ptr<SSL, Deleter<SSL_free>>;

  bool listen() {
    sockaddr_in address{};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_family = AF_INET;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    const bool done = ::bind(listener_.get(), generic, size) == 0 &&
                      ::listen(listener_.get(), 16) == 0 &&
                      ::getsockname(listener_.get(), generic, &size) == 0;
    port_ = std::to_string(ntohs(address.sin_port));
    return done;
  }

  bool certify(const std::filesystem::path& folder, const std::string& names, long until) {
    const Key key(EVP_EC_gen("P-256"));
    const Certificate certificate(X509_new());
    X509* x509 = certificate.get();
    X509_set_version(x509, X509_VERSION_3);
    X509_gmtime_adj(X509_getm_notBefore(x509), until - 7200);
    X509_gmtime_adj(X509_getm_notAfter(x509), until);
    X509_set_pubkey(x509, key.get());
    const Extension extension(
        names.empty() ? nullptr
                      : X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, names.c_str()));
    X509_NAME* name = X509_get_subject_name(x509);
    const auto* text = reinterpret_cast<const unsigned char*>("localhost");
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0);
    X509_set_issuer_name(x509, name);
    bundle_ = folder / (port_ + ".pem");
    std::FILE* file = std::fopen(bundle_.c_str(), "we");
    return (!extension || X509_add_ext(x509, extension.get(), -1) == 1) &&
           X509_sign(x509, key.get(), EVP_sha256()) > 0 && file != nullptr &&
           PEM_write_X509(file, x509) == 1 && std::fclose(file) == 0 &&
           SSL_CTX_use_certificate(context_.get(), x509) == 1 &&
           SSL_CTX_use_PrivateKey(context_.get(), key.get()) == 1;
  }

  /// Head and body of one request; cut short when the client goes away.
  static std::string read_request(SSL* session) {
    std::string request;
    std::size_t wanted = std::string::npos;
    for (char block[4096]; request.size() < wanted;) {
      const int count = SSL_read(session, block, sizeof block);
      if (count <= 0) break;
      request.append(block, static_cast<std::size_t>(count));
      const std::size_t end = request.find("\r\n\r\n"), length = request.find("Content-Length: ");
      if (end == std::string::npos) continue;
      wanted = end + 4 + (length < end ? std::stoul(request.substr(length + 16)) : 0);
    }
    return request;
  }

  void serve() {
    for (;;) {
      const UniqueFd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!connection) return;
      const Session session(SSL_new(context_.get()));
      SSL_set_fd(session.get(), connection.get());
      if (SSL_accept(session.get()) != 1) continue;
      const std::string request = read_request(session.get());
      // A client that refused the certificate leaves without a word.
      if (request.empty()) continue;
      {
        const std::scoped_lock lock(mutex_);
        requests_.push_back(request);
        const bool other = !range_answer_.empty() && request.find("\r\nRange: ") != request.npos;
        std::string answer = other ? range_answer_ : answer_;
        if (!first_answers_.empty()) {
          answer = first_answers_.front();
          first_answers_.pop_front();
        }
        SSL_write(session.get(), answer.data(), static_cast<int>(answer.size()));
      }
      if (stall_) read_request(session.get());
      SSL_shutdown(session.get());
    }
  }

  std::unique_ptr<SSL_CTX, Deleter<SSL_CTX_free>> context_{SSL_CTX_new(TLS_server_method())};
  std::atomic<bool> stall_ = false;
  UniqueFd listener_{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  std::string port_, answer_, range_answer_;
  std::deque<std::string> first_answers_;
  std::filesystem::path bundle_;
  mutable std::mutex mutex_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

}  // namespace tavro
