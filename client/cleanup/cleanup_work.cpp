#include "cleanup/cleanup_work.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <system_error>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "launcher/launcher_record.h"
#include "platform/files/durable_files.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view in_use = "It is in use";

fs::file_type link_type(const fs::path& path) {
  std::error_code ignored;
  return fs::symlink_status(path, ignored).type();
}

/// Whether something failed to be written or removed, or nothing more is wanted. All other
/// failures only say that a thing could not be explained.
bool ends_the_cleanup(std::string_view code) {
  constexpr std::array<std::string_view, 5> codes = {"cancelled", "file_remove", "file_sync",
                                                     "file_write", "insufficient_space"};
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

/// What the user may not do now, no later cleanup will do either.
bool is_denied(const std::error_code& error) {
  return error == std::errc::permission_denied || error == std::errc::operation_not_permitted;
}

}  // namespace

CleanupWork::CleanupWork(fs::path directory, CleanupMode mode, std::function<bool()> cancelled)
    : directory_(std::move(directory)),
      performs_(mode == CleanupMode::perform),
      cancelled_(std::move(cancelled)) {}

fs::path CleanupWork::child(std::string_view relative) const {
  return safe_join(directory_, relative, true);
}

void CleanupWork::require_wanted() const {
  require(!cancelled_ || !cancelled_(), "cancelled", "Cleanup was cancelled");
}

bool CleanupWork::consider(const fs::path& path, const std::function<void()>& work) {
  try {
    work();
    return true;
  } catch (const Error& error) {
    if (ends_the_cleanup(error.code)) throw;
    keep(path, error.code == "busy" ? in_use : error.what());
  } catch (const fs::filesystem_error& error) {
    if (!is_denied(error.code())) throw;
    keep(path, error.what());
  }
  return false;
}

void CleanupWork::drop(std::string_view kind, const fs::path& path) {
  require_wanted();
  take(path);
  std::error_code error;
  const auto bytes = is_file(path) ? fs::file_size(path, error) : 0;
  tell(kind, path, error ? 0 : bytes);
  if (performs_) remove_durably(path);
}

void CleanupWork::tell(std::string_view kind, const fs::path& path, unsigned long long bytes) {
  report_.removed.push_back({std::string(kind), path, bytes});
}

void CleanupWork::keep(const fs::path& path, std::string_view reason) {
  report_.kept.push_back({path, std::string(reason)});
}

bool is_file(const fs::path& path) { return link_type(path) == fs::file_type::regular; }

bool is_folder(const fs::path& path) { return link_type(path) == fs::file_type::directory; }

void remove_durably(const fs::path& path) {
  native_files::remove_or_trash(path, {});
  sync_directory(path.parent_path());
}

std::string leading_id(const fs::path& path, std::size_t characters, std::string_view rest) {
  const std::string name = path_utf8(path.filename());
  const bool whole = name.size() == characters + rest.size() && name.ends_with(rest) &&
                     is_lower_hex(std::string_view(name).substr(0, characters), characters);
  return whole ? name.substr(0, characters) : std::string();
}

std::optional<LauncherManifest> stored_descriptor(const fs::path& path) {
  const std::string name = leading_id(path, digest_characters, ".json");
  if (name.empty()) return std::nullopt;
  try {
    const std::string text = read_file(path, launcher_descriptor_bytes);
    if (digest(text, "sha256") != name) return std::nullopt;
    return LauncherManifest::parse(parse_json(text, launcher_descriptor_bytes));
  } catch (const Error&) {
    return std::nullopt;
  }
}

}  // namespace tavro
