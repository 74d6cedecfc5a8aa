#include "documents/agreements.h"
#include "documents/crash_service.h"
#include "documents/documents.h"
#include "documents/game_catalog.h"
#include "documents/notices.h"
#include "documents/service_status.h"

namespace tavro {

template <typename Document>
static void expect_document(const json& sound, const std::string& table) {
  EXPECT_EQ(Document::parse(sound).to_json(), sound);
  expect_answers(table,
                 [&](const std::string& damage) { Document::parse(damaged(sound, damage)); });
}

TEST(ServiceDocuments, RefuseWhatIsDamaged) {
  expect_document<Notices>(json::parse(R"({"schema_version": 1, "kind": "tavro-notices",
      "notices": [{"id": "a", "severity": "critical", "title": "T", "text": "a\nb", "from": 1,
      "until": 2}]})"),
                           R"(|/more 1|/notices []|/notices/0/title "<200>"|/notices/0/text "<4096>"
no document of the kind|[]|/kind|/kind "tavro-agreements"
unsupported_schema|/schema_version 2|/schema_version
missing or malformed|/notices|/notices/0 1|/notices/0/id|/notices/0/severity 1|/notices/0/from
A list|/notices {}|/notices null
invalid_identity|/notices/0/id "A"|/notices/0/id "../a"
unknown severity|/notices/0/severity "fatal"
too long|/notices/0/title ""|/notices/0/title "<201>"|/notices/0/text "<4097>"
control|/notices/0/title "a\nb"|/notices/0/text "\u001b[2J"|/notices/0/text "\u009b2J"
out of bounds|/notices/0/from -1|/notices/0/until 253402300800|/notices/0/from "1"
before it begins|/notices/0/from 2|/notices/0/until 0
same identifier|/notices/1 {"id":"a","severity":"warning","title":"T","text":"t","from":1,"until":2})");
  json crowd = Notices{}.to_json();
  for (std::size_t i = 0; i <= kMaxNotices; ++i) crowd["notices"].push_back(1);
  EXPECT_EQ(code_of([&] { Notices::parse(crowd); }), "size_limit");

  expect_document<ServiceStatus>(
      json::parse(R"({"schema_version": 1, "kind": "tavro-service-status", "state": "outage",
      "text": "", "issued": 5, "valid_until": 6})"),
      R"(|/text "<2000>"|/valid_until 2678405
missing or malformed|/text|/state 1|/issued
unknown state|/state "fine"
too long|/text "<2001>"
before it begins|/valid_until 5
31 days|/valid_until 2678406)");

  expect_document<Agreements>(json::parse(R"({"schema_version": 1, "kind": "tavro-agreements",
      "agreements": [{"id": "eula", "version": "2", "title": "T", "minimum_age": true,
      "every_game": false, "games": ["space"], "text": {"target": "service/agreements/eula/2.txt",
      "length": 9,
      "sha256": "4bf5122f344554c53bde2ebb8cd2b7e3d1600ad631c385a5d7cce23c7785459a"}}]})"),
                              R"(|/agreements []|/agreements/0/games []
missing or malformed|/agreements/0/text|/agreements/0/games|/agreements/0/games/0 1|/agreements/0/version 2
invalid_identity|/agreements/0/version "../2"|/agreements/0/id ""|/agreements/0/games/0 "A"
another text|/agreements/0/version "3"|/agreements/0/text/target "service/notices.json"
missing or too long|/agreements/0/text/length 0|/agreements/0/text/length 262145
invalid_manifest|/agreements/0/text/sha256 "x"|/agreements/0/text/length -1
neither true nor false|/agreements/0/minimum_age 1|/agreements/0/every_game null
names a game twice|/agreements/0/games/1 "space"
names single ones|/agreements/0/every_game true)");

  expect_document<CrashService>(json::parse(R"({"schema_version": 1, "kind": "tavro-crash-service",
      "url": "https://a.test/", "consent_version": "1", "consent_text": "x",
      "minimum_age": false})"),
                                R"(|/consent_text "<16384>"
only sent over HTTPS|/url "http://a.test"
too long|/url ""|/consent_text "<16385>"|/consent_text ""
invalid_identity|/consent_version "A")");
}

TEST(Notices, ShowTheGravestOfTheirTimeFirst) {
  Notices all;
  all.notices = {{"old", NoticeSeverity::warning, "t", "t", 1, 9},
                 {"over", NoticeSeverity::critical, "t", "t", 1, 5},
                 {"grave", NoticeSeverity::critical, "t", "t", 2, 9},
                 {"soon", NoticeSeverity::critical, "t", "t", 6, 9},
                 {"new", NoticeSeverity::warning, "t", "t", 5, 9}};
  std::string shown;
  for (const Notice& notice : all.in_force(5)) shown += notice.id + ' ';
  EXPECT_EQ(shown, "grave new old ");
}

}  // namespace tavro
