#pragma once

#include <sys/types.h>

#include "support/launched.h"
#include "support/sealed_package.h"

namespace tavro {

/// Where the programs of this build lie: beside the test program.
std::filesystem::path program(const std::string& name);

/// How a program ended: its exit status, or 128 and its signal's number as a shell says it.
struct Ending {
  int status = 0;
  std::string output;
  std::string errors;

  /// The code of the problem line, or empty.
  std::string code() const;
};

/// A process with its own user folders, whose output goes to files in `scratch`.
class Started {
 public:
  Started(const fs::path& scratch, const fs::path& image, const std::vector<std::string>& arguments,
          const Launched::Environment& environment);

  void send(int signal) const;
  /// True once the process has stopped at a signal, false when it has ended instead.
  bool wait_stopped() const;
  Ending wait();

 private:
  fs::path output_, errors_;
  Launched process_;
};

/// One data folder, a sealed package, and the installer that was built for it.
class InstallerWorld {
 public:
  explicit InstallerWorld(const SealedPackageOptions& options = {});

  Started start(const std::vector<std::string>& arguments,
                const std::map<std::string, std::string>& environment = {});
  /// Runs the command with --json and --data-dir.
  Ending run(std::vector<std::string> arguments,
             const std::map<std::string, std::string>& environment = {});
  Ending install() { return run({"install", "--package", package.folder}); }
  Ending repair() { return run({"repair", "--package", package.folder}); }
  json status();
  /// The environment in which the program gets `signal` at its `call`th call.
  std::map<std::string, std::string> struck(int signal, long call) const;
  /// The calls of the last struck program that ended by itself.
  long calls() const;

  TempFolder folder;
  SealedPackage package;
  std::string seal;
  std::filesystem::path root;
};

}  // namespace tavro
