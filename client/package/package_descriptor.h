#pragma once

#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "domain/json.h"
#include "package/brand.h"
#include "package/native_package.h"

namespace tavro {

/// Name of the descriptor in a package folder; no resource may have it.
inline constexpr std::string_view package_descriptor_name = "initial-package.json";
/// Bound on the descriptor, the root metadata and the two manifests.
inline constexpr unsigned long long package_document_bytes = 524288;
/// Bound on the certificate bundle and on the icon.
inline constexpr unsigned long long package_attachment_bytes = 1048576;
/// Bound on the assets of a theme together.
inline constexpr unsigned long long package_theme_bytes = 16777216;
/// What stands before the name of a theme's asset in a package folder.
inline constexpr std::string_view package_theme_prefix = "theme-";

/// One file of a package, as its descriptor binds it.
struct Resource {
  std::string path;
  std::string sha256;
  unsigned long long length = 0;
};

/// The files of a theme: its definition, and its assets by their names outside the package.
struct ThemeResources {
  Resource definition;
  std::vector<std::pair<std::string, Resource>> files;
};

/// The brand of a descriptor with the files that its icon and its theme name.
struct DescriptorBrand {
  Brand brand;
  std::optional<Resource> icon;
  std::optional<ThemeResources> theme;
};

/// The descriptor in `folder`, proved by the seal before it is parsed. Throws
/// `native_install_trust`, and what `read_file` and `parse_json` throw.
json sealed_descriptor(const std::filesystem::path& folder, std::string_view seal);

/// The value is an object of exactly these keys; throws `invalid_native_package`.
void require_fields(const json& value, std::initializer_list<std::string_view> names);

/// Reads a resource of 1 to `limit` bytes. Its `path` is not looked at here: see
/// `check_resource_name`. Throws `invalid_native_package` or `size_limit`.
Resource parse_resource(const json& value, unsigned long long limit);

/// A resource lies flat in the package folder under a plain portable name. Throws `unsafe_path` or
/// `invalid_native_package`.
void check_resource_name(std::string_view name);

/// The content of a resource, proved against its length and digest; throws `content_mismatch`.
std::string read_resource(const std::filesystem::path& folder, const Resource& resource,
                          unsigned long long limit);

/// Nothing without `featured_game` in the descriptor; throws `invalid_native_package`.
std::optional<FeaturedGame> parse_featured_game(const json& document);

/// Nothing without `brand` in the descriptor. Throws `invalid_native_package`, `size_limit`, and
/// `invalid_identity` or `unsafe_path` for the brand's id.
std::optional<DescriptorBrand> parse_descriptor_brand(const json& document);

/// The bytes of a theme, proved against the descriptor: exactly the files that the definition uses,
/// of at most 16 MiB together. Colours and forms of files are not looked at: see `parse_theme`.
/// Throws `invalid_native_package`, `unsafe_path`, `size_limit`, `content_mismatch`, and what
/// `theme_files` throws.
SealedTheme read_sealed_theme(const std::filesystem::path& folder, const ThemeResources& resources);

}  // namespace tavro
