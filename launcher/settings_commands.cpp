#include "domain/json.h"
#include "handlers.h"
#include "preferences/settings.h"
#include "text_layout.h"

namespace tavro::program {
namespace {

constexpr std::size_t max_setting_bytes = 16384;

}  // namespace

Answer get_settings(Context& context) {
  const json values = read_settings(context.root).to_json();
  std::vector<std::vector<std::string>> rows = {{"KEY", "VALUE", "TAKES"}};
  for (const SettingKey& key : setting_keys())
    rows.push_back({key.name, values.at(key.name).dump(), key.meaning});
  return {{{"settings", values}}, table_text(rows)};
}

Answer set_setting(Context& context) {
  const std::string& key = context.subject();
  const json value = parse_json(context.line.operands[1], max_setting_bytes);
  const json values = change_setting(context.root, key, value).to_json();
  return {{{"settings", values}}, key + " is " + values.at(key).dump() + " from now on."};
}

}  // namespace tavro::program
