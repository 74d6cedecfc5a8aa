#include "system/installer_program.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

namespace tavro {
namespace {

constexpr std::size_t output_bytes = 1 << 20;

}  // namespace

std::filesystem::path program(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

std::string Ending::code() const {
  const json line = json::parse(output, nullptr, false);
  return line.is_object() && line.contains("problem") ? line["problem"].value("code", "") : "";
}

Started::Started(const fs::path& scratch, const fs::path& image,
                 const std::vector<std::string>& arguments,
                 const Launched::Environment& environment)
    : output_(scratch / ("out-" + random_id())),
      errors_(scratch / ("err-" + random_id())),
      process_([&] {
        dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
        dup2(open(output_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), 1);
        dup2(open(errors_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), 2);
        clearenv();
        setenv("HOME", scratch.c_str(), 1);
        setenv("PATH", "/usr/bin:/bin", 1);
        setenv("XDG_DATA_HOME", (scratch / "share").c_str(), 1);
        setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
        return Launched::become(image, environment, arguments);
      }) {}

void Started::send(int signal) const { kill(process_.id(), signal); }

bool Started::wait_stopped() const {
  siginfo_t event{};
  waitid(P_PID, static_cast<id_t>(process_.id()), &event, WEXITED | WSTOPPED | WNOWAIT);
  return event.si_code == CLD_STOPPED;
}

Ending Started::wait() {
  const int status = process_.status();
  return {status, read_file(output_, output_bytes), read_file(errors_, output_bytes)};
}

InstallerWorld::InstallerWorld(const SealedPackageOptions& options)
    : package(folder.path(), options), seal(package.seal), root(folder.path() / "data") {}

Started InstallerWorld::start(const std::vector<std::string>& arguments,
                              const std::map<std::string, std::string>& environment) {
  auto variables = environment;
  variables["TAVRO_TEST_SEAL"] = seal;
  return Started(folder.path(), program("tavro-install-sealed-at-start"), arguments, variables);
}

Ending InstallerWorld::run(std::vector<std::string> arguments,
                           const std::map<std::string, std::string>& environment) {
  arguments.insert(arguments.end(), {"--json", "--data-dir", root.string()});
  return start(arguments, environment).wait();
}

json InstallerWorld::status() { return json::parse(run({"status"}).output); }

std::map<std::string, std::string> InstallerWorld::struck(int signal, long call) const {
  return {{"LD_PRELOAD", program("libsignal_at_call.so")},
          {"TAVRO_TEST_SIGNAL", std::to_string(signal)},
          {"TAVRO_TEST_CALL", std::to_string(call)},
          {"TAVRO_TEST_COUNT", folder.path() / "calls"}};
}

long InstallerWorld::calls() const { return std::stol(read_file(folder.path() / "calls", 20)); }

}  // namespace tavro
