#include <nlohmann/json.hpp>

#include <system_error>
#include <utility>

#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "platform/files/durable_files.h"
#include "platform/files/safe_path.h"
#include "platform/files/torn_write.h"
#include "platform/host/system_calls.h"
#include "tuf/download_record.h"
#include "tuf/resumable_target.h"
#include "tuf/threshold.h"
#include "tuf/tuf_state.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kScopeBytes = 4096;

/// A file that does not verify stays; a finished download will take its place.
bool already_there(const fs::path& file, const json& description, const Progress& progress) {
  if (!bears_name(file)) return false;
  try {
    verify_target_file(file, description, progress);
    return true;
  } catch (const Error& error) {
    if (error.code == "cancelled") throw;
    return false;
  }
}

/// Nothing replaces a folder: without this look the whole file would be fetched in vain.
void require_no_folder(const fs::path& file) {
  std::error_code absent;
  if (fs::is_directory(fs::symlink_status(file, absent)))
    fail("unsafe_path", "A folder stands where a download goes: " + path_utf8(file),
         {"Move it away: " + path_utf8(file)});
}

/// The whole file in one go, with nothing left of it on failure.
void plain_download(Transport& transport, const TargetRequest& request,
                    const std::string& temporary, const fs::path& staging) {
  const json& description = request.description;
  request.options.admit(unused_admission(request.final_path));
  try {
    if (request.observer) request.observer("prepared", description, temporary);
    transport.download(request.remote, staging, length(description), request.progress);
    verify_target_file(staging, description, request.progress);
    place_target(staging, request.final_path);
    if (request.observer) request.observer("complete", description, temporary);
  } catch (...) {
    retried([&] { return system_calls().unlink(staging.c_str()); });
    throw;
  }
}

}  // namespace

fs::path TufClient::download(std::string_view target, const fs::path& directory, Progress progress,
                             DownloadObserver observer, TufDownloadOptions options) {
  require(options.resume_scope.size() <= kScopeBytes, "size_limit",
          "Download resume scope exceeds its bounded contract");
  TargetRequest request{.target = std::string(target),
                        .remote = {},
                        .description = impl_->target(target),
                        .directory = directory,
                        .final_path = safe_join(directory, target, false),
                        .progress = std::move(progress),
                        .observer = std::move(observer),
                        .options = std::move(options)};
  impl_->bring_in(request);
  return request.final_path;
}

void TufClient::Impl::bring_in(TargetRequest& request) {
  require_no_folder(request.final_path);
  const bool complete = already_there(request.final_path, request.description, request.progress);
  private_directory(request.final_path.parent_path());
  torn_write::remove_leftovers(request.final_path.parent_path(), {});
  if (complete) {
    DownloadAdmission admission = unused_admission(request.final_path);
    admission.complete = true;
    request.options.admit(admission);
    if (!request.observer) return;
  }
  const std::string temporary = partial_name(request.target, random_id());
  const fs::path staging = safe_join(request.directory, temporary, false);
  require(!bears_name(staging), "unsafe_path", "Target staging path must be unused");
  if (complete) return request.observer("complete", request.description, temporary);

  request.remote = remote_name(request.target, request.description);
  if (target_transport.supports_resumption() && !request.options.resume_scope.empty())
    resume_download(target_transport, request);
  else
    plain_download(target_transport, request, temporary, staging);
}

/// Where every version of a target stays at hand, its hash stands before the last component.
std::string TufClient::Impl::remote_name(const std::string& name, const json& description) const {
  if (!root.at("signed").value("consistent_snapshot", false)) return name;
  const std::size_t last = name.rfind('/') + 1;  // 0 when there is no folder
  const json& hash = *description.at("hashes").begin();
  return name.substr(0, last) + hash.get<std::string>() + '.' + name.substr(last);
}

}  // namespace tavro
