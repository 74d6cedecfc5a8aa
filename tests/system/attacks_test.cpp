#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>

#include "domain/crypto.h"
#include "support/scripted_tls_server.h"
#include "system/nginx.h"
#include "transport/https.h"
#include "tuf/trusted_client.h"

namespace tavro {
namespace {

namespace fs = std::filesystem;

/// A client that fetches fonts/a, a target of a delegated role, from a real server.
struct World : TrustedClient {
  explicit World(const Nginx& server, fs::path place)
      : transport(server.origin(), server.bundle(), 0, nullptr), served(std::move(place)) {
    repository.delegate(repository.targets, "fonts", {{"paths", {"fonts/*"}}});
    put("content");
    update();
  }
  /// Signs these bytes and serves `bytes`.
  void put(const std::string& signed_bytes) { put(signed_bytes, signed_bytes); }
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
  std::string fetch(const Progress& progress = {}) {
    client.reset();
    return failure_of([&] {
      client.emplace(trust, transport, transport, limits, [this] { return now; });
      client->download("fonts/a", files, progress, {}, {.resume_scope = "attacked"});
    });
  }
  std::string fetched() const { return read_file(files / "fonts" / "a", 1 << 23); }
  void swap_file(const std::string& name, const std::string& other) {
    repository.files[name] = repository.files.at(other);
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
  const auto version = [](json SignedRepository::*role, unsigned long long number) -> Step {
    return [=](W, R r) { (r.*role)["version"] = number; };
  };
  const auto expires = [](json SignedRepository::*role) -> Step {
    return [=](W, R r) { (r.*role)["expires"] = kNow; };
  };
  const auto signers = [](const char* role, std::vector<std::string> keys) -> Step {
    return [=](W, R r) { r.signers[role] = keys; };
  };
  const auto served = [](const char* name, auto change) -> Step {
    return [=](W, R r) { change(r.files.at(name)); };
  };
  const auto endless = [](TransportResponse& file) { file.body.resize(1 << 24, ' '); };
  const auto two_needed = [](W, R r) {
    r.set_keys("targets", {"targets", "second"}, 2);
    r.publish_root();
  };
  const auto misnamed = [](json& keys, const std::string& key) {
    json record = keys.at(SignedRepository::key(key).id());
    keys[std::string(64, '0')] = std::move(record);
  };
  const auto damage = [](const char* name) -> Step {
    return [=](W w, R) { std::ofstream(w.trust / name) << "{"; };
  };
  using S = SignedRepository;
  return {
      {"arbitrary software: unsigned targets", "hash_mismatch", to_snapshot, honest,
       served("3.targets.json", [](auto& file) { file.body[file.body.find("fonts")] = 'F'; })},
      {"arbitrary software: unsigned delegated role", "length_mismatch", to_targets, honest,
       served("3.fonts.json", [](auto& file) { file.body.pop_back(); })},
      {"arbitrary software: other bytes", "hash_mismatch", "fonts " + to_targets,
       [](W w, R) { w.put("signed", "served"); }},
      {"arbitrary software: more bytes", "length_mismatch", "fonts " + to_targets,
       [](W w, R) { w.put("signed", "signed and more"); }},
      {"arbitrary software: fewer bytes", "length_mismatch", "fonts " + to_targets,
       [](W w, R) { w.put("signed", "sign"); }},
      {"rollback of the root", "rollback", none, version(&S::root, 1),
       [](W, R r) {
         r.files["2.root.json"] = {200, r.root_bytes()};
       }},
      {"a root is skipped", "rollback", none, version(&S::root, 3),
       [](W, R r) {
         r.files["2.root.json"] = {200, r.root_bytes()};
       }},
      {"rollback of the timestamp", "rollback", none, version(&S::timestamp, 1)},
      {"rollback of the snapshot", "rollback", none, version(&S::snapshot, 1)},
      {"rollback of the targets", "rollback", to_timestamp, version(&S::targets, 1)},
      {"rollback of a delegated role", "rollback", to_timestamp,
       [](W w, R) { w.fonts()["version"] = 1; }},
      {"a known role disappears", "rollback", to_timestamp, [](W, R r) { r.delegated.clear(); }},
      {"versions that nothing can follow, then honest ones", "rollback", none,
       [](W w, R r) {
         for (json* body : {&r.timestamp, &r.snapshot}) (*body)["version"] = ~0ull;
         r.publish();
         w.serve();
         EXPECT_EQ(w.fetch(), "");
         for (json* body : {&r.timestamp, &r.snapshot}) (*body)["version"] = 3;
       }},
      {"freeze: the old files, for too long", "expired_metadata", none, honest,
       [](W w, R r) {
         w.swap_file("timestamp.json", "old timestamp.json");
         w.now = parse_tuf_time(r.timestamp.at("expires").get<std::string>());
       }},
      {"mix and match: an old snapshot", "hash_mismatch", to_timestamp, honest,
       [](W w, R) { w.swap_file("3.snapshot.json", "2.snapshot.json"); }},
      {"the same, nothing pinned", "version_mismatch", to_timestamp, [](W, R r) { r.pins = false; },
       [](W w, R) { w.swap_file("3.snapshot.json", "2.snapshot.json"); }},
      {"mix and match: old targets, nothing pinned", "version_mismatch", to_snapshot,
       [](W, R r) { r.pins = false; },
       [](W w, R) { w.swap_file("3.targets.json", "2.targets.json"); }},
      {"one role in place of another", "metadata_type", to_timestamp,
       [](W, R r) { r.snapshot["_type"] = "targets"; }},
      {"endless root", "size_limit", none, [](W, R r) { r.publish_root(); },
       served("2.root.json", endless)},
      {"endless timestamp", "size_limit", none, honest, served("timestamp.json", endless)},
      {"endless snapshot", "size_limit", to_timestamp, honest, served("3.snapshot.json", endless)},
      {"endless targets, nothing pinned", "size_limit", to_snapshot, [](W, R r) { r.pins = false; },
       served("3.targets.json", endless)},
      {"endless delegated role", "size_limit", to_targets, honest, served("3.fonts.json", endless)},
      {"one byte more than was signed", "size_limit", to_timestamp, honest,
       served("3.snapshot.json", [](auto& file) { file.body += ' '; })},
      {"wrong key: timestamp", "signature_threshold", none, signers("timestamp", {"stranger"})},
      {"wrong key: snapshot", "signature_threshold", to_timestamp,
       signers("snapshot", {"timestamp"})},
      {"wrong key: targets", "signature_threshold", to_snapshot, signers("targets", {"root"})},
      {"wrong key: delegated role", "signature_threshold", to_targets,
       signers("fonts", {"targets"})},
      {"no signature", "signature_threshold", to_timestamp, signers("snapshot", {})},
      {"a root that only the new keys sign", "signature_threshold", none,
       [](W, R r) {
         r.set_keys("root", {"root-new"});
         r.publish_root();
       }},
      {"a root that only the old keys sign", "signature_threshold", none,
       [](W, R r) {
         r.set_keys("root", {"root-new"});
         r.signers["root"] = {"root"};
         r.publish_root();
       }},
      {"threshold not met", "signature_threshold", "root.json " + to_snapshot,
       [=](W w, R r) {
         two_needed(w, r);
         r.signers["targets"] = {"second"};
       }},
      {"one signature repeated", "invalid_metadata", "root.json " + to_snapshot,
       [=](W w, R r) {
         two_needed(w, r);
         r.signers["targets"] = {"targets", "targets"};
       }},
      {"a key id that is not its key's: root", "keyid_mismatch", none,
       [=](W, R r) {
         misnamed(r.root["keys"], "timestamp");
         r.publish_root();
       }},
      {"a key id that is not its key's: delegation", "keyid_mismatch", to_snapshot,
       [=](W, R r) { misnamed(r.targets["delegations"]["keys"], "fonts"); }},
      {"a delegated role that the snapshot lacks", "missing_role", to_targets,
       [](W, R r) {
         r.delegate(r.targets, "stray", {{"paths", {"*/a"}}});
         std::swap(r.targets["delegations"]["roles"][0], r.targets["delegations"]["roles"][1]);
         r.delegated.erase("stray");
       }},
      {"a delegated role that is not served", "http_status", to_targets, honest,
       [](W, R r) { r.files.erase("3.fonts.json"); }},
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
         json& role = r.delegate(r.targets, "../a/\xc3\xa9", {{"paths", {"fonts/*"}}});
         r.add_target(role, "fonts/a", "content");
         std::swap(r.targets["delegations"]["roles"][0], r.targets["delegations"]["roles"][1]);
       }},
      {"expired root", "expired_metadata", "root.json",
       [](W, R r) {
         r.root["expires"] = kNow;
         r.publish_root();
       }},
      {"expired timestamp", "expired_metadata", none, expires(&S::timestamp)},
      {"expired snapshot", "expired_metadata", to_timestamp, expires(&S::snapshot)},
      {"expired targets", "expired_metadata", to_snapshot, expires(&S::targets)},
      {"expired delegated role", "expired_metadata", to_targets,
       [](W w, R) { w.fonts()["expires"] = kNow; }},
      {"no timestamp", "http_status", none, honest,
       [](W, R r) { r.files.erase("timestamp.json"); }},
      {"a server that fails where the next root would be", "http_status", none, honest,
       [](W, R r) {
         r.files["2.root.json"] = {500, ""};
       }},
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
  const Nginx server(folder.path() / "server", folder.path() / "public", "--http2",
                     {"if (-f $request_filename.failing) { return 500; }"});
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
    const std::string failure = world.fetch();
    std::cout << std::left << std::setw(52) << attack.name << failure << '\n';
    EXPECT_EQ(failure.substr(0, failure.find(':')), attack.code);
    std::string replaced;
    for (const auto& [name, bytes] : world.stored())
      if (before.contains(name) && before.at(name) != bytes)
        replaced += (replaced.empty() ? "" : " ") + (name == delegated ? "fonts" : name);
    EXPECT_EQ(replaced, attack.proved);
    EXPECT_EQ(world.fetched(), "content");
  }
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

TEST(Downloads, NeverMixTwoContentsOfOneName) {
  const TempFolder folder;
  const Nginx server(folder.path() / "server", folder.path() / "public");
  World world(server, folder.path() / "public");
  // Enough that a cancel strikes before all of it has arrived.
  const std::string old_bytes(8'000'000, 'o'), new_bytes(8'000'000, 'n');
  const auto partials = [&] {
    return std::distance(fs::directory_iterator(world.files / "fonts"), fs::directory_iterator());
  };
  const auto serve = [&](const std::string& signed_bytes, const std::string& bytes) {
    world.put(signed_bytes, bytes);
    world.update();
    world.serve();
  };
  const Progress some = [](auto done, auto) { return done == 0; };
  serve(old_bytes, old_bytes);
  EXPECT_EQ(world.fetch(some).substr(0, 9), "cancelled");
  EXPECT_EQ(partials(), 2) << "the first bytes and their record";
  // The server changed the file between two tries, though not its signed hash.
  serve(old_bytes, new_bytes);
  EXPECT_EQ(world.fetch().substr(0, 13), "hash_mismatch");
  EXPECT_EQ(partials(), 0) << "such bytes can never become the target";
  serve(old_bytes, old_bytes);
  EXPECT_EQ(world.fetch(some).substr(0, 9), "cancelled");
  // The name is published again with other content.
  serve(new_bytes, new_bytes);
  EXPECT_EQ(world.fetch(), "");
  EXPECT_EQ(world.fetched(), new_bytes);
  EXPECT_EQ(partials(), 3) << "the old content's part stays, and is not gone on with";
}

}  // namespace
}  // namespace tavro
