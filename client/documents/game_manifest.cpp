#include "documents/game_manifest.h"

#include <set>
#include <utility>

#include "domain/error.h"
#include "domain/identifier.h"
#include "domain/json_fields.h"
#include "domain/relative_path.h"

namespace tavro {
namespace {

constexpr std::size_t kMaxReleaseNotes = 16384;
constexpr std::size_t kMaxPatches = 8;
constexpr std::size_t kMaxDecoderName = 80;

static_assert(chunked_archive_length(65536) == 65648 && chunked_archive_length(65537) == 65665);
static_assert(chunked_archive_length(kMaxSnapshotBytes) == 4399120253024);

using Keys = std::initializer_list<std::string_view>;

std::string identifier(const json& value) {
  auto id = value.get<std::string>();
  validate_identifier(id);
  return id;
}

std::string target(const json& value) {
  auto path = value.get<std::string>();
  validate_relative_path(path, true);
  return path;
}

void read_presentation(GameManifest& manifest) {
  const json* presentation = find_member(manifest.document, "presentation");
  require(presentation == nullptr || presentation->is_object(), "invalid_presentation",
          "Game presentation must be an object");
  const json none;
  manifest.presentation = GamePresentation::parse(manifest.display_name,
                                                  presentation == nullptr ? none : *presentation);
}

void read_release_notes(GameManifest& manifest) {
  const json* notes = find_member(manifest.document, "release_notes");
  if (notes == nullptr) return;
  manifest.release_notes = notes->get<std::string>();
  require(manifest.release_notes.size() <= kMaxReleaseNotes, "invalid_manifest",
          "Release notes exceed 16 KiB");
  require(!has_control_characters(manifest.release_notes, LineBreaks::allowed), "invalid_manifest",
          "Release notes contain unsupported control characters");
}

void read_sdk(GameManifest& manifest) {
  const json* sdk = find_member(manifest.document, "sdk");
  if (sdk == nullptr) return;
  require(sdk->is_object() && sdk->at("required").is_boolean(), "invalid_manifest",
          "SDK capability must be explicit");
  manifest.sdk_required = sdk->at("required").get<bool>();
  require(!manifest.sdk_required || is_integer(sdk->at("abi_version"), 1), "sdk_incompatible",
          "Game needs an unsupported SDK ABI");
}

bool are_distinct(const std::string& first, const std::string& second, const std::string& third) {
  return first != second && first != third && second != third;
}

void read_encrypted(GameManifest& manifest) {
  const json* value = find_member(manifest.document, "encrypted");
  if (value == nullptr) return;
  require(has_exactly(*value, {"format", "artifact", "key"}), "invalid_manifest",
          "Unknown encrypted archive field");
  EncryptedArchive archive;
  archive.format = value->at("format").get<std::string>();
  require(!archive.format.empty() && archive.format.size() <= kMaxDecoderName, "invalid_manifest",
          "Invalid encrypted archive decoder name");
  const json& artifact = value->at("artifact");
  const json& key = value->at("key");
  for (const json* descriptor : {&artifact, &key})
    require(has_exactly(*descriptor, {"target", "length", "sha256"}), "invalid_manifest",
            "Unknown encrypted artifact/key descriptor field");
  archive.artifact_target = artifact.at("target").get<std::string>();
  archive.key_target = key.at("target").get<std::string>();
  validate_relative_path(archive.artifact_target, true);
  validate_relative_path(archive.key_target, true);
  require(are_distinct(case_folded(archive.artifact_target), case_folded(archive.key_target),
                       case_folded(manifest.archive_target)),
          "invalid_manifest", "Encrypted artifact/key aliases the full snapshot");
  archive.artifact_length = size_value(artifact.at("length"));
  archive.artifact_sha256 = sha256(artifact.at("sha256"));
  archive.key_sha256 = sha256(key.at("sha256"));
  require(archive.artifact_length > kEncryptedHeaderBytes &&
              archive.artifact_length <= chunked_archive_length(kMaxSnapshotBytes) &&
              size_value(key.at("length")) == kArchiveKeyBytes,
          "invalid_manifest", "Encrypted archive/key exceeds its bound");
  require(archive.format != kChunkedDecoder ||
              archive.artifact_length == chunked_archive_length(manifest.archive_length),
          "invalid_manifest",
          "Encrypted archive length differs from its fixed authenticated chunks");
  manifest.encrypted = std::move(archive);
}

void require_patch_fields(const json& value, Keys keys) {
  require(value.is_object() && value.size() == keys.size(), "invalid_manifest",
          "Unknown direct patch field");
  for (const std::string_view key : keys)
    require(value.contains(key), "invalid_manifest", "Missing direct patch field");
}

bool is_patch_length(std::uint64_t length) { return length >= 1 && length <= kMaxSnapshotBytes; }

// What no two patches of one manifest may share.
struct PatchesSeen {
  std::set<std::string> source_builds;
  std::set<std::string> artifact_targets;
};

DirectPatch read_patch(const GameManifest& manifest, const json& entry, PatchesSeen& seen) {
  require_patch_fields(entry, {"format", "source", "artifact"});
  const json& source = entry.at("source");
  require_patch_fields(source, {"build_id", "format", "target", "length", "sha256"});
  const json& artifact = entry.at("artifact");
  require_patch_fields(artifact, {"target", "length", "sha256"});
  DirectPatch patch;
  patch.format = identifier(entry.at("format"));
  require(source.at("format") == kSnapshotFormat, "invalid_manifest",
          "A direct patch must start from a full snapshot");
  patch.source_build_id = identifier(source.at("build_id"));
  require(patch.source_build_id != manifest.build_id &&
              seen.source_builds.insert(patch.source_build_id).second,
          "invalid_manifest", "Direct patch repeats its source or targets its own build");
  patch.source_target = target(source.at("target"));
  patch.source_length = size_value(source.at("length"));
  patch.source_sha256 = sha256(source.at("sha256"));
  patch.artifact_target = target(artifact.at("target"));
  patch.artifact_length = size_value(artifact.at("length"));
  patch.artifact_sha256 = sha256(artifact.at("sha256"));
  require(are_distinct(patch.source_target, patch.artifact_target, manifest.archive_target) &&
              seen.artifact_targets.insert(case_folded(patch.artifact_target)).second,
          "invalid_manifest", "Direct patch artifacts repeat or alias a snapshot");
  require(is_patch_length(patch.source_length) && is_patch_length(patch.artifact_length),
          "size_limit", "Direct patch input exceeds its size bounds");
  return patch;
}

void read_patches(GameManifest& manifest) {
  const json* patches = find_member(manifest.document, "patches");
  if (patches == nullptr) return;
  require(patches->is_array() && patches->size() <= kMaxPatches, "invalid_manifest",
          "Direct patch list exceeds its bound");
  PatchesSeen seen;
  for (const json& entry : *patches) manifest.patches.push_back(read_patch(manifest, entry, seen));
}

void read_game(GameManifest& manifest) {
  manifest.game_id = identifier(manifest.document.at("game_id"));
  manifest.display_name = manifest.document.at("display_name").get<std::string>();
  require(!manifest.display_name.empty() && manifest.display_name.size() <= 200, "invalid_manifest",
          "Game display name is missing or too long");
  read_presentation(manifest);
  read_release_notes(manifest);
  read_sdk(manifest);
  read_encrypted(manifest);
  read_patches(manifest);
}

}  // namespace

GameManifest GameManifest::parse(const json& document) { return parse(json(document)); }

GameManifest GameManifest::parse(json&& document) {
  return read_fields("invalid_manifest", "Game manifest has missing or malformed fields", [&] {
    require(document.is_object() && is_integer(document.at("schema_version"), 1),
            "unsupported_schema", "Unsupported game manifest schema; nothing was rewritten");
    require(is_integer(document.at("minimum_launcher"), 1), "launcher_incompatible",
            "This build needs a different launcher protocol");
    GameManifest manifest;
    static_cast<SnapshotManifest&>(manifest) = SnapshotManifest::parse(std::move(document));
    read_game(manifest);
    return manifest;
  });
}

}  // namespace tavro
