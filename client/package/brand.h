#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

/// A third party's name for the client, carried by a package and kept in the installation record.
struct Brand {
  /// Display name of the product and name of its default data folder; see `validate_brand_name`.
  std::string name;
  /// Stable identifier, the same for every release of the brand; `validate_identifier` holds.
  std::string id;
  /// Display name of the publisher, 1 to 128 bytes of plain text.
  std::string publisher;
  /// Whether the installation has an icon at `brand_icon_path`.
  bool icon = false;
};

/// A brand's name becomes a folder name on every supported system: 1 to 64 bytes, no control
/// character, none of < > : " / \ | ? *, no leading space, no trailing space or dot, no device
/// name. Throws `invalid_native_package`.
void validate_brand_name(std::string_view name);

/// Reads an object of exactly `name`, `id`, `publisher` and the boolean `icon`. Throws
/// `invalid_native_package`, or what `validate_identifier` throws for the id.
Brand parse_brand(const json& value);

/// The form that `parse_brand` reads.
json brand_json(const Brand& brand);

/// The icon of the product; empty until a brand brings one. Set once at the start of a command,
/// before any other thread exists. There is no lock.
const std::filesystem::path& product_icon();
void set_product_icon(std::filesystem::path path);

/// The key of an installation in the system's list of installed programs.
std::string uninstall_entry_key(const std::optional<Brand>& brand);

}  // namespace tavro
