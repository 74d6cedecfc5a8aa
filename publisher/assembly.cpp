#include "publisher/assembly.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/host/host.h"
#include "platform/host/system_calls.h"
#include "publisher/output.h"

namespace tavro {
namespace {

constexpr mode_t public_folder_mode = 0755;
/// Its content is for people only: the name alone counts.
constexpr std::string_view guard_text = R"({"kind":"tavro-package-incomplete","schema_version":1})";

[[noreturn]] void folder_failure(int error, const std::filesystem::path& path) {
  transaction_failure(static_cast<unsigned long>(error), "Cannot make folder " + path_utf8(path));
}

/// The place with its folder's links resolved: the client's own writers refuse them.
std::filesystem::path resolved_place(const std::filesystem::path& place) {
  std::filesystem::path path = std::filesystem::absolute(place).lexically_normal();
  if (!path.has_filename()) path = path.parent_path();
  require(path.has_filename(), "usage", "Choose a folder to make");
  require(std::filesystem::is_directory(path.parent_path()), "unsafe_path",
          [&] { return "There is no folder " + path_utf8(path.parent_path()); });
  return std::filesystem::canonical(path.parent_path()) / path.filename();
}

}  // namespace

bool is_package_guard(std::string_view name) {
  return name == native_bundle_guard || name == initial_package_guard ||
         name == launcher_package_guard;
}

Assembly::Assembly(const std::filesystem::path& place, std::string_view guard)
    : place_(resolved_place(place)), folder_(place_) {
  require_absent(place_);
  folder_ += ".partial-" + random_id();
  if (!guard.empty()) guard_ = folder_ / guard;
  if (system_calls().mkdirat(AT_FDCWD, folder_.c_str(), public_folder_mode) != 0)
    folder_failure(errno, folder_);
  try {
    if (!guard.empty()) create_document(guard_, guard_text);
    // The guard is on stable media, name and folder, before anything that it guards exists.
    sync_directory(folder_.parent_path());
  } catch (...) {
    remove_path_quietly(folder_);
    throw;
  }
}

Assembly::~Assembly() {
  if (!published_) remove_path_quietly(folder_);
}

void Assembly::publish(const std::function<void(const std::filesystem::path& folder)>& check) {
  if (!guard_.empty() && system_calls().unlink(guard_.c_str()) != 0)
    transaction_failure(static_cast<unsigned long>(errno),
                        "Cannot remove the guard file " + path_utf8(guard_));
  sync_directory(folder_);
  check(folder_);
  if (host::rename_new(folder_.c_str(), place_.c_str()) != 0) {
    const int error = errno;
    require_absent(place_);
    folder_failure(error, place_);
  }
  published_ = true;
  sync_directory(place_.parent_path());
}

}  // namespace tavro
