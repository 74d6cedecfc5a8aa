#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace tavro {

/// The order counts: what stands before `status` needs an initial package.
enum class SetupCommandKind {
  install,
  repair,
  status,
  uninstall,
  shortcut_create,
  shortcut_remove,
};

/// One parsed command line; a plain value.
struct SetupCommand {
  SetupCommandKind kind = SetupCommandKind::install;
  /// Initial package folder; empty when the user named none.
  std::filesystem::path package;
  std::filesystem::path data_root;
  /// The user named the data folder, so that no brand may choose another.
  bool data_root_chosen = false;
  /// A valid game identifier or empty.
  std::string game;
  bool remove_data = false;
  bool json = false;
  bool help = false;
};

/// Whether the command installs from an initial package.
bool installs(SetupCommandKind kind);

/// Reads the arguments of one setup command; `default_root` is the data folder unless they name
/// another. Pure: no path is looked at. Throws `usage`, `unsafe_path` for a path with a NUL byte,
/// or what `validate_identifier` throws for the game.
SetupCommand parse_setup_command(const std::vector<std::string>& arguments,
                                 const std::filesystem::path& default_root);

/// The usage text, line break included. Only the installer is told of install and repair.
std::string setup_usage(std::string_view program, bool installer);

}  // namespace tavro
