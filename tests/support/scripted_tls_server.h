#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace tavro {

/// The certificate of a `ScriptedTlsServer`: self-signed, so that it is its own bundle.
struct TlsCertificate {
  std::string host = "localhost";
  /// Seconds from now.
  long not_before = -3600;
  long not_after = 3600;
};

/// An HTTPS server on a free port of the loopback that says byte for byte what a test wants: one
/// request a connection, then the answer, then the end of the connection.
class ScriptedTlsServer {
 public:
  /// Gets the request, head and body as they came, and returns all that is sent. Runs on the
  /// server's thread, one request at a time.
  using Answer = std::function<std::string(const std::string& request)>;

  /// Keeps its certificate as "PORT.pem" in `folder`.
  ScriptedTlsServer(const std::filesystem::path& folder, Answer answer,
                    const TlsCertificate& certificate = {});
  ScriptedTlsServer(const ScriptedTlsServer&) = delete;
  ScriptedTlsServer& operator=(const ScriptedTlsServer&) = delete;
  ~ScriptedTlsServer();

  /// "https://localhost:PORT", whatever host the certificate names.
  std::string origin() const;
  std::filesystem::path bundle() const;
  /// The requests so far.
  std::vector<std::string> requests() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tavro
