#pragma once

#include <string>
#include <vector>

#include "installation/data_folder.h"

namespace tavro {

/// Which installed parts a setup run stages and replaces; an install replaces all of them.
struct InstallPlan {
  bool bootstrap = true;
  bool launcher = true;
  bool trust = true;

  /// The names of the parts that are replaced, in the order of the fields.
  std::vector<std::string> replaced() const;
};

/// The parts that do not prove intact. Apart from leftovers of a bootstrap update (files "*.old" in
/// the bootstrap tree), which are removed so that they do not count as damage, it only reads. A
/// part that cannot be examined counts as damaged; nothing is thrown for it. The caller holds the
/// locks.
InstallPlan plan_repair(const DataPaths& paths);

}  // namespace tavro
