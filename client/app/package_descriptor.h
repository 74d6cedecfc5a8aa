#pragma once

#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

#include "app/brand.h"
#include "app/native_package.h"
#include "domain/json.h"

namespace tavro {

/// Name of the descriptor in a package folder; no resource may have it.
inline constexpr std::string_view package_descriptor_name = "initial-package.json";
/// Bound on the descriptor, the root metadata and the two manifests.
inline constexpr unsigned long long package_document_bytes = 524288;
/// Bound on the certificate bundle and on the icon.
inline constexpr unsigned long long package_attachment_bytes = 1048576;

/// One file of a package, as its descriptor binds it.
struct Resource {
  std::string path;
  std::string sha256;
  unsigned long long length = 0;
};

/// The brand of a descriptor with the file that its icon names.
struct DescriptorBrand {
  Brand brand;
  std::optional<Resource> icon;
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

/// Nothing without `brand` in the descriptor. Throws `invalid_native_package`, and
/// `unsupported_schema` for a brand with a theme, which this client cannot show.
std::optional<DescriptorBrand> parse_descriptor_brand(const json& document);

}  // namespace tavro
