#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace tavro {

/// A real web server over TLS on a free port of the loopback, for as long as the object lives.
/// What a folder shows may change meanwhile.
class Nginx {
 public:
  /// `mode` is --http2, --http1 or --plain (no TLS). Keeps certificates and logs in the new folder
  /// `work`; `directives` go into the server block.
  Nginx(const std::filesystem::path& work, const std::filesystem::path& served,
        const std::string& mode = "--http2", const std::vector<std::string>& directives = {});
  Nginx(const Nginx&) = delete;
  ~Nginx();

  /// https:// and "localhost", whatever the mode.
  const std::string& origin() const { return origin_; }
  /// The authority that signed the server's certificate.
  std::filesystem::path bundle() const { return work_ / "ca.pem"; }

 private:
  std::filesystem::path work_;
  std::string origin_;
  pid_t pid_ = -1;
};

}  // namespace tavro
