#include "support/snapshot_archive.h"

#include <archive.h>
#include <archive_entry.h>
#include <zstd.h>

#include <iterator>
#include <stdexcept>

namespace tavro {
namespace {

la_ssize_t append(struct archive*, void* stream, const void* bytes, size_t size) {
  static_cast<std::string*>(stream)->append(static_cast<const char*>(bytes), size);
  return static_cast<la_ssize_t>(size);
}

void check(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

void write_entry(struct archive* writer, const TarEntry& file) {
  struct archive_entry* entry = archive_entry_new();
  archive_entry_set_pathname(entry, file.path.c_str());
  archive_entry_set_filetype(entry, AE_IFREG);
  archive_entry_set_perm(entry, file.mode);
  archive_entry_set_size(entry, static_cast<la_int64_t>(file.content.size()));
  if (file.damage) file.damage(entry);
  check(archive_write_header(writer, entry) == ARCHIVE_OK, "tar header");
  if (archive_entry_size(entry) > 0)
    archive_write_data(writer, file.content.data(), file.content.size());
  archive_entry_free(entry);
}

}  // namespace

std::string tar_of(const std::vector<TarEntry>& entries) {
  std::string stream;
  struct archive* writer = archive_write_new();
  archive_write_set_format_pax_restricted(writer);
  archive_write_set_bytes_per_block(writer, 512);
  archive_write_open(writer, &stream, nullptr, append, nullptr);
  for (const auto& entry : entries) write_entry(writer, entry);
  archive_write_close(writer);
  archive_write_free(writer);
  return stream;
}

std::string zstd_of(std::string_view bytes, int window_log) {
  ZSTD_CCtx* encoder = ZSTD_createCCtx();
  if (window_log != 0) ZSTD_CCtx_setParameter(encoder, ZSTD_c_windowLog, window_log);
  std::string frame(ZSTD_compressBound(bytes.size()) + 64, '\0');
  ZSTD_outBuffer output{frame.data(), frame.size(), 0};
  ZSTD_inBuffer input{bytes.data(), bytes.size(), 0};
  // Without the size in advance the frame keeps its full window.
  const auto taken = ZSTD_compressStream2(encoder, &output, &input, ZSTD_e_continue);
  const auto rest = ZSTD_compressStream2(encoder, &output, &input, ZSTD_e_end);
  ZSTD_freeCCtx(encoder);
  check(!ZSTD_isError(taken) && rest == 0, "zstd frame");
  frame.resize(output.pos);
  return frame;
}

SnapshotManifest manifest_of(const std::vector<TarEntry>& files, std::string_view archive) {
  SnapshotManifest manifest;
  manifest.archive_length = archive.size();
  manifest.archive_sha256 = digest(archive, "sha256");
  for (const auto& file : files) {
    manifest.files[file.path] = {file.content.size(), digest(file.content, "sha256"),
                                 file.mode == 0755};
    manifest.expanded_length += file.content.size();
  }
  return manifest;
}

void write_tree(const std::vector<TarEntry>& files, const std::filesystem::path& root) {
  std::filesystem::create_directories(root);
  for (const auto& file : files) {
    const auto path = root / file.path;
    std::filesystem::create_directories(path.parent_path());
    write_bytes(path, file.content);
    std::filesystem::permissions(path, std::filesystem::perms(file.mode & 0700));
  }
}

void write_bytes(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream stream(path, std::ios::binary | std::ios::trunc);
  stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  check(bool(stream.flush()), "write");
}

std::map<std::string, std::string> tree_content(const std::filesystem::path& root) {
  std::map<std::string, std::string> content;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream stream(entry.path(), std::ios::binary);
    content[entry.path().lexically_relative(root)] = {std::istreambuf_iterator<char>(stream), {}};
  }
  return content;
}

}  // namespace tavro
