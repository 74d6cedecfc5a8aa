#include "updates.h"

#include <nlohmann/json.hpp>

#include <iostream>

#include "cleanup/launcher_cleanup.h"
#include "domain/error.h"
#include "download/repository_client.h"
#include "launcher/launcher_store.h"
#include "self_update/bootstrap_staging.h"
#include "transport/https.h"

namespace example {
namespace {

using namespace tavro;

// A release is refused by its signed size long before this; the bound is for the whole check.
constexpr unsigned long long check_bytes = 256ULL << 20;
constexpr std::chrono::seconds check_time{20};

std::string text(const json& object, const char* key) { return object.at(key).get<std::string>(); }

std::string launcher_sentence(const json& launcher) {
  if (launcher.value("staged", false))
    return "Launcher " + text(launcher, "build_id") + " is tried at the next start.";
  return "Launcher " + text(launcher, "build_id") + " is the newest.";
}

std::string bootstrap_sentence(const json& bootstrap) {
  const auto status = text(bootstrap, "status");
  if (status == "staged") return " Bootstrap " + text(bootstrap, "build_id") + " is ready.";
  if (status == "pending") return " A bootstrap waits for the next start.";
  if (status == "rejected")
    return " Bootstrap " + text(bootstrap, "build_id") +
           " did not start on this machine before, and is left out.";
  return {};
}

}  // namespace

json update(const std::filesystem::path& root, const Stop& stop) {
  RepositoryClient repository(root);
  const Progress progress = [&](auto...) { return !stop(); };
  const StagingPhase phase = [](std::string_view name, bool) { std::cerr << name << "\n"; };
  const json launcher = LauncherStore(root).stage(repository.tuf(), progress, phase, false);
  const auto bootstrap = stage_bootstrap_update(root, repository.tuf(), progress);
  return {{"schema_version", 1},
          {"launcher", launcher},
          {"bootstrap",
           {{"staged", bootstrap.staged},
            {"status", bootstrap.status},
            {"build_id", bootstrap.build_id}}}};
}

std::string update_sentence(const json& result) {
  return launcher_sentence(result.at("launcher")) + bootstrap_sentence(result.at("bootstrap"));
}

std::string check_for_update(const std::filesystem::path& root) {
  try {
    const auto budget = std::make_shared<HttpsBudget>();
    budget->deadline = std::chrono::steady_clock::now() + check_time;
    budget->limit = check_bytes;
    RepositoryClient repository(root, budget);
    const json result = LauncherStore(root).stage(repository.tuf(), {}, {}, true);
    if (result.at("staged")) return launcher_sentence(result);
    if (result.value("skipped", "") == "cleanup_pending")
      return "An update waits for the end of a cleanup; run self cleanup.";
    return {};
  } catch (const std::exception& failure) {
    // The launcher runs all the same; what keeps it from updates is not kept from the player.
    return std::string("The check for updates did not end: ") + failure.what();
  }
}

json clean_up(const std::filesystem::path& root, const Stop& stop) {
  return clean_launcher_store(root, CleanupMode::perform, stop).to_json();
}

std::string cleanup_sentence(const json& report) {
  std::string sentence = "Removed " + std::to_string(report.at("removed").size()) + " leftovers, " +
                         report.at("freed_bytes").dump() + " bytes.";
  for (const json& rest : report.at("kept"))
    sentence += "\nKept " + text(rest, "path") + ": " + text(rest, "reason") + ".";
  return sentence;
}

}  // namespace example
