#include "package/native_package.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <set>
#include <vector>

#include "documents/bootstrap_contract.h"
#include "documents/theme_definition.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "package/package_descriptor.h"
#include "platform/host/native_platform.h"
#include "transport/https.h"
#include "tuf/metadata.h"
#include "tuf/threshold.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr unsigned long long package_payload_bytes = 1073741824;

/// One answer for every exception of the JSON library in the documents of a package.
template <typename Reader>
auto reading_package(Reader&& reader) {
  return read_fields("invalid_native_package", "Initial package metadata is malformed",
                     std::forward<Reader>(reader));
}

/// The files that the descriptor names, in the order in which they are proved.
struct PackageResources {
  Resource root;
  Resource bootstrap_manifest;
  Resource launcher_manifest;
  std::optional<Resource> ca_bundle;
  std::optional<Resource> icon;
  std::optional<ThemeResources> theme;
};

/// Without its last separator, so that a link with one behind it is still seen as a link. Empty for
/// a path that cannot be made absolute, such as an empty one.
fs::path package_root(const fs::path& path) {
  std::error_code error;
  const auto root = fs::absolute(path, error).lexically_normal();
  if (error) return {};
  return root.has_filename() ? root : root.parent_path();
}

void check_origin(const std::string& origin) {
  const HttpsTransport transport(origin + "/tuf/metadata/", {}, 0, nullptr);
  require(transport.origin() == origin, "invalid_origin",
          "The package origin must be a plain HTTPS origin");
}

PackageResources parse_resources(const json& document, std::optional<DescriptorBrand> brand) {
  PackageResources resources;
  resources.root = parse_resource(document.at("root"), package_document_bytes);
  resources.bootstrap_manifest =
      parse_resource(document.at("bootstrap_manifest"), package_document_bytes);
  resources.launcher_manifest =
      parse_resource(document.at("launcher_manifest"), package_document_bytes);
  const auto& bundle = document.at("ca_bundle");
  if (!bundle.is_null()) resources.ca_bundle = parse_resource(bundle, package_attachment_bytes);
  if (brand) {
    resources.icon = std::move(brand->icon);
    resources.theme = std::move(brand->theme);
  }
  return resources;
}

/// A theme as the package folder holds it, its files under the package's names.
Theme parse_package_theme(const fs::path& folder, const SealedTheme& sealed) {
  return parse_theme(parse_json(sealed.definition, kThemeDefinitionBytes),
                     [&](const std::string& name) {
                       return folder / (std::string(package_theme_prefix) + name);
                     });
}

void check_icon(std::string_view icon) {
  using namespace std::string_view_literals;
  // The 22 bytes are the header of an icon file and one entry of its directory.
  require(icon.size() >= 22 && icon.starts_with("\0\0\1\0"sv), "invalid_native_package",
          "The brand icon is not an .ico file");
}

void read_small_files(NativePackage& package, const PackageResources& resources) {
  package.root_metadata = read_resource(package.root, resources.root, package_document_bytes);
  package.bootstrap_descriptor =
      read_resource(package.root, resources.bootstrap_manifest, package_document_bytes);
  package.launcher_descriptor =
      read_resource(package.root, resources.launcher_manifest, package_document_bytes);
  if (resources.ca_bundle)
    package.ca_bundle = read_resource(package.root, *resources.ca_bundle, package_attachment_bytes);
  if (resources.icon) {
    package.brand_icon = read_resource(package.root, *resources.icon, package_attachment_bytes);
    check_icon(package.brand_icon);
  }
  if (!resources.theme) return;
  package.theme = read_sealed_theme(package.root, *resources.theme);
  // A theme that breaks a rule would be installed and never be shown.
  parse_package_theme(package.root, *package.theme);
}

void check_root_metadata(std::string_view text) {
  const auto document = parse_json(text, package_document_bytes);
  const auto& body = document.at("signed");
  verify_threshold(document, body.at("keys"), body.at("roles").at("root"));
  const auto expires = parse_tuf_time(body.at("expires").get_ref<const std::string&>());
  require(!has_expired(expires, std::chrono::system_clock::now()), "expired_metadata",
          "The initial package's TUF root has expired");
}

void read_images(NativePackage& package) {
  package.bootstrap =
      SnapshotManifest::parse(parse_json(package.bootstrap_descriptor, package_document_bytes));
  validate_bootstrap_contract(package.bootstrap);
  package.launcher =
      LauncherManifest::parse(parse_json(package.launcher_descriptor, package_document_bytes));
  require(package.launcher.runtime_lease_abi == 2 && package.launcher.staging_abi == 1,
          "launcher_incompatible", "The initial launcher needs the current runtime contracts");
  require(package.bootstrap.platform == native_platform() &&
              package.launcher.platform == native_platform(),
          "launcher_incompatible", "Package images are for another platform");
  const auto bootstrap_bytes = package.bootstrap.expanded_length;
  require(bootstrap_bytes <= package_payload_bytes &&
              package.launcher.expanded_length <= package_payload_bytes - bootstrap_bytes,
          "size_limit", "Initial package payload is too large");
}

Resource archive_resource(const SnapshotManifest& image) {
  return {image.archive_target, image.archive_sha256, image.archive_length};
}

std::vector<Resource> proof_list(const PackageResources& resources, const NativePackage& package) {
  std::vector<Resource> list = {resources.root, resources.bootstrap_manifest,
                                resources.launcher_manifest};
  if (resources.ca_bundle) list.push_back(*resources.ca_bundle);
  if (resources.icon) list.push_back(*resources.icon);
  if (resources.theme) {
    list.push_back(resources.theme->definition);
    for (const auto& [name, file] : resources.theme->files) list.push_back(file);
  }
  list.push_back(archive_resource(package.bootstrap));
  list.push_back(archive_resource(package.launcher));
  return list;
}

