#pragma once

#include <sys/types.h>

#include <cstdio>

#include "launcher/launcher_store.h"
#include "support/testing.h"

namespace tavro {

/// A process whose output and errors are read line by line. It is killed with the object.
class Launched {
 public:
  using Environment = std::map<std::string, std::string>;

  /// `steps` is what an ill-behaved launcher is told; `environment` comes on top of this process's.
  Launched(const std::filesystem::path& image, const std::string& steps,
           const Environment& environment, const std::vector<std::string>& arguments = {});
  /// Becomes the program, with these variables on top of this process's; -1 when it cannot.
  static int become(const std::filesystem::path& image, const Environment& environment,
                    const std::vector<std::string>& arguments);
  /// A copy of this process that ends with what `body` returns.
  explicit Launched(const std::function<int()>& body);
  ~Launched();
  Launched(const Launched&) = delete;

  /// Waits for the next line; empty once nobody writes any more.
  std::string line();
  /// Everything up to the end of all who write.
  std::string rest();
  /// Waits for the end: the exit status, or 128 and the number of the signal.
  int status();
  /// Kills it, if it still lives, and waits for its end.
  void end();
  pid_t id() const { return id_; }
  unsigned long long pid() const { return static_cast<unsigned long long>(id_); }

 private:
  pid_t id_ = 0;
  std::FILE* output_ = nullptr;
};

/// Makes a version that consists of ill-behaved launchers wait in the store, as an update does, and
/// returns its reference. Its package is put together in a new folder in `scratch`.
json stage_version(const LauncherStore& store, const std::filesystem::path& scratch,
                   const std::string& build);

}  // namespace tavro
