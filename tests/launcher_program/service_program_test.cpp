// The real program, and what a real repository tells its players.

#include "launcher_program/program_world.h"

namespace tavro::program_test {

TEST(ServiceProgram, AsksARealRepositoryAndKeepsTheReportOfAGameThatFell) {
  Client client;
  EXPECT_EQ(client.answer("notices").at("notices"), json::array());
  EXPECT_EQ(client.answer("service status").at("status"), nullptr);
  EXPECT_EQ(client.answer("agreements show eula", 3).at("problem").at("code"),
            "agreement_not_found");
  repository().publish("faller", "1.0", "echo $TAVRO_GAME_STATE; exit 3");
  EXPECT_EQ(client.answer("channel unlock faller", 2).at("problem").at("code"), "usage");
  client.answer("install faller");
  const auto report = client.answer("launch faller", 9).at("crash_report").get<std::string>();
  const json shown = client.answer("crashes show " + report);
  EXPECT_THAT(shown.at("content").get<std::string>(),
              testing::HasSubstr(R"("output":"<data>/userdata/faller/state\n")"));
  EXPECT_EQ(shown.at("service"), nullptr);
  EXPECT_EQ(
      client.answer("crashes send " + report + " --consent-version 1", 3).at("problem").at("code"),
      "crash_service_missing");
}

}  // namespace tavro::program_test
