#include "publisher/repository.h"

#include <sys/stat.h>

#include "publisher/check.h"
#include "publisher/publish_line.h"
#include "support/fail_nth_call.h"
#include "support/installation.h"
#include "support/snapshot_archive.h"
#include "tuf/client_limits.h"
#include "tuf/threshold.h"
#include "tuf/tuf.h"

namespace tavro::repository_test {

using Names = std::vector<std::string>;

const RepositoryExpiry expiry{"2090-01-01T00:00:00Z", "2080-01-01T00:00:00Z",
                              "2070-01-01T00:00:00Z"};

/// "consistent" or "plain".
class RepositoryOnDisk : public testing::TestWithParam<const char*> {
 protected:
  RepositoryOnDisk() {
    for (const char* name : {"root", "online", "targets", "quest", "next"})
      SigningKey::generate(KeyType::ed25519).store(key_path(name));
    fs::create_directory(home / "trust");
    RootRequest request;
    request.expires = "2095-01-01T00:00:00Z";
    request.consistent_snapshot = !plain();
    request.root.records = {key("root").record()};
    request.targets.records = {key("targets").record()};
    request.snapshot.records = request.timestamp.records = {key("online").record()};
    const SigningKey root_key = key("root");
    root = sign_metadata(root_body(request), {&root_key}).dump();
    Signers all = signers({"targets", "online"});
    Repository::create(place, root, all, expiry);
  }

  fs::path key_path(const std::string& name) const { return home / (name + ".pem"); }
  SigningKey key(const std::string& name) const { return SigningKey::load(key_path(name)); }
  Signers signers(const Names& names) const {
    std::vector<SigningKey> keys;
    for (const std::string& name : names) keys.push_back(key(name));
    return Signers(std::move(keys));
  }

  template <typename Change>
  void publish(const Names& keys, Change&& change) const {
    Signers all = signers(keys);
    Repository repository(place / "");  // with the slash that a shell puts behind it
    change(repository);
    repository.publish(all, expiry);
  }

  /// Publishes the content as a target.
  void put(const std::string& path, const std::string& content, const std::string& role = "targets",
           const Names& keys = {"targets", "online"}) const {
    publish(keys,
            [&](auto& repository) { repository.put_target(role, path, file_of(content), {}); });
  }

  fs::path file_of(const std::string& content) const {
    return put_file(home / "content", content), home / "content";
  }

  bool plain() const { return std::string_view(GetParam()) == "plain"; }

  void delegate(const std::string& name, const Names& paths, const Names& prefixes) const {
    const Delegation delegation{name, {{key("quest").record()}, 1}, paths, prefixes};
    publish({"targets", "online", "quest"},
            [&](auto& repository) { repository.delegate("targets", delegation); });
  }

  /// What a client with this trust folder reads as the target, from the metadata down to the bytes
  /// that it would download; the code of what refuses it.
  std::string read(const std::string& path, const std::string& trust = random_id()) const {
    std::string content;
    const std::string refused = code_of([&] {
      const fs::path folder = home / "trust" / trust;
      if (!fs::exists(folder)) TufClient::initialize(folder, root);
      FolderTransport metadata(place / served_folder / metadata_folder);
      FolderTransport targets(place / served_folder / targets_folder);
      TufClient client(folder, metadata, targets, client_limits, std::chrono::system_clock::now);
      const fs::path files = home / random_id();
      client.download(path, files, {}, {}, {});
      content = read_file(files / path, 1000);
    });
    return refused.empty() ? content : refused;
  }

  /// Everything served, by name.
  std::map<std::string, std::string> served() const { return tree_content(place / served_folder); }

  void rotate_all() const {
    publish({"root", "next"}, [&](Repository& repository) {
      RootRequest request = root_request(repository.state().root);
      request.root.records = request.targets.records = request.snapshot.records =
          request.timestamp.records = {key("next").record()};
      repository.rotate(request);
    });
  }

