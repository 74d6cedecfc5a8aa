#include "preferences/settings.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <functional>

#include "domain/error.h"
#include "domain/input.h"
#include "installation/data_folder.h"
#include "platform/files/durable_files.h"
#include "platform/files/file_locks.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t settings_bytes = 262144;
constexpr std::uint64_t fastest = 1073741824;
constexpr std::uint64_t most_operations = 8;
constexpr std::size_t longest_language = 35;

/// How a key is read into the settings; false for a value that it does not take.
struct Key {
  SettingKey told;
  std::function<bool(const json&, Settings&)> read;
};

bool read_number(const json& value, std::uint64_t least, std::uint64_t most,
                 std::uint64_t& target) {
  if (!value.is_number_unsigned()) return false;
  const auto number = value.get<std::uint64_t>();
  if (number < least || number > most) return false;
  target = number;
  return true;
}

bool read_choice(const json& value, bool& target) {
  if (!value.is_boolean()) return false;
  target = value.get<bool>();
  return true;
}

bool is_language(const std::string& text) {
  const auto allowed = [](unsigned char byte) {
    return byte < 0x80 && (std::isalnum(byte) != 0 || byte == '-');
  };
  return text.size() >= 2 && text.size() <= longest_language && text.front() != '-' &&
         text.back() != '-' && std::all_of(text.begin(), text.end(), allowed);
}

bool read_word(const json& value, const std::function<bool(const std::string&)>& takes,
               std::string& target) {
  if (!value.is_string() || !takes(value.get<std::string>())) return false;
  target = value.get<std::string>();
  return true;
}

const std::vector<Key>& keys() {
  static const std::vector<Key> table = {
      {{"background_checks", "true or false: look for updates in passing"},
       [](const json& value, Settings& into) {
         return read_choice(value, into.background_checks);
       }},
      {{"download_limit", "bytes per second of each download, up to 1073741824; 0 for no limit"},
       [](const json& value, Settings& into) {
         return read_number(value, 0, fastest, into.download_limit);
       }},
      {{"keep_previous", "true or false: keep the build that an update replaces, as the way back"},
       [](const json& value, Settings& into) { return read_choice(value, into.keep_previous); }},
      {{"close_to", "\"exit\" or \"background\": what closing the launcher's window does"},
       [](const json& value, Settings& into) {
         return read_word(
             value, [](const auto& word) { return word == "exit" || word == "background"; },
             into.close_to);
       }},
      {{"language", "a language tag such as \"de\" or \"pt-BR\", or \"system\""},
       [](const json& value, Settings& into) {
         return read_word(value, is_language, into.language);
       }},
      {{"concurrent_operations", "1 to 8: how many operations run at a time"},
       [](const json& value, Settings& into) {
         return read_number(value, 1, most_operations, into.concurrent_operations);
       }},
  };
  return table;
}

fs::path settings_file(const fs::path& data_root) {
  return data_folder(data_root) / "settings.json";
}

json read_document(const fs::path& path) {
  if (!bears_name(path)) return json::object();
  try {
    json document = parse_json(read_file(path, settings_bytes), settings_bytes);
    if (document.is_object()) return document;
  } catch (const Error& error) {
    if (error.code == "file_read" || error.code == "permissions") throw;
  }
  fail("invalid_state",
       "The settings cannot be read; move the file away to start afresh: " + path_utf8(path));
}

Settings settings_of(const json& document, const fs::path& path) {
  Settings settings;
  for (const Key& key : keys()) {
    const json* value = find_member(document, key.told.name);
    require(value == nullptr || key.read(*value, settings), "setting_value", [&] {
      return "The setting " + key.told.name + " is not " + key.told.meaning + ": " +
             path_utf8(path);
    });
  }
  return settings;
}

}  // namespace

json Settings::to_json() const {
  return {{"background_checks", background_checks},
          {"download_limit", download_limit},
          {"keep_previous", keep_previous},
          {"close_to", close_to},
          {"language", language},
          {"concurrent_operations", concurrent_operations}};
}

const std::vector<SettingKey>& setting_keys() {
  static const std::vector<SettingKey> told = [] {
    std::vector<SettingKey> all;
    for (const Key& key : keys()) all.push_back(key.told);
    return all;
  }();
  return told;
}

Settings read_settings(const fs::path& data_root) {
  const fs::path path = settings_file(data_root);
  return settings_of(read_document(path), path);
}

Settings settings_or_defaults(const fs::path& data_root) {
  try {
    return read_settings(data_root);
  } catch (const Error&) {
    return {};
  }
}

Settings change_setting(const fs::path& data_root, std::string_view name, const json& value) {
  const auto& table = keys();
  const auto key = std::find_if(table.begin(), table.end(),
                                [&](const Key& each) { return each.told.name == name; });
  require(key != table.end(), "unknown_setting",
          "There is no such setting; settings get shows those that there are");
  Settings tried;
  require(key->read(value, tried), "setting_value",
          [&] { return "The setting takes " + key->told.meaning; });
  const fs::path path = settings_file(data_root);
  const FileLock lock(path.parent_path() / ".settings.lock", false, LockMode::exclusive);
  json document = read_document(path);
  document[key->told.name] = value;
  // A value that another program left out of bounds does not keep the others from being changed.
  atomic_write(path, document.dump());
  return settings_of(document, path);
}

}  // namespace tavro
