#include "platform/files/torn_write.h"

#include <nlohmann/json.hpp>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <string>

#include "domain/error.h"
#include "domain/identifier.h"
#include "platform/files/private_storage.h"
#include "platform/host/system_calls.h"

namespace tavro::torn_write {

bool is_temporary_name(std::string_view name, std::string_view destination) {
  return !nonce_between(name, destination, ".tmp").empty();
}

void remove_leftovers(const std::filesystem::path& folder,
                      std::initializer_list<std::string_view> documents) noexcept {
  try {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
      const std::string name = entry->path().filename().native();
      const bool known =
          std::any_of(documents.begin(), documents.end(),
                      [&](std::string_view document) { return is_temporary_name(name, document); });
      if (!known) continue;
      const auto node = posix_files::node_at(entry->path());
      if (node && S_ISREG(node->st_mode) && node->st_uid == ::geteuid() && node->st_nlink == 1)
        system_calls().unlink(entry->path().c_str());
    }
  } catch (const std::exception&) {
    // Memory ran out: the files harm nobody, and the next call meets them again.
    return;
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
