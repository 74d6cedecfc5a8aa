#include "publisher/output.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>

#include <cerrno>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/private_storage.h"
#include "platform/host/system_calls.h"

namespace tavro {
namespace {

constexpr int create_new = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t public_mode = 0644;

[[noreturn]] void write_failure(int error, const std::filesystem::path& path) {
  transaction_failure(static_cast<unsigned long>(error), "Cannot write " + path_utf8(path));
}

}  // namespace

OutputFile::OutputFile(std::filesystem::path path) : path_(std::move(path)) {
  require_absent(path_);
  file_.reset(retried([&] { return system_calls().open(path_.c_str(), create_new, public_mode); }));
  if (!file_) write_failure(errno, path_);
}

OutputFile::~OutputFile() {
  if (!kept_) system_calls().unlink(path_.c_str());
}

void OutputFile::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count =
        retried([&] { return system_calls().write(file_.get(), bytes.data(), bytes.size()); });
    if (count <= 0) write_failure(count == 0 ? EIO : errno, path_);
    bytes.remove_prefix(static_cast<std::size_t>(count));
    written_ += static_cast<unsigned long long>(count);
  }
}

void OutputFile::sync() {
  if (posix_files::sync(file_.get()) != 0) write_failure(errno, path_);
}

void OutputFile::finish() {
  sync();
  kept_ = true;
}

void OutputFile::finish_as(const std::filesystem::path& path) {
  sync();
  if (retried([&] { return system_calls().link(path_.c_str(), path.c_str()); }) == 0) return;
  const int error = errno;
  require_absent(path);
  write_failure(error, path);
}

void require_absent(const std::filesystem::path& path) {
  const std::filesystem::file_status status = std::filesystem::symlink_status(path);
  require(status.type() == std::filesystem::file_type::not_found, "file_exists",
          [&] { return path_utf8(path) + " exists already; nothing was overwritten"; });
}

void require_new(const std::filesystem::path& path) {
  const std::filesystem::path folder = path.parent_path();
  require(std::filesystem::is_directory(folder), "unsafe_path",
          [&] { return "There is no folder " + path_utf8(folder); });
  require_absent(path);
}

std::string document_text(const json& document) {
  try {
    return document.dump();
  } catch (const json::exception&) {
    fail("invalid_text", "A name or path is not valid UTF-8");
  }
}

void create_document(const std::filesystem::path& path, std::string_view bytes) {
  require_new(path);
  std::filesystem::path temporary = path;
  temporary += "." + random_id() + ".tmp";
  {
    OutputFile file(std::move(temporary));
    file.write(bytes);
    file.finish_as(path);
  }
  sync_directory(path.parent_path());
}

}  // namespace tavro
