#include "platform/storage/reserved_tree.h"

#include <sys/mount.h>

#include "documents/documents.h"
#include "documents/game_manifest.h"
#include "platform/archives/snapshot.h"
#include "platform/files/directory_commit.h"
#include "platform/files/durable_files.h"
#include "platform/files/managed_tree.h"
#include "platform/host/native_platform.h"
#include "platform/storage/install_preparation.h"
#include "support/fail_nth_call.h"
#include "support/snapshot_archive.h"

namespace tavro::reserved_tree_test {

const std::string preparation = "install_preparation_state: ";

/// An operation as an install would run it, with its record beside the tree.
struct Operation {
  Operation(const fs::path& at, const SnapshotManifest& snapshot)
      : versions(at / "versions"), staging(at / "private/staging/1.0"), record(at / "record.json") {
    fs::create_directories(versions), fs::create_directories(staging.parent_path());
    static_cast<SnapshotManifest&>(manifest) = snapshot;
    manifest.document = {{"files", snapshot.files.size()}};
    manifest.build_id = reference["build_id"];
    manifest.platform = native_platform();
    reference["manifest_ref"] = digest(manifest.document.dump(), "sha256");
    begin();
  }
  void begin() const { store(make_install_preparation(manifest, reference, versions)); }
  void store(const json& document) const { atomic_write(record, document.dump()); }
  json stored() const { return parse_json(read_file(record, 16384), 16384); }
  ReservedTree reserve(const Progress& progress = {}) const {
    return {manifest, staging, progress, [&](const TreeIdentity& identity) {
              json document = stored();
              record_install_preparation(document, identity);
              store(document);
              EXPECT_TRUE(fs::is_empty(staging));
            }};
  }
  void clean() const { cleanup_prepared_install(manifest, stored(), staging, destination); }
  /// Cleans by the record alone whatever a run left: all of it, or one empty directory that no
  /// record came to name. Then begins again.
  void expect_cleaned() const {
    const bool unknown = stored().at("staging_identity").is_null() && fs::exists(staging);
    EXPECT_FAILURE(clean(),
                   unknown ? "allocation_changed: Unrecorded preparation root was preserved" : "");
    EXPECT_EQ(fs::exists(staging), unknown);
    fs::remove(staging);
    begin();
  }

