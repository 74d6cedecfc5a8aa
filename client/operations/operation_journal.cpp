#include "operations/operation_journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/files/safe_path.h"
#include "platform/files/torn_write.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr milliseconds asking_period{100};
constexpr milliseconds writing_period{500};
constexpr std::size_t id_characters = 32;
constexpr std::size_t max_entries = 4096;
constexpr std::uint64_t milliseconds_a_second = 1000;
constexpr std::size_t max_message = 4096;
constexpr std::string_view journal_lock = "journal.lock";

std::uint64_t milliseconds_now() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<milliseconds>(now).count());
}

fs::path with_suffix(const fs::path& folder, std::string_view id, std::string_view suffix) {
  return folder / (std::string(id) + std::string(suffix));
}

void remove_file(const fs::path& path) {
  retried([&] { return system_calls().unlinkat(AT_FDCWD, path.c_str(), 0); });
}

/// The text as JSON takes it, and no longer than an entry has room for.
std::string bounded_text(std::string_view text) {
  const std::string cut(text.substr(0, max_message));
  const std::string quoted = json(cut).dump(-1, ' ', false, json::error_handler_t::replace);
  return json::parse(quoted).get<std::string>();
}

void require_request(const std::vector<std::string>& request) {
  require(!request.empty() && request.size() <= kOperationWords, "size_limit",
          "An operation has too many words for the journal");
  for (const std::string& word : request)
    require(word.size() <= kOperationWordBytes, "size_limit",
            "A word of an operation is too long for the journal");
}

}  // namespace

Operation::Operation(const fs::path& folder, OperationRecord record)
    : path_(with_suffix(folder, record.id, ".json")),
      cancel_path_(with_suffix(folder, record.id, ".cancel")),
      record_(std::move(record)),
      lock_(with_suffix(folder, record_.id, ".lock"), false, LockMode::exclusive) {
  atomic_write(path_, record_.to_json().dump());
}

bool Operation::cancel_asked() {
  const auto now = Clock::now();
  if (cancelled_ || now - asked_at_ < asking_period) return cancelled_;
  asked_at_ = now;
  cancelled_ = bears_name(cancel_path_);
  return cancelled_;
}

bool Operation::report(std::string_view phase, std::uint64_t done, std::uint64_t total) {
  record_.done = done;
  record_.total = total;
  const bool new_phase = record_.phase != phase;
  if (new_phase) record_.phase = phase;
  const auto now = Clock::now();
  if (new_phase || now - written_at_ >= writing_period) {
    written_at_ = now;
    try {
      replace_private_file(path_, record_.to_json().dump());
    } catch (const Error&) {
      // Only others see less of it.
    }
  }
  return !cancel_asked();
}

void Operation::end(OperationState state) {
  record_.state = state;
  record_.ended = milliseconds_now();
  atomic_write(path_, record_.to_json().dump());
  remove_file(cancel_path_);
}

void Operation::succeed(json result) {
  record_.result = std::move(result);
  constexpr std::size_t most = kOperationBytes / 2;
  // What is too long for the journal was told to whoever asked for it.
  if (!record_.result.is_object() ||
      record_.result.dump(-1, ' ', false, json::error_handler_t::replace).size() > most)
    record_.result = nullptr;
  end(OperationState::succeeded);
}

void Operation::fail_with(const std::exception& failure) {
  const auto* error = dynamic_cast<const Error*>(&failure);
  record_.problem_code = error == nullptr ? "unexpected" : error->code;
  record_.problem_message = bounded_text(failure.what());
  end(record_.problem_code == "cancelled" ? OperationState::cancelled : OperationState::failed);
}

OperationJournal::OperationJournal(const fs::path& data_root)
    : folder_(data_folder(data_root) / "operations") {}

Operation OperationJournal::begin(std::vector<std::string> request, std::string retry_of,
                                  std::size_t most) const {
  require_request(request);
  // Counting and beginning are one step.
  const FileLock lock(folder_ / journal_lock, true, LockMode::exclusive);
  auto operations = list();
  const auto ended = std::partition(operations.begin(), operations.end(), [](const auto& each) {
    return each.state == OperationState::running;
  });
  require(static_cast<std::size_t>(ended - operations.begin()) < most, "too_many_operations",
          "As many operations run as the settings allow");
  const std::uint64_t now = milliseconds_now();
  prune({ended, operations.end()}, now);
  OperationRecord record;
  record.id = random_id();
  record.request = std::move(request);
  record.retry_of = std::move(retry_of);
  record.pid = static_cast<unsigned long long>(::getpid());
  record.started = now;
  return {folder_, std::move(record)};
}

