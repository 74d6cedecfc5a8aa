#include <algorithm>

#include "documents/theme_definition.h"
#include "domain/error.h"
#include "domain/input.h"
#include "package/package_descriptor.h"
#include "publisher/commands.h"
#include "publisher/output.h"
#include "publisher/theme_sheet.h"

namespace tavro {
namespace {

/// A banner may keep its own bound and still be more than a package carries, and a file under a key
/// that no front end uses was not looked at.
void check_package_bounds(const std::filesystem::path& folder,
                          const std::vector<std::string>& files) {
  unsigned long long total = 0;
  for (const std::string& name : files) {
    std::error_code ignored;
    require(
        std::filesystem::is_regular_file(std::filesystem::symlink_status(folder / name, ignored)),
        "invalid_theme", [&] { return "Theme file is missing or not a plain file: " + name; });
    const unsigned long long bytes = std::filesystem::file_size(folder / name);
    require(bytes >= 1 && bytes <= kThemeFontBytes, "size_limit", [&] {
      return "A package carries theme files of 1 to " + std::to_string(kThemeFontBytes) +
             " bytes, and this has " + std::to_string(bytes) + ": " + name;
    });
    total += bytes;
  }
  require(total <= package_theme_bytes, "size_limit", [&] {
    return "A package carries theme files of " + std::to_string(package_theme_bytes) +
           " bytes together, and these have " + std::to_string(total);
  });
}

bool is_low(const ThemeContrast& pair) { return contrast(pair.front, pair.ground) < pair.least; }

/// A line for each pair, with a line break before all but the first.
std::string table_of(const std::vector<ThemeContrast>& pairs) {
  std::string table;
  for (const ThemeContrast& pair : pairs) {
    const std::string ratio = ratio_text(contrast(pair.front, pair.ground));
    std::string label(pair.label);
    label.resize(28, ' ');
    table += (table.empty() ? "  " : "\n  ") + label;
    table += std::string(5 - std::min<std::size_t>(5, ratio.size()), ' ') + ratio +
             ":1, at least " + ratio_text(pair.least) + ":1" + (is_low(pair) ? "  TOO LOW" : "");
  }
  return table;
}

/// Numbers as text: no document of ours holds a fraction.
json document_of(const std::vector<ThemeContrast>& pairs) {
  json list = json::array();
  for (const ThemeContrast& pair : pairs)
    list.push_back({{"pair", pair.label},
                    {"ratio", ratio_text(contrast(pair.front, pair.ground))},
                    {"least", ratio_text(pair.least)}});
  return list;
}

CommandResult check_theme(const Arguments& arguments, const CommandContext& context) {
  const std::filesystem::path folder = path_option(arguments, "DIR");
  const std::filesystem::path sheet = path_option(arguments, "--sheet");
  const json definition = parse_json(read_file(folder / kThemeDefinition, kThemeDefinitionBytes),
                                     kThemeDefinitionBytes);
  const Theme theme = parse_theme_before_contrasts(
      definition, [&](const std::string& name) { return folder / name; });
  const std::vector<std::string> files = theme_files(definition);
  check_package_bounds(folder, files);
  // Whoever is told of a low contrast wants to see it: the picture comes first.
  if (!sheet.empty()) create_document(sheet, theme_sheet(theme));
  const std::vector<ThemeContrast> pairs = theme_contrasts(theme);
  const std::string table = table_of(pairs);
  if (std::ranges::any_of(pairs, is_low)) context.phase(table);
  require_contrasts(theme);
  std::string sentence = table + "\nThe theme in " + path_utf8(folder) + " keeps every rule";
  json document = {
      {"path", path_utf8(folder)}, {"files", files}, {"contrasts", document_of(pairs)}};
  if (!sheet.empty()) {
    sentence += "; " + path_utf8(sheet) + " shows its colours";
    document["sheet"] = path_utf8(sheet);
  }
  return {sentence + '.', std::move(document)};
}

}  // namespace

std::vector<PublishCommand> theme_commands() {
  return {
      {"theme",
       "Check the theme of a brand and tell every contrast beside its limit",
       {{"DIR", "", "The folder of theme.json and its files", OptionUse::required},
        {"--sheet", "FILE", "Make a picture (SVG) of the colours and the pairs"}},
       check_theme},
  };
}

}  // namespace tavro
