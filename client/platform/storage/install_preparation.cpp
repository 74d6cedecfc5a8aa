#include "platform/storage/install_preparation.h"

#include <exception>
#include <string>
#include <string_view>
#include <utility>

#include "documents/game_manifest.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"
#include "platform/files/managed_tree.h"
#include "platform/files/safe_path.h"
#include "platform/host/native_platform.h"
#include "platform/storage/storage_volume.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_document_bytes = 16384;
constexpr std::size_t digest_characters = 64;
constexpr char changed[] = "allocation_changed";

struct Form {
  std::string_view kind;
  /// The code of what is no document of this kind.
  std::string_view state;
  /// Whether the tree may be unknown yet.
  bool before_tree;
};
constexpr Form preparation{"tavro-install-preparation", "install_preparation_state", true};
constexpr Form readiness{"tavro-install-ready", "install_ready_state", false};

bool has_known_schema(const json& document) {
  const json* schema = find_member(document, "schema_version");
  return schema != nullptr && schema->is_number_integer();
}

bool has_known_contract(const json& document, const Form& form) {
  return has_exactly(document, {"schema_version", "kind", "reference", "versions_path",
                                "staging_identity"}) &&
         has_text(document, "kind", form.kind) && document.at("versions_path").is_string() &&
         has_exactly(document.at("reference"),
                     {"version", "build_id", "manifest_ref", "manifest_target"});
}

bool is_identity(const json& value) {
  return value.is_array() && value.size() == 2 && value[0].is_number_unsigned() &&
         value[1].is_number_unsigned();
}

void require_reference(const json& reference, const Form& form) {
  for (const json& name : reference)
    require(name.is_string(), form.state, "Installation ownership reference is malformed");
  validate_identifier(text_member(reference, "version"));
  validate_identifier(text_member(reference, "build_id"));
  require(is_lower_hex_text(reference.at("manifest_ref"), digest_characters), form.state,
          "Installation ownership needs an exact manifest digest");
  const std::string& target = text_member(reference, "manifest_target");
  if (!target.empty()) validate_relative_path(target, true);
}

void require_fields(const json& document, const Form& form) {
  require(has_known_schema(document), form.state, "Installation ownership has no known schema");
  require(has_integer(document, "schema_version", 1), "unsupported_schema",
          "Unknown installation ownership schema was preserved");
  require(has_known_contract(document, form), form.state,
          "Unknown installation ownership contract was preserved");
  const json& identity = document.at("staging_identity");
  require((form.before_tree && identity.is_null()) || is_identity(identity), form.state,
          "Invalid prepared directory identity");
  // By their text: paths compare equal however many separators they are written with.
  const fs::path versions = path_from_utf8(text_member(document, "versions_path"));
  require(versions.is_absolute() && versions.native() == versions.lexically_normal().native(),
          form.state, "Prepared storage path is not absolute and normalized");
  require_reference(document.at("reference"), form);
  require(document.dump().size() <= max_document_bytes, "size_limit",
          "Installation ownership exceeds its bounded format");
}

/// Runs a reader of a document that is not to be changed when it turns out malformed.
template <typename Reader>
auto preserving(const Form& form, Reader&& reader) {
  return read_fields(form.state, "Malformed installation ownership was preserved",
                     std::forward<Reader>(reader));
}

void validate(const json& document, const Form& form) {
  preserving(form, [&] { require_fields(document, form); });
}

json make_document(const Form& form, const json& reference, const fs::path& versions_path,
                   json identity) {
  std::error_code ignored;
  const fs::path versions = fs::absolute(versions_path, ignored).lexically_normal();
  json document = {{"schema_version", 1U},
                   {"kind", form.kind},
                   {"reference", reference},
                   {"versions_path", path_utf8(versions)},
                   {"staging_identity", std::move(identity)}};
  validate(document, form);
  return document;
}

/// Reading of a validated document.
const std::string& version_of(const json& document) {
  return text_member(document.at("reference"), "version");
}

fs::path versions_of(const json& document) {
  return path_from_utf8(text_member(document, "versions_path"));
}

TreeIdentity identity_of(const json& document) {
  return document.at("staging_identity").get<TreeIdentity>();
}

bool binds_release(const json& document, const GameManifest& manifest, const Form& form) {
  return preserving(form, [&] {
    const json& reference = document.at("reference");
    return reference.at("manifest_ref") == digest(manifest.document.dump(), "sha256") &&
           reference.at("build_id") == manifest.build_id;
  });
}

