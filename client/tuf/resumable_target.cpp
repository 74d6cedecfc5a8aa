#include "tuf/resumable_target.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <optional>
#include <system_error>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/host/system_calls.h"
#include "platform/storage/allocated_file.h"
#include "transport/transport.h"
#include "tuf/download_record.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char changed[] = "download_resume_changed";
/// Bytes that may come between two checkpoints.
constexpr unsigned long long checkpoint_bytes = 8ull << 20;

bool can_never_become_the_target(const Error& error) {
  return error.code == "hash_mismatch" || error.code == "length_mismatch" ||
         error.code == "size_limit";
}

/// One run of a resumable download.
class ResumedTarget {
 public:
  ResumedTarget(Transport& transport, const TargetRequest& request)
      : transport_(transport),
        request_(request),
        length_(tavro::length(request.description)),
        claim_{.target = request.target,
               .authorization = {.length = length_, .hashes = request.description.at("hashes")},
               .scope_sha256 = digest(request.options.resume_scope, "sha256")} {}

  void run() {
    if (const auto candidate = find_resumable(request_.directory, claim_))
      go_on_with(*candidate);
    else
      start();
    try {
      fetch();
      verify();
      publish();
    } catch (const Error& error) {
      settle(error);
      throw;
    }
  }

 private:
  void go_on_with(const ResumeCandidate& candidate);
  void start();
  void name_files(std::string temporary);
  void fetch();
  void take(std::string_view bytes);
  void start_over();
  void verify();
  void publish();
  void settle(const Error& error);

  void checkpoint();
  std::string record_text() const;
  void require_last_record(std::string_view message) const;
  void retire() const;

  void observe(std::string_view state) const {
    if (request_.observer) request_.observer(state, request_.description, temporary_);
  }

  Transport& transport_;
  const TargetRequest& request_;
  const unsigned long long length_;
  const DownloadClaim claim_;
  std::string temporary_;
  fs::path partial_, record_;
  std::optional<AllocatedFile> file_;
  /// Has seen exactly the first `received_` bytes of the file.
  DigestState digest_{"sha256"};
  unsigned long long received_ = 0, checkpointed_ = 0;
  /// The newest record that this run wrote or accepted; empty while there is none.
  std::string last_record_;
};

void ResumedTarget::name_files(std::string temporary) {
  temporary_ = std::move(temporary);
  partial_ = safe_join(request_.directory, temporary_, false);
  record_ = safe_join(request_.directory, resume_record_name(temporary_), false);
}

void ResumedTarget::go_on_with(const ResumeCandidate& candidate) {
  const ResumeRecord& record = candidate.record;
  name_files(record.temporary);
  received_ = record.received;
  file_.emplace(FileReservation{.path = partial_,
                                .size = length_,
                                .device = record.device,
                                .inode = record.inode,
                                .allocated = false},
                received_);
  file_->read_prefix(
      received_, [this](std::string_view bytes) { digest_.update(bytes); }, request_.progress);
  require(record.prefix_sha256 == digest_.value(), changed, "Recorded partial bytes changed");
  checkpointed_ = received_;
  last_record_ = candidate.text;
  observe("resumed");
  DownloadAdmission admission = unused_admission(request_.final_path);
  admission.partial = true;
  admission.written = received_;
  admission.allocated = file_->allocated_bytes();
  admission.size = file_->size();
  request_.options.admit(admission);
  file_->reserve_remaining();
}

void ResumedTarget::start() {
  name_files(partial_name(request_.target, random_id()));
  observe("prepared");
  request_.options.admit(unused_admission(request_.final_path));
  file_.emplace(partial_, length_, nullptr);
}

void ResumedTarget::fetch() {
  // A new file gets its record before it gets a byte; from then on it outlives this object.
  checkpoint();
  if (received_ < length_ || length_ == 0)
    transport_.download_into(
        request_.remote, *file_, received_, request_.progress,
        [this](std::string_view bytes) { take(bytes); }, [this] { start_over(); });
  checkpoint();
  require(file_->written() == length_, "length_mismatch",
          "Downloaded target is shorter than its signed length");
}

void ResumedTarget::take(std::string_view bytes) {
  digest_.update(bytes);
  received_ += bytes.size();
  if (received_ - checkpointed_ >= checkpoint_bytes) checkpoint();
}

/// The record must never claim a prefix that the file no longer holds.
void ResumedTarget::start_over() {
  digest_ = DigestState("sha256");
  received_ = checkpointed_ = 0;
  checkpoint();
}

/// The running digest proves the position alone: the verdict comes from what is on disk.
void ResumedTarget::verify() {
  for (const auto& [name, expected] : request_.description.at("hashes").items()) {
    DigestState whole(name);
    file_->read_prefix(
        length_, [&whole](std::string_view bytes) { whole.update(bytes); }, request_.progress);
    require(expected == whole.value(), "hash_mismatch",
            "Target hash does not match signed metadata");
  }
}

void ResumedTarget::publish() {
  file_->finish(true);
  place_target(partial_, request_.final_path);
  retire();
  observe("complete");
}

/// What a failure leaves: nothing, or all that was accepted so far, best effort.
void ResumedTarget::settle(const Error& error) {
  try {
    if (can_never_become_the_target(error)) {
      file_->discard();
      retire();
    } else if (received_ == file_->written() && error.code != "file_sync") {
      // After a failed sync nobody knows what is durable, and a second one would not tell: then
      // the last record stands, as it does when a block was half written.
      checkpoint();
      file_->finish(false);
    }
  } catch (const std::exception&) {
    // The failure that led here is the one to report; what stays is found by the next run.
  }
}

/// Bytes first, then the record that speaks of them.
void ResumedTarget::checkpoint() {
  require(received_ == file_->written(), "download_resume_state",
          "Partial write did not complete a hash checkpoint");
  file_->synchronize();
  std::string text = record_text();
  require(text.size() <= kResumeRecordBytes, "size_limit",
          "Partial-download state exceeds its bound");
  if (last_record_.empty()) {
    atomic_create(record_, text);
  } else {
    require_last_record("Resume marker changed before checkpoint");
    atomic_write(record_, text);
  }
  last_record_ = std::move(text);
  checkpointed_ = received_;
  file_->preserve();
}

std::string ResumedTarget::record_text() const {
  const FileReservation file = file_->reservation();
  return ResumeRecord{.target = claim_.target,
                      .temporary = temporary_,
                      .authorization = claim_.authorization,
                      .scope_sha256 = claim_.scope_sha256,
                      .device = file.device,
                      .inode = file.inode,
                      .received = received_,
                      .prefix_sha256 = digest_.value()}
      .text();
}

void ResumedTarget::require_last_record(std::string_view message) const {
  require(read_file(record_, kResumeRecordBytes) == last_record_, changed, message);
}

void ResumedTarget::retire() const {
  require_last_record("Resume marker changed before retirement");
  native_files::remove_or_trash(record_, record_.parent_path());
  sync_directory(record_.parent_path());
}

}  // namespace

DownloadAdmission unused_admission(const fs::path& final_path) {
  DownloadAdmission admission;
  admission.directory = path_utf8(final_path.parent_path());
  return admission;
}

void place_target(const fs::path& staged, const fs::path& final_path) {
  if (retried([&] { return system_calls().rename(staged.c_str(), final_path.c_str()); }) != 0)
    throw fs::filesystem_error("Cannot put a verified target into place", staged, final_path,
                               std::error_code(errno, std::generic_category()));
  sync_directory(final_path.parent_path());
}

void resume_download(Transport& transport, const TargetRequest& request) {
  ResumedTarget(transport, request).run();
}

}  // namespace tavro
