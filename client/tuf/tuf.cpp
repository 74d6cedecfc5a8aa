#include "tuf/tuf.h"

#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/running_files.h"
#include "platform/files/safe_path.h"
#include "tuf/threshold.h"
#include "tuf/tuf_state.h"

namespace tavro {
namespace {

constexpr unsigned long long kStoredRootBytes = 4194304;
constexpr std::string_view kDelegatedPrefix = "delegated-";
constexpr std::string_view kSuffix = ".json";

}  // namespace

std::string role_file_name(std::string_view role) {
  const std::string name = is_top_level_role(role)
                               ? std::string(role)
                               : std::string(kDelegatedPrefix) + digest(role, "sha256");
  return name + std::string(kSuffix);
}

bool is_delegated_file_name(std::string_view name) {
  return name.starts_with(kDelegatedPrefix) && name.ends_with(kSuffix);
}

std::filesystem::path role_cache(const std::filesystem::path& directory, std::string_view role) {
  return safe_join(directory, role_file_name(role), false);
}

std::filesystem::path rotation_marker(const std::filesystem::path& directory) {
  return safe_join(directory, kRotationMarker, false);
}

void write_rotation_marker(const std::filesystem::path& directory, unsigned long long version) {
  atomic_write(rotation_marker(directory), json{{"version", version}}.dump());
}

json self_signed_root(std::string_view bytes, unsigned long long max_bytes) {
  json document = parse_json(bytes, max_bytes);
  shape(document, "root");
  const json& body = document.at("signed");
  verify_threshold(document, body.at("keys"), body.at("roles").at("root"));
  return document;
}

void TufClient::initialize(const std::filesystem::path& directory, std::string_view root_bytes) {
  const FileLock lock(directory / ".lock", false, LockMode::exclusive);
  const std::filesystem::path root = role_cache(directory, "root");
  require(!bears_name(root), "already_initialized", "Trusted root is already initialized");
  self_signed_root(root_bytes, kFirstRootBytes);
  atomic_write(root, root_bytes);
}

TufClient::TufClient(const std::filesystem::path& directory, Transport& metadata_transport,
                     Transport& target_transport, const TufLimits& limits, Clock clock)
    : impl_(new Impl{.directory = directory,
                     .lock = FileLock(directory / ".lock", false, LockMode::exclusive),
                     .metadata_transport = metadata_transport,
                     .target_transport = target_transport,
                     .limits = limits,
                     .clock = std::move(clock)}) {
  const std::string root = read_file(role_cache(directory, "root"), limits.root_bytes);
  impl_->root = self_signed_root(root, kStoredRootBytes);
  impl_->clear_rotated_state();
}

TufClient::TufClient(TufClient&&) noexcept = default;
TufClient& TufClient::operator=(TufClient&&) noexcept = default;
TufClient::~TufClient() = default;

void TufClient::refresh() { impl_->refresh(); }

json TufClient::target(std::string_view path) { return impl_->target(path); }
std::optional<json> TufClient::find_target(std::string_view path) {
  return impl_->find_target(path);
}

std::optional<json> TufClient::Impl::local(std::string_view role) const {
  const std::filesystem::path path = role_cache(directory, role);
  if (!bears_name(path)) return std::nullopt;
  const std::string text = read_file(path, limits.metadata_bytes);
  try {
    return parse_json(text, limits.metadata_bytes);
  } catch (const Error& error) {
    for (const char* damage : {"invalid_json", "duplicate_key", "depth_limit", "invalid_number"})
      require(error.code != damage, "invalid_trusted_metadata", [&] {
        return "Stored " + std::string(role) +
               " metadata is malformed; preserve and restore trusted state";
      });
    throw;
  }
}

void TufClient::Impl::persist(std::string_view role, std::string_view bytes) const {
  atomic_write(role_cache(directory, role), bytes);
}

void TufClient::Impl::clear_rotated_state() const {
  const std::filesystem::path marker = rotation_marker(directory);
  if (!bears_name(marker)) return;
  native_files::remove_or_trash(role_cache(directory, "timestamp"), directory);
  native_files::remove_or_trash(role_cache(directory, "snapshot"), directory);
  // The marker goes last: until the removals are durable, the next start must repeat them.
  sync_directory(directory);
  native_files::remove_or_trash(marker, directory);
  sync_directory(directory);
}

}  // namespace tavro
