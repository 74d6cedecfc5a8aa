#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "domain/json.h"
#include "installation/installation_record.h"

namespace tavro {

/// What stands in a data folder. Beyond the first three fields all are empty unless it is
/// installed.
struct NativeInstallStatus {
  std::filesystem::path data_root;
  bool installed = false;
  /// A setup run has not finished; never together with `installed`.
  bool incomplete = false;
  std::string bootstrap_build;
  /// Empty when no launcher is known.
  std::string launcher_build;
  bool bootstrap_update_pending = false;
  /// What keeps that update from the next start, in a sentence; the document names it only then.
  std::string bootstrap_update_problem;
  /// Shortcuts recorded as created by this installation.
  std::vector<std::filesystem::path> shortcuts;
  std::optional<NativeSetupRecord> last_operation;
  /// What keeps it from working or from being told, one sentence part each. In the document only
  /// when there is any.
  std::vector<std::string> problems;

  /// The document of the command `status`.
  json to_json() const;
};

}  // namespace tavro
