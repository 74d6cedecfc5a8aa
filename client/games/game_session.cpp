#include "games/game_session.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "documents/sdk_session.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "games/game_history.h"
#include "games/game_output.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/files/private_storage.h"
#include "platform/files/safe_path.h"
#include "platform/process/child_process.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds observing_period{50};
constexpr char record_name[] = "record.json";

/// The active build under its lease: what was read before the lease was had may have changed until
/// then, so it is read again under it.
struct Leased {
  GameVersion version;
  std::unique_ptr<FileLock> lease;
};

Leased lease_active(const GameStore& store) {
  for (;;) {
    const GameVersion version = *store.installed().active;
    auto lease = store.lease(version, LockMode::shared);
    if (lease->matches_path(store.paths().lease(version.version)) &&
        store.installed().active == version)
      return {version, std::move(lease)};
  }
}

fs::path proved_program(const GameManifest& manifest, const fs::path& folder) {
  const auto place = posix_files::node_at(folder);
  require(place && S_ISDIR(place->st_mode), "unsafe_path",
          [&] { return "The folder of the game is missing or a link: " + path_utf8(folder); });
  const fs::path program = safe_join(folder, manifest.executable, true);
  const PackageFile& declared = manifest.files.at(manifest.executable);
  const auto node = posix_files::node_at(program);
  const bool right = node && S_ISREG(node->st_mode) &&
                     static_cast<std::uint64_t>(node->st_size) == declared.length &&
                     digest_file(program, "sha256") == declared.sha256;
  require(right, "content_mismatch", "The game's program is missing or changed; repair the game");
  return program;
}

std::uint64_t now_in_milliseconds() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<milliseconds>(now).count());
}

GameOutcome outcome_of(const GameStartSeen& seen, bool sdk_required, bool signalled, bool goodbye) {
  if (sdk_required && !seen.ready_seen) return GameOutcome::never_ready;
  if (signalled) return GameOutcome::killed;
  if (seen.status != 0 || (sdk_required && !goodbye)) return GameOutcome::exited;
  return GameOutcome::clean;
}

}  // namespace

struct GameSession::Impl {
  GamePaths paths;
  Leased leased;
  std::string id;
  std::string nonce;
  fs::path folder;
  bool sdk_required = false;
  std::optional<GameOutput> output;
  std::optional<ChildProcess> child;
  GameReport report;
  std::string last_text;
  unsigned long long sequence = 0;
  bool goodbye = false;

  explicit Impl(const GameStore& store)
      : paths(store.paths()),
        leased(lease_active(store)),
        id(random_id()),
        nonce(random_id()),
        folder(paths.sessions / id) {}

  std::map<std::string, std::string> environment() const {
    const auto text = [](std::string_view name) { return std::string(name); };
    return {{text(kGameIdVariable), paths.game_id},
            {text(kGameBuildVariable), leased.version.build_id},
            {text(kGameSavesVariable), path_utf8(paths.saves)},
            {text(kGameStateVariable), path_utf8(paths.state)},
            {text(kGameSessionVariable), path_utf8(folder / record_name)},
            {text(kGameSessionIdVariable), id},
            {text(kGameNonceVariable), nonce}};
  }

  void start(const GameManifest& manifest, const std::vector<std::string>& arguments) {
    sdk_required = manifest.sdk_required;
    const fs::path version = paths.version(leased.version.version);
    const fs::path program = proved_program(manifest, version);
    for (const fs::path& place : {paths.saves, paths.state, folder}) private_directory(place);
    output.emplace(game_output_path(folder));
    report.seen.session_id = id;
    report.seen.build_id = leased.version.build_id;
    report.seen.started = now_in_milliseconds();
    // Before any code of the game runs, so that no start goes unseen.
    const auto note = [&](unsigned long long) { store_game_start(folder, report.seen); };
    // The game holds the lease too, as its input: a file that is always empty.
    child.emplace(program, arguments, version, environment(), ChildStreams::output_to_errors,
                  ChildEnvironment::whole, note, ChildGroup::own, ChildControl::none,
                  std::vector<long>(), output->descriptor(), leased.lease->descriptor());
  }

  void read_session() {
    const fs::path path = folder / record_name;
    if (!bears_name(path)) return;
    try {
      std::string text = read_file(path, kMaxSdkRecordText);
      if (text == last_text) return;
      const SessionBinding binding{id, nonce, paths.game_id, leased.version.build_id, child->pid()};
      json record = validate_sdk_record(parse_json(text, kMaxSdkRecordText), binding, sequence);
      sequence = record.at("sequence").get<unsigned long long>();
      report.seen.ready_seen = report.seen.ready_seen || record.at("ready_seen").get<bool>();
      goodbye = record.at("state") == "clean_exit";
      report.session = std::move(record);
      report.session_problem.clear();
      last_text = std::move(text);
    } catch (const Error& error) {
      // The game's word does not count; the game goes on.
      report.session_problem = error.what();
    }
  }

  void observe() {
    if (report.phase == GamePhase::ended) return;
    const auto status = child->poll();
    // After the end: what the game wrote last is on disk by then.
    read_session();
    output->trim();
    if (report.seen.ready_seen) report.phase = GamePhase::ready;
    if (status) end(*status);
  }

  /// Again after a failure, as on a full disk: how the game ended is stored before anything else.
  void end(int status) {
    if (report.seen.ended == 0) {
      report.seen.status = status;
      report.seen.ended = now_in_milliseconds();
      report.seen.outcome =
          outcome_of(report.seen, sdk_required, child->ended_by_signal(), goodbye);
      report.output = output->end();
    }
    store_game_end(folder, report.seen);
    output->shorten_to(report.output);
    report.phase = GamePhase::ended;
    leased.lease.reset();
  }
};

GameSession::GameSession(const GameStore& store, const std::vector<std::string>& arguments)
    : impl_(new Impl(store)) {
  try {
    impl_->start(store.manifest(impl_->leased.version), arguments);
  } catch (...) {
    remove_path_quietly(impl_->folder);
    throw;
  }
}

GameSession::GameSession(GameSession&&) noexcept = default;
GameSession& GameSession::operator=(GameSession&&) noexcept = default;
GameSession::~GameSession() = default;

const std::string& GameSession::id() const noexcept { return impl_->id; }
unsigned long long GameSession::pid() const noexcept { return impl_->child->pid(); }

const GameReport& GameSession::observe() {
  impl_->observe();
  return impl_->report;
}

const GameReport& GameSession::wait(const std::function<bool()>& stop) {
  while (observe().phase != GamePhase::ended && !(stop && stop()))
    std::this_thread::sleep_for(observing_period);
  return impl_->report;
}

bool GameSession::terminate(milliseconds grace) { return impl_->child->terminate(grace); }

}  // namespace tavro
