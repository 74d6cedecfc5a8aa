#include "domain/game_manifest.h"

#include "domain/documents.h"

namespace tavro {

static json game() {
  json document = snapshot_of({"+bin/run"});
  const auto file = [&](const std::string& target, std::uint64_t length) {
    return json{{"target", target}, {"length", length}, {"sha256", document["archive"]["sha256"]}};
  };
  document.update(json::parse(R"({"minimum_launcher": 1, "game_id": "space", "display_name": "S",
      "release_notes": "New.", "sdk": {"required": true, "abi_version": 1}})"));
  document["encrypted"] = {{"format", kChunkedDecoder},
                           {"artifact", file("one.enc", 121)},
                           {"key", file("one.key", 32)}};
  for (const std::string build : {"0", "1", "2", "3", "4", "5", "6", "7"}) {
    json source = file(build + ".tar.zst", kMaxSnapshotBytes);
    source.update({{"build_id", build}, {"format", "tar.zst-v1"}});
    document["patches"].push_back(
        {{"format", "patch-v1"}, {"source", source}, {"artifact", file(build + ".patch", 1)}});
  }
  return document;
}

TEST(GameManifest, RefusesADamagedDocument) {
  expect_answers(R"(|/release_notes "<16384>"|/release_notes "\t\n\r\u00a0"|/display_name "<200>"
|/presentation|/release_notes|/sdk|/encrypted|/patches|/more null|/sdk {"required":false}
|/encrypted/format "<80>"|/patches/0/artifact/target "ONE.tar.zst"
16 KiB|/release_notes "<16385>"
too long|/display_name ""|/display_name "<201>"
nothing was rewritten|[]|{"schema_version":2}
Game manifest has missing|{}|/minimum_launcher|/game_id 1|/release_notes null|/sdk {}
Game manifest has missing|/sdk/abi_version|/patches/0/format 1|/encrypted/key/sha256 1
launcher_incompatible|/minimum_launcher 2|/minimum_launcher "1"
Snapshot manifest has missing|/build_id
invalid_identity|/game_id "A"|/patches/0/format "A"|/patches/0/source/build_id "A"
invalid_presentation: Game presentation must be|/presentation null
Unknown game presentation field|/presentation/title 1
unsupported control|/release_notes "\u0000"|/release_notes "\u007f"|/release_notes "\u009f"
must be explicit|/sdk true|/sdk/required "yes"
sdk_incompatible|/sdk/abi_version 2
Unknown encrypted archive field|/encrypted null|/encrypted/more 1|/encrypted/key
decoder name|/encrypted/format ""|/encrypted/format "<81>"
descriptor field|/encrypted/artifact/more 1|/encrypted/key []|/encrypted/key/length
unsafe_path|/encrypted/key/target "../k"|/patches/0/source/target "/a"|/patches/0/artifact/target ""
aliases the full|/encrypted/artifact/target "ONE.TAR.ZST"|/encrypted/key/target "ONE.enc"
aliases the full|/encrypted/key/target "one.tar.Zst"
exceeds its bound|/encrypted/artifact/length 96|/encrypted/artifact/length 4399120253025
exceeds its bound|/encrypted/key/length 31|/encrypted/key/length 33
fixed authenticated chunks|/encrypted/artifact/length 120|/archive/length 65536
list exceeds|/patches {}|/patches null|/patches/8 {}
Unknown direct|/patches/0 1|/patches/0/more 1|/patches/0/artifact []|/patches/0/source/length
Missing direct|/patches/0 {"format":1,"source":1,"other":1}
must start from a full|/patches/0/source/format "tar"
targets its own build|/patches/0/source/build_id "build-1"|/patches/1/source/build_id "0"
alias a snapshot|/patches/1/artifact/target "0.PATCH"|/patches/0/artifact/target "0.tar.zst"
alias a snapshot|/patches/0/artifact/target "one.tar.zst"|/patches/0/source/target "one.tar.zst"
size_limit: Direct|/patches/0/source/length 0|/patches/0/artifact/length 4398046511105)",
                 [](const std::string& damage) { GameManifest::parse(damaged(game(), damage)); });
}

TEST(GameManifest, CountsATagForEachChunkOfAnEncryptedArchive) {
  EXPECT_EQ(chunked_archive_length(1) + chunked_archive_length(65536), 113u + 65648u);
  EXPECT_EQ(chunked_archive_length(65537) + chunked_archive_length(kMaxSnapshotBytes),
            65665 + 4399120253024);
  const GameManifest manifest = GameManifest::parse(game());
  EXPECT_EQ(manifest.presentation.monogram + manifest.encrypted->key_target, "Sone.key");
  EXPECT_EQ(manifest.patches.at(7).source_target + manifest.release_notes, "7.tar.zstNew.");
}

}  // namespace tavro
