#include "tuf/download_record.h"

#include <nlohmann/json.hpp>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"
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

bool is_unsigned_pair(const json& value) {
  return value.is_array() && value.size() == 2 && value[0].is_number_unsigned() &&
         value[1].is_number_unsigned();
}

bool has_known_form(const json& state, std::string_view temporary) {
  return state.is_object() && state.size() == 9 && state.at("schema_version") == 1 &&
         state.at("kind") == "tavro-target-resume" && state.at("target").is_string() &&
         state.at("temporary") == temporary &&
         is_lower_hex_text(state.at("scope_sha256"), digest_size) &&
         is_lower_hex_text(state.at("prefix_sha256"), digest_size) &&
         state.at("received").is_number_unsigned() && is_unsigned_pair(state.at("identity"));
}

bool has_bounds(const json& authorization, const json& received) {
  return authorization.is_object() && authorization.size() == 2 &&
         authorization.at("length").is_number_unsigned() &&
         authorization.at("hashes").is_object() && !authorization.at("hashes").empty() &&
         received.get<unsigned long long>() <= authorization.at("length").get<unsigned long long>();
}

/// The search of one folder.
class Search {
 public:
  Search(const fs::path& directory, const DownloadClaim& claim)
      : directory_(directory), claim_(claim) {}

  std::optional<ResumeCandidate> run() {
    const fs::path final_path = safe_join(directory_, claim_.target, false);
    final_name_ = path_utf8(final_path.filename());
    unsigned entries = 0;
    for (const auto& entry : fs::directory_iterator(final_path.parent_path())) {
      require(++entries <= max_entries, "size_limit",
              "Download directory exceeds its bounded resume scan");
      const std::string name = path_utf8(entry.path().filename());
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
    ResumeCandidate found{
        .temporary = partial_name(claim_.target, nonce), .text = {}, .record = {}};
    const fs::path record = safe_join(directory_, resume_record_name(found.temporary), false);
    found.text = read_file(record, kResumeRecordBytes);
    found.record = parse_json(found.text, kResumeRecordBytes);
    validate_target_resume_state(found.record, found.temporary);
    if (belongs(found.record) && bears_name(safe_join(directory_, found.temporary, false)) &&
        (!best_ || received(*best_) < received(found)))
      best_ = std::move(found);
  }

  bool belongs(const json& record) const {
    return record.at("target") == claim_.target &&
           record.at("authorization") == claim_.authorization &&
           record.at("scope_sha256") == claim_.scope_sha256;
  }

  static unsigned long long received(const ResumeCandidate& candidate) {
    return candidate.record.at("received").get<unsigned long long>();
  }

  const fs::path& directory_;
  const DownloadClaim& claim_;
  const std::string suffix_ = resume_record_name(partial_suffix);
  std::string final_name_;
  unsigned records_ = 0;
  std::optional<ResumeCandidate> best_;
};

}  // namespace

void validate_target_resume_state(const json& state, std::string_view temporary) {
  read_fields(malformed, "Malformed partial-download state was preserved", [&] {
    require(has_known_form(state, temporary), malformed,
            "Unknown partial-download state was preserved; clear the disposable cache to retry");
    require(has_bounds(state.at("authorization"), state.at("received")), malformed,
            "Invalid partial-download bounds");
    const auto& target = state.at("target").get_ref<const std::string&>();
    validate_relative_path(target, false);
    require(!nonce_between(temporary, target, partial_suffix).empty(), malformed,
            "Partial-download nonce differs from its path");
  });
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
