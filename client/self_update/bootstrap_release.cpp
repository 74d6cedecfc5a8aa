#include "self_update/bootstrap_release.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>

#include "documents/bootstrap_contract.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "installation/bootstrap_paths.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/host/native_platform.h"

namespace tavro {
namespace {

constexpr std::size_t max_files = 4096;
constexpr std::uint64_t max_bytes = 1073741824;
constexpr unsigned long long rejected_bytes = 128;

/// Whether the file, or a folder on the way to it, would be taken for something replaced.
bool bears_replaced_extension(const std::filesystem::path& file) {
  return std::any_of(file.begin(), file.end(),
                     [](const auto& name) { return name.extension() == replaced_extension; });
}

}  // namespace

std::string bootstrap_manifest_target() {
  return "bootstrap-" + std::string(native_platform()) + ".manifest.json";
}

void validate_bootstrap_update(const SnapshotManifest& manifest) {
  constexpr char incompatible[] = "launcher_incompatible";
  validate_bootstrap_contract(manifest);
  const json& document = manifest.document;
  require(has_integer(document, "runtime_lease_abi", 1), incompatible,
          "Bootstrap updates require the current native lifetime contract");
  const auto schema = document.find("application_schema");
  require(schema != document.end() && schema->is_object(), incompatible,
          "Bootstrap update data contract is missing");
  require(schema->size() == 2 && has_integer(*schema, "minimum", 1) &&
              has_integer(*schema, "maximum", 1),
          incompatible, "Bootstrap update data contract is unsupported");
  require(manifest.platform == native_platform(), incompatible,
          "Bootstrap update targets another platform");
  check_bootstrap_inventory(manifest);
}

void check_bootstrap_inventory(const SnapshotManifest& manifest) {
  require(manifest.files.size() <= max_files && manifest.archive_length <= max_bytes &&
              manifest.expanded_length <= max_bytes,
          "size_limit", "Bootstrap update exceeds its size limit");
  for (const auto& file : manifest.files)
    require(!bears_replaced_extension(file.first), "invalid_manifest",
            [&] { return "Bootstrap update holds a name of replaced files: " + file.first; });
}

SnapshotManifest parse_bootstrap_update(std::string_view text) {
  return read_fields("invalid_manifest", "Bootstrap update manifest is malformed", [&] {
    auto manifest = SnapshotManifest::parse(parse_json(text, bootstrap_descriptor_bytes));
    validate_bootstrap_update(manifest);
    return manifest;
  });
}

bool is_rejected_bootstrap(const BootstrapPaths& paths, std::string_view text) {
  return stands(paths.rejected) &&
         read_file(paths.rejected, rejected_bytes) == digest(text, "sha256");
}

void note_rejected_bootstrap(const BootstrapPaths& paths, std::string_view text) {
  atomic_write(paths.rejected, digest(text, "sha256"));
}

}  // namespace tavro
