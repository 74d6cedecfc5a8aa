#include "download/download_receipt.h"

#include "documents/launcher_contract.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"
#include "platform/host/native_platform.h"

namespace tavro {
namespace {

constexpr char uncertain[] = "launcher_download_uncertain";
constexpr std::size_t nonce_size = 32;
constexpr std::size_t digest_size = 64;
constexpr unsigned long long max_descriptor_bytes = 524288;
constexpr unsigned long long max_target_bytes = 1073741824;
constexpr std::string_view prepared = "prepared";
constexpr std::string_view complete = "complete";

bool is_phase(const json& phase) { return phase == prepared || phase == complete; }

bool has_known_form(const json& receipt) {
  return receipt.is_object() && receipt.size() == 8 && has_integer(receipt, "schema_version", 1) &&
         has_text(receipt, "kind", kLauncherDownload) &&
         is_lower_hex_text(receipt.at("nonce"), nonce_size) && receipt.at("target").is_string() &&
         receipt.at("temporary").is_string() && is_phase(receipt.at("phase")) &&
         receipt.contains("authorization") && receipt.contains("reference");
}

bool has_known_bounds(const json& authorization, unsigned long long max_bytes) {
  return authorization.is_object() && authorization.size() == 2 &&
         authorization.at("length").is_number_unsigned() &&
         authorization.at("length").get<unsigned long long>() <= max_bytes &&
         authorization.at("hashes").is_object() && !authorization.at("hashes").empty() &&
         authorization.at("hashes").size() <= 2;
}

bool is_known_hash(const std::string& algorithm, const json& value) {
  return (algorithm == "sha256" && is_lower_hex_text(value, digest_size)) ||
         (algorithm == "sha512" && is_lower_hex_text(value, 2 * digest_size));
}

bool names_release(const json& reference) {
  return reference.is_object() && reference.size() == 2 &&
         is_lower_hex_text(reference.at("manifest_sha256"), digest_size) &&
         reference.contains("build_id");
}

void check_reference(const json& receipt, bool of_descriptor) {
  const json& reference = receipt.at("reference");
  if (of_descriptor) {
    require(reference.is_null(), uncertain,
            "Descriptor download must not invent an installed reference");
    return;
  }
  require(names_release(reference) && receipt.at("authorization").at("hashes").contains("sha256"),
          uncertain, "Archive download has no known manifest identity");
  validate_identifier(text_member(reference, "build_id"));
}

void check_receipt(const json& receipt) {
  require(has_known_form(receipt), uncertain, "Unknown target download receipt was preserved");
  const auto& target = text_member(receipt, "target");
  const auto& temporary = text_member(receipt, "temporary");
  validate_relative_path(target, true);
  validate_relative_path(temporary, true);
  require(temporary == partial_name(target, text_member(receipt, "nonce")), uncertain,
          "Download temporary path differs from its owned nonce");
  const bool of_descriptor = is_launcher_descriptor_target(target);
  const json& authorization = receipt.at("authorization");
  require(has_known_bounds(authorization, of_descriptor ? max_descriptor_bytes : max_target_bytes),
          uncertain, "Download authorization exceeds its known bounds");
  for (const auto& [algorithm, value] : authorization.at("hashes").items())
    require(is_known_hash(algorithm, value), uncertain,
            "Unknown download hash contract was preserved");
  check_reference(receipt, of_descriptor);
  require(receipt.dump().size() <= kDownloadReceiptBytes, "size_limit",
          "Download receipt exceeds its bounded format");
}

std::optional<DownloadRelease> release_of(const json& reference) {
  if (reference.is_null()) return std::nullopt;
  return DownloadRelease{.build_id = text_member(reference, "build_id"),
                         .manifest_sha256 = text_member(reference, "manifest_sha256")};
}

}  // namespace

DownloadReceipt DownloadReceipt::parse(const json& receipt) {
  return read_fields(uncertain, "Malformed target download receipt was preserved", [&] {
    check_receipt(receipt);
    const json& authorization = receipt.at("authorization");
    return DownloadReceipt{
        .nonce = text_member(receipt, "nonce"),
        .target = text_member(receipt, "target"),
        .temporary = text_member(receipt, "temporary"),
        .phase = receipt.at("phase") == complete ? Phase::complete : Phase::prepared,
        .authorization = {.length = authorization.at("length").get<unsigned long long>(),
                          .hashes = authorization.at("hashes")},
        .release = release_of(receipt.at("reference"))};
  });
}

json DownloadReceipt::to_json() const {
  return {{"schema_version", 1},
          {"kind", kLauncherDownload},
          {"nonce", nonce},
          {"target", target},
          {"temporary", temporary},
          {"phase", phase == Phase::complete ? complete : prepared},
          {"authorization", authorization.to_json()},
          {"reference", release ? release->to_json() : json()}};
}

DownloadReceipt DownloadReceipt::in_phase(Phase other) const {
  DownloadReceipt receipt = *this;
  receipt.phase = other;
  return receipt;
}

bool DownloadReceipt::same_claim(const DownloadReceipt& other) const {
  return target == other.target && authorization == other.authorization && release == other.release;
}

void validate_target_download_receipt(const json& receipt) { DownloadReceipt::parse(receipt); }

std::string download_receipt_path(std::string_view nonce) {
  return "download-intents/" + std::string(nonce) + ".json";
}

bool is_launcher_descriptor_target(std::string_view target) {
  return target == launcher_manifest_target(native_platform());
}

}  // namespace tavro
