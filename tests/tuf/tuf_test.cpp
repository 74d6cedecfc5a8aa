#include "tuf/tuf.h"

#include <gtest/gtest.h>

#include <fstream>

#include "platform/native_lock.h"
#include "support/fail_nth_call.h"
#include "tuf/trusted_client.h"

namespace tavro {
namespace {

TEST(TufInitialize, StoresAProvedRootVerbatimAndOnce) {
  const TempFolder folder;
  const auto trust = folder.path() / "trust";
  const auto code = [&](const std::string& root) {
    return code_of([&] { TufClient::initialize(trust, root); });
  };
  SignedRepository repository;
  repository.root["expires"] = "2020-01-01T00:00:00Z";
  repository.set_keys("root", {"root", "root-second"}, 2);
  const std::string good = repository.root_bytes();
  repository.signers["root"] = {"root"};
  EXPECT_EQ(code(repository.root_bytes()), "signature_threshold");
  repository.root["expires"] = "never";
  EXPECT_EQ(code(repository.root_bytes()), "invalid_expiry");
  EXPECT_EQ(code(good.substr(1)), "invalid_json");
  EXPECT_EQ(code(good + std::string(524289 - good.size(), ' ')), "size_limit");
  EXPECT_FALSE(std::filesystem::exists(trust / "root.json"));
  EXPECT_EQ(code(good), "");
  EXPECT_EQ(code(good), "already_initialized");
  EXPECT_EQ(read_file(trust / "root.json", 65536), good);
  const FileLock lock(trust / ".lock", false, LockMode::exclusive);
  EXPECT_EQ(code(good), "busy");
}

TEST(TufInitialize, LeavesAllOrNothing) {
  const std::string bytes = SignedRepository().root_bytes();
  std::optional<TempFolder> folder;
  const auto initialize = [&] { TufClient::initialize(folder->path() / "trust", bytes); };
  for (const Fault fault : {Fault::fail, Fault::cut}) {
    const int rounds = strike_each_call(
        fault, ENOSPC, [&] { folder.emplace(); }, initialize,
        [&](const Stop& stop) {
          const bool stored = std::filesystem::exists(folder->path() / "trust" / "root.json");
          EXPECT_TRUE(stored || !stop.code.empty());
          // What an attempt left behind, the next one accepts.
          EXPECT_EQ(code_of(initialize), stored ? "already_initialized" : "") << stop.call;
        });
    EXPECT_GT(rounds, 5);
  }
}

TEST(TufClient, OpensOnlyAProvedRootAndOnlyOnce) {
  TrustedClient trusted;
  const auto code = [&] {
    return code_of([&] {
      TufClient(trusted.trust, trusted.repository, trusted.repository, trusted.limits, {});
    });
  };
  trusted.reopen();
  EXPECT_EQ(code(), "busy");
  trusted.client.reset();
  trusted.limits.root_bytes = trusted.first_root.size() - 1;
  EXPECT_EQ(code(), "size_limit");
  trusted.repository.signers["root"] = {"stranger"};
  trusted.limits.root_bytes = 65536;
  std::ofstream(trusted.trust / "root.json") << trusted.repository.root_bytes();
  EXPECT_EQ(code(), "signature_threshold");
  EXPECT_TRUE(trusted.repository.requests.empty());
}

}  // namespace
}  // namespace tavro
