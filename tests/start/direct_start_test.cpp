#include "start/direct_start.h"

#include "documents/documents.h"
#include "platform/host/native_platform.h"
#include "support/installation.h"

namespace tavro {

TEST(DirectStart, FindsAnInstalledGameByItsRecordsAlone) {
  const TempFolder folder;
  const auto program = folder.path() / "games/space/versions/v1/bin/run";
  put_file(program, "x");
  json manifest = snapshot_of({"+bin/run"});
  manifest.update({{"minimum_launcher", 1}, {"game_id", "space"}, {"display_name", "Space"}});
  manifest["platform"] = native_platform();
  const std::string name = digest(manifest.dump(), "sha256");
  const auto stored = folder.path() / "verified-manifests" / ("application-" + name + ".json");
  put_file(stored, manifest.dump(2));
  const auto locate = [&](const json& record) {
    put_file(folder.path() / "games/space/record.json", record.dump());
    EXPECT_EQ(locate_installed_game(folder.path(), "space").executable, program);
  };
  json record =
      json::parse(R"({"installed": true, "game_id": "space", "active": {"version": "v1"}})");
  record["active"]["manifest"] = manifest;
  const std::string by_reference = "/active/manifest_ref \"" + name + '"';
  expect_answers("|/more 1|" + by_reference + R"(
file_read|/active/manifest_ref "<64>"
not_installed|[]|/installed|/installed false|/game_id "other"
invalid|/active/manifest_ref null|/active/manifest_ref "a"|/active/version "A"
platform_mismatch|/active/manifest/platform "windows-x86_64"
missing or changed|/active/version "v2")",
                 [&](const std::string& damage) { locate(damaged(record, damage)); });
  put_file(program, "xx");
  EXPECT_FAILURE(locate(record), "content_mismatch: The game's program is missing or changed");
  put_file(stored, damaged(manifest, "/build_id \"b\"").dump());
  EXPECT_FAILURE(locate(damaged(record, by_reference)),
                 "content_mismatch: The stored game manifest changed");
}

}  // namespace tavro