bool binds(const json& document, const GameManifest& manifest, const Form& form) {
  return binds_release(document, manifest, form) && manifest.platform == native_platform();
}

bool binds_paths(const json& document, const fs::path& staging, const fs::path& destination) {
  const std::string& version = version_of(document);
  return destination == versions_of(document) / version && staging.filename() == version;
}

}  // namespace

json make_install_preparation(const GameManifest& manifest, const json& reference,
                              const fs::path& versions_path) {
  json document = make_document(preparation, reference, versions_path, nullptr);
  require(binds(document, manifest, preparation), preparation.state,
          "Preparation differs from its saved verified manifest");
  return document;
}

void record_install_preparation(json& document, const TreeIdentity& identity) {
  validate(document, preparation);
  require(document.at("staging_identity").is_null(), preparation.state,
          "Prepared directory ownership is already recorded");
  json recorded = document;
  recorded["staging_identity"] = identity;
  validate(recorded, preparation);
  document = std::move(recorded);
}

void validate_install_preparation(const json& document, const json& ready) {
  validate(document, preparation);
  if (ready.is_null()) return;
  validate(ready, readiness);
  for (const char* shared : {"reference", "versions_path", "staging_identity"})
    require(document.at(shared) == ready.at(shared), preparation.state,
            "Readiness differs from recorded preparation ownership");
}

void validate_install_ready(const json& document) { validate(document, readiness); }

json make_install_ready(const GameManifest& manifest, const json& reference,
                        const fs::path& versions_path, const ReservedTree& tree) {
  json document = make_document(readiness, reference, versions_path, tree.identity);
  require(binds_release(document, manifest, readiness), readiness.state,
          "Readiness differs from its saved verified manifest");
  require(tree.root.filename() == version_of(document), readiness.state,
          "Readiness differs from its prepared operation");
  tree.validate(manifest, tree.root);
  const fs::path versions = versions_of(document);
  require(!bears_name(versions / version_of(document)), "destination_exists",
          "Activation destination already exists; it was preserved");
  // The final rename must stay on one volume.
  require(inspect_storage_directory(versions)[0] == tree.identity[0], readiness.state,
          "Activation storage differs from its prepared source");
  return document;
}

void cleanup_prepared_install(const GameManifest& manifest, const json& document,
                              const fs::path& staging, const fs::path& destination) {
  validate_install_preparation(document, nullptr);
  require(binds(document, manifest, preparation) && binds_paths(document, staging, destination),
          preparation.state, "Preparation no longer binds this manifest, operation or storage");
  require(!bears_name(destination), changed,
          "An activation destination appeared before readiness; preserve all roots");
  if (document.at("staging_identity").is_null()) {
    require(!bears_name(staging), changed, "Unrecorded preparation root was preserved");
    dispose_install_root(staging, {}, false);
    return;
  }
  const TreeIdentity identity = identity_of(document);
  dispose_install_root(staging, identity, ready_tree(manifest, staging, identity));
}

void cleanup_ready_install(const GameManifest& manifest, const json& document,
                           const fs::path& staging, const fs::path& destination,
                           bool keep_destination) {
  validate_install_ready(document);
  require(binds(document, manifest, readiness) && binds_paths(document, staging, destination),
          readiness.state, "Readiness no longer binds this manifest, operation or storage");
  const TreeIdentity identity = identity_of(document);
  const bool source_present = ready_tree(manifest, staging, identity);
  require(inspect_storage_directory(versions_of(document))[0] == identity[0], changed,
          "Activation storage volume changed");
  const bool activated = bears_name(destination);
  if (activated) {
    // An activation renames the tree, which keeps its inode.
    require(inspect_storage_directory(destination) == identity, changed,
            "Activation directory identity changed; preserve its replacement");
    if (!keep_destination) ready_tree(manifest, destination, identity);
    require(!source_present, changed, "Prepared source reappeared after activation");
  }
  dispose_install_root(staging, identity, source_present);
  if (!keep_destination) dispose_install_root(destination, identity, activated);
}

bool cleanup_install_preparation(const fs::path& staging, const fs::path& other) {
  try {
    if (!staging.empty()) remove_plain_tree(staging);
  } catch (const std::exception&) {
    return true;
  }
  return bears_name(staging) || bears_name(other);
}

}  // namespace tavro
