#include "documents/game_manifest.h"

#include "documents/documents.h"

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
nothing was rewritten|[]|{"schema_version":2}
Game manifest has missing|{}|/minimum_launcher|/game_id 1|/release_notes null|/sdk {}
Game manifest has missing|/encrypted {"format":"f","artifact":{"target":"/","length":1,"sha256":1},"key":{"target":1,"length":1,"sha256":1}}
Game manifest has missing|/sdk/abi_version|/patches/0/format 1|/encrypted/key/sha256 1
incompatible|/minimum_launcher 2|/minimum_launcher "1"|/sdk/abi_version 2
invalid_identity|/game_id "A"|/patches/0/format "A"|/patches/0/source/build_id "A"
unsafe_path|/encrypted/key/target "../k"|/patches/0/source/target "/a"|/patches/0/artifact/target ""
too long|/display_name ""|/display_name "<201>"
invalid_presentation|/presentation null|/presentation/title 1
Release|/release_notes "<16385>"|/release_notes "\u0000"|/release_notes "\u009f"
must be explicit|/sdk true|/sdk/required "yes"
ncrypted ar|/encrypted null|/encrypted/more 1|/encrypted/key|/encrypted/artifact/more 1
ncrypted ar|/encrypted/key []|/encrypted/key/length|/encrypted/format ""|/encrypted/format "<81>"
aliases|/encrypted/artifact/target "ONE.TAR.ZST"|/encrypted/key/target "ONE.enc"
its bound|/encrypted/artifact/length 96|/encrypted/artifact/length 4399120253025|/patches {}
its bound|/encrypted/key/length 31|/encrypted/key/length 33|/patches null|/patches/8 {}
fixed authenticated chunks|/encrypted/artifact/length 120|/archive/length 65536
Unknown direct|/patches/0 1|/patches/0/more 1|/patches/0/artifact []|/patches/0/source/length
Missing direct|/patches/0 {"format":1,"source":1,"other":1}
full snapshot|/patches/0/source/format "tar"|/encrypted/key/target "one.tar.Zst"
its own build|/patches/0/source/build_id "build-1"|/patches/1/source/build_id "0"
alias a snapshot|/patches/1/artifact/target "0.PATCH"|/patches/0/artifact/target "0.tar.zst"
alias a snapshot|/patches/0/artifact/target "one.tar.zst"|/patches/0/source/target "one.tar.zst"
size bounds|/patches/0/source/length 0|/patches/0/artifact/length 4398046511105)",
                 [](const std::string& damage) { GameManifest::parse(damaged(game(), damage)); });
  const GameManifest manifest = GameManifest::parse(game());
  EXPECT_EQ(manifest.patches.at(7).source_target + manifest.encrypted->key_target,
            "7.tar.zstone.key");
}

}  // namespace tavro
