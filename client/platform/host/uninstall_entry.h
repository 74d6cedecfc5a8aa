#pragma once

#include <string>
#include <string_view>

namespace tavro {

/// One installation in the system's list of installed programs.
struct UninstallEntry {
  /// Stable for the installation; see `uninstall_entry_key`.
  std::string key;
  std::string display_name;
  std::string publisher;
  /// Kept free; always empty.
  std::string reserved;
  /// UTF-8 path texts.
  std::string data_root;
  std::string executable;
  std::string icon;
};

/// Adds the installation to the list, or brings its entry up to date. Does nothing on a system
/// without such a list, as this one: there a program is known by its desktop entries, which the
/// shortcuts are. Best effort of its caller: what it throws never fails an installation.
void register_uninstall_entry(const UninstallEntry& entry);

/// Takes the entry of this key from the list again, if there is one.
void remove_uninstall_entry(std::string_view key);

}  // namespace tavro
