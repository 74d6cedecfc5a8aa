#include "domain/manifest.h"

#include "domain/documents.h"

namespace tavro {
namespace {

json document_of(const std::vector<std::string>& paths) {
  json files = {file_entry("bin/run", 0755)};
  for (const std::string& path : paths) files.push_back(file_entry(path));
  return snapshot_document("bin/run", files);
}

TEST(Manifest, KeepsTheInventoryInPathOrderAndTheWholeDocument) {
  json document = document_of({"data/A b.txt", "a"});
  document["notes"] = "kept";
  document["archive"]["length"] = document["expanded_length"] = 4398046511104;
  document["files"][1]["length"] = 4398046511103;
  document["files"][2]["length"] = 0;
  const SnapshotManifest manifest = SnapshotManifest::parse(document);
  EXPECT_EQ(manifest.document, document);
  EXPECT_EQ(manifest.archive_target, "one.tar.zst");
  EXPECT_EQ(manifest.archive_length, kMaxSnapshotBytes);
  EXPECT_EQ(manifest.archive_sha256, std::string(64, 'b'));
  EXPECT_EQ(manifest.expanded_length, kMaxSnapshotBytes);
  EXPECT_EQ(manifest.files.begin()->first, "a");
  EXPECT_EQ(manifest.files.at("bin/run"), (PackageFile{1, std::string(64, 'a'), true}));
  EXPECT_EQ(manifest.longest_native_path(), std::string("data/A b.txt").size());
}

TEST(Manifest, RefusesADamagedDocument) {
  const std::string hash = '"' + std::string(64, 'A') + '"';
  const Answers answers = {
      {"Unsupported snapshot schema; nothing was rewritten",
       {" []", " {\"schema_version\":2}", "/schema_version 1.0"}},
      {"missing or malformed fields",
       {" {}", "/files/0 1", "/files/0/path 1", "/files/0/mode \"420\"", "/archive/sha256"}},
      {"invalid_identity", {"/build_id \"A\""}},
      {"Unknown snapshot platform", {"/platform \"linux-aarch64\""}},
      {"unsafe_path", {"/executable \"../run\"", "/archive/target \"a?\""}},
      {"Unsupported snapshot format", {"/archive/format \"zip\""}},
      {"exceeds archive size", {"/archive/length 0", "/archive/length 4398046511105"}},
      {"non-negative integer", {"/archive/length -1", "/files/0/length 1.0"}},
      {"lower-case SHA-256", {"/archive/sha256 " + hash, "/files/0/sha256 \"aa\""}},
      {"Package file count",
       {"/files []", "/files {}", "/files " + json(std::vector<int>(100001)).dump()}},
      {"Expanded package exceeds",
       {"/files/1/length 4398046511104", "/files/1/length 18446744073709551615"}},
      {"0644 or 0755", {"/files/0/mode 644"}},
      {"missing or not executable", {"/files/0/mode 420", "/executable \"bin/Run\""}},
      {"differs from file inventory", {"/expanded_length 5"}}};
  expect_answers(answers, [](const std::string& damage) {
    SnapshotManifest::parse(damaged(document_of({"data"}), damage));
  });
}

TEST(Manifest, RefusesPathsThatSomeFileSystemCannotHoldTogether) {
  const Answers answers = {
      {"requires ASCII", {"T\xc3\xa9st.txt"}},
      {"unsafe_path", {"a /b"}},
      {"duplicate or case-colliding paths", {"a/b,a/b", "a/b,a/B", "a/b,A/B"}},
      {"directories differ only in case", {"a/b,A/c", "x/a/b,x/A/c", "A,a/b", "a/b,A"}},
      {"another file's parent directory", {"a,a/b", "a/b/c,a/b"}}};
  expect_answers(answers, [](const std::string& paths) {
    const std::size_t comma = paths.find(',');
    const std::string last = comma == std::string::npos ? "data" : paths.substr(comma + 1);
    SnapshotManifest::parse(document_of({paths.substr(0, comma), last}));
  });
}

// A reader that looks back over the list, or keeps each prefix of a path, does not end in time
// here.
TEST(Manifest, TakesTheLargestInventory) {
  std::string deep;
  while (deep.size() < 4000) deep += "/d";
  std::vector<std::string> paths;
  for (int index = 1; index < 100000; ++index)
    paths.push_back("f" + std::to_string(index) + (index % 1000 == 0 ? deep : ""));
  const std::string text = document_of(paths).dump();
  EXPECT_EQ(SnapshotManifest::parse(parse_json(text, text.size())).files.size(), 100000u);
}

}  // namespace
}  // namespace tavro
