#include "documents/manifest.h"

#include "documents/documents.h"

namespace tavro {

TEST(Manifest, KeepsTheInventoryInPathOrderAndTheWholeDocument) {
  json document = damaged(snapshot_of({"+bin/run", "data/A b.txt", "a"}), "/notes \"kept\"");
  document["archive"]["length"] = document["expanded_length"] = 4398046511104;
  document["files"][1]["length"] = 4398046511103;
  document["files"][2]["length"] = 0;
  const SnapshotManifest manifest = SnapshotManifest::parse(document);
  EXPECT_EQ(manifest.files.begin()->first, "a");
  EXPECT_EQ(manifest.files.at("bin/run"), (PackageFile{1, document["archive"]["sha256"], true}));
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
                   SnapshotManifest::parse(damaged(snapshot_of({"+bin/run", "data"}), damage));
                 });
}

TEST(Manifest, RefusesPathsThatSomeFileSystemCannotHoldTogether) {
  expect_answers(
      "requires ASCII|x,T\xc3\xa9st.txt|x,a\x7f\n"
      R"(unsafe_path|x,a /b
duplicate or case-colliding paths|a/b,a/b|a/b,a/B|a/b,A/B
directories differ only in case|a/b,A/c|x/a/b,x/A/c|A,a/b|a/b,A
another file's parent directory|a,a/b|a/b/c,a/b)",
      [](const std::string& paths) {
        const auto cut = paths.find(',');
        SnapshotManifest::parse(
            snapshot_of({"+bin/run", paths.substr(0, cut), paths.substr(cut + 1)}));
      });
}

// A reader that looks back over the list does not end in time here.
TEST(Manifest, TakesTheLargestInventory) {
  std::vector<std::string> files(100000, "+bin/run");
  for (std::size_t at = 1; at < files.size(); ++at) files[at] = "d/" + std::to_string(at);
  const std::string text = snapshot_of(files).dump();
  EXPECT_EQ(SnapshotManifest::parse(parse_json(text, text.size())).files.size(), 100000u);
}

}  // namespace tavro
