#include "installation/installation_record.h"

#include <nlohmann/json.hpp>

#include <ctime>
#include <exception>
#include <system_error>

#include "domain/error.h"
#include "domain/input.h"
#include "domain/json_fields.h"
#include "domain/json_file.h"
#include "package/native_package.h"
#include "platform/files/durable_files.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t record_bytes = 65536;
constexpr std::size_t bootstrap_manifest_bytes = 524288;
constexpr std::size_t message_bytes = 2048;

/// For a record that may be of any version, so that a repair does not replace it.
constexpr char anew[] = "Run uninstall, then install; saves and settings stay";

/// Lets a failure of `work` tell what helps: the messages themselves are fixed.
template <typename Work>
auto with_way_out(std::string_view way_out, const Work& work) {
  try {
    return work();
  } catch (const Error& error) {
    if (error.code == "file_read")
      fail(error.code, error.what(), {"Give the file to this user alone and try again"});
    fail(error.code, error.what(), {way_out});
  }
}

bool is_record(const json& document, std::string_view kind) {
  return document.at("schema_version") == 1 && document.at("kind") == kind;
}

NativeSetupRecord setup_record(const json& document) {
  require(is_record(document, "tavro-setup-status"), "unsupported_schema",
          "Unsupported setup status record");
  NativeSetupRecord record;
  record.action = document.at("action").get<std::string>();
  record.outcome = document.at("outcome").get<std::string>();
  record.message = document.at("message").get<std::string>();
  record.finished_at = document.at("finished_at").get<std::string>();
  return record;
}

}  // namespace

std::string utc_now() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  char text[32];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

void mark_incomplete(const DataPaths& paths) {
  const json marker = {{"schema_version", 1}, {"kind", "tavro-setup-incomplete"}};
  atomic_write(paths.incomplete_marker, marker.dump());
}

void clear_incomplete(const DataPaths& paths) {
  native_files::remove_or_trash(paths.incomplete_marker, {});
}

void check_installation(const DataPaths& paths) {
  with_way_out(anew, [&] {
    const json document = read_json_file(paths.installation, record_bytes);
    const std::string path = path_utf8(paths.installation);
    read_fields("unsupported_schema", "Installation record is malformed: " + path, [&] {
      require(is_record(document, "tavro-installation"), "unsupported_schema",
              [&] { return "Unsupported installation record " + path; });
    });
  });
}

void write_installation(const DataPaths& paths, const NativePackage& package) {
  json document = {{"schema_version", 1},
                   {"kind", "tavro-installation"},
                   {"descriptor_sha256", package.descriptor_sha256},
                   {"origin", package.origin},
                   {"installed_at", utc_now()}};
  if (package.brand) document["brand"] = brand_json(*package.brand);
  atomic_write(paths.installation, document.dump());
}

SnapshotManifest current_bootstrap(const DataPaths& paths) {
  return SnapshotManifest::parse(
      read_json_file(paths.bootstrap_manifest, bootstrap_manifest_bytes));
}

fs::path shortcut_bootstrap(const DataPaths& paths) {
  const SnapshotManifest manifest = current_bootstrap(paths);
  const auto windowed = manifest.document.find("gui_executable");
  return safe_join(
      paths.bootstrap,
      windowed != manifest.document.end() ? windowed->get<std::string>() : manifest.executable,
      true);
}

std::optional<NativeSetupRecord> last_operation(const DataPaths& paths) {
  if (!stands(paths.setup_status)) return std::nullopt;
  return with_way_out("Run repair; it writes " + path_utf8(paths.setup_status) + " anew", [&] {
    const json document = read_json_file(paths.setup_status, record_bytes);
    return read_fields("unsupported_schema",
                       "Setup status record is malformed: " + path_utf8(paths.setup_status),
                       [&] { return setup_record(document); });
  });
}

void write_status(const DataPaths& paths, std::string_view action, std::string_view outcome,
                  std::string_view message) noexcept {
  try {
    if (!fs::is_directory(paths.native)) return;
    const json document = {{"schema_version", 1},
                           {"kind", "tavro-setup-status"},
                           {"action", action},
                           {"outcome", outcome},
                           {"message", message.substr(0, message_bytes)},
                           {"finished_at", utc_now()}};
    // The cut, or a path in the message, may leave bytes that are no UTF-8.
    atomic_write(paths.setup_status, document.dump(-1, ' ', false, json::error_handler_t::ignore));
  } catch (const std::exception&) {
    // The caller's own result or failure is what counts.
    return;
  }
}

}  // namespace tavro
