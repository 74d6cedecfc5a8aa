#include "download/repository_change.h"

#include <nlohmann/json.hpp>

#include <chrono>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "installation/data_folder.h"
#include "platform/files/directory_commit.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/managed_tree.h"
#include "platform/host/native_platform.h"
#include "transport/https.h"
#include "tuf/client_limits.h"
#include "tuf/tuf.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// The trust of the new repository, as a whole refresh leaves it in `folder`.
void prove_repository(const fs::path& folder, const fs::path& bundle,
                      const RepositoryChoice& choice) {
  HttpsTransport metadata(choice.origin + "/tuf/metadata/", bundle, 0, nullptr);
  HttpsTransport targets(choice.origin + "/tuf/targets/", bundle, 0, nullptr);
  require(metadata.origin() == choice.origin, "invalid_url",
          "An origin is https:// and a host, with nothing behind them");
  TufClient::initialize(folder, choice.root_bytes);
  TufClient client(folder, metadata, targets, client_limits, std::chrono::system_clock::now);
  client.refresh();
}

/// What was trusted until now stands at `proved` afterwards.
void take_trust(const DataPaths& paths, const fs::path& proved) {
  if (!stands(paths.trust)) {
    commit_private_path_new(proved, paths.trust, {});
    sync_directory(paths.root);
    return;
  }
  // A client that works goes by the folder that it has opened.
  const FileLock idle(paths.trust / ".lock", false, LockMode::exclusive);
  exchange_private_directories(paths.trust, proved, {});
}

std::string record_text(const RepositoryChoice& choice, const fs::path& bundle) {
  const json record = {
      {"schema_version", 1}, {"origin", choice.origin}, {"ca_bundle", path_utf8(bundle)}};
  return read_fields("unsafe_path",
                     "A repository with its own certificates needs a data folder whose path is "
                     "UTF-8 text",
                     [&] { return record.dump(); });
}

}  // namespace

void change_repository(const fs::path& data_root, const RepositoryChoice& choice) {
  const DataPaths paths(data_folder(data_root));
  require_complete_native_install(paths.root);
  const bool own = !choice.ca_bundle.empty();
  const std::string record = record_text(choice, own ? paths.repository_ca : fs::path());
  const fs::path place = paths.root / "repository-proof";
  const fs::path proved = place / "trust";
  const FileLock alone(place / "lock", false, LockMode::exclusive);
  // What an earlier change was cut off with.
  remove_plain_tree(proved);
  fs::path bundle;
  if (own) atomic_write(bundle = place / "ca.pem", choice.ca_bundle);
  try {
    prove_repository(proved, bundle, choice);
  } catch (...) {
    remove_path_quietly(proved);
    throw;
  }
  // Out of reach of that removal: once it is exchanged, the old trust lies there.
  take_trust(paths, proved);
  if (own) atomic_write(paths.repository_ca, choice.ca_bundle);
  atomic_write(paths.repository, record);
  remove_plain_tree(proved);
}

}  // namespace tavro
