#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/launcher_store.h"
#include "domain/input.h"
#include "platform/snapshot.h"
#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "support/sealed_package.h"
#include "support/temp_folder.h"

namespace tavro {
namespace {

class Seed : public testing::Test {
 protected:
  void seed(const std::string& name, const Progress& progress = {}) {
    LauncherStore(folder.path() / name, true)
        .seed_initial(descriptor, package.path("launcher_archive"), progress);
  }
  /// The record, after a proof that what it selects is there.
  json record(const std::string& name) {
    const LauncherStore store(folder.path() / name, true);
    auto state = store.load();
    if (const auto& reference = state.at("candidate"); !reference.is_null())
      verify_snapshot_tree(store.manifest(reference), store.payload(reference));
    return state;
  }

  TempFolder folder;
  SealedPackage package{folder.path()};
  std::string descriptor = read_file(package.path("launcher_manifest"), 524288);
};

TEST_F(Seed, PlacesTheFirstLauncherAsACandidateOnce) {
  const auto good = descriptor;
  auto foreign = json::parse(good);
  foreign["platform"] = "windows-x86_64";
  descriptor = foreign.dump();
  EXPECT_EQ(code_of([&] { seed("data"); }), "launcher_incompatible");
  descriptor = good;
  seed("data");
  const auto seeded = record("data");
  EXPECT_EQ(seeded.at("generation"), 1);
  EXPECT_FALSE(seeded.at("candidate").is_null());
  EXPECT_TRUE(seeded.at("active").is_null());
  EXPECT_EQ(code_of([&] { seed("data"); }), "already_installed");
  EXPECT_EQ(record("data"), seeded);
  EXPECT_EQ(code_of([&] { seed("other", [](auto, auto) { return false; }); }), "cancelled");
  EXPECT_EQ(record("other").at("generation"), 0);
}

TEST_F(Seed, IsNothingOrWholeWhereverItIsCut) {
  int round = 0;
  std::string name;
  const auto prepare = [&] { record(name = std::to_string(++round)); };
  const auto work = [&] { seed(name); };
  const int cuts = strike_each_call(Fault::cut, EIO, prepare, work, [&](const Stop& stop) {
    const auto generation = record(name).at("generation");
    // Only the last call, which makes the new record's name durable, may fail with it in place.
    EXPECT_TRUE(stop.code.empty() || generation == 0 || stop.call == "fsync") << stop.nth;
    EXPECT_TRUE(!stop.code.empty() || generation == 1) << stop.nth;
  });
  EXPECT_GT(cuts, 20);
}

}  // namespace
}  // namespace tavro