  fs::path versions, staging, record, destination = versions / "1.0";
  GameManifest manifest;
  json reference = {
      {"version", "1.0"}, {"build_id", "build-1"}, {"manifest_target", "a/game.json"}};
};

struct Reserved : testing::Test {
  Reserved() { write_bytes(packed, archive); }
  void extract(const ReservedTree& tree) const {
    extract_snapshot(at.manifest, packed, at.staging, {}, &tree);
  }
  TempFolder folder;
  const fs::path packed = folder.path() / "packed";
  const std::vector<TarEntry> content = {{"bin/run", std::string(70000, 'r'), 0755},
                                         {"data/deep/one", "12345"},
                                         {"data/two", std::string(9000, '2')},
                                         {"empty", ""}};
  const std::string archive = zstd_of(tar_of(content));
  Operation at{folder.path(), manifest_of(content, archive)};
};

TEST_F(Reserved, IsCleanedByItsRecordWhereverARunEnds) {
  std::optional<ReservedTree> tree;
  const auto nothing = [] {};
  const auto reserve = [&] { tree.emplace(at.reserve()); };
  const auto fill = [&] { extract(*tree); };
  const auto check = [&](const Stop&) { at.expect_cleaned(); };
  const std::pair<Fault, int> faults[] = {{Fault::kill, 0}, {Fault::fail, ENOSPC}};
  for (const auto& [fault, error] : faults) {
    EXPECT_GE(strike_each_call(fault, error, nothing, reserve, check), 30);
    EXPECT_GE(strike_each_call(fault, error, reserve, fill, check), 20);
  }
  for (int asked = 0; asked < 5; ++asked) {
    EXPECT_FAILURE(at.reserve([&, left = asked](auto, auto) mutable { return left-- > 0; }),
                   "cancelled: Storage preparation cancelled before download");
    at.expect_cleaned();
  }
}

TEST_F(Reserved, IsRefusedOnAVolumeTooSmallBeforeAByteIsTaken) {
  if (::mount("small", at.versions.c_str(), "tmpfs", 0, "size=1m,nr_inodes=64") != 0)
    GTEST_SKIP() << "only the superuser can mount a small volume";
  const std::shared_ptr<void> mounted(nullptr,
                                      [&](std::nullptr_t) { ::umount(at.versions.c_str()); });
  for (const auto& [files, length, refusal] : {std::tuple{3, 450000ULL, "insufficient_space"},
                                               {80, 1ULL, "insufficient_space"},
                                               {2, 450000ULL, ""}}) {
    SnapshotManifest manifest;
    for (int file = 0; file < files; ++file)
      manifest.files["f" + std::to_string(file)].length = length;
    const Operation operation(at.versions, manifest);
    const auto before = fs::space(at.versions).free;
    EXPECT_EQ(code_of([&] { operation.reserve(); }), refusal);
    EXPECT_EQ(fs::space(at.versions).free == before, *refusal != 0);
    operation.expect_cleaned();
  }
}

TEST_F(Reserved, IsRemovedOnlyWhileItHoldsNothingElse) {
  const auto change_and_clean = [&](const std::string& change) {
    const TempFolder fresh;
    const Operation operation(fresh.path(), at.manifest);
    operation.reserve();
    EXPECT_EQ(std::system(("cd '" + operation.staging.string() + "'; " + change).c_str()), 0);
    const auto before = tree_content(fresh.path());
    const bool refused = !failure_of([&] { operation.clean(); }).empty();
    EXPECT_TRUE(fs::exists(operation.staging) == refused);
    EXPECT_TRUE(!refused || tree_content(fresh.path()) == before);
    if (refused) operation.clean();
  };
  // The last line is what a run leaves that ended while it wrote, or while it cleaned.
  expect_answers(R"(unexpected_file: Prepared cleanup preserves unmanaged, linked|touch data/mine
or oversized files|echo >.tavro-removed.1.aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa.tmp|echo 12345 >data/deep/one|ln empty ../../link|mkfifo odd|ln -f data/two empty
unexpected_file: Prepared cleanup preserves unmanaged directories|mkdir data/other
unsafe_path: Managed path contains a symbolic link|ln -s data odd
allocation_changed: Prepared directory identity changed; preserve|mv ../1.0 ../was; mkdir ../1.0
allocation_changed: An activation destination appeared before|mkdir ../../../versions/1.0
|echo >bin/run; rm -r data)",
                 change_and_clean);
  fs::create_symlink(at.record.parent_path(), at.staging);
  EXPECT_TRUE(cleanup_install_preparation(at.staging / "", {}));
  EXPECT_TRUE(fs::exists(at.record)) << "behind the link";
  fs::remove(at.staging), write_tree(content, at.staging);
  EXPECT_FALSE(cleanup_install_preparation(at.staging, {}) || fs::exists(at.staging));
}

TEST_F(Reserved, HoldsEveryFileAtFullSizeTakesAnArchiveAndMovesIntoPlaceOnce) {
  std::vector<unsigned long long> told;
  const auto tree = at.reserve([&](auto done, auto) { return told.push_back(done), true; });
  EXPECT_EQ(told, (std::vector<unsigned long long>{0, 70000, 70005, 79005, 79005}));
  const bool certain = tree.summary().at("data_reserved").get<bool>();
  EXPECT_EQ(tree_bytes(at.staging, 8), certain ? 79005U : 0U);
  auto other = at.manifest;
  other.files.at("empty").length = 1;
  EXPECT_FAILURE(tree.validate(other, at.staging),
                 "allocation_changed: Prepared tree differs from the requested snapshot");
  fs::rename(at.staging / "empty", folder.path() / "aside");
  AllocatedFile(at.staging / "empty", 0, {}).preserve();
  EXPECT_EQ(code_of([&] { extract(tree); }), "allocation_changed");
  fs::rename(folder.path() / "aside", at.staging / "empty");
  extract(tree);

  json ready;
  const auto make = [&] {
    ready = make_install_ready(at.manifest, at.reference, at.versions, tree);
  };
  const auto clean = [&](const fs::path& staging, bool keep) {
    cleanup_ready_install(at.manifest, ready, staging, at.destination, keep);
  };
  EXPECT_FAILURE(make(), "");
  EXPECT_FAILURE(validate_install_preparation(at.stored(), ready), "");
  fs::create_directory(at.destination);
  EXPECT_EQ(code_of(make), "destination_exists");
  EXPECT_FAILURE(clean(at.staging, true),
                 "allocation_changed: Activation directory identity "
                 "changed; preserve its replacement");
  fs::remove(at.destination);
  commit_private_path_new(at.staging, at.destination, {});
  EXPECT_FAILURE(clean(at.staging, true), "");
  verify_snapshot_tree(at.manifest, at.destination);
  EXPECT_FAILURE(clean(at.destination, false),
                 "allocation_changed: Prepared source reappeared after activation");
  EXPECT_FAILURE((clean(at.staging, false), clean(at.staging, false)), "");
  EXPECT_FALSE(fs::exists(at.staging) || fs::exists(at.destination));
}

