#include "distributor/distributor.h"

#include "distributor/launch_gate.h"
#include "games/channel_unlock.h"
#include "games/game_world.h"
#include "platform/files/durable_files.h"
#include "support/answers.h"
#include "support/fail_nth_call.h"

namespace tavro::games_test {

struct Distributors : testing::Test {
  GameWorld world;
  const Distributor distributor{world.data};
  const AgreementDecisions decisions{world.data};

  template <typename Document>
  void publish(const Document& document) {
    world.put(std::string(Document::kTarget), document.to_json().dump());
    world.trusted.repository.publish_update();
  }
  /// Publishes the text too.
  Agreement publish_agreement(const std::string& version, const std::string& text,
                              bool minimum_age = false) {
    Agreements all;
    all.agreements["eula"] = {"eula",      version, "Terms",  text.size(), digest(text, "sha256"),
                              minimum_age, false,   {"space"}};
    world.put(agreement_text_target("eula", version), text);
    publish(all);
    return all.at("eula");
  }
  std::string gate(const std::string& game = "space") {
    return code_of([&] { require_agreements(world.data, game, &world.tuf()); });
  }
};

TEST_F(Distributors, KeepWhatTheyToldLast) {
  EXPECT_FALSE(distributor.cached<ServiceStatus>());
  EXPECT_FALSE(distributor.fetch<ServiceStatus>(world.tuf()).document);
  EXPECT_FALSE(distributor.cached<ServiceStatus>()->document);

  const ServiceStatus status{ServiceState::degraded, "slow", 5, 6};
  publish(status);
  EXPECT_EQ(distributor.known<ServiceStatus>(&world.tuf())->document, status);
  const auto cached = distributor.cached<ServiceStatus>();
  EXPECT_EQ(cached->document, status);
  EXPECT_LE(cached->age(distributor_clock()), 60U);
  EXPECT_EQ(cached->age(cached->fetched + 7), 7U);
  EXPECT_EQ(cached->age(0), 0U);

  // What is signed and wrong takes no place; without the network the last word counts.
  world.put("service/status.json", R"({"schema_version":1,"kind":"tavro-service-status"})");
  world.trusted.repository.publish_update();
  EXPECT_EQ(code_of([&] { distributor.known<ServiceStatus>(&world.tuf()); }),
            "invalid_service_document");
  EXPECT_EQ(distributor.cached<ServiceStatus>()->document, status);
  world.trusted.repository.files.clear();
  EXPECT_EQ(distributor.known<ServiceStatus>(&world.tuf())->document, status);
  EXPECT_EQ(tree_content(world.data / "service").size(), 2U);

  replace_private_file(world.data / "service/status.json", "{}");
  EXPECT_EQ(code_of([&] { distributor.cached<ServiceStatus>(); }), "invalid_state");
}

TEST_F(Distributors, ShowTheTextThatAnAgreementNames) {
  const Agreement agreement = publish_agreement("1", "Be kind.\n");
  EXPECT_EQ(code_of([&] { distributor.text_of(agreement, nullptr); }), "agreement_text_missing");
  EXPECT_EQ(distributor.text_of(agreement, &world.tuf()), "Be kind.\n");
  EXPECT_EQ(distributor.text_of(agreement, nullptr), "Be kind.\n");
  Agreement other = agreement;
  other.text_sha256 = digest("Be cruel.", "sha256");
  EXPECT_EQ(code_of([&] { distributor.text_of(other, &world.tuf()); }), "content_mismatch");
  EXPECT_EQ(code_of([&] { distributor.text_of(publish_agreement("2", "\x1b[2J"), &world.tuf()); }),
            "invalid_service_document");
}

TEST_F(Distributors, LetNoGameStartBeforeItsAgreements) {
  EXPECT_EQ(gate(), "");
  const Agreement first = publish_agreement("1", "one", true);
  EXPECT_EQ(gate(), "agreement_required");
  EXPECT_EQ(gate("other"), "");
  EXPECT_EQ(code_of([&] { decisions.agree(first, "2", AgeGiven::sixteen_or_older); }),
            "agreement_version");
  EXPECT_EQ(code_of([&] { decisions.agree(first, "1", AgeGiven::no); }), "age_required");
  EXPECT_FALSE(decisions.find("eula"));
  decisions.agree(first, "1", AgeGiven::sixteen_or_older);
  EXPECT_EQ(gate(), "");
  // Another text of the same version is another agreement.
  publish_agreement("1", "One", true);
  EXPECT_EQ(gate(), "agreement_required");
  // Nobody who could not say so has to tell an age.
  const Agreement second = publish_agreement("2", "two");
  EXPECT_EQ(gate(), "agreement_required");
  decisions.agree(second, "2", AgeGiven::no);
  EXPECT_EQ(gate(), "");
  world.trusted.repository.files.clear();
  EXPECT_EQ(gate(), "");
  decisions.withdraw("eula");
  EXPECT_EQ(gate(), "agreement_required");
  EXPECT_EQ(code_of([&] { require_agreements(world.data, "space", nullptr); }),
            "agreement_required");
  EXPECT_EQ(code_of([&] { decisions.withdraw("eula"); }), "not_agreed");
  replace_private_file(world.data / "agreements/eula.json", "{");
  EXPECT_EQ(gate(), "invalid_json");
}

TEST_F(Distributors, DecideWholeOrNotAtAll) {
  const Agreement agreement = publish_agreement("1", "one");
  distributor.fetch<Agreements>(world.tuf());
  world.trusted.client.reset();
  const int rounds = strike_each_call(
      Fault::kill, EIO, [&] { fs::remove_all(world.data / "agreements"); },
      [&] { decisions.agree(agreement, "1", AgeGiven::no); },
      [&](const Stop& stop) {
        const auto decision = decisions.find("eula");
        EXPECT_TRUE(decision || !stop.call.empty());
        EXPECT_TRUE(!decision || decision->covers(agreement));
        decisions.agree(agreement, "1", AgeGiven::no);
        EXPECT_EQ(tree_content(world.data / "agreements").size(), 2U);
      });
  EXPECT_GE(rounds, 5);
}

TEST_F(Distributors, LockAChannelUntilItsCodeComes) {
  world.publish(build_of("one"));
  world.catalog.games["space"].channels["stable"].unlock_sha256 = digest("open sesame", "sha256");
  world.put(game_catalog_target(world.catalog.platform), world.catalog.to_json().dump());
  world.trusted.repository.publish_update();
  EXPECT_EQ(code_of([&] { world.install(); }), "channel_locked");
  const UnlockedChannels channels(world.data);
  const GameCatalog catalog = world.library().available(world.tuf());
  expect_answers(R"(usage|
usage| 
wrong_code|open
game_not_published|?)",
                 [&](const std::string& code) {
                   channels.unlock(catalog, code == "?" ? "other" : "space", code);
                 });
  EXPECT_EQ(channels.unlock(catalog, "space", " open sesame\n"),
            std::vector<std::string>{"stable"});
  world.install();
  for (const auto& [path, content] : tree_content(world.data / "unlocked-channels"))
    EXPECT_EQ(content.find("sesame"), std::string::npos);
  // Another code locks it again.
  world.catalog.games["space"].channels["stable"].unlock_sha256 = digest("new", "sha256");
  EXPECT_FALSE(channels.is_open(world.catalog, "space", "stable"));
}

}  // namespace tavro::games_test
