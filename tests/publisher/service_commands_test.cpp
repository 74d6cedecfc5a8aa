#include "documents/agreements.h"
#include "documents/crash_service.h"
#include "documents/notices.h"
#include "documents/service_status.h"
#include "publisher/command.h"
#include "publisher/repository.h"
#include "support/answers.h"
#include "support/snapshot_archive.h"

namespace tavro::command_test {

struct PublishedService : testing::Test {
  TempFolder temp;
  fs::path home = temp.path();

  /// Words between single spaces; "@" stands for the folder. The code of the failure, if there is
  /// one.
  std::string run(const std::string& line) const {
    std::vector<std::string> arguments;
    std::istringstream words(line + " --json");
    for (std::string word; words >> word; arguments.push_back(word))
      if (const std::size_t at = word.find('@'); at != std::string::npos)
        word.replace(at, 1, home.string() + '/');
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = run_publish(arguments, {});
    const std::string out = testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    return status == 0 ? "" : json::parse(out).at("problem").at("code").get<std::string>();
  }
  std::string change(const std::string& line) const {
    return run(line + " --repository @r --key @key.pem");
  }
  template <typename Document>
  Document served() const {
    const std::string text =
        Repository(home / "r").read_target(std::string(Document::kTarget), Document::kMaxBytes);
    return Document::parse(json::parse(text));
  }
};

TEST_F(PublishedService, IsWhatClientsRead) {
  for (const char* line :
       {"keys new --out @key.pem", "root new --days 30 --key @key.pem --out @root.json",
        "repository new --root @root.json --repository @r --key @key.pem"})
    ASSERT_EQ(run(line), "");
  write_bytes(home / "notices.json", R"({"notices": [{"id": "a", "severity": "warning",
      "title": "T", "text": "t", "from": "2030-01-01T00:00:00Z", "until": "2030-01-02T00:00:00Z"}]})");
  write_bytes(home / "text", "Be kind.");
  write_bytes(home / "other", "Be kind!");
  write_bytes(home / "bad", "\x1b[2J");

  EXPECT_EQ(change("notices @notices.json"), "");
  EXPECT_EQ(served<Notices>().notices.at(0).from, 1893456000U);
  EXPECT_EQ(change("service-status --state outage --text soon --hours 2"), "");
  const auto status = served<ServiceStatus>();
  EXPECT_EQ(status.valid_until - status.issued, 7200U);
  EXPECT_EQ(change("crash-service --url https://a.test/c --consent-version 2 --consent @text"), "");
  EXPECT_EQ(served<CrashService>().consent_text, "Be kind.");

  const std::string eula = "agreement add --id eula --title T --text @";
  EXPECT_EQ(change(eula + "text --version 1 --game space --minimum-age"), "");
  EXPECT_EQ(change("agreement add --id all --title T --version 1 --text @text --every-game"), "");
  EXPECT_EQ(served<Agreements>().agreements.size(), 2U);
  EXPECT_TRUE(served<Agreements>().at("eula").is_needed_by("space"));
  EXPECT_EQ(Repository(home / "r").read_target("service/agreements/eula/1.txt", 99), "Be kind.");
  EXPECT_EQ(change(eula + "other --version 1 --game space"), "agreement_version");
  EXPECT_EQ(change(eula + "other --version 2 --game space"), "");
  EXPECT_EQ(served<Agreements>().at("eula").version, "2");
  EXPECT_EQ(change("agreement remove --id eula"), "");
  EXPECT_EQ(served<Agreements>().agreements.size(), 1U);

  write_bytes(home / "notices.json", R"({"notices": [{"id": "a", "from": 1}]})");
  expect_answers(R"(usage|agreement add --id a --title T --version 1 --text @text
usage|service-status --state outage --hours 745
invalid_service_document|service-status --state fine|notices @notices.json
invalid_service_document|crash-service --url http://a --consent-version 1 --consent @text
invalid_identity|agreement add --id A --title T --version 1 --text @text --every-game
invalid_text|agreement add --id a --title T --version 1 --text @bad --every-game
agreement_not_found|agreement remove --id none)",
                 [&](const std::string& line) { fail(change(line), ""); });
}

}  // namespace tavro::command_test
