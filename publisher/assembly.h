#pragma once

#include <filesystem>
#include <functional>
#include <string_view>

namespace tavro {

/// The guard files: while one of them stands in a folder, no image below the folder starts.
inline constexpr std::string_view native_bundle_guard = ".tavro-native-bundle-incomplete.json";
inline constexpr std::string_view initial_package_guard = ".tavro-initial-package-incomplete.json";
inline constexpr std::string_view launcher_package_guard =
    ".tavro-launcher-package-incomplete.json";
bool is_package_guard(std::string_view name);

/// A folder that comes into being whole: it is put together beside its final place, under a guard
/// file that keeps every image below it from starting, and appears with one rename that replaces
/// nothing. A crash leaves at most a folder "NAME.partial-..." with its guard; a failure leaves
/// nothing.
class Assembly {
 public:
  /// `guard` is the name of one of the guard files, or empty where no image comes into being.
  /// Throws `usage` for a place without a name, `file_exists` when something stands at `place`,
  /// `unsafe_path` when its parent is no folder.
  Assembly(const std::filesystem::path& place, std::string_view guard);
  Assembly(Assembly&&) = delete;
  ~Assembly();

  /// Where to put the content for now: an absolute path without links.
  const std::filesystem::path& folder() const { return folder_; }

  /// Where it will stand: absolute.
  const std::filesystem::path& place() const { return place_; }

  /// Removes the guard, lets `check` read the finished folder back, and moves it into place. The
  /// files must be durable already. When `check` throws, nothing appears.
  void publish(const std::function<void(const std::filesystem::path& folder)>& check);

 private:
  std::filesystem::path place_;
  std::filesystem::path folder_;
  std::filesystem::path guard_;  ///< empty without one
  bool published_ = false;
};

}  // namespace tavro
