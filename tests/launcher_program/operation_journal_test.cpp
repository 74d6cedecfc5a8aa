#include "operations/operation_journal.h"

#include "support/fail_nth_call.h"
#include "support/installation.h"
#include "support/testing.h"

namespace tavro::program_test {

struct Journal : testing::Test {
  std::size_t files() const {
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(place), {}));
  }

  TempFolder folder;
  fs::path place = folder.path() / "operations";
  OperationJournal journal{folder.path()};
};

TEST_F(Journal, ForgetsWhatIsOldAndDone) {
  for (std::size_t i = 0; i < kKeptOperations + 20; ++i)
    journal.begin({"verify", "space"}, "", 1).succeed({{"number", i}});
  EXPECT_EQ(journal.list().size(), kKeptOperations);
  EXPECT_LE(files(), 2 * kKeptOperations + 1);
}

TEST_F(Journal, ReadsNothingThatItDidNotWrite) {
  const std::string id = journal.begin({"verify", "space"}, "", 1).id();
  json entry = json::parse(read_file(place / (id + ".json"), kOperationBytes));
  const auto failure = [&](const json& changed) {
    put_file(place / (id + ".json"), changed.dump());
    return failure_of([&] { static_cast<void>(journal.find(id)); }).substr(0, 18);
  };
  const std::pair<const char*, json> changes[] = {{"id", random_id()},
                                                  {"request", json::array()},
                                                  {"request", {1}},
                                                  {"state", "flying"},
                                                  {"pid", -1},
                                                  {"retry_of", "../x"},
                                                  {"problem", {{"code", 1}}},
                                                  {"result", 3},
                                                  {"request", json(99, "word")}};
  for (const auto& [key, value] : changes) {
    json changed = entry;
    changed[key] = value;
    EXPECT_EQ(failure(changed), "invalid_state: The") << changed;
    journal.begin({"verify", "space"}, "", 1);
    EXPECT_FALSE(fs::exists(place / (id + ".json"))) << "nobody can tell what it was";
  }
  entry["schema_version"] = 2;
  EXPECT_EQ(failure(entry), "unsupported_schema");
  journal.begin({"verify", "space"}, "", 1);
  EXPECT_TRUE(fs::exists(place / (id + ".json"))) << "another version's entry is preserved";
  for (const char* name : {"../../settings", "", "0"})
    EXPECT_THAT(failure_of([&] { static_cast<void>(journal.find(name)); }),
                testing::StartsWith("not_found"));
}

TEST_F(Journal, IsWholeWhereverAProcessDies) {
  const auto work = [&] {
    Operation operation = journal.begin({"install", "space"}, "", 8);
    operation.report("downloading", 1, 2);
    operation.report("unpacking", 1, 2);
    operation.fail_with(Error("network", "no line"));
  };
  const int struck = strike_each_call(
      Fault::kill, EIO, [&] { fs::remove_all(place); }, work,
      [&](const Stop& stop) {
        for (const OperationRecord& each : journal.list())
          EXPECT_NE(each.state, OperationState::running) << stop.call << stop.nth;
        // The next one finds its way, and takes what is explained by nothing.
        work();
        EXPECT_EQ(journal.list().front().problem_code, "network");
        EXPECT_EQ(files(), 2 * journal.list().size() + 1) << stop.call << stop.nth;
      });
  EXPECT_GT(struck, 8);
}

TEST_F(Journal, GoesOnWhereTheDiskTakesNoProgress) {
  Operation operation = journal.begin({"install", "space"}, "", 1);
  const FailNthCall full(1, ENOSPC, Fault::cut);
  EXPECT_TRUE(operation.report("downloading", 1, 2));
  EXPECT_THAT(failure_of([&] { operation.succeed({}); }), testing::Not(testing::IsEmpty()));
}

}  // namespace tavro::program_test