  TempFolder temp;
  fs::path home = temp.path();
  fs::path place = home / "repository";
  std::string root;
};

INSTANTIATE_TEST_SUITE_P(Snapshots, RepositoryOnDisk, testing::Values("consistent", "plain"),
                         [](const auto& row) { return std::string(row.param); });

TEST_P(RepositoryOnDisk, EveryChangeReachesAClientThatFollows) {
  const auto follows = [&](const char* path) { return read(path, "follower"); };
  put("a/b", "one");
  EXPECT_EQ(follows("a/b"), "one");
  publish({"targets", "online"}, [&](Repository& repository) {
    for (const char* content : {"two", "and three"})
      repository.put_target("targets", "a/b", file_of(content), {});
  });
  EXPECT_EQ(follows("a/b"), "and three");

  delegate("quest", {"quest/*"}, {});
  put("quest/map", "map", "quest", {"quest", "online"});
  delegate("bin", {}, {digest("hashed", "sha256").substr(0, 3)});
  put("hashed", "by hash", "bin", {"quest", "online"});
  publish({"targets", "online"}, [](Repository& repository) {
    repository.remove_target("targets", "a/b");
    repository.undelegate("quest");
  });
  EXPECT_EQ(follows("a/b"), "target_not_found");
  EXPECT_EQ(follows("quest/map"), "target_not_found");
  // Under plain names the withdrawn file still stands where the folder should.
  EXPECT_EQ(code_of([&] { put("a/b/c", "deep"); }), plain() ? "target_conflict" : "");
  // A role that comes back must not start over: its old versions are remembered.
  delegate("quest", {"quest/*"}, {});
  put("quest/map", "map again", "quest", {"quest", "online"});
  EXPECT_EQ(follows("quest/map"), "map again");
  EXPECT_GT(Repository(place).prune(), 0U);
  EXPECT_EQ(Repository(place).prune(), 0U);
  EXPECT_EQ(read("quest/map") + ", " + follows("hashed"), "map again, by hash");
  put("a/b/c", "deep");
  EXPECT_EQ(follows("a/b/c"), "deep");
}

TEST_P(RepositoryOnDisk, ServesForEverybodyAndLeavesAloneWhatIsNotItsOwn) {
  const mode_t before = ::umask(077);
  fs::create_directory(place / "staging-mine");
  std::ofstream(place / served_folder / "robots.txt") << "others'";
  put("a/b", "one");
  put("a/b", "two");
  EXPECT_EQ(::umask(before), 077U);
  Repository(place).prune();
  EXPECT_TRUE(fs::exists(place / "staging-mine") &&
              fs::exists(place / served_folder / "robots.txt"));
  for (const auto& entry : fs::recursive_directory_iterator(place / served_folder / "tuf"))
    EXPECT_EQ(entry.status().permissions(), fs::perms{entry.is_directory() ? 0755U : 0644U})
        << entry.path();
}

TEST_P(RepositoryOnDisk, RotatesKeysAlongTheChainOfRoots) {
  put("a", "one");
  EXPECT_EQ(read("a", "follower"), "one");
  rotate_all();
  EXPECT_EQ(code_of([&] { put("a", "two"); }), "signature_threshold");
  EXPECT_EQ(code_of([&] { rotate_all(); }), "key_unused") << "that of the root before";
  put("a", "two", "targets", {"next"});
  EXPECT_EQ(read("a", "follower"), "two");
}

TEST_P(RepositoryOnDisk, ACrashAtAnyCallLeavesTheOldOrTheNewRepository) {
  put("a", "old");
  delegate("quest", {"quest/*"}, {});
  const fs::path intact = home / "intact";
  copy_tree(place, intact);
  const std::function<void()> works[] = {
      [&] { put("a", "new"); }, [&] { rotate_all(); },
      [&] { publish({"online"}, [](Repository& repository) { repository.renew("timestamp"); }); }};
  const auto prepare = [&] { copy_tree(intact, place); };
  for (const auto& work : works) {
    const auto check = [&](const Stop& stop) {
      const std::string seen = read("a");
      EXPECT_TRUE(seen == "old" || seen == "new") << seen;
      EXPECT_TRUE(!stop.code.empty() || (seen == "new") == (&work == &works[0]));
      // The next publisher goes on from there, and takes away what was left.
      const bool rotated = read_repository(place / served_folder).root.at("version") == 2;
      put("a", "after", "targets", rotated ? Names{"next"} : Names{"targets", "online"});
      EXPECT_EQ(read("a"), "after");
      EXPECT_EQ(std::distance(fs::directory_iterator(place), {}), 1);
    };
    for (const Fault fault : {Fault::fail, Fault::cut})
      EXPECT_GT(strike_each_call(fault, EIO, prepare, work, check), 5);
  }
}

TEST_P(RepositoryOnDisk, RefusesWhatNoClientWouldTakeAndLeavesAllAsItIs) {
  delegate("quest", {"quest/*"}, {});
  put("a", "one");
  const auto before = served();
  const RoleKeys quest{{key("quest").record()}, 1};
  const auto changed = [&](const std::function<void(Repository&)>& change) {
    return [=, this] { publish({"targets", "online"}, change); };
  };
  const auto delegating = [&](const std::string& role, const Delegation& delegation) {
    return changed([=](auto& repository) { repository.delegate(role, delegation); });
  };
  std::vector<std::pair<const char*, std::function<void()>>> all = {
      {"unsafe_path", [&] { put("../a", "x"); }},
      {"target_not_delegated", [&] { put("other", "x", "quest"); }},
      {"signature_threshold", [&] { put("quest/a", "x", "quest", {"quest"}); }},
      {"unknown_role", changed([](auto& r) { r.undelegate("ghost"); })},
      // Its name would stand for the role that lists everything.
      {"invalid_role", delegating("targets", {"targets", quest, {"*"}, {}})},
      {"invalid_role", delegating("quest", {"quest", quest, {"*"}, {}})},
      {"signature_threshold", delegating("quest", {"new", quest, {"*"}, {}})},
      {"size_limit", changed([&](auto& r) {
         for (unsigned i = 0; i < max_delegated_roles; ++i)
           r.delegate("targets", {std::to_string(i), quest, {"*"}, {}});
       })},
      {"busy", changed([&](auto&) { Repository second(place); })},
      {"expired_metadata", [&] {
         Signers late = signers({"online"});
         Repository repository(place);
         repository.renew("timestamp");
         repository.publish(late, {"", "", "2001-01-01T00:00:00Z"});
       }}};
  if (plain()) all.emplace_back("target_conflict", [&] { put("a/b", "x"); });
  for (const auto& [code, change] : all) {
    EXPECT_EQ(code_of(change), code);
    EXPECT_EQ(served(), before) << code;
  }
}

TEST_P(RepositoryOnDisk, BuildsNothingOnMetadataThatClientsRefuse) {
  const RepositoryState state = read_repository(place / served_folder);
  EXPECT_EQ(code_of([&] { document_name(state, "a/../../../b", 1); }), "unsafe_path");
  const auto renewed = [&] {
    return code_of(
        [&] { publish({"online"}, [](auto& repository) { repository.renew("timestamp"); }); });
  };
  const fs::path targets = place / served_folder / document_name(state, "targets", 1);
  std::string text = read_file(targets, 100000);
  std::ofstream(targets, std::ios::trunc) << text.replace(text.find("2090"), 4, "2091");
  EXPECT_EQ(renewed(), "hash_mismatch");
  fs::remove(place / served_folder / root_name(state.root));
  EXPECT_EQ(renewed(), "invalid_repository");
}

TEST_P(RepositoryOnDisk, ACheckTellsWhatAClientTrustsAndUntilWhen) {
  put("a", "one");
  rotate_all();
  std::ofstream(home / "root.json") << root;
  FolderTransport metadata(place / served_folder / metadata_folder);
  FolderTransport targets(place / served_folder / targets_folder);
  CheckRequest request{"", home / "root.json", "", {"a"}, true};
  const auto check = [&] { return check_repository(request, metadata, targets, {}); };
  const json told = check();
  EXPECT_EQ(told.at("trusted_until"), expiry.timestamp);
  EXPECT_EQ(told.at("roles").at("root").at("expires"), "2095-01-01T00:00:00Z");
  EXPECT_EQ(told.at("targets").at(0).at("length"), 3);
  for (const auto& entry : fs::recursive_directory_iterator(place / served_folder / targets_folder))
    if (entry.is_regular_file()) std::ofstream(entry.path(), std::ios::trunc) << "???";
  EXPECT_EQ(code_of(check), "hash_mismatch");
  request.targets = {"ghost"};
  EXPECT_EQ(code_of(check), "target_not_found");
}

}  // namespace tavro::repository_test
