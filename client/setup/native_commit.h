#pragma once

#include "installation/data_folder.h"
#include "package/native_package.h"
#include "setup/install_plan.h"

namespace tavro {

/// Turns a staged run into the live installation by renames inside the folder and small durable
/// writes, between writing the marker and removing it. The caller holds the setup lock and the
/// bootstrap lock, and has proved the staged parts of the plan where they lie: the bootstrap at
/// "bootstrap", the launcher store at "launcher-root/launcher", the trust folder at "trust", all in
/// `paths.staging`.
///
/// Not undone on failure: the marker then stands, nothing starts from the folder, and a repair
/// finishes it from the package. Throws what the writes and renames throw. A failure before the
/// marker is written leaves the folder as it was: `unsafe_path` when a bundle is to be recorded and
/// the folder's path is no UTF-8.
void commit(const DataPaths& paths, const NativePackage& package, const InstallPlan& plan);

}  // namespace tavro
