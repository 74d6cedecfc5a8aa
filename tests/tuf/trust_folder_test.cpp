#include "tuf/trust_folder.h"

#include <unistd.h>

#include "support/fail_nth_call.h"
#include "tuf/trusted_client.h"

namespace tavro::trust_folder_test {

using Names = std::vector<std::string>;

/// A folder that has taken a look-up through a delegated role, two roots after the packaged one.
struct TrustFolder : TrustedClient {
  const std::string packaged = repository.root_bytes();
  const std::string delegated = "delegated-" + digest("group", "sha256") + ".json";
  std::map<std::string, std::string> good;

  TrustFolder() {
    json& role = repository.delegate(repository.targets, "group", {{"paths", {"a/*"}}});
    repository.add_target(role, "a/x", "content");
    for (int count = 0; count < 2; ++count) repository.publish_root();
    repository.publish_update();
    EXPECT_EQ(look_up(), "");
    client.reset();
    good = stored();
  }

  std::string look_up() {
    return code_of([&] { reopen().target("a/x"); });
  }
  TrustDamage mend() const { return mend_trust_folder(trust, packaged); }
  std::string root() const { return stored().at("root.json"); }
  void store_root(const std::string& bytes) const { std::ofstream(trust / "root.json") << bytes; }
  /// Removes what was set aside; the name of what it held or led to.
  std::string take_set_aside() const {
    std::string held;
    for (const auto& entry : fs::directory_iterator(trust)) {
      if (entry.path().native().find(".set-aside-") == std::string::npos) continue;
      held = entry.is_symlink() ? fs::read_symlink(entry)
                                : fs::directory_iterator(entry)->path().filename();
      fs::remove_all(entry);
    }
    return held;
  }
  static std::string version_changed(std::string bytes) {
    return bytes.replace(bytes.find("\"version\":") + 10, 1, "9");
  }
};

TEST(TrustFolder, MendsEveryKindOfDamageAndKeepsWhatProves) {
  using Damage = std::function<void(const fs::path&, const std::string& good)>;
  const auto bytes = [](auto change) -> Damage {
    return [change](const fs::path& file, const std::string& good) {
      std::ofstream(file) << change(good);
    };
  };
  const std::vector<Damage> kinds = {
      bytes([](const std::string&) { return ""; }),
      bytes([](const std::string& good) { return good.substr(0, good.size() / 2); }),
      bytes([](const std::string& good) { return good + std::string(50, '\0') + "rest"; }),
      bytes(TrustFolder::version_changed),
      [](const fs::path& file, const std::string&) {
        fs::remove(file);
        fs::create_directories(file / "inside");
      },
      [](const fs::path& file, const std::string&) {
        fs::rename(file, file.parent_path() / "elsewhere");
        fs::create_symlink("elsewhere", file);
      },
      [](const fs::path& file, const std::string&) { fs::permissions(file, fs::perms::none); }};
  TrustFolder folder;
  EXPECT_TRUE(trust_damage(folder.trust, folder.packaged).none());
  for (const auto& [name, good] : folder.good)
    for (std::size_t kind = 0; kind < kinds.size(); ++kind) {
      if (kind == 6 && ::geteuid() == 0) continue;  // reads everything
      kinds[kind](folder.trust / name, good);
      const TrustDamage damage = folder.mend();
      EXPECT_EQ(damage.root, name == "root.json") << kind;
      const std::string kept = folder.take_set_aside();
      EXPECT_EQ(kept, kind == 4 ? "inside" : kind == 5 ? "elsewhere" : "") << name;
      if (name != "targets.json") {  // without which no delegation proves
        const Names dropped = damage.root ? Names{} : Names{name};
        EXPECT_EQ(damage.documents, dropped) << kind;
      }
      EXPECT_TRUE(folder.mend().none()) << name << kind;
      EXPECT_EQ(folder.look_up(), "") << name << kind;
      folder.client.reset();
      fs::remove(folder.trust / "elsewhere");
      EXPECT_EQ(folder.stored(), folder.good) << name << kind;
    }
}

TEST(TrustFolder, TakesTheNewestRootOfOneChain) {
  TrustFolder folder;
  SignedRepository& repository = folder.repository;
  const std::string third = repository.files.at("3.root.json").body;
  fs::remove(folder.trust / "root.json");
  EXPECT_TRUE(mend_trust_folder(folder.trust, third).root);
  EXPECT_EQ(folder.root(), third);
  // One version on, and without a word of what the old online keys signed.
  repository.set_keys("timestamp", {"new"});
  repository.publish_root();
  const std::string fourth = repository.files.at("4.root.json").body;
  EXPECT_EQ(mend_trust_folder(folder.trust, fourth).documents,
            (Names{"snapshot.json", "timestamp.json"}));
  EXPECT_FALSE(folder.stored().contains("root-invalidation.json"));
  EXPECT_EQ(folder.root(), fourth);
  // The folder is ahead, and by more than can be told.
  for (const std::string& older : {third, folder.packaged}) {
    EXPECT_TRUE(mend_trust_folder(folder.trust, older).none());
    EXPECT_EQ(folder.root(), fourth);
  }
  // Each signed by itself, and not by what the package says was there before, at or after it.
  SignedRepository foreign;
  foreign.set_keys("root", {"root-foreign"});
  for (const int version : {2, 3, 4}) {
    foreign.root["version"] = version;
    folder.store_root(foreign.root_bytes());
    EXPECT_TRUE(mend_trust_folder(folder.trust, third).root) << version;
    EXPECT_EQ(folder.root(), third);
  }
  EXPECT_EQ(code_of([&] { mend_trust_folder(folder.trust, third + "x"); }), "invalid_json");
}

TEST(TrustFolder, IsMendedByTheNextCallAfterAFailureOrAKillAnywhere) {
  TrustFolder folder;
  SignedRepository& repository = folder.repository;
  repository.set_keys("snapshot", {"new"});
  repository.publish_root();
  repository.publish_update();
  const std::string fourth = repository.files.at("4.root.json").body;
  for (const Fault fault : {Fault::cut, Fault::fail}) {
    const auto prepare = [&] {
      folder.client.reset();
      for (const auto& [name, bytes] : folder.good) std::ofstream(folder.trust / name) << bytes;
      std::ofstream(folder.trust / "targets.json") << "junk";
    };
    const auto work = [&] { mend_trust_folder(folder.trust, fourth); };
    const auto check = [&](const Stop& stop) {
      const bool old_root = folder.root() == folder.good.at("root.json");
      EXPECT_TRUE(old_root || folder.root() == fourth) << stop.nth;
      work();
      EXPECT_TRUE(trust_damage(folder.trust, fourth).none()) << stop.nth;
      EXPECT_EQ(folder.look_up(), "") << stop.nth << stop.call;
      EXPECT_EQ(folder.root(), fourth);
    };
    EXPECT_GT(strike_each_call(fault, EIO, prepare, work, check), 12);
  }
}

}  // namespace tavro::trust_folder_test
