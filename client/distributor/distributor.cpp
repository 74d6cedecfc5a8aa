#include "distributor/distributor.h"

#include <chrono>
#include <utility>
#include <vector>

#include "documents/presentation.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "platform/files/torn_write.h"
#include "platform/host/native_platform.h"
#include "tuf/metadata.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr char kept_kind[] = "tavro-kept-document";
/// Around a kept document.
constexpr std::size_t kept_overhead = 4096;
constexpr char incoming[] = "incoming";
constexpr char lock_name[] = "service.lock";

/// Where a document is kept: one file that holds it with the time, so that no crash parts them.
template <typename Document>
fs::path kept_path(const fs::path& folder) {
  const std::string_view target = Document::kTarget;
  return folder / target.substr(target.rfind('/') + 1);
}

fs::path kept_text_path(const fs::path& folder, const Agreement& agreement) {
  return folder / "texts" / (agreement.id + ".txt");
}

std::string proved_text(std::string text, const Agreement& agreement) {
  const bool right =
      text.size() == agreement.text_length && digest(text, "sha256") == agreement.text_sha256;
  require(right, "content_mismatch", "The text of the agreement is not the one that it names");
  require(!has_control_characters(text, LineBreaks::allowed), "invalid_service_document",
          "The text of the agreement contains control characters");
  return text;
}

}  // namespace

std::uint64_t distributor_clock() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(now).count());
}

bool is_out_of_reach(const std::string& code) {
  return code == "network" || code == "http_status" || code == "discovery_timeout" ||
         code == "discovery_budget";
}

Distributor::Distributor(const fs::path& data_root) : folder_(data_folder(data_root) / "service") {
  require_complete_native_install(folder_.parent_path());
}

/// The bytes of a target; nothing when the repository has none. The caller holds the lock.
std::optional<std::string> Distributor::fetch_bytes(const std::string& target, std::size_t most,
                                                    TufClient& tuf) const {
  const std::optional<json> description = tuf.find_target(target);
  if (!description) return std::nullopt;
  require(length(*description) <= most, "size_limit",
          [&] { return "The repository's file is too large: " + target; });
  const fs::path place = folder_ / incoming;
  // What a run that was killed left there is of no use: these files are small.
  remove_plain_tree(place);
  private_directory(place);
  const fs::path file = tuf.download(target, place, {}, {}, {});
  std::string bytes = read_file(file, most);
  remove_plain_tree(place);
  return bytes;
}

template <typename Document>
Told<Document> Distributor::fetch(TufClient& tuf) const {
  private_directory(folder_);
  const FileLock lock(folder_ / lock_name, false, LockMode::exclusive);
  const fs::path path = kept_path<Document>(folder_);
  torn_write::remove_leftovers(folder_, {path_utf8(path.filename())});
  const auto bytes = fetch_bytes(std::string(Document::kTarget), Document::kMaxBytes, tuf);
  Told<Document> told{.fetched = distributor_clock()};
  json document;
  if (bytes) {
    document = parse_json(*bytes, Document::kMaxBytes);
    // Proved before it takes the place of an older one.
    told.document = Document::parse(document);
  }
  const json kept = {{"schema_version", 1},
                     {"kind", kept_kind},
                     {"fetched", told.fetched},
                     {"document", std::move(document)}};
  atomic_write(path, kept.dump());
  return told;
}

template <typename Document>
std::optional<Told<Document>> Distributor::cached() const {
  const fs::path path = kept_path<Document>(folder_);
  if (!stands(path)) return std::nullopt;
  // A dump may be longer than the text was: it escapes control characters in members nobody knows.
  constexpr std::size_t most = 6 * Document::kMaxBytes + kept_overhead;
  const json kept = parse_json(read_file(path, most), most);
  const auto damaged = [&] { return "The file is damaged; ask online: " + path_utf8(path); };
  require(has_integer(kept, "schema_version", 1) && has_text(kept, "kind", kept_kind) &&
              kept.contains("document") && kept.contains("fetched") &&
              kept.at("fetched").is_number_unsigned(),
          "invalid_state", damaged);
  Told<Document> told{.fetched = kept.at("fetched").get<std::uint64_t>(), .is_cached = true};
  if (!kept.at("document").is_null()) told.document = Document::parse(kept.at("document"));
  return told;
}

template <typename Document>
std::optional<Told<Document>> Distributor::known(TufClient* tuf) const {
  if (tuf == nullptr) return cached<Document>();
  try {
    return fetch<Document>(*tuf);
  } catch (const Error& error) {
    if (!is_out_of_reach(error.code)) throw;
    return cached<Document>();
  }
}

std::string Distributor::text_of(const Agreement& agreement, TufClient* tuf) const {
  const fs::path kept = kept_text_path(folder_, agreement);
  if (stands(kept)) {
    std::string text = read_file(kept, kMaxAgreementText);
    if (digest(text, "sha256") == agreement.text_sha256)
      return proved_text(std::move(text), agreement);
  }
  require(tuf != nullptr, "agreement_text_missing",
          "The text of the agreement is not at hand; ask again with the network");
  private_directory(folder_);
  const FileLock lock(folder_ / lock_name, false, LockMode::exclusive);
  auto bytes =
      fetch_bytes(agreement_text_target(agreement.id, agreement.version), kMaxAgreementText, *tuf);
  require(bytes.has_value(), "agreement_text_missing",
          "The repository does not publish the text of this agreement");
  std::string text = proved_text(std::move(*bytes), agreement);
  torn_write::remove_leftovers(kept.parent_path(), {path_utf8(kept.filename())});
  atomic_write(kept, text);
  return text;
}

template Told<Notices> Distributor::fetch<Notices>(TufClient&) const;
template Told<ServiceStatus> Distributor::fetch<ServiceStatus>(TufClient&) const;
template Told<Agreements> Distributor::fetch<Agreements>(TufClient&) const;
template Told<CrashService> Distributor::fetch<CrashService>(TufClient&) const;
template std::optional<Told<Notices>> Distributor::cached<Notices>() const;
template std::optional<Told<ServiceStatus>> Distributor::cached<ServiceStatus>() const;
template std::optional<Told<Agreements>> Distributor::cached<Agreements>() const;
template std::optional<Told<CrashService>> Distributor::cached<CrashService>() const;
template std::optional<Told<Notices>> Distributor::known<Notices>(TufClient*) const;
template std::optional<Told<ServiceStatus>> Distributor::known<ServiceStatus>(TufClient*) const;
template std::optional<Told<Agreements>> Distributor::known<Agreements>(TufClient*) const;
template std::optional<Told<CrashService>> Distributor::known<CrashService>(TufClient*) const;

}  // namespace tavro
