// The store's face towards callers that hold references as JSON.

#include <nlohmann/json.hpp>

#include "launcher/launcher_store.h"

namespace tavro {
namespace fs = std::filesystem;

std::optional<json> LauncherStore::selection() const {
  const auto record = usable_record();
  if (!record) return std::nullopt;
  return record->to_json();
}

json LauncherStore::status() const {
  const auto now = record();
  json document = now.to_json();
  document["installed"] = now.active.has_value();
  return document;
}

LauncherManifest LauncherStore::manifest(const json& reference) const {
  return manifest(present_reference(reference, "Install a verified launcher first"));
}

fs::path LauncherStore::payload(const json& reference) const {
  return payload(present_reference(reference, "No working launcher is installed"));
}

std::unique_ptr<FileLock> LauncherStore::version_guard(const json& reference, LockMode mode) const {
  return version_guard(present_reference(reference, "No launcher version was selected"), mode);
}

}  // namespace tavro
