#include "start/platformed_game.h"

#include "documents/documents.h"

namespace tavro {

TEST(Platformed, ReadsAFolderThatIsAPlatformForOneGame) {
  const json document = json::parse(R"({"schema_version": 1, "game_id": "space", "name": "Space",
      "build": "b1", "executable": "bin/run", "crash_service": "https://crash.example:8443"})");
  PlatformedGame game;
  expect_answers(R"(|/channel "beta"|/name "<200>"|/ca_bundle "ca.pem"
version 1|[]|/schema_version|/schema_version 2|/schema_version "1"
unknown field: title|/title "x"
text|/channel null|/name
unusable|/name ""|/name "<201>"|/name "a\u0000b"|/channel ""|/build "<129>"
invalid_identity|/game_id "A"|/build "<128>"|/channel "a b"
unsafe_path|/executable "../run"|/executable "/run"|/ca_bundle "a?"
https:// origin|/crash_service "https://"|/crash_service "http://a"|/crash_service "https://a/"
https:// origin|/crash_service "https://u@a"|/crash_service "https://a\tb")",
                 [&](const std::string& damage) {
                   game = parse_platformed_game(damaged(document, damage), "/x/../f");
                 });
  EXPECT_EQ(game.executable.native() + game.ca_bundle.native(), "/f/bin/run/f/ca.pem");
  EXPECT_EQ(game.channel, "stable");
}

}  // namespace tavro
