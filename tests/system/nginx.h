#pragma once

#include <csignal>
#include <stdexcept>

#include "support/launched.h"
#include "system/installer_program.h"

namespace tavro {

/// A real web server over TLS on a free port of the loopback, for as long as the object lives.
/// What a folder shows may change meanwhile.
class Nginx {
 public:
  /// Keeps certificates and logs in the new folder `work`; `directive` goes into the server block.
  Nginx(const fs::path& work, const fs::path& served, const std::string& directive = {})
      : bundle_(work / "ca.pem"),
        server_(program("tavro-serve"), {}, {}, {work, served, directive}),
        origin_(server_.line()) {
    if (!origin_.starts_with("https://")) throw std::runtime_error("cannot start nginx");
  }
  ~Nginx() { ::kill(server_.id(), SIGTERM), server_.status(); }

  const std::string& origin() const { return origin_; }
  /// The authority that signed the server's certificate.
  const fs::path& bundle() const { return bundle_; }

 private:
  fs::path bundle_;
  Launched server_;
  std::string origin_;
};

}  // namespace tavro
