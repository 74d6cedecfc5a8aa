#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "crashes/crash_report.h"
#include "distributor/agreement_decisions.h"
#include "documents/crash_service.h"
#include "domain/progress.h"
#include "games/game_library.h"

namespace tavro {

/// Reports that are kept at most, and for how long, in seconds: 90 days one that waits, 7 days one
/// that was sent or put aside.
inline constexpr std::size_t kMaxCrashReports = 32;
inline constexpr std::uint64_t kCrashReportLife = 7776000;
inline constexpr std::uint64_t kSettledReportLife = 604800;

enum class CrashState {
  /// Waits for the player.
  kept,
  /// Was on its way when it was cut off: to be sent again.
  sending,
  sent,
  /// Put aside by the player; never sent.
  discarded,
};

std::string_view crash_state_name(CrashState state);

/// What is known of one kept report.
struct CrashEntry {
  std::string id;
  CrashState state = CrashState::kept;
  /// Seconds since 1970: since when it is in that state; 0 when it never was in another one.
  std::uint64_t changed = 0;
  /// To which version of the consent it was sent; empty otherwise.
  std::string consent_version;
  /// Nothing for a report that cannot be read; it stays, and `problem` says why.
  std::optional<CrashReport> report;
  std::string problem;
  /// Bytes that would be sent.
  std::uint64_t size = 0;

  /// Seconds since 1970: when the game ended, or started where nobody saw its end.
  std::uint64_t happened() const;
};

/// What the player says to a sending.
struct CrashConsent {
  std::string version;
  AgeGiven age = AgeGiven::no;
};

/// The crash reports of a data folder, below `crashes`: of each the bytes that would be sent, which
/// never change, and beside them how far it has come. One change at a time: `busy`. Every change is
/// one durable step; what a crash left of one is taken away by the next. Holds nothing open.
///
/// Where an identifier is taken, all throw `crash_not_found`.
class CrashStore {
 public:
  /// Touches nothing. Throws `unsafe_path` and `native_install_incomplete`.
  explicit CrashStore(const std::filesystem::path& data_root);

  /// Keeps a report of a start that has ended badly, and answers its identifier; nothing for one
  /// that ended well, or that was reported before, whatever became of the report. The oldest one
  /// makes room.
  std::optional<std::string> keep(std::string_view game_id, const GameReport& report) const;
  /// The same for the last start of each game, as far as nobody watched it to its end: without
  /// breadcrumbs. A game that runs, or that cannot be read, is passed over.
  std::vector<std::string> collect(const GameLibrary& library) const;

  /// The newest first.
  std::vector<CrashEntry> list() const;
  CrashEntry find(std::string_view id) const;
  /// Every byte that would be sent. Throws `invalid_state` for a report that cannot be read.
  std::string bytes(std::string_view id) const;

  /// Puts a report aside that was not sent, and back. Throws `crash_state` for another one.
  void discard(std::string_view id) const;
  void restore(std::string_view id) const;
  /// Removes the report for good; its start is not reported again.
  void remove(std::string_view id) const;
  /// Removes what is too old or too much, and answers how many reports. What cannot be read stays.
  std::size_t cleanup(std::uint64_t now) const;

  /// Sends the report to the service, and answers whether this call did: false when it was sent
  /// before. A sending that was cut off is begun again by the next call; the service takes a report
  /// once, by its identifier and digest. `ca_bundle` is empty for the system's certificates.
  ///
  /// Throws, before anything is written or sent: `crash_state` for a report that was put aside,
  /// `crash_consent` unless the consent is to the version that the service asks for, `age_required`
  /// where the age has to be given and was not. Then `crash_refused` when the service does not want
  /// it, `http_status` when it cannot take it now, `crash_answer` for an answer that says nothing,
  /// and what the transport throws.
  bool send(std::string_view id, const CrashService& service, const CrashConsent& consent,
            const std::filesystem::path& ca_bundle, const Progress& progress) const;

 private:
  using Seen = std::map<std::string, std::string, std::less<>>;

  std::filesystem::path report_path(std::string_view id) const;
  std::filesystem::path state_path(std::string_view id) const;
  std::filesystem::path seen_path() const;
  std::filesystem::path lock_path() const;

  std::optional<std::string> keep_locked(const CrashReport& report) const;
  void change(CrashEntry entry, CrashState state) const;
  void erase(std::string_view id) const;
  std::size_t make_room(std::size_t most, std::uint64_t now) const;
  void sweep() const;
  Seen seen() const;

  std::filesystem::path root_;
  std::filesystem::path folder_;
};

}  // namespace tavro
