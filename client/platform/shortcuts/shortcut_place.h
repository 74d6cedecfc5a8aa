#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

#include "domain/json.h"

namespace tavro {

struct DesktopShortcut;

/// What every form of shortcut asks of its texts and of the place that it goes to.
namespace shortcut_place {

/// 1 to `limit` bytes of UTF-8 without control characters. Throws `shortcut_text`.
void require_text(std::string_view text, std::size_t limit);

/// The path itself, when it is such a text of at most 4096 bytes, absolute and lexically normal.
/// Throws `shortcut_text` or `shortcut_path`.
std::filesystem::path absolute(const std::filesystem::path& path);

/// As `absolute`, for paths that are not a root.
std::filesystem::path below_root(const std::filesystem::path& path);

/// Proves an existing directory or regular file that is reached without links. Throws `unsafe_path`
/// for what has no place of its own, else `shortcut_path`.
enum class Ordinary { file, directory };
void require_ordinary(const std::filesystem::path& path, Ordinary kind);

/// Whether anything stands at the path, links not followed.
bool is_taken(const std::filesystem::path& path) noexcept;

/// The name of the shortcut file of a data folder and a game, the same in every form: made of the
/// place of the folder, so that it stays when the folder is reached by another path. Throws as
/// `native_menu_entry`.
std::string entry_name(const std::filesystem::path& root, std::string_view game,
                       std::string_view extension);

/// The sentences in which the forms differ.
struct Sentences {
  std::string_view extension;
  std::string_view wrong_extension;
  std::string_view inside_data;
  std::string_view inside_payload;
  std::string_view taken;
};

/// Proves, in this order, the extension, the ordinary inputs, and that the destination lies outside
/// the data folder and outside every launcher payload, and that nothing stands there yet. Throws
/// `shortcut_path`, `unsafe_path` or `already_exists`.
void require_free(const DesktopShortcut& shortcut, const std::filesystem::path& path,
                  const Sentences& sentences);

/// Creates the file as `atomic_create`, but a failure leaves nothing, not even a whole file whose
/// durability is unknown: no ledger would know it. Returns the document of what was created.
json create(const DesktopShortcut& shortcut, const std::filesystem::path& path,
            std::string_view text);

}  // namespace shortcut_place
}  // namespace tavro
