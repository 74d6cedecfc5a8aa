#include "setup/install_plan.h"

#include <nlohmann/json.hpp>

#include <exception>
#include <filesystem>
#include <functional>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "installation/installation_record.h"
#include "launcher/launcher_store.h"
#include "platform/archives/snapshot.h"
#include "platform/files/managed_tree.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long bootstrap_entries = 250000;
constexpr std::size_t trusted_root_bytes = 524288;

/// Best effort: what cannot be removed is found by the proof of the tree.
void remove_update_leftovers(const fs::path& tree) {
  // A link in place of the folder leads to files that are not this installation's.
  if (!fs::is_directory(fs::symlink_status(tree))) return;
  std::vector<fs::path> leftovers;
  walk_tree(tree, bootstrap_entries, "Directory entry count exceeds bounds",
            [&](const fs::directory_entry& entry, std::string_view) {
              if (entry.path().extension() == ".old") leftovers.push_back(entry.path());
            });
  for (const auto& leftover : leftovers) native_files::remove_quietly(leftover);
}

void prove_bootstrap(const DataPaths& paths) {
  remove_update_leftovers(paths.bootstrap);
  verify_snapshot_tree(current_bootstrap(paths), paths.bootstrap);
}

void prove_launcher(const DataPaths& paths) {
  const auto store = LauncherStore::existing(paths.root);
  const auto record = store->record();
  const auto& reference = record.active ? record.active : record.candidate;
  require(reference.has_value(), "launcher_missing", "Install a verified launcher first");
  verify_snapshot_tree(store->manifest(*reference), store->payload(*reference));
}

void prove_trust(const DataPaths& paths) {
  const std::string text =
      read_file(safe_join(paths.root, "trust/root.json", true), trusted_root_bytes);
  parse_json(text, trusted_root_bytes);
}

bool damaged(const DataPaths& paths, const std::function<void(const DataPaths&)>& prove) {
  try {
    prove(paths);
    return false;
  } catch (const std::exception&) {
    return true;
  }
}

}  // namespace

std::vector<std::string> InstallPlan::replaced() const {
  std::vector<std::string> parts;
  if (bootstrap) parts.emplace_back("bootstrap");
  if (launcher) parts.emplace_back("launcher");
  if (trust) parts.emplace_back("trust");
  return parts;
}

InstallPlan plan_repair(const DataPaths& paths) {
  InstallPlan plan;
  plan.bootstrap = damaged(paths, prove_bootstrap);
  plan.launcher = damaged(paths, prove_launcher);
  plan.trust = damaged(paths, prove_trust);
  return plan;
}

}  // namespace tavro
