#include "platform/allocated_file.h"
#include "support/signed_repository.h"
#include "system/installer_program.h"
#include "system/nginx.h"
#include "transport/https.h"

namespace tavro::https_server_test {

using namespace std::string_literals;

struct Served {
  TempFolder folder;
  fs::path served = folder.path() / "public";

  Served() {
    fs::create_directory(served);
    std::ofstream(served / "file") << "0123456789";
  }
  Nginx start(const std::string& name, const std::string& mode = "--http2") const {
    return {folder.path() / name, served, mode,
            "location = /protocol { return 200 $server_protocol; }"};
  }
};

TEST(HttpsServer, IsAskedInBothVersionsOfHttp) {
  const Served world;
  for (const auto& [mode, protocol] : {std::pair{"--http1", "HTTP/1.1"}, {"--http2", "HTTP/2.0"}}) {
    const Nginx server = world.start(mode, mode);
    HttpsTransport client(server.origin(), server.bundle(), 0, nullptr);
    EXPECT_EQ(client.get("protocol", 8).body, protocol);
    AllocatedFile file(world.folder.path() / (mode + "-partial"s), 10, {});
    file.write("abcd");
    std::string rest;
    client.download_into(
        "file", file, 4, {}, [&](auto bytes) { rest += bytes; }, [&] { rest += "restart"; });
    EXPECT_EQ(rest, "456789");
  }
}

/// The public part of the repository that tavro-publish check looks at.
void serve_repository(const Served& world) {
  SignedRepository repository;
  std::ofstream(world.folder.path() / "root.json") << repository.root_bytes();
  fs::create_directories(world.served / "tuf/metadata");
  for (const auto& [name, response] : repository.files)
    std::ofstream(world.served / "tuf/metadata" / name) << response.body;
}

TEST(HttpsTrust, IsTheSystemsStoreUnlessABundleIsGiven) {
  const Served world;
  serve_repository(world);
  const Nginx server = world.start("server"), other = world.start("other");
  const auto check = [&](const fs::path& system_store, const fs::path& bundle) {
    // A store of the test's own, in front of the system's where only this command sees it.
    const std::string script =
        "mount --bind '" + system_store.string() + "' /etc/ssl/certs/ca-certificates.crt || " +
        "exit 77; exec " + program("tavro-publish").string() + " check --json --root root.json " +
        server.origin() + (bundle.empty() ? "" : " --ca-bundle '" + bundle.string() + "'");
    return Started(world.folder.path(), "/usr/bin/unshare",
                   {"-r", "-m", "sh", "-c", "cd \"$HOME\"; " + script}, {})
        .wait();
  };
  const Ending trusted = check(server.bundle(), {});
  if (trusted.status == 77 || trusted.errors.starts_with("unshare:"))
    GTEST_SKIP() << "no view of the file system of one's own: " << trusted.errors;
  EXPECT_EQ(trusted.status, 0) << trusted.output;
  EXPECT_EQ(check(other.bundle(), {}).code(), "network");
  EXPECT_EQ(check(server.bundle(), other.bundle()).code(), "network") << "the bundle alone counts";
  EXPECT_EQ(check(other.bundle(), server.bundle()).status, 0);
}

}  // namespace tavro::https_server_test
