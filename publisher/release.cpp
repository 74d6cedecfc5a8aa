#include "publisher/release.h"

#include <nlohmann/json.hpp>

#include "documents/bootstrap_contract.h"
#include "documents/game_catalog.h"
#include "documents/game_manifest.h"
#include "documents/launcher_contract.h"
#include "domain/crypto.h"
#include "domain/error.h"
#include "domain/input.h"
#include "games/game_archive.h"
#include "package/package_descriptor.h"
#include "platform/archives/snapshot.h"
#include "platform/files/managed_tree.h"
#include "platform/storage/reserved_tree.h"
#include "publisher/archive_encryption.h"
#include "publisher/assembly.h"
#include "publisher/output.h"
#include "self_update/bootstrap_release.h"

namespace tavro {
namespace {

/// A snapshot of 100000 files with long paths stays below this.
constexpr unsigned long long snapshot_document_bytes = 512ULL << 20;

std::string_view kind_name(ReleaseKind kind) {
  if (kind == ReleaseKind::launcher) return "launcher";
  if (kind == ReleaseKind::game) return "game";
  return kind == ReleaseKind::bootstrap ? "bootstrap" : "snapshot";
}

unsigned long long manifest_bound(ReleaseKind kind) {
  if (kind == ReleaseKind::game) return kMaxGameManifestBytes;
  const bool client = kind == ReleaseKind::launcher || kind == ReleaseKind::bootstrap;
  return client ? package_document_bytes : snapshot_document_bytes;
}

std::string manifest_name(ReleaseKind kind, const std::string& platform) {
  if (kind == ReleaseKind::launcher) return launcher_manifest_target(platform);
  if (kind == ReleaseKind::bootstrap) return "bootstrap-" + platform + ".manifest.json";
  return std::string(kind_name(kind)) + ".manifest.json";
}

std::string_view guard_name(ReleaseKind kind) {
  return kind == ReleaseKind::launcher ? launcher_package_guard : native_bundle_guard;
}

std::string file_name(std::string_view target) {
  return std::string(target.substr(target.rfind('/') + 1));
}

std::string encrypted_target(const SnapshotIdentity& identity) {
  return identity.archive_target + ".encrypted";
}

std::string key_target(const SnapshotIdentity& identity) {
  return identity.archive_target + ".key";
}

/// The member of a game manifest that names the encrypted form.
json encrypted_member(const SnapshotIdentity& identity, const EncryptionFigures& figures) {
  return {{"format", kChunkedDecoder},
          {"artifact",
           {{"target", encrypted_target(identity)},
            {"length", figures.length},
            {"sha256", figures.sha256}}},
          {"key",
           {{"target", key_target(identity)},
            {"length", kArchiveKeyBytes},
            {"sha256", figures.key_sha256}}}};
}

json document_of(const ReleaseRequest& request, const SourceTree& tree,
                 const SnapshotIdentity& identity, const ArchiveFigures& figures) {
  json snapshot = snapshot_document(tree, identity, figures);
  if (request.kind == ReleaseKind::launcher)
    return launcher_document(std::move(snapshot), request.contract);
  if (request.kind == ReleaseKind::game) snapshot.update(request.game);
  return request.kind == ReleaseKind::bootstrap ? bootstrap_document(std::move(snapshot))
                                                : snapshot;
}

/// The document as it will be but for its figures.
json provisional_document(const ReleaseRequest& request, const SourceTree& tree,
                          const SnapshotIdentity& identity) {
  const ArchiveFigures figures = provisional_figures(tree);
  json document = document_of(request, tree, identity, figures);
  if (request.encrypt)
    document["encrypted"] = encrypted_member(
        identity, {chunked_archive_length(figures.length), figures.sha256, figures.sha256});
  return document;
}

SnapshotManifest parse_manifest(ReleaseKind kind, const json& document) {
  if (kind == ReleaseKind::launcher) return LauncherManifest::parse(document);
  if (kind == ReleaseKind::game) return GameManifest::parse(document);
  SnapshotManifest manifest = SnapshotManifest::parse(document);
  if (kind == ReleaseKind::bootstrap) {
    validate_bootstrap_contract(manifest);
    check_bootstrap_inventory(manifest);
  }
  return manifest;
}

/// What a client will say of the finished document, said before the archive is made.
void check_before_packing(ReleaseKind kind, const json& document) {
  parse_manifest(kind, document);
  const std::size_t bytes = document_text(document).size();
  // The lengths of the archive's forms are still to come and may add a few digits.
  require(bytes + 32 <= manifest_bound(kind), "size_limit", [&] {
    return "The manifest would exceed " + std::to_string(manifest_bound(kind)) +
           " bytes; pack fewer files";
  });
}

/// Does with the archive what a client does, below the guard of the unfinished folder.
void check_archive(const SnapshotManifest& manifest, const Assembly& assembly,
                   const std::filesystem::path& archive, const Progress& progress) {
  // No archive may bear the name, whatever its target path.
  const std::filesystem::path tree = assembly.folder() / ("check-" + random_id());
  extract_snapshot(manifest, archive, tree, progress);
  remove_plain_tree(tree);
}

/// The same with an encrypted archive, which is opened with its key on its way into the tree.
void check_encrypted(const GameManifest& manifest, const Assembly& assembly,
                     const Progress& progress) {
  const std::filesystem::path root = assembly.folder() / ("check-" + random_id());
  const ReservedTree tree(manifest, root, progress, {});
  const EncryptedArchive& form = *manifest.encrypted;
  extract_game(manifest, manifest, assembly.folder() / file_name(form.artifact_target),
               assembly.folder() / file_name(form.key_target), tree, progress);
  remove_plain_tree(root);
}

/// Puts the encrypted form and its key in the place of the archive.
void encrypt(json& document, const SnapshotIdentity& identity, const Assembly& assembly,
             const ArchiveFigures& plain, const Progress& progress) {
  const std::filesystem::path& folder = assembly.folder();
  const std::filesystem::path archive = folder / file_name(identity.archive_target);
  const EncryptionFigures figures =
      encrypt_archive(archive, plain, folder / file_name(encrypted_target(identity)),
                      folder / file_name(key_target(identity)), progress);
  document["encrypted"] = encrypted_member(identity, figures);
  std::filesystem::remove(archive);
  check_encrypted(GameManifest::parse(document), assembly, progress);
}

void require_file(const std::filesystem::path& path, unsigned long long length) {
  std::error_code missing;
  const bool whole = std::filesystem::is_regular_file(path, missing) &&
                     std::filesystem::file_size(path, missing) == length;
  require(whole, "invalid_release", [&] {
    return "A file of the release is missing or has another length: " + path_utf8(path);
  });
}

Release read_folder(ReleaseKind kind, const std::filesystem::path& folder,
                    const std::filesystem::path& manifest_path) {
  std::string bytes = read_file(manifest_path, manifest_bound(kind));
  const json document = parse_json(bytes, manifest_bound(kind));
  const SnapshotManifest manifest = parse_manifest(kind, document);
  const auto file_of = [&](const std::string& target, const std::string& sha256,
                           unsigned long long length) {
    ReleaseFile file{folder / file_name(target), target, sha256};
    require_file(file.file, length);
    return file;
  };
  Release release{kind, manifest_path, std::move(bytes), manifest.build_id, {}, {}};
  const auto game = kind == ReleaseKind::game
                        ? std::optional<GameManifest>(GameManifest::parse(document))
                        : std::nullopt;
  if (game && is_encrypted_release(*game)) {
    const EncryptedArchive& form = *game->encrypted;
    release.archive = file_of(form.artifact_target, form.artifact_sha256, form.artifact_length);
    release.key = file_of(form.key_target, form.key_sha256, kArchiveKeyBytes);
  } else {
    release.archive =
        file_of(manifest.archive_target, manifest.archive_sha256, manifest.archive_length);
  }
  return release;
}

}  // namespace

std::string default_archive_target(ReleaseKind kind, const SnapshotIdentity& identity) {
  return std::string(kind_name(kind)) + '-' + identity.platform + '-' + identity.build_id +
         ".tar.zst";
}

Release make_release(const ReleaseRequest& request, const Progress& progress) {
  SnapshotIdentity identity = request.identity;
  if (identity.archive_target.empty())
    identity.archive_target = default_archive_target(request.kind, identity);
  if (request.kind == ReleaseKind::bootstrap)
    identity.executable = bootstrap_entry_point(identity.platform);
  const SourceTree tree(request.folder);
  check_before_packing(request.kind, provisional_document(request, tree, identity));

  Assembly assembly(request.out, guard_name(request.kind));
  const std::string archive_name = file_name(identity.archive_target);
  const std::string manifest_file = manifest_name(request.kind, identity.platform);
  require(archive_name != manifest_file, "usage",
          "The archive needs another name than its manifest");
  const std::filesystem::path archive = assembly.folder() / archive_name;
  const ArchiveFigures figures = write_archive(tree, archive, request.archive, progress);
  json document = document_of(request, tree, identity, figures);
  if (request.encrypt)
    encrypt(document, identity, assembly, figures, progress);
  else
    check_archive(parse_manifest(request.kind, document), assembly, archive, progress);
  create_document(assembly.folder() / manifest_file, document_text(document));
  assembly.publish([&](const std::filesystem::path& folder) {
    read_folder(request.kind, folder, folder / manifest_file);
  });
  return read_folder(request.kind, assembly.place(), assembly.place() / manifest_file);
}

Release read_release(ReleaseKind kind, const std::filesystem::path& folder) {
  const auto invalid = [&](std::string_view what) {
    return "Not a " + std::string(kind_name(kind)) + " release (" + std::string(what) +
           "): " + path_utf8(folder);
  };
  require(std::filesystem::is_directory(folder), "invalid_release",
          [&] { return invalid("no such folder"); });
  std::vector<std::filesystem::path> manifests;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = path_utf8(entry.path().filename());
    require(!is_package_guard(name), "invalid_release", [&] { return invalid("unfinished"); });
    if (name.starts_with(kind_name(kind)) && name.ends_with(".manifest.json"))
      manifests.push_back(entry.path());
  }
  require(manifests.size() == 1, "invalid_release", [&] { return invalid("needs one manifest"); });
  return read_folder(kind, folder, manifests.front());
}

Release read_published_release(const std::filesystem::path& folder) {
  for (const ReleaseKind kind : {ReleaseKind::launcher, ReleaseKind::bootstrap, ReleaseKind::game})
    for (const char* platform : {"linux-x86_64", "macos-aarch64", "windows-x86_64"})
      if (std::filesystem::exists(folder / manifest_name(kind, platform)))
        return read_release(kind, folder);
  fail("invalid_release", "Not a launcher, bootstrap or game release: " + path_utf8(folder));
}

}  // namespace tavro
