#pragma once

#include <map>
#include <string>
#include <string_view>

#include "publisher/archive.h"
#include "publisher/source_tree.h"

namespace tavro {

/// What a snapshot manifest says beside the inventory.
struct SnapshotIdentity {
  std::string build_id;
  std::string platform;
  std::string executable;      ///< path in the tree
  std::string archive_target;  ///< repository target path of the archive
};

/// The native contract of a launcher release.
struct LauncherContract {
  std::string gui_executable;
  /// Path in the tree to role.
  std::map<std::string, std::string> helpers;
};

/// Figures that satisfy every bound, for a document that is checked before its archive exists.
ArchiveFigures provisional_figures(const SourceTree& tree);

/// The snapshot manifest of a tree and its archive. Nothing is checked here: the client's own
/// parsers do that with the result.
json snapshot_document(const SourceTree& tree, const SnapshotIdentity& identity,
                       const ArchiveFigures& figures);

/// The snapshot manifest, with what makes it the descriptor of a launcher or a bootstrap release.
/// The optional entry points of a bootstrap are declared when the tree holds them.
json launcher_document(json snapshot, const LauncherContract& contract);
json bootstrap_document(json snapshot);

}  // namespace tavro
