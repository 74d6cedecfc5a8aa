#include "launcher/launcher_startup.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "domain/product_name.h"
#include "installation/data_folder.h"
#include "launcher/launcher_record.h"
#include "launcher/launcher_store.h"
#include "platform/archives/snapshot.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t problem_bytes = 80;

std::string attempt_nonce(const json& attempt) {
  return read_fields("launcher_state", "Launcher startup identity is invalid", [&] {
    auto nonce = attempt.at("nonce").get<std::string>();
    nonce_identity(nonce);
    return nonce;
  });
}

bool is_problem_code(std::string_view problem) {
  return !problem.empty() && problem.size() <= problem_bytes &&
         std::all_of(problem.begin(), problem.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
         });
}

/// The exclusive lease proves that nobody lives on the attempt any more.
FileLock dead_attempt(const fs::path& lease) {
  try {
    return {lease, false, LockMode::exclusive};
  } catch (const Error& error) {
    if (error.code != "busy") throw;
  }
  fail("launcher_running",
       "The unfinished launcher is still using its startup attempt; close it before restarting",
       {"self status"});
}

void close_failed(json& record, std::string_view problem) {
  record["failed_candidate"] = {{"reference", record.at("attempt").at("reference")},
                                {"problem", problem}};
  record["attempt"] = nullptr;
}

/// The launcher holds the leases itself, so that the bootstrap may let go of its own.
void require_acknowledgement(const fs::path& path, const json& expected) {
  require(stands(path), "launcher_lease",
          "Launcher startup did not acknowledge native content ownership");
  const auto text = read_file(path, launcher_proof_bytes);
  require(parse_json(text, launcher_proof_bytes) == expected, "launcher_lease",
          "Launcher lease acknowledgement does not match its build, process, mode and attempt");
}

}  // namespace

std::map<std::string, std::string> cleared_startup_environment() {
  std::map<std::string, std::string> environment;
  for (const char* name : launcher_startup_variables) environment.emplace(name, "");
  return environment;
}

fs::path LauncherStore::startup_lease_path(const json& attempt) const {
  return child("leases/attempts/" + attempt_nonce(attempt) + ".lock");
}

fs::path LauncherStore::startup_ack_path(const json& attempt) const {
  return child("leases/attempts/" + attempt_nonce(attempt) + ".json");
}

fs::path LauncherStore::health_path(const json& attempt) const {
  return child("health/" + attempt_nonce(attempt) + ".json");
}

std::map<std::string, std::string> LauncherStore::health_environment(
    const json& attempt, std::string_view interface) const {
  interface_shape(interface);
  auto nonce = attempt_nonce(attempt);
  const auto& reference = attempt.at("reference");
  return {{launcher_nonce_environment, std::move(nonce)},
          {launcher_manifest_environment, reference.at("manifest_sha256")},
          {launcher_build_environment, reference.at("build_id")},
          {launcher_interface_environment, std::string(interface)},
          {launcher_root_environment, path_utf8(root_)}};
}

json LauncherStore::load_open(const json& attempt) const {
  auto record = load();
  const auto& open = record.at("attempt");
  require(!open.is_null() && open == attempt, "launcher_state",
          "Launcher startup ownership changed");
  return record;
}

void LauncherStore::recover_attempt() {
  auto record = load();
  const auto& attempt = record.at("attempt");
  if (attempt.is_null()) return;
  const auto lease = dead_attempt(startup_lease_path(attempt));
  close_failed(record, "startup_interrupted");
  save(std::move(record));
}

json LauncherStore::begin_candidate() {
  auto record = load();
  require(record.at("attempt").is_null(), "busy", "Another launcher startup needs recovery");
  if (record.at("candidate").is_null()) return nullptr;
  json attempt = {{"nonce", random_id()}, {"reference", record.at("candidate")}};
  record["candidate"] = nullptr;
  record["attempt"] = attempt;
  // Nothing may start before this is on disk: a crash must not lose track of the try.
  save(std::move(record));
  return attempt;
}

void LauncherStore::confirm_candidate(const json& attempt, const json& health,
                                      unsigned long long pid, std::string_view interface) {
  interface_shape(interface);
  require(pid != 0, "launcher_health", "Startup PID is invalid");
  auto record = load_open(attempt);
  const auto& reference = attempt.at("reference");
  const auto proved = manifest(reference);
  require(
      proved.matches_startup_health(health, attempt, pid, interface, interface == "cli"),
      "launcher_health",
      "Launcher health does not match its build, process, mode, interrupt contract and attempt");
  require_acknowledgement(startup_ack_path(attempt),
                          lease_document(proved, attempt, pid, interface));
  verify_snapshot_tree(proved, payload(reference));
  record["rollback"] = record.at("active");
  record["active"] = reference;
  record["attempt"] = nullptr;
  record["failed_candidate"] = nullptr;
  save(std::move(record));
}

void LauncherStore::reject_candidate(const json& attempt, std::string_view problem) {
  require(is_problem_code(problem), "launcher_state", "Launcher startup problem code is invalid");
  auto record = load_open(attempt);
  close_failed(record, problem);
  save(std::move(record));
}

}  // namespace tavro
