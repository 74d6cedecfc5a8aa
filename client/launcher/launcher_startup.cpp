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
constexpr std::size_t reason_bytes = 512;

/// As far as a path needs it.
LauncherAttempt named_attempt(const json& attempt) {
  return read_fields("launcher_state", "Launcher startup identity is invalid", [&] {
    return LauncherAttempt{text_member(attempt, "nonce"), {}, {}};
  });
}

const std::string& proved_nonce(const LauncherAttempt& attempt) {
  nonce_identity(attempt.nonce);
  return attempt.nonce;
}

bool is_problem_code(std::string_view problem) {
  return !problem.empty() && problem.size() <= problem_bytes &&
         std::all_of(problem.begin(), problem.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
         });
}

/// The exclusive lease proves that nobody lives on the attempt any more.
std::unique_ptr<FileLock> dead_attempt(const LauncherStore& store, const LauncherAttempt& attempt) {
  try {
    return store.attempt_lease(attempt, LockMode::exclusive);
  } catch (const Error& error) {
    if (error.code != "busy") throw;
  }
  fail("launcher_running",
       "The unfinished launcher is still using its startup attempt; close it before restarting",
       {"self status"});
}

/// A sentence as the record keeps it: bounded, and UTF-8 whatever a path in it was.
std::string kept_sentence(std::string_view sentence) {
  const json text = std::string(sentence.substr(0, reason_bytes));
  return json::parse(text.dump(-1, ' ', false, json::error_handler_t::replace));
}

void close_failed(LauncherRecord& record, std::string_view problem, const StartupCause& cause) {
  LauncherFailure failure;
  failure.reference = record.attempt->reference;
  failure.problem = problem;
  failure.code = cause.code;
  failure.reason = kept_sentence(cause.sentence);
  record.failed_candidate = std::move(failure);
  record.attempt.reset();
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

fs::path LauncherStore::startup_lease_path(const LauncherAttempt& attempt) const {
  return child("leases/attempts/" + proved_nonce(attempt) + ".lock");
}

fs::path LauncherStore::startup_lease_path(const json& attempt) const {
  return startup_lease_path(named_attempt(attempt));
}

std::unique_ptr<FileLock> LauncherStore::attempt_lease(const LauncherAttempt& attempt,
                                                       LockMode mode) const {
  return lock(startup_lease_path(attempt), mode);
}

fs::path LauncherStore::startup_ack_path(const LauncherAttempt& attempt) const {
  return child("leases/attempts/" + proved_nonce(attempt) + ".json");
}

fs::path LauncherStore::startup_ack_path(const json& attempt) const {
  return startup_ack_path(named_attempt(attempt));
}

fs::path LauncherStore::health_path(const LauncherAttempt& attempt) const {
  return child("health/" + proved_nonce(attempt) + ".json");
}

fs::path LauncherStore::health_path(const json& attempt) const {
  return health_path(named_attempt(attempt));
}

std::map<std::string, std::string> LauncherStore::health_environment(
    const LauncherAttempt& attempt, std::string_view interface) const {
  interface_shape(interface);
  return {{launcher_nonce_environment, proved_nonce(attempt)},
          {launcher_manifest_environment, attempt.reference.manifest_sha256},
          {launcher_build_environment, attempt.reference.build_id},
          {launcher_interface_environment, std::string(interface)},
          {launcher_root_environment, path_utf8(root_)}};
}

std::map<std::string, std::string> LauncherStore::health_environment(
    const json& attempt, std::string_view interface) const {
  interface_shape(interface);
  proved_nonce(named_attempt(attempt));
  return health_environment(LauncherAttempt::parse(attempt), interface);
}

LauncherRecord LauncherStore::record_with(const json& attempt) const {
  auto now = record();
  require(now.attempt && now.attempt->to_json() == attempt, "launcher_state",
          "Launcher startup ownership changed");
  return now;
}

void LauncherStore::recover_attempt() {
  auto now = record();
  if (!now.attempt) return;
  const auto lease = dead_attempt(*this, *now.attempt);
  close_failed(now, "startup_interrupted", {});
  save(now);
}

std::optional<LauncherAttempt> LauncherStore::begin_attempt() {
  auto now = record();
  require(!now.attempt, "busy", "Another launcher startup needs recovery");
  if (!now.candidate) return std::nullopt;
  now.attempt = LauncherAttempt{random_id(), *now.candidate, {}};
  now.candidate.reset();
  // Nothing may start before this is on disk: a crash must not lose track of the try.
  save(now);
  return now.attempt;
}

json LauncherStore::begin_candidate() {
  const auto attempt = begin_attempt();
  return attempt ? attempt->to_json() : json();
}

void LauncherStore::confirm_candidate(const LauncherAttempt& attempt, const json& health,
                                      unsigned long long pid, std::string_view interface) {
  confirm_candidate(attempt.to_json(), health, pid, interface);
}

void LauncherStore::confirm_candidate(const json& attempt, const json& health,
                                      unsigned long long pid, std::string_view interface) {
  interface_shape(interface);
  require(pid != 0, "launcher_health", "Startup PID is invalid");
  auto now = record_with(attempt);
  const auto reference = now.attempt->reference;
  const auto proved = manifest(reference);
  require(
      proved.matches_startup_health(health, attempt, pid, interface, interface == "cli"),
      "launcher_health",
      "Launcher health does not match its build, process, mode, interrupt contract and attempt");
  require_acknowledgement(startup_ack_path(*now.attempt),
                          lease_document(proved, attempt, pid, interface));
  verify_snapshot_tree(proved, payload(reference));
  now.rollback = std::move(now.active);
  now.active = reference;
  now.attempt.reset();
  now.failed_candidate.reset();
  save(now);
}

void LauncherStore::reject_candidate(const LauncherAttempt& attempt, std::string_view problem,
                                     const StartupCause& cause) {
  require(is_problem_code(problem), "launcher_state", "Launcher startup problem code is invalid");
  auto now = record_with(attempt.to_json());
  close_failed(now, problem, cause);
  save(now);
}

void LauncherStore::reject_candidate(const json& attempt, std::string_view problem) {
  require(is_problem_code(problem), "launcher_state", "Launcher startup problem code is invalid");
  const auto now = record_with(attempt);
  reject_candidate(*now.attempt, problem);
}

}  // namespace tavro
