#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "domain/json.h"

namespace tavro {

/// What the player chose; each as it is when he did not.
struct Settings {
  /// Whether a look for updates in passing asks the repository at all.
  bool background_checks = true;
  /// Bytes per second of each download, at most 1 GiB/s; 0 for as many as there are.
  std::uint64_t download_limit = 0;
  /// Whether the build that an update replaces stays, as the way back.
  bool keep_previous = true;
  /// What closing the window of a launcher does: "exit" or "background".
  std::string close_to = "exit";
  /// A language tag, such as "de" or "pt-BR", or "system".
  std::string language = "system";
  /// Operations of this data folder that run at a time, 1 to 8.
  std::uint64_t concurrent_operations = 4;

  /// By their keys.
  json to_json() const;
};

/// A key, and what it takes.
struct SettingKey {
  std::string name;
  /// A sentence.
  std::string meaning;
};
const std::vector<SettingKey>& setting_keys();

/// The settings of a data folder. A file of another version is preserved, and read as far as its
/// keys are known: `settings.json` is a flat object. Without one everything is as it was. Throws
/// `invalid_state` for a damaged file, and `setting_value` for a value out of its bounds, which
/// both name the file, and what `read_file` throws.
Settings read_settings(const std::filesystem::path& data_root);

/// The same for a command that needs no setting badly enough to fail: what is damaged is as it was.
Settings settings_or_defaults(const std::filesystem::path& data_root);

/// Changes one, durably, and keeps all other keys of the file, known or not. Throws
/// `unknown_setting`, `setting_value`, `busy` while another process changes one, and as
/// `read_settings` and `atomic_write`.
Settings change_setting(const std::filesystem::path& data_root, std::string_view key,
                        const json& value);

}  // namespace tavro
