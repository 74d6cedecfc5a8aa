#include "publisher/descriptors.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "documents/bootstrap_contract.h"

namespace tavro {
namespace {

bool holds_file(const json& snapshot, std::string_view path) {
  return std::ranges::any_of(snapshot.at("files"),
                             [&](const json& file) { return file.at("path") == path; });
}

}  // namespace

ArchiveFigures provisional_figures(const SourceTree& tree) {
  const std::string digest(64, '0');
  return {1, digest, std::vector<std::string>(tree.files().size(), digest)};
}

json snapshot_document(const SourceTree& tree, const SnapshotIdentity& identity,
                       const ArchiveFigures& figures) {
  json files = json::array();
  for (std::size_t i = 0; i < tree.files().size(); ++i) {
    const SourceFile& file = tree.files()[i];
    files.push_back({{"path", file.path},
                     {"length", file.length},
                     {"mode", file.executable ? 0755 : 0644},
                     {"sha256", figures.file_sha256.at(i)}});
  }
  return {{"schema_version", 1},
          {"build_id", identity.build_id},
          {"platform", identity.platform},
          {"executable", identity.executable},
          {"archive",
           {{"format", "tar.zst-v1"},
            {"target", identity.archive_target},
            {"length", figures.length},
            {"sha256", figures.sha256}}},
          {"files", std::move(files)},
          {"expanded_length", tree.expanded_length()}};
}

json launcher_document(json snapshot, const LauncherContract& contract) {
  json helpers = json::array();
  for (const auto& [path, role] : contract.helpers)
    helpers.push_back({{"path", path}, {"role", role}, {"lease_abi", 1}});
  snapshot.update({{"kind", "tavro-launcher-release"},
                   {"bootstrap_abi", 1},
                   {"health_abi", 1},
                   {"application_schema", {{"minimum", 1}, {"maximum", 1}}},
                   {"runtime_lease_abi", 2},
                   {"staging_abi", 1},
                   {"console_interrupt_abi", 1},
                   {"gui_executable", contract.gui_executable},
                   {"runtime_helpers", std::move(helpers)}});
  return snapshot;
}

json bootstrap_document(json snapshot) {
  snapshot.update({{"kind", "tavro-bootstrap-release"},
                   {"bootstrap_abi", 1},
                   {"application_schema", {{"minimum", 1}, {"maximum", 1}}},
                   {"runtime_lease_abi", 1}});
  const json& platform = snapshot.at("platform");
  if (platform == "windows-x86_64" && holds_file(snapshot, kBootstrapWindowsGui))
    snapshot["gui_executable"] = kBootstrapWindowsGui;
  if (platform == "macos-aarch64" && holds_file(snapshot, kBootstrapMacShortcut))
    snapshot["shortcut_executable"] = kBootstrapMacShortcut;
  return snapshot;
}

}  // namespace tavro