std::set<std::string> expected_names(const std::vector<Resource>& resources) {
  std::set<std::string> names = {std::string(package_descriptor_name)};
  for (const auto& resource : resources) {
    check_resource_name(resource.path);
    require(names.insert(resource.path).second, "invalid_native_package",
            "Initial package resources overlap");
  }
  return names;
}

void check_folder(const fs::path& root, const std::set<std::string>& expected) {
  std::size_t seen = 0;
  std::error_code error;
  for (fs::directory_iterator entry(root, error), end; !error && entry != end;
       entry.increment(error)) {
    const auto name = path_utf8(entry->path().filename());
    std::error_code ignored;
    require(++seen <= expected.size() && expected.contains(name) &&
                fs::is_regular_file(entry->symlink_status(ignored)),
            "invalid_native_package",
            [&] { return "Initial package contains an unexpected entry: " + name; });
  }
  require(!error, "file_read", [&] {
    return "Cannot list the package folder " + path_utf8(root) + ": " + error.message();
  });
  require(seen == expected.size(), "invalid_native_package",
          "Initial package is missing a resource");
}

void check_file(const fs::path& root, const Resource& resource, const Progress& progress) {
  const auto path = root / path_from_utf8(resource.path);
  std::error_code error;
  require(fs::is_regular_file(fs::symlink_status(path, error)), "invalid_native_package",
          "Initial package resource is missing or not a plain file");
  require(fs::file_size(path, error) == resource.length, "content_mismatch",
          "Initial package resource has the wrong length");
  require(digest_file_progress(path, "sha256", progress) == resource.sha256, "content_mismatch",
          [&] { return "Initial package resource changed: " + resource.path; });
}

void require_seal(std::string_view seal) {
  require(is_lower_hex(seal, 64), "native_install_trust",
          "This installer has no package seal; build it with TAVRO_INITIAL_PACKAGE_SHA256");
}

/// What the descriptor alone decides, in the order in which its rules hold.
PackageResources read_descriptor(NativePackage& package) {
  auto document = sealed_descriptor(package.root, package.descriptor_sha256);
  package.featured_game = parse_featured_game(document);
  auto brand = parse_descriptor_brand(document);
  if (brand) package.brand = brand->brand;
  if (document.is_object()) {
    document.erase("featured_game");
    document.erase("brand");
  }
  require_fields(document, {"schema_version", "kind", "platform", "origin", "root",
                            "bootstrap_manifest", "launcher_manifest", "ca_bundle"});
  require(document.at("schema_version") == 1 && document.at("kind") == "tavro-initial-package",
          "unsupported_schema", "Unsupported initial package schema");
  require(document.at("platform") == native_platform(), "launcher_incompatible",
          "This package is for another platform");
  package.origin = document.at("origin").get<std::string>();
  check_origin(package.origin);
  return parse_resources(document, std::move(brand));
}

NativePackage read_package(const fs::path& path, std::string_view seal, const Progress& progress) {
  require_seal(seal);
  NativePackage package;
  package.root = package_root(path);
  package.descriptor_sha256 = seal;
  std::error_code error;
  require(fs::is_directory(fs::symlink_status(package.root, error)), "invalid_native_package",
          "Choose an initial package directory");

  const auto resources = read_descriptor(package);
  read_small_files(package, resources);
  check_root_metadata(package.root_metadata);
  read_images(package);

  // Everything is hashed from the disk, also what was read above: the folder is proved as it lies.
  const auto proofs = proof_list(resources, package);
  check_folder(package.root, expected_names(proofs));
  for (const auto& resource : proofs) check_file(package.root, resource, progress);
  return package;
}

}  // namespace

fs::path NativePackage::bootstrap_archive() const {
  return root / path_from_utf8(bootstrap.archive_target);
}

fs::path NativePackage::launcher_archive() const {
  return root / path_from_utf8(launcher.archive_target);
}

NativePackage read_native_package(const fs::path& path, std::string_view seal,
                                  const Progress& progress) {
  return reading_package([&] { return read_package(path, seal, progress); });
}

std::optional<Brand> package_brand(const fs::path& path, std::string_view seal) {
  require_seal(seal);
  return reading_package([&]() -> std::optional<Brand> {
    const auto brand = parse_descriptor_brand(sealed_descriptor(path, seal));
    if (!brand) return std::nullopt;
    return brand->brand;
  });
}

std::optional<FeaturedGame> package_featured_game(const fs::path& path, std::string_view seal) {
  require_seal(seal);
  return reading_package([&] { return parse_featured_game(sealed_descriptor(path, seal)); });
}

std::optional<Theme> package_theme(const fs::path& path, std::string_view seal) {
  require(is_lower_hex(seal, 64), "native_install_trust", "This installer has no package seal");
  return reading_package([&]() -> std::optional<Theme> {
    const auto brand = parse_descriptor_brand(sealed_descriptor(path, seal));
    if (!brand || !brand->theme) return std::nullopt;
    return parse_package_theme(path, read_sealed_theme(path, *brand->theme));
  });
}

fs::path package_brand_icon(const fs::path& path, std::string_view seal) {
  return reading_package([&]() -> fs::path {
    const auto brand = parse_descriptor_brand(sealed_descriptor(path, seal));
    if (!brand || !brand->icon) return {};
    check_resource_name(brand->icon->path);
    auto file = path / path_from_utf8(brand->icon->path);
    const auto content = read_file(file, package_attachment_bytes);
    require(
        content.size() == brand->icon->length && digest(content, "sha256") == brand->icon->sha256,
        "content_mismatch", "Initial package icon differs from its descriptor");
    return file;
  });
}

}  // namespace tavro
