#include "support/scripted_tls_server.h"
#include "system/nginx.h"
#include "transport/https.h"
#include "tuf/trusted_client.h"

namespace tavro::attacks_test {

/// A client that fetches fonts/a, a target of a delegated role, from a real server.
struct World : TrustedClient {
  explicit World(const Nginx& server, fs::path place)
      : transport(server.origin(), server.bundle(), 0, nullptr), served(std::move(place)) {
    repository.delegate(repository.targets, "fonts", {{"paths", {"fonts/*"}}});
    put("content", "content");
    update();
  }
  /// Signs the first and serves the second.
  void put(const std::string& signed_bytes, const std::string& bytes) {
    repository.add_target(fonts(), "fonts/a", signed_bytes);
    repository.files["fonts/" + digest(signed_bytes, "sha256") + ".a"] = {200, bytes};
  }
  json& fonts() { return repository.delegated.at("fonts"); }
  /// Version 2 of everything but the root, or 3.
  void update() {
    fonts()["version"] = fonts()["version"].get<unsigned>() + 1;
    repository.publish_update();
  }
  /// Replaces what the server shows.
  void serve() const {
    fs::remove_all(served);
    for (const auto& [name, response] : repository.files) {
      fs::create_directories((served / name).parent_path());
      std::ofstream(served / (name + (response.status == 500 ? ".failing" : ""))) << response.body;
    }
  }
  std::string fetch() {
    client.reset();
    return code_of([&] {
      client.emplace(trust, transport, transport, limits, [this] { return now; });
      client->download("fonts/a", files, {}, {}, {.resume_scope = "attacked"});
    });
  }

