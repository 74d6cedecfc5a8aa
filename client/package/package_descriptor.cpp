#include "package/package_descriptor.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

#include "documents/theme_definition.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/relative_path.h"

namespace tavro {
namespace {

ThemeResources parse_theme_resources(const json& value) {
  require_fields(value, {"definition", "files"});
  const json& files = value.at("files");
  require(files.is_object(), "invalid_native_package", "Brand theme files must be an object");
  ThemeResources theme{parse_resource(value.at("definition"), kThemeDefinitionBytes), {}};
  require(theme.definition.path == kThemeDefinition, "invalid_native_package",
          "Brand theme definition must be theme.json");
  for (const auto& [name, file] : files.items()) {
    theme.files.emplace_back(name, parse_resource(file, kThemeFontBytes));
    require(theme.files.back().second.path == std::string(package_theme_prefix) + name,
            "invalid_native_package", "Brand theme files are stored as theme-NAME");
  }
  return theme;
}

}  // namespace

json sealed_descriptor(const std::filesystem::path& folder, std::string_view seal) {
  const auto text = read_file(folder / package_descriptor_name, package_document_bytes);
  require(digest(text, "sha256") == seal, "native_install_trust",
          "This package is not the one this installer was built for");
  return parse_json(text, package_document_bytes);
}

void require_fields(const json& value, std::initializer_list<std::string_view> names) {
  require(value.is_object() && value.size() == names.size(), "invalid_native_package",
          "Initial package record has unknown or missing fields");
  for (const auto name : names)
    require(value.contains(name), "invalid_native_package",
            "Initial package record is missing a field");
}

Resource parse_resource(const json& value, unsigned long long limit) {
  require_fields(value, {"path", "sha256", "length"});
  require(value.at("length").is_number_unsigned(), "invalid_native_package",
          "Resource length must be an unsigned integer");
  Resource resource{value.at("path").get<std::string>(), value.at("sha256").get<std::string>(),
                    value.at("length").get<unsigned long long>()};
  require(is_lower_hex(resource.sha256, 64), "invalid_native_package",
          "Resource hash must be a lowercase SHA-256 digest");
  require(resource.length >= 1 && resource.length <= limit, "size_limit",
          "Initial package resource exceeds its size limit");
  return resource;
}

void check_resource_name(std::string_view name) {
  validate_relative_path(name, true);
  require(name.find('/') == std::string_view::npos && !name.starts_with('.') &&
              name != package_descriptor_name,
          "invalid_native_package", "Initial package resources need distinct flat names");
}

std::string read_resource(const std::filesystem::path& folder, const Resource& resource,
                          unsigned long long limit) {
  auto content = read_file(folder / path_from_utf8(resource.path), limit);
  require(content.size() == resource.length && digest(content, "sha256") == resource.sha256,
          "content_mismatch", [&] { return "Initial package resource changed: " + resource.path; });
  return content;
}

std::optional<FeaturedGame> parse_featured_game(const json& document) {
  if (!document.is_object() || !document.contains("featured_game")) return std::nullopt;
  const auto& value = document.at("featured_game");
  require_fields(value, {"id", "name"});
  require(value.at("id").is_string() && value.at("name").is_string(), "invalid_native_package",
          "Featured game must name an id and a display name");
  FeaturedGame game{value.at("id").get<std::string>(), value.at("name").get<std::string>()};
  validate_identifier(game.id);
  require(!game.name.empty() && game.name.size() <= 80, "invalid_native_package",
          "Featured game name must be 1 to 80 bytes");
  return game;
}

std::optional<DescriptorBrand> parse_descriptor_brand(const json& document) {
  if (!document.is_object() || !document.contains("brand")) return std::nullopt;
  auto value = document.at("brand");
  require(value.is_object() && value.contains("icon"), "invalid_native_package",
          "Brand has unknown or missing fields");
  // The record of an installation only says whether there is an icon; a package says which file.
  const json icon = std::exchange(value.at("icon"), json(!value.at("icon").is_null()));
  DescriptorBrand result;
  if (const json* theme = find_member(value, "theme")) {
    result.theme = parse_theme_resources(*theme);
    value.erase("theme");
  }
  result.brand = parse_brand(value);
  if (!icon.is_null()) result.icon = parse_resource(icon, package_attachment_bytes);
  return result;
}

SealedTheme read_sealed_theme(const std::filesystem::path& folder,
                              const ThemeResources& resources) {
  check_resource_name(resources.definition.path);
  for (const auto& [name, resource] : resources.files) check_resource_name(resource.path);
  SealedTheme theme{read_resource(folder, resources.definition, kThemeDefinitionBytes), {}};
  auto expected = theme_files(parse_json(theme.definition, kThemeDefinitionBytes));
  std::ranges::sort(expected);
  std::vector<std::string> names;
  unsigned long long total = 0;
  for (const auto& [name, resource] : resources.files) {
    names.push_back(name);
    total += resource.length;
    require(total <= package_theme_bytes, "size_limit", "Brand theme files exceed 16 MiB together");
    theme.files.emplace_back(name, read_resource(folder, resource, kThemeFontBytes));
  }
  std::ranges::sort(names);
  require(names == expected, "invalid_native_package",
          "Brand theme files differ from its definition");
  return theme;
}

}  // namespace tavro
