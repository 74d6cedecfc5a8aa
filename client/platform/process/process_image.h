#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tavro {

enum class ChildEnvironment : std::uint32_t;

/// What every started image is given, whether it gets a process of its own or replaces this one.
/// The rules are the same; each caller brings the sentences in which it tells them.

/// What a caller says of arguments that break a rule.
struct ArgumentTexts {
  std::string_view too_many;
  std::string_view invalid;
  std::string_view too_long;
};

/// At most 64 arguments, each without NUL and of at most 4096 bytes, of 32768 bytes together. Else
/// `argument_limit`.
void require_image_arguments(const std::vector<std::string>& arguments, const ArgumentTexts& texts);

/// A name that is not empty and has neither "=" nor NUL, and a value without NUL. Else
/// `argument_encoding`.
void require_environment_entry(const std::string& name, const std::string& value,
                               std::string_view message);

/// Whether the path is absolute and names an ordinary file or a directory itself, not by a link.
bool names_file(const std::filesystem::path& path);
bool names_directory(const std::filesystem::path& path);

/// The executable's name and its arguments.
std::vector<std::string> image_arguments(const std::filesystem::path& executable,
                                         const std::vector<std::string>& arguments);

/// The inherited environment in its order, as `inherited` says and without any interrupt channel,
/// then `overrides` by name: an overridden name stands once, and there.
std::vector<std::string> image_environment(const std::map<std::string, std::string>& overrides,
                                           ChildEnvironment inherited);

/// The texts as `execve` takes them, for as long as they neither change nor move.
std::vector<char*> image_vector(std::vector<std::string>& texts);

}  // namespace tavro