  HttpsTransport transport;
  fs::path served;
  fs::path files = folder.path() / "files";
};

using Step = std::function<void(World&, SignedRepository&)>;
const auto honest = [](World&, SignedRepository&) {};

/// What is done to a client that holds version 2 of everything; honest would be version 3.
struct Attack {
  const char* name;
  std::string code;
  /// The files that the client may have replaced: each was proved before something else failed.
  std::string proved;
  Step sign;             ///< changes bodies before they are signed
  Step meddle = honest;  ///< changes what was signed, what is stored or what time it is
};

const std::string none, to_timestamp = "timestamp.json",
                        to_snapshot = "snapshot.json timestamp.json",
                        to_targets = "snapshot.json targets.json timestamp.json";

std::vector<Attack> attacks() {
  using W = World&;
  using R = SignedRepository&;
  using S = SignedRepository;
  using Names = std::vector<std::string>;
  const auto set = [](json S::*role, const char* member, const json& value) -> Step {
    return [=](W, R r) { (r.*role)[member] = value; };
  };
  const auto signers = [](const char* role, const Names& keys) -> Step {
    return [=](W, R r) { r.signers[role] = keys; };
  };
  const auto new_root = [](const Step& change) -> Step {
    return [=](W w, R r) { change(w, r), r.publish_root(); };
  };
  const auto root_key_signed_by = [&](const Names& keys) {
    return new_root([=](W, R r) { r.set_keys("root", {"root-new"}), r.signers["root"] = keys; });
  };
  const auto two_needed_but = [&](const Names& keys) {
    return new_root([=](W, R r) {
      r.set_keys("targets", {"targets", "second"}, 2);
      r.signers["targets"] = keys;
    });
  };
  const auto serve = [](const char* name, auto change) -> Step {
    return [=](W, R r) { change(r.files[name]); };
  };
  const auto endless = [](auto& file) { file.body.resize(1 << 24, ' '); };
  const Step old_snapshot = [](W, R r) {
    r.files["3.snapshot.json"] = r.files.at("2.snapshot.json");
  };
  const Step root_again = [](W, R r) { r.files["2.root.json"] = {200, r.root_bytes()}; };
  const Step unpinned = [](W, R r) { r.pins = false; };
  const auto misnamed = [](json& keys, const std::string& key) {
    json record = keys.at(S::key(key).id());
    keys[std::string(64, '0')] = std::move(record);
  };
  const auto damage = [](const char* name) -> Step {
    return [=](W w, R) { std::ofstream(w.trust / name) << "{"; };
  };
  return {
      {"unsigned targets", "hash_mismatch", to_snapshot, honest,
       serve("3.targets.json", [](auto& file) { file.body[file.body.find("fonts")] = 'F'; })},
      {"unsigned delegated role", "length_mismatch", to_targets, honest,
       serve("3.fonts.json", [](auto& file) { file.body.pop_back(); })},
      {"other bytes of the target", "hash_mismatch", "fonts " + to_targets,
       [](W w, R) { w.put("signed", "served"); }},
      {"more bytes of the target", "length_mismatch", "fonts " + to_targets,
       [](W w, R) { w.put("signed", "signed and more"); }},
      {"rollback of the root", "rollback", none, set(&S::root, "version", 1), root_again},
      {"a root is skipped", "rollback", none, set(&S::root, "version", 3), root_again},
      {"rollback of the timestamp", "rollback", none, set(&S::timestamp, "version", 1)},
      {"rollback of the snapshot", "rollback", none, set(&S::snapshot, "version", 1)},
      {"rollback of the targets", "rollback", to_timestamp, set(&S::targets, "version", 1)},
      {"rollback of a delegated role", "rollback", to_timestamp,
       [](W w, R) { w.fonts()["version"] = 1; }},
      {"a known role disappears", "rollback", to_timestamp, [](W, R r) { r.delegated.clear(); }},
      {"versions that nothing can follow, then honest ones", "rollback", none,
       [](W w, R r) {
         for (json* body : {&r.timestamp, &r.snapshot}) (*body)["version"] = ~0ull;
         r.publish(), w.serve();
         EXPECT_EQ(w.fetch(), "");
         for (json* body : {&r.timestamp, &r.snapshot}) (*body)["version"] = 3;
       }},
      {"freeze: the old files, for too long", "expired_metadata", none, honest,
       [](W w, R r) {
         r.files["timestamp.json"] = r.files.at("old timestamp.json");
         w.now = parse_tuf_time(r.timestamp.at("expires").get<std::string>());
       }},
      {"an old snapshot", "hash_mismatch", to_timestamp, honest, old_snapshot},
      {"the same, nothing pinned", "version_mismatch", to_timestamp, unpinned, old_snapshot},
      {"one role in place of another", "metadata_type", to_timestamp,
       set(&S::snapshot, "_type", "targets")},
      {"endless root", "size_limit", none, new_root(honest), serve("2.root.json", endless)},
      {"endless timestamp", "size_limit", none, honest, serve("timestamp.json", endless)},
      {"endless snapshot", "size_limit", to_timestamp, honest, serve("3.snapshot.json", endless)},
      {"endless targets, nothing pinned", "size_limit", to_snapshot, unpinned,
       serve("3.targets.json", endless)},
      {"endless delegated role", "size_limit", to_targets, honest, serve("3.fonts.json", endless)},
      {"one byte more than was signed", "size_limit", to_timestamp, honest,
       serve("3.snapshot.json", [](auto& file) { file.body += ' '; })},
      {"wrong key: timestamp", "signature_threshold", none, signers("timestamp", {"stranger"})},
      {"wrong key: snapshot", "signature_threshold", to_timestamp,
       signers("snapshot", {"timestamp"})},
      {"wrong key: targets", "signature_threshold", to_snapshot, signers("targets", {"root"})},
      {"wrong key: delegated role", "signature_threshold", to_targets,
       signers("fonts", {"targets"})},
      {"no signature", "signature_threshold", to_timestamp, signers("snapshot", {})},
      {"only the new keys sign", "signature_threshold", none, root_key_signed_by({"root-new"})},
      {"only the old keys sign", "signature_threshold", none, root_key_signed_by({"root"})},
      {"threshold not met", "signature_threshold", "root.json " + to_snapshot,
       two_needed_but({"second"})},
      {"one signature repeated", "invalid_metadata", "root.json " + to_snapshot,
       two_needed_but({"targets", "targets"})},
      {"a key id that is not its key's: root", "keyid_mismatch", none,
       new_root([=](W, R r) { misnamed(r.root["keys"], "timestamp"); })},
      {"a key id that is not its key's: delegation", "keyid_mismatch", to_snapshot,
       [=](W, R r) { misnamed(r.targets["delegations"]["keys"], "fonts"); }},
      {"a delegated role that the snapshot lacks", "missing_role", to_targets,
       [](W, R r) {
         r.delegate(r.targets, "stray", {{"paths", {"*/a"}}});
         std::swap(r.targets["delegations"]["roles"][0], r.targets["delegations"]["roles"][1]);
         r.delegated.erase("stray");
       }},
      {"a loop of delegations", "target_not_found", "fonts " + to_targets,
       [](W w, R r) {
         w.fonts()["targets"] = json::object();
         r.delegate(w.fonts(), "loop", {{"paths", {"fonts/*"}}});
         r.delegate(r.delegated.at("loop"), "fonts", {{"paths", {"fonts/*"}}});
       }},
      {"too many roles", "delegation_limit", "fonts " + to_targets,
       [](W w, R r) {
         w.fonts()["targets"] = json::object();
         for (int i = 0; i < 7; ++i)
           r.delegate(r.targets, "role" + std::to_string(i), {{"paths", {"fonts/*"}}});
       }},
      {"a role name that is a path", "", to_targets,
       [](W, R r) {
         r.add_target(r.delegate(r.targets, "../a/\xc3\xa9", {{"paths", {"fonts/*"}}}), "fonts/a",
                      "content");
         std::swap(r.targets["delegations"]["roles"][0], r.targets["delegations"]["roles"][1]);
       }},
      {"expired root", "expired_metadata", "root.json", new_root(set(&S::root, "expires", kNow))},
      {"expired timestamp", "expired_metadata", none, set(&S::timestamp, "expires", kNow)},
      {"expired snapshot", "expired_metadata", to_timestamp, set(&S::snapshot, "expires", kNow)},
      {"expired targets", "expired_metadata", to_snapshot, set(&S::targets, "expires", kNow)},
      {"expired delegated role", "expired_metadata", to_targets,
       [](W w, R) { w.fonts()["expires"] = kNow; }},
      {"a server that fails where the next root would be", "http_status", none, honest,
       serve("2.root.json", [](auto& file) { file.status = 500; })},
      {"damaged stored root", "invalid_json", none, honest, damage("root.json")},
      {"damaged stored timestamp", "invalid_trusted_metadata", none, honest,
       damage("timestamp.json")},
      {"damaged stored snapshot", "invalid_trusted_metadata", none, honest,
       damage("snapshot.json")},
      {"damaged stored targets, fetched again", "", "fonts " + to_targets, honest,
       damage("targets.json")},
  };
}

TEST(Attacks, EndInARefusalThatChangesNothingUnproved) {
  const TempFolder folder;
  const Nginx server(folder.path() / "server", folder.path() / "public",
                     "if (-f $request_filename.failing) { return 500; }");
  const std::string delegated = "delegated-" + digest("fonts", "sha256") + ".json";
  for (const Attack& attack : attacks()) {
    SCOPED_TRACE(attack.name);
    World world(server, folder.path() / "public");
    world.serve();
    ASSERT_EQ(world.fetch(), "");
    world.repository.files["old timestamp.json"] = world.repository.files.at("timestamp.json");
    world.update();
    attack.sign(world, world.repository);
    world.repository.publish();
    attack.meddle(world, world.repository);
    world.serve();
    const auto before = world.stored();
    EXPECT_EQ(world.fetch(), attack.code);
    std::string replaced;
    for (const auto& [name, bytes] : world.stored())
      if (before.contains(name) && before.at(name) != bytes)
        replaced += (replaced.empty() ? "" : " ") + (name == delegated ? "fonts" : name);
    EXPECT_EQ(replaced, attack.proved);
    EXPECT_EQ(read_file(world.files / "fonts/a", 100), "content");
  }
  // The scripted server speaks HTTP/1.1.
  const std::string log = read_file(folder.path() / "server/access.log", 1 << 24);
  EXPECT_NE(log.find("timestamp.json HTTP/2.0\n"), log.npos);
}

TEST(Attacks, BySlownessEndWithTheTimeBudget) {
  TrustedClient trusted;
  ASSERT_EQ(trusted.refresh_code(), "");
  trusted.client.reset();
  const auto before = trusted.stored();
  ScriptedTlsServer server(trusted.folder.path());
  server.say("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nslow", true);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
  HttpsTransport transport(server.origin(), server.bundle(), 0,
                           std::make_shared<HttpsBudget>(HttpsBudget{deadline, 1 << 20, 0, {}}));
  TufClient client(trusted.trust, transport, transport, trusted.limits,
                   [&] { return trusted.now; });
  EXPECT_EQ(code_of([&] { client.refresh(); }), "discovery_timeout");
  EXPECT_EQ(trusted.stored(), before);
}

}  // namespace tavro::attacks_test
