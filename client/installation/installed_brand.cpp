#include "installation/installed_brand.h"

#include <nlohmann/json.hpp>

#include <exception>

#include "documents/theme_definition.h"
#include "domain/input.h"
#include "domain/json.h"
#include "domain/product_name.h"
#include "installation/data_folder.h"

namespace tavro {
namespace {

constexpr std::size_t installation_record_bytes = 65536;

}  // namespace

std::optional<Brand> installed_brand(const std::filesystem::path& root) {
  try {
    const auto text = read_file(root / "native" / "installation.json", installation_record_bytes);
    const auto record = parse_json(text, installation_record_bytes);
    if (!record.is_object() || !record.contains("brand")) return std::nullopt;
    return parse_brand(record.at("brand"));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

void use_installed_brand(const std::filesystem::path& root) {
  const auto brand = installed_brand(root);
  if (!brand) return;
  set_product_name(brand->name);
  use_installed_theme(root);
  std::error_code ignored;
  const auto icon = brand_icon_path(root);
  if (brand->icon && std::filesystem::is_regular_file(icon, ignored)) set_product_icon(icon);
}

void use_installed_theme(const std::filesystem::path& root) {
  if (auto installed = load_theme(theme_directory(root))) set_theme(*std::move(installed));
}

std::filesystem::path brand_icon_path(const std::filesystem::path& root) {
  return root / "native" / "brand.ico";
}

}  // namespace tavro
