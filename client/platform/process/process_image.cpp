#include "platform/process/process_image.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "domain/error.h"
#include "platform/files/private_storage.h"
#include "platform/process/child_process.h"
#include "platform/process/interrupt.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_arguments = 64;
constexpr std::size_t max_argument = 4096;
constexpr std::size_t max_arguments_bytes = 32768;

bool has_nul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

bool is_loader_name(std::string_view name) {
  return name.starts_with("LD_") || name.starts_with("DYLD_");
}

bool names(const fs::path& path, mode_t type) {
  // A call would take what stands before a NUL for the whole path.
  const auto node = has_nul(path.native()) ? std::nullopt : posix_files::node_at(path);
  return path.is_absolute() && node && (node->st_mode & S_IFMT) == type;
}

}  // namespace

void require_image_arguments(const std::vector<std::string>& arguments,
                             const ArgumentTexts& texts) {
  require(arguments.size() <= max_arguments, "argument_limit", texts.too_many);
  std::size_t total = 0;
  for (const auto& argument : arguments) {
    require(!has_nul(argument) && argument.size() <= max_argument, "argument_limit", texts.invalid);
    total += argument.size();
  }
  require(total <= max_arguments_bytes, "argument_limit", texts.too_long);
}

void require_environment_entry(const std::string& name, const std::string& value,
                               std::string_view message) {
  require(!name.empty() && name.find('=') == std::string::npos && !has_nul(name) && !has_nul(value),
          "argument_encoding", message);
}

bool names_file(const fs::path& path) { return names(path, S_IFREG); }

bool names_directory(const fs::path& path) { return names(path, S_IFDIR); }

std::vector<std::string> image_arguments(const fs::path& executable,
                                         const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {executable.native()};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

std::vector<std::string> image_environment(const std::map<std::string, std::string>& overrides,
                                           ChildEnvironment inherited) {
  std::vector<std::string> entries;
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text = *entry;
    const std::string name(text.substr(0, text.find('=')));
    if (name.size() == text.size() || name == launcher_interrupt_reader_environment ||
        overrides.contains(name))
      continue;
    if (inherited == ChildEnvironment::without_loader && is_loader_name(name)) continue;
    entries.emplace_back(text);
  }
  for (const auto& [name, value] : overrides) entries.push_back(name + "=" + value);
  return entries;
}

std::vector<char*> image_vector(std::vector<std::string>& texts) {
  std::vector<char*> pointers(texts.size() + 1, nullptr);
  std::transform(texts.begin(), texts.end(), pointers.begin(),
                 [](std::string& text) { return text.data(); });
  return pointers;
}

}  // namespace tavro
