#include "domain/manifest.h"

#include "domain/documents.h"

namespace tavro {

static json document_of(const std::vector<std::string>& paths) {
  json files = {file_entry("bin/run", 0755)};
  for (const std::string& path : paths) files.push_back(file_entry(path));
  return snapshot_of(std::move(files));
}

TEST(Manifest, KeepsTheInventoryInPathOrderAndTheWholeDocument) {
  json document = damaged(document_of({"data/A b.txt", "a"}), "/notes \"kept\"");
  document["archive"]["length"] = document["expanded_length"] = 4398046511104;
  document["files"][1]["length"] = 4398046511103;
  document["files"][2]["length"] = 0;
  const SnapshotManifest manifest = SnapshotManifest::parse(document);
  EXPECT_EQ(manifest.document, document);
  EXPECT_EQ(manifest.files.begin()->first, "a");
  EXPECT_EQ(manifest.files.at("bin/run"), (PackageFile{1, std::string(64, 'a'), true}));
  EXPECT_EQ(manifest.longest_native_path(), 12u);
}

TEST(Manifest, RefusesADamagedDocument) {
  expect_answers(R"(nothing was rewritten|[]|{"schema_version":2}|/schema_version 1.0
malformed fields|{}|/files/0 1|/files/0/path 1|/files/0/mode "420"|/archive/sha256
invalid_identity|/build_id "A"
invalid_manifest: Un|/platform "linux-aarch64"|/archive/format "zip"
unsafe_path|/executable "../run"|/archive/target "a?"
size_limit: Snapshot|/archive/length 0|/archive/length 4398046511105
non-negative integer|/archive/length -1|/files/0/length 1.0
size_limit: Package file count|/files []|/files {}
size_limit: Exp|/files/1/length 4398046511104|/files/1/length 18446744073709551615
0644 or 0755|/files/0/mode 644
not executable|/files/0/mode 420|/executable "bin/Run"
differs from file inventory|/expanded_length 5
lower-case SHA-256|/files/0/sha256 "aa"
lower-case|/archive/sha256 "Aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa")",
                 [](const std::string& damage) {
                   SnapshotManifest::parse(damaged(document_of({"data"}), damage));
                 });
}

TEST(Manifest, RefusesPathsThatSomeFileSystemCannotHoldTogether) {
  expect_answers(R"(requires ASCII|x,Tést.txt
unsafe_path|x,a /b
duplicate or case-colliding paths|a/b,a/b|a/b,a/B|a/b,A/B
directories differ only in case|a/b,A/c|x/a/b,x/A/c|A,a/b|a/b,A
another file's parent directory|a,a/b|a/b/c,a/b)",
                 [](const std::string& paths) {
                   const auto cut = paths.find(',');
                   const json document = document_of({paths.substr(0, cut), paths.substr(cut + 1)});
                   SnapshotManifest::parse(document);
                 });
}

// A reader that looks back over the list does not end in time here.
TEST(Manifest, TakesTheLargestInventory) {
  json files(100000, file_entry("bin/run", 0755));
  for (std::size_t at = 1; at < 100000; ++at) files[at]["path"] = "d/" + std::to_string(at);
  json document = parse_json(snapshot_of(files).dump(), 1 << 24);
  EXPECT_EQ(SnapshotManifest::parse(document).files.size(), 100000u);
  document["files"].push_back(file_entry("one more"));
  EXPECT_EQ(code_of([&] { SnapshotManifest::parse(document); }), "size_limit");
}

}  // namespace tavro
