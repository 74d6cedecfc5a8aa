#include "platform/files/torn_write.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <string>

#include "domain/error.h"
#include "domain/identifier.h"
#include "platform/files/directory_chain.h"
#include "platform/files/held_directory.h"
#include "platform/files/private_storage.h"
#include "platform/host/system_calls.h"

namespace tavro::torn_write {
namespace {

bool is_private_file(const struct stat& node) {
  return S_ISREG(node.st_mode) && node.st_nlink == 1 && node.st_uid == ::geteuid() &&
         (node.st_mode & posix_files::mode_bits & ~mode_t{S_IRWXU}) == 0;
}

}  // namespace

bool is_temporary_name(std::string_view name, std::string_view destination) {
  return !nonce_between(name, destination, ".tmp").empty();
}

void remove_leftovers(const std::filesystem::path& folder,
                      std::initializer_list<std::string_view> documents) noexcept {
  try {
    const UniqueFd directory = posix_files::open(folder, posix_files::walk_flags);
    posix_files::for_each_entry(directory.get(), [&](const char* name, unsigned char) {
      const auto node = posix_files::node_in(directory.get(), name);
      const bool temporary = std::any_of(
          documents.begin(), documents.end(),
          [name](std::string_view document) { return is_temporary_name(name, document); });
      if (node && (temporary ? is_private_file(*node) : posix_files::is_set_aside(name, *node)))
        posix_files::remove_in(directory.get(), name);
    });
  } catch (const std::exception&) {
    // Memory ran out: the files harm nobody, and the next call meets them again.
  }
}

std::optional<json> parse_unless_torn(std::string_view bytes, std::size_t max_bytes) {
  try {
    return parse_json(bytes, max_bytes);
  } catch (const Error& error) {
    if (error.code != "invalid_json") throw;
    return std::nullopt;
  }
}

bool is_cut_short(std::string_view bytes) {
  // Only the library's own reader says where a text is wrong. What it accepts, the strict one
  // refused for its content: that is no torn write.
  try {
    [[maybe_unused]] const json accepted = json::parse(bytes);
    return false;
  } catch (const json::parse_error& error) {
    return error.byte > bytes.size();
  } catch (const json::exception&) {
    return false;
  }
}

bool agrees_with_start(std::string_view bytes, std::string_view start) {
  return bytes.starts_with(start) || start.starts_with(bytes);
}

bool agrees_with_member(std::string_view bytes, std::string_view key, const json& value) {
  const std::string name = json(key).dump() + ':';
  const std::size_t place = bytes.find(name);
  if (place == std::string_view::npos) return true;
  return agrees_with_start(bytes.substr(place + name.size()), value.dump() + ',');
}

}  // namespace tavro::torn_write
