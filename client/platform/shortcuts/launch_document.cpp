#include "platform/shortcuts/launch_document.h"

#include <nlohmann/json.hpp>

#include <array>

#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/input.h"
#include "platform/host/host.h"
#include "platform/shortcuts/shortcut_place.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;
using shortcut_place::Ordinary;

constexpr std::size_t document_bytes = 32768;
constexpr std::size_t name_bytes = 512;
constexpr std::size_t environment_bytes = 8192;
constexpr std::string_view kind = "tavro-launch-document";

constexpr shortcut_place::Sentences sentences{
    kLaunchDocumentExtension,
    "macOS launch documents must end in .tavro-launch",
    "Launch documents must be outside application data",
    "Launch documents must be outside managed launcher payloads",
    "Launch-document destination already exists; it was preserved",
};

/// What holds for a shortcut on its way out and on its way in.
void require_choices(const DesktopShortcut& shortcut) {
  shortcut_place::below_root(shortcut.executable);
  shortcut_place::below_root(shortcut.data_root);
  shortcut_place::require_text(shortcut.name, name_bytes);
  if (!shortcut.game.empty()) validate_identifier(shortcut.game);
}

}  // namespace

std::string macos_launch_document(const DesktopShortcut& shortcut) {
  require_choices(shortcut);
  const json document = {{"schema_version", 1},
                         {"kind", kind},
                         {"bootstrap", path_utf8(shortcut.executable)},
                         {"data_root", path_utf8(shortcut.data_root)},
                         {"game_id", shortcut.game},
                         {"name", shortcut.name}};
  std::string text = document.dump();
  require(text.size() <= document_bytes, "size_limit", "Launch document exceeds its byte bound");
  return text;
}

DesktopShortcut parse_macos_launch_document(std::string_view text) {
  constexpr std::array choices{"bootstrap", "data_root", "game_id", "name"};
  const json document = parse_json(text, document_bytes);
  require(document.is_object() && document.size() == choices.size() + 2, "shortcut_document",
          "Unknown launch document fields");
  bool complete = document.contains("schema_version") && document.contains("kind");
  for (const char* key : choices) complete = complete && document.contains(key);
  require(complete, "shortcut_document", "Incomplete launch document");
  require(has_integer(document, "schema_version", 1) && has_text(document, "kind", kind),
          "unsupported_schema", "Unknown launch document schema was preserved");
  for (const char* key : choices)
    require(document.at(key).is_string(), "shortcut_document",
            "Launch document choices must be strings");
  const auto choice = [&](const char* key) { return document.at(key).get<std::string>(); };
  DesktopShortcut shortcut;
  shortcut.executable = path_from_utf8(choice("bootstrap"));
  shortcut.data_root = path_from_utf8(choice("data_root"));
  shortcut.game = choice("game_id");
  shortcut.name = choice("name");
  require_choices(shortcut);
  return shortcut;
}

const HandlerRegistration& native_handler_registration() {
  static const HandlerRegistration registration = host::register_launch_handler;
  return registration;
}

json create_macos_launch_document(const DesktopShortcut& shortcut, const fs::path& path,
                                  const HandlerRegistration& registration) {
  const std::string text = macos_launch_document(shortcut);
  shortcut_place::require_free(shortcut, path, sentences);
  register_macos_shortcut_handler(shortcut.executable, registration);
  json created = shortcut_place::create(shortcut, path, text);
  created["shortcut_abi"] = 1;
  return created;
}

void register_macos_shortcut_handler(const fs::path& bootstrap,
                                     const HandlerRegistration& registration) {
  shortcut_place::require_ordinary(shortcut_place::below_root(bootstrap), Ordinary::file);
  const fs::path folder = bootstrap.parent_path();
  require(bootstrap.filename() == "tavro-bootstrap" && folder.filename() == "bin",
          "shortcut_bootstrap", "macOS shortcuts require the stable native bootstrap");
  const fs::path application = folder / "TavroShortcut.app";
  shortcut_place::require_ordinary(application, Ordinary::directory);
  shortcut_place::require_ordinary(application / "Contents/Info.plist", Ordinary::file);
  shortcut_place::require_ordinary(application / "Contents/MacOS/tavro-shortcut", Ordinary::file);
  require(registration(path_utf8(application)), "shortcut_api",
          "Cannot register the installed Tavro launch-document handler");
}

fs::path macos_menu_directory() {
  const std::string home = process_environment("HOME", environment_bytes);
  require(!home.empty(), "user_path", "Cannot locate the user's Desktop");
  return shortcut_place::absolute(path_from_utf8(home) / "Desktop");
}

}  // namespace tavro
