#include "tuf/tuf.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "platform/native_lock.h"
#include "support/fail_nth_call.h"
#include "support/failure.h"
#include "tuf/trusted_client.h"

namespace tavro {
namespace {

TEST(TufInitialize, StoresTheRootVerbatimAndOnce) {
  TrustedClient trusted;
  const auto before = trusted.stored();
  EXPECT_EQ(before, (std::map<std::string, std::string>{{"root.json", trusted.first_root}}));
  struct stat status {};
  ASSERT_EQ(lstat(trusted.trust.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  EXPECT_EQ(failure_of([&] { TufClient::initialize(trusted.trust, trusted.first_root); }),
            "already_initialized: Trusted root is already initialized");
  EXPECT_EQ(trusted.stored(), before);
}

TEST(TufInitialize, RefusesARootThatDoesNotProveItself) {
  const TempFolder folder;
  const auto trust = folder.path() / "trust";
  SignedRepository repository;
  repository.set_keys("root", {"root", "root-second"}, 2);
  const std::string good = repository.root_bytes();
  repository.signers["root"] = {"root"};
  const std::string short_of_one = repository.root_bytes();
  repository.root["expires"] = "never";
  const std::string shapeless = repository.root_bytes();
  for (const auto& [code, bytes] : std::vector<std::pair<std::string, std::string>>{
           {"signature_threshold", short_of_one},
           {"invalid_expiry", shapeless},
           {"invalid_json", good.substr(1)},
           {"duplicate_key", "{\"a\":1,\"a\":1}"},
           {"size_limit", good + std::string(524288, ' ')}}) {
    EXPECT_EQ(code_of([&, &root = bytes] { TufClient::initialize(trust, root); }), code);
    EXPECT_FALSE(std::filesystem::exists(trust / "root.json"));
  }
  TufClient::initialize(trust, good);
  const FileLock lock(trust / ".lock", false, LockMode::exclusive);
  EXPECT_EQ(code_of([&] { TufClient::initialize(trust, good); }), "busy");
}

TEST(TufInitialize, LeavesAllOrNothing) {
  const SignedRepository repository;
  const std::string bytes = repository.root_bytes();
  for (const Fault fault : {Fault::fail, Fault::cut}) {
    std::optional<TempFolder> folder;
    const auto trust = [&] { return folder->path() / "trust"; };
    const int rounds = strike_each_call(
        fault, ENOSPC, [&] { folder.emplace(); }, [&] { TufClient::initialize(trust(), bytes); },
        [&](const Stop& stop) {
          const bool stored = std::filesystem::exists(trust() / "root.json");
          EXPECT_TRUE(stored || !stop.code.empty());
          // What an attempt left behind, the next one accepts or completes.
          const std::string again = code_of([&] { TufClient::initialize(trust(), bytes); });
          EXPECT_EQ(again, stored ? "already_initialized" : "") << stop.call << " " << stop.nth;
        });
    EXPECT_GT(rounds, 5);
  }
}

TEST(TufClient, OpensOnlyAProvedRootAndOnlyOnce) {
  TrustedClient trusted;
  trusted.reopen();
  EXPECT_EQ(code_of([&] {
              TufClient(trusted.trust, trusted.repository, trusted.repository, trusted.limits, {});
            }),
            "busy");
  const std::string root = trusted.stored().at("root.json");
  const auto code = [&](const std::string& bytes) {
    trusted.write("root.json", bytes);
    return code_of([&] { trusted.reopen(); });
  };
  SignedRepository stranger;
  stranger.signers["root"] = {"stranger"};
  EXPECT_EQ(code(stranger.root_bytes()), "signature_threshold");
  EXPECT_EQ(code(root.substr(1)), "invalid_json");
  trusted.limits.root_bytes = root.size() - 1;
  EXPECT_EQ(code(root), "size_limit");
  EXPECT_EQ(trusted.repository.requests.size(), 0u);
}

}  // namespace
}  // namespace tavro
