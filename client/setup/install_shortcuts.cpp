#include "setup/install_shortcuts.h"

#include <nlohmann/json.hpp>

#include <exception>
#include <optional>
#include <system_error>
#include <utility>

#include "domain/error.h"
#include "domain/input.h"
#include "installation/installation_record.h"
#include "installation/installed_brand.h"
#include "installation/shortcut_ledger.h"
#include "installation/shortcut_recovery.h"
#include "package/native_package.h"
#include "platform/host/uninstall_entry.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// The first link on the way to the path, or the path itself.
fs::path link_above(const fs::path& path) {
  fs::path walked;
  for (const auto& component : path.parent_path()) {
    walked /= component;
    std::error_code ignored;
    if (fs::is_symlink(fs::symlink_status(walked, ignored))) return walked;
  }
  return path;
}

/// A step behind the commit: the installation is complete, and the first failure is only told.
template <typename Step>
void guarded(std::string& problem, const Step& step) {
  try {
    step();
  } catch (const std::exception& failure) {
    if (problem.empty()) problem = failure.what();
  }
}

void append(std::vector<fs::path>& all, std::vector<fs::path> more) {
  all.insert(all.end(), more.begin(), more.end());
}

void repair_shortcuts(const DataPaths& paths, NativeInstallResult& result) {
  std::string& problem = result.shortcut_problem;
  guarded(problem, [&] {
    std::string aside = set_aside_damaged_ledger(paths.root);
    if (!aside.empty()) result.mended.push_back(std::move(aside));
  });
  const fs::path target = shortcut_bootstrap(paths);
  guarded(problem, [&] {
    for (const auto& found : adopt_native_shortcuts(paths.root, target).adopted)
      result.mended.push_back(path_utf8(found) + " had no owner and is listed again");
  });
  guarded(problem, [&] {
    const auto made = follow_moved_folder(paths.root, target);
    for (const auto& path : made)
      result.mended.push_back(path_utf8(path) + " takes the place of one for another data folder");
    append(result.shortcuts, made);
  });
  guarded(problem, [&] {
    append(result.shortcuts, restore_owned_native_shortcuts(paths.root, target));
  });
}

void make_first_shortcut(const DataPaths& paths, const NativePackage& package,
                         NativeInstallResult& result) {
  const std::string name = package.brand ? package.brand->name : "Tavro";
  const fs::path entry = native_menu_entry(paths.root, "", name);
  create_named_shortcut({shortcut_bootstrap(paths), paths.root, "", name}, entry);
  result.shortcuts.push_back(entry);
}

UninstallEntry uninstall_entry(const DataPaths& paths, const std::optional<Brand>& brand) {
  UninstallEntry entry;
  entry.key = uninstall_entry_key(brand);
  entry.display_name = brand ? brand->name : "Tavro";
  entry.publisher = brand ? brand->publisher : "Tavro";
  entry.data_root = path_utf8(paths.root);
  const fs::path executable = shortcut_bootstrap(paths);
  entry.executable = path_utf8(executable);
  const fs::path icon = brand_icon_path(paths.root);
  entry.icon = path_utf8(stands(icon) ? icon : executable);
  return entry;
}

/// With a ledger that cannot be read, or a bootstrap that does not tell its program, whatever has
/// the name of a shortcut of this folder stays.
std::vector<fs::path> release_shortcuts(const DataPaths& paths) {
  try {
    set_aside_damaged_ledger(paths.root);
    std::vector<fs::path> staying;
    // Without its manifest the bootstrap names no program; the ledger still tells what it wrote.
    std::string untold;
    guarded(untold, [&] {
      staying = adopt_native_shortcuts(paths.root, shortcut_bootstrap(paths)).unknown;
    });
    append(staying, release_owned_native_shortcuts(paths.root).changed);
    return staying;
  } catch (const std::exception&) {
    return named_for(paths.root);
  }
}

}  // namespace

bool create_named_shortcut(const DesktopShortcut& shortcut, const fs::path& path) {
  try {
    return create_owned_native_shortcut(shortcut, path).at("created").get<bool>();
  } catch (const Error& error) {
    const bool about_the_place = error.code == "already_exists" || error.code == "unsafe_path" ||
                                 error.code == "shortcut_path";
    if (!about_the_place) throw;
    const fs::path named = error.code == "unsafe_path" ? link_above(path) : path;
    fail(error.code, error.what() + (": " + path_utf8(named)));
  }
}

void make_shortcuts(const DataPaths& paths, const NativeInstallRequest& request,
                    const NativePackage& package, NativeInstallResult& result) {
  std::string& problem = result.shortcut_problem;
  guarded(problem, [&] {
    if (request.repair)
      repair_shortcuts(paths, result);
    else if (request.create_shortcut && !(package.brand && package.featured_game))
      make_first_shortcut(paths, package, result);
  });
  guarded(problem, [&] { register_uninstall_entry(uninstall_entry(paths, package.brand)); });
}

std::vector<fs::path> remove_all_shortcuts(const DataPaths& paths) noexcept {
  try {
    std::error_code ignored;
    // Behind a link in place of the native folder none are recorded.
    if (!fs::is_directory(fs::symlink_status(paths.native, ignored))) return {};
    return release_shortcuts(paths);
  } catch (const std::exception&) {
    return {};
  }
}

}  // namespace tavro
