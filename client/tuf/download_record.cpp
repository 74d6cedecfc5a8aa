#include "tuf/download_record.h"

#include <nlohmann/json.hpp>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"
#include "platform/files/folder_access.h"
#include "platform/files/safe_path.h"
#include "tuf/tuf_state.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char malformed[] = "download_resume_state";
constexpr char not_admitted[] = "download_resume_capacity";
constexpr unsigned max_entries = 4096;
constexpr unsigned max_records = 32;
constexpr std::size_t digest_size = 64;
constexpr std::string_view partial_suffix = ".partial";
constexpr std::string_view record_suffix = ".resume.json";

unsigned long long number(const json& value) { return value.get<unsigned long long>(); }

bool is_unsigned_pair(const json& value) {
  return value.is_array() && value.size() == 2 && value[0].is_number_unsigned() &&
         value[1].is_number_unsigned();
}

bool has_known_form(const json& state, std::string_view temporary) {
  return state.is_object() && state.size() == 9 && state.at("schema_version") == 1 &&
         state.at("kind") == kResumeRecordKind && state.at("target").is_string() &&
         state.at("temporary") == temporary &&
         is_lower_hex_text(state.at("scope_sha256"), digest_size) &&
         is_lower_hex_text(state.at("prefix_sha256"), digest_size) &&
         state.at("received").is_number_unsigned() && is_unsigned_pair(state.at("identity"));
}

bool has_bounds(const json& authorization, const json& received) {
  return authorization.is_object() && authorization.size() == 2 &&
         authorization.at("length").is_number_unsigned() &&
         authorization.at("hashes").is_object() && !authorization.at("hashes").empty() &&
         number(received) <= number(authorization.at("length"));
}

/// The search of one folder.
class Search {
 public:
  Search(const fs::path& directory, const DownloadClaim& claim)
      : directory_(directory), claim_(claim) {}

  std::optional<ResumeCandidate> run() {
    const fs::path final_path = safe_join(directory_, claim_.target, false);
    final_name_ = path_utf8(final_path.filename());
    for (const auto& entry : folder_entries(final_path.parent_path(), max_entries,
                                            "Download directory exceeds its bounded resume scan")) {
      const std::string name = path_utf8(entry.filename());
      if (name.starts_with(final_name_ + '.') && name.ends_with(suffix_)) weigh(name);
    }
    require(best_ || records_ < max_records, not_admitted,
            "Retained partial downloads reached their capacity");
    return std::move(best_);
  }

 private:
  void weigh(std::string_view name) {
    require(++records_ <= max_records, not_admitted,
            "Retained partial downloads reached their capacity");
    const std::string_view nonce = nonce_between(name, final_name_, suffix_);
    require(!nonce.empty(), malformed, "Unknown resume filename was preserved");
    const std::string temporary = partial_name(claim_.target, nonce);
    std::string text =
        read_file(safe_join(directory_, resume_record_name(temporary), false), kResumeRecordBytes);
    ResumeRecord record = ResumeRecord::parse(parse_json(text, kResumeRecordBytes), temporary);
    if (claim_.covers(record) && bears_name(safe_join(directory_, temporary, false)) &&
        (!best_ || best_->record.received < record.received))
      best_ = ResumeCandidate{std::move(record), std::move(text)};
  }

  const fs::path& directory_;
  const DownloadClaim& claim_;
  const std::string suffix_ = resume_record_name(partial_suffix);
  std::string final_name_;
  unsigned records_ = 0;
  std::optional<ResumeCandidate> best_;
};

}  // namespace

ResumeRecord ResumeRecord::parse(const json& state, std::string_view temporary) {
  return read_fields(malformed, "Malformed partial-download state was preserved", [&] {
    require(has_known_form(state, temporary), malformed,
            "Unknown partial-download state was preserved; clear the disposable cache to retry");
    const json& authorization = state.at("authorization");
    require(has_bounds(authorization, state.at("received")), malformed,
            "Invalid partial-download bounds");
    const std::string& target = text_member(state, "target");
    validate_relative_path(target, false);
    require(!nonce_between(temporary, target, partial_suffix).empty(), malformed,
            "Partial-download nonce differs from its path");
    const json& identity = state.at("identity");
    return ResumeRecord{.target = target,
                        .temporary = std::string(temporary),
                        .authorization = {.length = number(authorization.at("length")),
                                          .hashes = authorization.at("hashes")},
                        .scope_sha256 = text_member(state, "scope_sha256"),
                        .device = number(identity.at(0)),
                        .inode = number(identity.at(1)),
                        .received = number(state.at("received")),
                        .prefix_sha256 = text_member(state, "prefix_sha256")};
  });
}

std::string ResumeRecord::text() const {
  const json state = {{"schema_version", 1},
                      {"kind", kResumeRecordKind},
                      {"target", target},
                      {"temporary", temporary},
                      {"authorization", authorization.to_json()},
                      {"scope_sha256", scope_sha256},
                      {"identity", json::array({device, inode})},
                      {"received", received},
                      {"prefix_sha256", prefix_sha256}};
  return state.dump();
}

void validate_target_resume_state(const json& state, std::string_view temporary) {
  ResumeRecord::parse(state, temporary);
}

bool DownloadClaim::covers(const ResumeRecord& record) const {
  return record.target == target && record.authorization == authorization &&
         record.scope_sha256 == scope_sha256;
}

std::string partial_name(std::string_view target, std::string_view nonce) {
  return std::string(target) + '.' + std::string(nonce) + std::string(partial_suffix);
}

std::string resume_record_name(std::string_view temporary) {
  return std::string(temporary) + std::string(record_suffix);
}

std::optional<ResumeCandidate> find_resumable(const fs::path& directory,
                                              const DownloadClaim& claim) {
  return Search(directory, claim).run();
}

}  // namespace tavro
