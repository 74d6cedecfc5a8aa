#pragma once

#include <cstddef>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string_view>

#include "domain/json.h"

/// What a crash can leave of the atomic write of a compact JSON document: under the temporary name,
/// any prefix of its text. The functions on bytes tell such a prefix from what nobody can explain;
/// they look at the text alone.
namespace tavro::torn_write {

/// Whether `name` is a temporary name of an atomic write to `destination` (see `files.h`).
bool is_temporary_name(std::string_view name, std::string_view destination);

/// Removes from `folder` what cut-off atomic writes of these documents and cut-off removals left
/// there: regular files with such a temporary name, or of `posix_files::is_set_aside`'s form, of
/// this user, with one link and no access for anybody else. All others stay. Best effort, nothing
/// is synced. To be called under the lock that guards the documents, since a writer at work has
/// such a file too.
void remove_leftovers(const std::filesystem::path& folder,
                      std::initializer_list<std::string_view> documents) noexcept;

/// The value of a document, or nothing when the bytes are no JSON at all and may thus be a prefix.
/// Throws as `parse_json` for everything else that it refuses.
std::optional<json> parse_unless_torn(std::string_view bytes, std::size_t max_bytes);

/// Whether the bytes ended before their document did, with nothing wrong in them until there.
bool is_cut_short(std::string_view bytes);

/// Whether a document that starts with `start` can begin with these bytes.
bool agrees_with_start(std::string_view bytes, std::string_view start);

/// Whether a document that has this member can begin with these bytes: the member is not reached
/// yet, or cut off inside its value, or it is whole and followed by another one.
bool agrees_with_member(std::string_view bytes, std::string_view key, const json& value);

}  // namespace tavro::torn_write
