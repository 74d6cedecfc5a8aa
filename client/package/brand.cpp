#include "package/brand.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <system_error>
#include <utility>

#include "documents/theme.h"
#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "domain/product_name.h"
#include "domain/relative_path.h"

namespace tavro {
namespace {

bool is_control(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 32 || byte == 127;
}

bool is_folder_name(std::string_view name) {
  constexpr std::string_view forbidden = "<>:\"/\\|?*";
  return !name.empty() && name.size() <= 64 && name.front() != ' ' && name.back() != ' ' &&
         name.back() != '.' && std::none_of(name.begin(), name.end(), [&](char character) {
           return is_control(character) || forbidden.find(character) != std::string_view::npos;
         });
}

std::string text_field(const json& object, const std::string& key, std::size_t limit) {
  const auto found = object.find(key);
  require(found != object.end() && found->is_string(), "invalid_native_package",
          [&] { return "Brand needs a " + key; });
  const auto& text = found->get_ref<const std::string&>();
  require(
      !text.empty() && text.size() <= limit && std::none_of(text.begin(), text.end(), is_control),
      "invalid_native_package", [&] {
        return "Brand " + key + " must be 1 to " + std::to_string(limit) + " bytes of plain text";
      });
  return text;
}

std::filesystem::path& stored_icon() {
  static std::filesystem::path icon;
  return icon;
}

}  // namespace

void validate_brand_name(std::string_view name) {
  require(is_folder_name(name), "invalid_native_package",
          "A brand name is 1 to 64 bytes and also names a folder: no control characters, none of "
          "< > : \" / \\ | ? *, and no leading space or trailing space or dot");
  require(!is_reserved_name(name), "invalid_native_package",
          "A brand name cannot be a Windows device name");
}

Brand parse_brand(const json& value) {
  require(value.is_object() && value.size() == 4 && value.contains("icon") &&
              value.at("icon").is_boolean(),
          "invalid_native_package", "Brand has unknown or missing fields");
  Brand brand;
  brand.name = text_field(value, "name", 64);
  brand.id = text_field(value, "id", 80);
  brand.publisher = text_field(value, "publisher", 128);
  brand.icon = value.at("icon").get<bool>();
  validate_brand_name(brand.name);
  validate_identifier(brand.id);
  return brand;
}

json brand_json(const Brand& brand) {
  return {
      {"name", brand.name}, {"id", brand.id}, {"publisher", brand.publisher}, {"icon", brand.icon}};
}

const std::filesystem::path& product_icon() { return stored_icon(); }

void set_product_icon(std::filesystem::path path) { stored_icon() = std::move(path); }

std::string uninstall_entry_key(const std::optional<Brand>& brand) {
  return brand ? "Tavro." + brand->id : "Tavro";
}

}  // namespace tavro
