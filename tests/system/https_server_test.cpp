#include "support/signed_repository.h"
#include "system/installer_program.h"
#include "system/nginx.h"

namespace tavro::https_server_test {

TEST(HttpsTrust, IsTheSystemsStoreUnlessABundleIsGiven) {
  const TempFolder folder;
  const fs::path& place = folder.path();
  std::ofstream(place / "root.json") << SignedRepository().root_bytes();
  const Nginx server(place / "server", place / "empty"), other(place / "other", place / "empty");
  const auto code = [&](const fs::path& system_store, const fs::path& bundle) {
    // A store of the test's own, in front of the system's where only this command sees it.
    const std::string script =
        "mount --bind '" + system_store.string() + "' /etc/ssl/certs/ca-certificates.crt || " +
        "exit 77; exec " + program("tavro-publish").string() + " check --json --root root.json " +
        server.origin() + (bundle.empty() ? "" : " --ca-bundle '" + bundle.string() + "'");
    const Ending ending =
        Started(place, "/usr/bin/unshare", {"-r", "-m", "sh", "-c", "cd \"$HOME\"; " + script}, {})
            .wait();
    return ending.status == 77 || ending.errors.starts_with("unshare:") ? "skip" : ending.code();
  };
  // Who trusts the server learns that it has no repository.
  const std::string trusted = code(server.bundle(), {});
  if (trusted == "skip") GTEST_SKIP() << "no view of the file system of one's own";
  EXPECT_EQ(trusted, "http_status");
  EXPECT_EQ(code(other.bundle(), {}), "network");
  EXPECT_EQ(code(server.bundle(), other.bundle()), "network") << "the bundle alone counts";
  EXPECT_EQ(code(other.bundle(), server.bundle()), "http_status");
}

}  // namespace tavro::https_server_test