std::vector<std::string> OperationJournal::ids() const {
  std::vector<std::string> found;
  std::error_code ignored;
  std::size_t entries = 0;
  for (const auto& entry : fs::directory_iterator(folder_, ignored)) {
    require(++entries <= max_entries, "size_limit",
            [&] { return "The folder holds too many files: " + path_utf8(folder_); });
    const std::string name = path_utf8(entry.path().filename());
    const std::string id = name.substr(0, name.find('.'));
    if (is_lower_hex(id, id_characters) && name == id + ".json") found.push_back(id);
  }
  return found;
}

bool OperationJournal::is_held(std::string_view id) const {
  const fs::path path = with_suffix(folder_, id, ".lock");
  if (!bears_name(path)) return false;
  try {
    const FileLock mine(path, false, LockMode::shared);
    return false;
  } catch (const Error& error) {
    if (error.code != "busy") throw;
    return true;
  }
}

OperationRecord OperationJournal::read(std::string_view id) const {
  const std::string text = read_file(with_suffix(folder_, id, ".json"), kOperationBytes);
  return OperationRecord::parse(parse_json(text, kOperationBytes), id);
}

OperationRecord OperationJournal::find(std::string_view id) const {
  require_operation_id(id);
  require(bears_name(with_suffix(folder_, id, ".json")), "not_found",
          [&] { return "There is no operation " + std::string(id) + " in the journal"; });
  OperationRecord record = read(id);
  if (record.state != OperationState::running || is_held(id)) return record;
  // It may have ended between the two looks.
  record = read(id);
  if (record.state == OperationState::running) record.state = OperationState::interrupted;
  return record;
}

std::vector<OperationRecord> OperationJournal::list() const {
  std::vector<OperationRecord> operations;
  for (const std::string& id : ids()) {
    try {
      operations.push_back(find(id));
    } catch (const Error&) {
      // Gone meanwhile, damaged, or of another version: it stays, and is not told of.
    }
  }
  std::sort(operations.begin(), operations.end(), [](const auto& left, const auto& right) {
    return std::pair(left.started, left.id) > std::pair(right.started, right.id);
  });
  return operations;
}

bool OperationJournal::cancel(std::string_view id) const {
  if (find(id).state != OperationState::running) return false;
  atomic_write(with_suffix(folder_, id, ".cancel"), "{}");
  return true;
}

void OperationJournal::remove(std::string_view id) const {
  // The entry goes first: files without one are strays, which the next sweep takes.
  for (const char* suffix : {".json", ".cancel", ".lock"})
    remove_file(with_suffix(folder_, id, suffix));
}

void OperationJournal::prune(const std::vector<OperationRecord>& ended, std::uint64_t now) const {
  std::vector<OperationRecord> newest_first = ended;
  std::sort(newest_first.begin(), newest_first.end(),
            [](const auto& left, const auto& right) { return left.started > right.started; });
  for (std::size_t i = 0; i < newest_first.size(); ++i) {
    const OperationRecord& each = newest_first[i];
    const bool old = each.started + kKeptOperationSeconds * milliseconds_a_second < now;
    if (i >= kKeptOperations - 1 || old) remove(each.id);
  }
  sweep_strays();
}

/// Progress is not synced: a power cut can leave an entry that says nothing.
bool OperationJournal::is_damaged(std::string_view id) const {
  try {
    static_cast<void>(read(id));
    return false;
  } catch (const Error& error) {
    return error.code == "invalid_json" || error.code == "invalid_state";
  }
}

/// What a kill left: unfinished writes, damaged entries, and files of operations without an entry.
void OperationJournal::sweep_strays() const {
  const auto known = ids();
  std::vector<fs::path> strays;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder_, ignored)) {
    const std::string name = path_utf8(entry.path().filename());
    const std::string id = name.substr(0, name.find('.'));
    if (!is_lower_hex(id, id_characters) || is_held(id)) continue;
    const bool lost = std::find(known.begin(), known.end(), id) == known.end() &&
                      (name == id + ".lock" || name == id + ".cancel");
    if (lost || (name == id + ".json" && is_damaged(id)) ||
        torn_write::is_temporary_name(name, id + ".json") ||
        torn_write::is_temporary_name(name, id + ".cancel"))
      strays.push_back(entry.path());
  }
  for (const fs::path& path : strays) remove_file(path);
}

}  // namespace tavro
