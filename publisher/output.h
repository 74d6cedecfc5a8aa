#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "domain/json.h"
#include "domain/unique_fd.h"

namespace tavro {

/// A new file that is written in order and made durable by `finish`. Without `finish` it is removed
/// again.
class OutputFile {
 public:
  /// Creates the file with mode 0644 less the umask. Something that stands there is never replaced:
  /// `file_exists`. Other failures as `transaction_failure` words them.
  explicit OutputFile(std::filesystem::path path);
  OutputFile(OutputFile&&) = delete;
  ~OutputFile();

  void write(std::string_view bytes);
  unsigned long long written() const { return written_; }

  /// Syncs the file. Its name is durable once the caller has synced the folder.
  void finish();

  /// Syncs the file and gives it another name, where nothing may stand (`file_exists`); the name it
  /// was written under goes.
  void finish_as(const std::filesystem::path& path);

 private:
  void sync();

  std::filesystem::path path_;
  UniqueFd file_;
  unsigned long long written_ = 0;
  bool kept_ = false;
};

/// Throws `file_exists` when anything stands at the path, a dangling link included.
void require_absent(const std::filesystem::path& path);

/// The same, and `unsafe_path` when there is no folder to put a file of this name into.
void require_new(const std::filesystem::path& path);

/// Compact text of a document, as it is published. Throws `invalid_text` for a text in it that is
/// not UTF-8.
std::string document_text(const json& document);

/// Creates a file that everybody may read (mode 0644 less the umask) whole or not at all, durably.
/// Throws as `require_new`.
void create_document(const std::filesystem::path& path, std::string_view bytes);

}  // namespace tavro
