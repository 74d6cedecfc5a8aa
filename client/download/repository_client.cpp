#include "download/repository_client.h"

#include <nlohmann/json.hpp>

#include <chrono>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "installation/data_folder.h"
#include "installation/repair_advice.h"
#include "platform/host/native_platform.h"
#include "transport/https.h"
#include "tuf/client_limits.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// An origin of at most 4096 bytes and a path of at most 4096, each byte of which may take six in a
/// JSON text, and the keys around them.
constexpr std::size_t record_bytes = 65536;

RepositoryRecord record_of(const DataPaths& paths) {
  require_complete_native_install(paths.root);
  require_installed(stands(paths.repository), paths.root);
  return advising(paths.root, paths.repository, [&] {
    return RepositoryRecord::parse(read_file(paths.repository, record_bytes));
  });
}

/// What a client that cannot begin failed at, where its failure does not name it.
fs::path cause_in(const fs::path& trust, std::string_view code) {
  if (code == "permissions") return trust;
  return trust / (code == "lock_failed" ? ".lock" : "root.json");
}

TufClient open_trust(const DataPaths& paths, Transport& metadata, Transport& targets) {
  try {
    return {paths.trust, metadata, targets, client_limits, std::chrono::system_clock::now};
  } catch (const Error& error) {
    throw advised(error, paths.root, cause_in(paths.trust, error.code));
  }
}

}  // namespace

RepositoryRecord RepositoryRecord::parse(std::string_view text) {
  const json document = parse_json(text, record_bytes);
  require(document.is_object() && has_integer(document, "schema_version", 1), "unsupported_schema",
          "Unknown repository record was preserved");
  RepositoryRecord record;
  read_fields("invalid_state", "The repository record is malformed; run repair", [&] {
    record.origin = document.at("origin").get<std::string>();
    record.ca_bundle = path_from_utf8(document.at("ca_bundle").get<std::string>());
  });
  const bool bundle = record.ca_bundle.empty() || record.ca_bundle.is_absolute();
  require(bundle, "invalid_state", "The repository record is malformed; run repair");
  return record;
}

struct RepositoryClient::Impl {
  HttpsTransport metadata;
  HttpsTransport targets;
  TufClient tuf;

  Impl(const DataPaths& paths, const RepositoryRecord& record,
       const std::shared_ptr<HttpsBudget>& budget, unsigned long long download_limit)
      : metadata(record.origin + "/tuf/metadata/", record.ca_bundle, 0, budget),
        targets(record.origin + "/tuf/targets/", record.ca_bundle, download_limit, budget),
        tuf(open_trust(paths, metadata, targets)) {}
};

RepositoryClient::RepositoryClient(const fs::path& root, const std::shared_ptr<HttpsBudget>& budget,
                                   unsigned long long download_limit) {
  const DataPaths paths(data_folder(root));
  impl_ = std::make_unique<Impl>(paths, record_of(paths), budget, download_limit);
}

RepositoryClient::~RepositoryClient() = default;

TufClient& RepositoryClient::tuf() noexcept { return impl_->tuf; }

}  // namespace tavro
