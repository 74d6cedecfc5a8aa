#include "crashes/crash_store.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <set>
#include <utility>

#include "distributor/distributor.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/running_files.h"
#include "platform/files/torn_write.h"
#include "platform/host/native_platform.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char state_kind[] = "tavro-crash-state";
constexpr char seen_kind[] = "tavro-crashes-seen";
constexpr std::string_view report_suffix = ".report.json";
constexpr std::string_view state_suffix = ".state.json";
constexpr char seen_name[] = "seen.json";
constexpr std::size_t state_bytes = 4096;
/// A name of 80 and a session of 32 bytes for each of 10000 games.
constexpr std::size_t seen_bytes = 2097152;
constexpr std::size_t max_games = 10000;
constexpr std::size_t folder_entries = 4096;
constexpr std::size_t id_characters = 32;
constexpr std::uint64_t milliseconds = 1000;
constexpr std::array<std::string_view, 4> states = {"kept", "sending", "sent", "discarded"};

CrashState state_of(const std::string& name) {
  const auto* found = std::find(states.begin(), states.end(), name);
  require(found != states.end(), "invalid_state", "The state of the report is unknown");
  return static_cast<CrashState>(found - states.begin());
}

std::vector<std::string> names_in(const fs::path& folder) {
  std::vector<std::string> names;
  if (!stands(folder)) return names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    require(names.size() < folder_entries, "size_limit", "The folder of crash reports is too full");
    names.push_back(path_utf8(entry.path().filename()));
  }
  return names;
}

json document_in(const fs::path& path, std::size_t most, std::string_view kind) {
  try {
    json document = parse_json(read_file(path, most), most);
    require(has_text(document, "kind", kind), "invalid_state", "The file is damaged; remove it");
    require(has_integer(document, "schema_version", 1), "unsupported_schema",
            "The file is a newer launcher's, and stays");
    return document;
  } catch (const Error& error) {
    fail_about(error, path);
  }
}

bool is_settled(const CrashEntry& entry) {
  return entry.state == CrashState::sent || entry.state == CrashState::discarded;
}

bool is_outlived(const CrashEntry& entry, std::uint64_t now) {
  const std::uint64_t since = is_settled(entry) ? entry.changed : entry.happened();
  const std::uint64_t life = is_settled(entry) ? kSettledReportLife : kCrashReportLife;
  return now > since && now - since > life;
}

}  // namespace

std::string_view crash_state_name(CrashState state) {
  return states.at(static_cast<std::size_t>(state));
}

std::uint64_t CrashEntry::happened() const {
  return report ? std::max(report->seen.ended, report->seen.started) / milliseconds : 0;
}

CrashStore::CrashStore(const fs::path& data_root)
    : root_(data_folder(data_root)), folder_(root_ / "crashes") {
  require_complete_native_install(root_);
}

fs::path CrashStore::report_path(std::string_view id) const {
  return folder_ / (std::string(id) + std::string(report_suffix));
}
fs::path CrashStore::state_path(std::string_view id) const {
  return folder_ / (std::string(id) + std::string(state_suffix));
}
fs::path CrashStore::seen_path() const { return folder_ / seen_name; }
fs::path CrashStore::lock_path() const { return folder_ / "crashes.lock"; }

CrashStore::Seen CrashStore::seen() const {
  if (!stands(seen_path())) return {};
  const json document = document_in(seen_path(), seen_bytes, seen_kind);
  return read_fields("invalid_state", "The list of reported starts is damaged",
                     [&] { return document.at("games").get<Seen>(); });
}

std::optional<std::string> CrashStore::keep_locked(const CrashReport& report) const {
  const std::string& id = report.seen.session_id;
  Seen known = seen();
  const auto last = known.find(report.game_id);
  if (last != known.end() && last->second == id) return std::nullopt;
  if (!stands(report_path(id))) {
    make_room(kMaxCrashReports - 1, distributor_clock());
    atomic_write(report_path(id), report.text());
  }
  // Behind the report: whatever cuts this off, the start is reported, and once.
  if (last == known.end() && known.size() >= max_games) known.erase(known.begin());
  known.insert_or_assign(report.game_id, id);
  const json document = {{"schema_version", 1}, {"kind", seen_kind}, {"games", known}};
  atomic_write(seen_path(), document.dump());
  return id;
}

std::optional<std::string> CrashStore::keep(std::string_view game_id,
                                            const GameReport& report) const {
  validate_identifier(game_id);
  if (report.phase != GamePhase::ended || !ended_badly(report.seen)) return std::nullopt;
  const FileLock lock(lock_path(), false, LockMode::exclusive);
  sweep();
  return keep_locked(CrashReport::make(game_id, report.seen, report.session, report.output,
                                       Redaction::of_this_user(root_)));
}

std::vector<std::string> CrashStore::collect(const GameLibrary& library) const {
  std::vector<std::string> made;
  const FileLock lock(lock_path(), false, LockMode::exclusive);
  sweep();
  for (const GameStatus& game : library.list()) {
    if (!game.last_start || game.running || !ended_badly(*game.last_start)) continue;
    const CrashReport report =
        CrashReport::make(game.game_id, *game.last_start, nullptr,
                          library.last_output(game.game_id), Redaction::of_this_user(root_));
    if (auto id = keep_locked(report)) made.push_back(std::move(*id));
  }
  return made;
}