TEST_F(Reserved, IsKnownByExactlyOneFormOfDocument) {
  json document;
  const auto clean = [&] {
    cleanup_prepared_install(at.manifest, document, at.staging, at.destination);
  };
  expect_answers(
      R"(|/reference/manifest_target ""
state: Installation ownership has no known schema|[]|{}|/schema_version|/schema_version "1"
unsupported_schema: Unknown installation ownership schema|/schema_version 2|/schema_version -1
state: Unknown installation ownership contract|/more 1|/kind|/kind "tavro-install-ready"
state: Unknown installation ownership contract|/versions_path 1|/versions_path|/reference []
state: Unknown installation ownership contract|/reference/version|/reference/more 1
state: Invalid prepared directory identity|/staging_identity [1,2,3]|/staging_identity [1,-2]
state: Prepared storage path is not absolute|/versions_path "a"|/versions_path "/a//b"
state: Installation ownership reference is malformed|/reference/version 1|/reference/build_id null
invalid_identity|/reference/version "A"|/reference/build_id ""
state: Installation ownership needs an exact manifest|/reference/manifest_ref "<64>"
unsafe_path|/reference/manifest_target "/a"|/reference/manifest_target "con"
state: Preparation no longer binds|/reference/version "2"|/reference/build_id "2"|/versions_path "/"
allocation_changed: Prepared storage volume changed|/staging_identity [1,2])",
      [&](const std::string& damage) { document = damaged(at.stored(), damage), clean(); });
  document = at.stored();
  document["versions_path"] = "/\xff";
  EXPECT_FAILURE(clean(), preparation + "Malformed installation ownership was preserved");
  document["versions_path"] = "/" + std::string(16384, 'x');
  EXPECT_EQ(code_of(clean), "size_limit");
  EXPECT_FAILURE(validate_install_ready(damaged(at.stored(), R"(/kind "tavro-install-ready")")),
                 "install_ready_state: Invalid prepared directory identity");
  at.manifest.platform = "windows-x86_64";
  EXPECT_FAILURE(at.begin(), preparation + "Preparation differs from its saved verified manifest");
}

TEST_F(Reserved, IsCleanedByItsRecordAlsoWithTenThousandFiles) {
  SnapshotManifest many;
  for (int file = 0; file < 10000; ++file)
    many.files["d" + std::to_string(file % 100) + "/" + std::to_string(file)].length = 100;
  many.expanded_length = 1000000;
  // In memory where that can be: a disk may take a minute to remove them.
  const fs::path memory = "/dev/shm";
  const bool roomy = fs::is_directory(memory) && fs::space(memory).available > 100'000'000;
  const Operation large((roomy ? memory : folder.path()) / folder.path().filename(), many);
  for (const int nth : {0, 39000, 21000, 99}) {
    {
      const FailNthCall cut(nth, EIO, Fault::cut);
      EXPECT_EQ(code_of([&] { large.reserve(); }).empty(), nth == 0);
      EXPECT_GE(cut.calls(), nth == 0 ? 40000 : nth);
    }
    large.expect_cleaned();
  }
  fs::remove_all(large.record.parent_path());
}

}  // namespace tavro::reserved_tree_test