CrashEntry CrashStore::find(std::string_view id) const {
  const bool there = is_lower_hex(id, id_characters) && stands(report_path(id));
  require(there, "crash_not_found",
          [&] { return "There is no such crash report: " + std::string(id); }, {"crashes list"});
  CrashEntry entry;
  entry.id = id;
  try {
    const std::string text = read_file(report_path(id), kMaxCrashReportBytes);
    entry.size = text.size();
    CrashReport report = CrashReport::parse(parse_json(text, kMaxCrashReportBytes));
    require(report.seen.session_id == id, "invalid_state",
            "The crash report is that of another start");
    if (stands(state_path(id))) {
      const json document = document_in(state_path(id), state_bytes, state_kind);
      read_fields("invalid_state", "The state of the crash report is damaged", [&] {
        entry.state = state_of(text_member(document, "state"));
        entry.changed = document.at("changed").get<std::uint64_t>();
        entry.consent_version = text_member(document, "consent_version");
      });
    }
    entry.report = std::move(report);
  } catch (const Error& error) {
    entry.problem = error.what();
  }
  return entry;
}

std::vector<CrashEntry> CrashStore::list() const {
  std::vector<CrashEntry> entries;
  for (const std::string& name : names_in(folder_))
    if (name.ends_with(report_suffix) &&
        is_lower_hex(name.substr(0, name.find('.')), id_characters))
      entries.push_back(find(name.substr(0, id_characters)));
  std::sort(entries.begin(), entries.end(), [](const CrashEntry& left, const CrashEntry& right) {
    return std::pair(right.happened(), left.id) < std::pair(left.happened(), right.id);
  });
  return entries;
}

std::string CrashStore::bytes(std::string_view id) const {
  const CrashEntry entry = find(id);
  require(entry.report.has_value(), "invalid_state", [&] {
    return "The crash report cannot be read: " + entry.problem + ": " + path_utf8(report_path(id));
  });
  return read_file(report_path(id), kMaxCrashReportBytes);
}

void CrashStore::change(CrashEntry entry, CrashState state) const {
  entry.state = state;
  entry.changed = distributor_clock();
  const json document = {{"schema_version", 1},
                         {"kind", state_kind},
                         {"state", crash_state_name(entry.state)},
                         {"changed", entry.changed},
                         {"consent_version", entry.consent_version}};
  atomic_write(state_path(entry.id), document.dump());
}

void CrashStore::discard(std::string_view id) const {
  const FileLock lock(lock_path(), false, LockMode::exclusive);
  sweep();
  const CrashEntry entry = find(id);
  if (entry.state == CrashState::discarded) return;
  require(entry.report && entry.state != CrashState::sent, "crash_state",
          "Only a report that was not sent can be put aside; delete it instead");
  change(entry, CrashState::discarded);
}

void CrashStore::restore(std::string_view id) const {
  const FileLock lock(lock_path(), false, LockMode::exclusive);
  sweep();
  const CrashEntry entry = find(id);
  if (entry.report && entry.state == CrashState::kept) return;
  require(entry.report && entry.state == CrashState::discarded, "crash_state",
          "Only a report that was put aside can be restored");
  change(entry, CrashState::kept);
}

void CrashStore::remove(std::string_view id) const {
  const FileLock lock(lock_path(), false, LockMode::exclusive);
  sweep();
  static_cast<void>(find(id));
  erase(id);
}

void CrashStore::erase(std::string_view id) const {
  // The report first: a state without one is swept.
  native_files::remove_or_trash(report_path(id), {});
  sync_directory(folder_);
  native_files::remove_or_trash(state_path(id), {});
}

std::size_t CrashStore::make_room(std::size_t most, std::uint64_t now) const {
  std::vector<CrashEntry> entries = list();
  std::erase_if(entries, [](const CrashEntry& entry) { return !entry.report; });
  // What waits has the room before what is settled, and the newest before the oldest.
  std::stable_partition(entries.begin(), entries.end(),
                        [](const CrashEntry& entry) { return !is_settled(entry); });
  std::size_t kept = 0;
  for (const CrashEntry& entry : entries) {
    const bool stays = kept < most && !is_outlived(entry, now);
    if (stays)
      ++kept;
    else
      erase(entry.id);
  }
  return entries.size() - kept;
}

std::size_t CrashStore::cleanup(std::uint64_t now) const {
  const FileLock lock(lock_path(), false, LockMode::exclusive);
  sweep();
  return make_room(kMaxCrashReports, now);
}

/// Under the lock nobody writes: each temporary file is a dead one's, and a state without a report
/// belongs to a removal that was cut off.
void CrashStore::sweep() const {
  for (const std::string& name : names_in(folder_)) {
    const std::string id = name.substr(0, name.find('.'));
    const std::string report = id + std::string(report_suffix);
    const std::string state = id + std::string(state_suffix);
    if (name.ends_with(".tmp")) torn_write::remove_leftovers(folder_, {report, state, seen_name});
    if (name == state && is_lower_hex(id, id_characters) && !stands(report_path(id)))
      native_files::remove_or_trash(folder_ / name, {});
  }
}

}  // namespace tavro
