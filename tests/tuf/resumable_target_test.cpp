#include "tuf/resumable_target.h"

#include "platform/files/durable_files.h"
#include "support/fail_nth_call.h"
#include "tuf/trusted_client.h"

namespace tavro::resumable_target_test {

struct ResumableTarget : testing::Test {
  TrustedClient trusted;
  TargetServer server;
  fs::path home = trusted.folder.path() / "files";
  fs::path folder = home / "a";
  TufDownloadOptions options{.resume_scope = "scope", .admission = {}};
  DownloadObserver observer;
  Progress progress;

  ResumableTarget() { publish(200000); }

  /// Other bytes for each seed.
  void publish(std::size_t size, char seed = 'a') {
    server.content.assign(size, seed);
    for (std::size_t at = 0; at < size; at += 1000) server.content[at] = char(at / 1000 % 251);
    trusted.repository.add_target(trusted.repository.targets, "a/file", server.content);
    trusted.repository.publish_update();
    open();
  }
  void open() {
    trusted.reopen(server).target("a/file");
    server.offsets.clear();
  }
  void download() { trusted.client->download("a/file", home, progress, observer, options); }
  std::string code() {
    server.offsets.clear();
    return code_of([&] { download(); });
  }
  /// A partial file of so many bytes, as a cut connection leaves it.
  void leave_partial(std::size_t bytes = 100000) {
    server.sends = bytes;
    EXPECT_EQ(code(), "network");
    server.sends = -1;
  }
  std::vector<fs::path> ending(const std::string& suffix) const {
    std::vector<fs::path> found;
    std::error_code absent;
    for (const auto& entry : fs::directory_iterator(folder, absent))
      if (entry.path().string().ends_with(suffix)) found.push_back(entry.path());
    return found;
  }
  fs::path partial() const { return ending(".partial").at(0); }
  fs::path record() const { return ending(".resume.json").at(0); }
  json recorded() const { return json::parse(read_file(record(), 16384)); }
  void rewrite(const std::string& key, const json& value) const {
    json changed = recorded();
    changed[key] = value;
    atomic_write(record(), changed.dump());
  }
  /// The bytes that a next run may go on from, after a proof that they are as recorded.
  std::size_t promised() const {
    if (ending(".partial").empty() || ending(".resume.json").empty()) return 0;
    const std::string bytes = read_file(partial(), 1u << 28).substr(0, recorded().at("received"));
    EXPECT_EQ(recorded().at("prefix_sha256"), digest(bytes, "sha256"));
    return fs::exists(folder / "file") ? 0 : bytes.size();
  }
  void expect_done() const {
    EXPECT_EQ(read_file(folder / "file", 1u << 28), server.content);
    EXPECT_TRUE(ending(".partial").empty());
  }
};

TEST_F(ResumableTarget, IsWholeAtTheEndWhereverARunStops) {
  for (const Fault fault : {Fault::cut, Fault::fail})
    for (const std::string start : {"new", "right", "whole"}) {
      const auto prepare = [&] {
        fs::remove_all(home);
        open();
        server.ranges = start != "whole";
        if (start != "new") leave_partial();
      };
      const auto check = [&](const Stop& stop) {
        SCOPED_TRACE(start + " " + stop.call + " " + std::to_string(stop.nth));
        const auto at = promised();
        server.ranges = true;
        ASSERT_EQ(code(), "");
        EXPECT_EQ(read_file(folder / "file", 1u << 20), server.content);
        EXPECT_TRUE(at == 0 || at == server.content.size() || server.offsets.at(0) == at);
        EXPECT_LE(ending(".resume.json").size(), 1u);
        for (const auto& left : ending(".tmp"))
          EXPECT_FALSE(left.filename().native().starts_with(".tavro-removed.")) << left;
      };
      const auto work = [&] { download(); };
      EXPECT_GT(strike_each_call(fault, EIO, prepare, work, check), 20);
    }
}

TEST_F(ResumableTarget, IsDurableEveryEightMebibytes) {
  publish(20000000);
  std::string told;
  observer = [&](std::string_view state, const json&, std::string_view) { told += state; };
  options.admission = [&](const DownloadAdmission& now) {
    EXPECT_EQ(now.size, now.partial ? server.content.size() : 0u);
    told += '<' + std::to_string(now.written) + (now.partial ? "p" : "");
  };
  server.meanwhile = [](std::size_t sent) {
    if (sent > 18000000) throw std::runtime_error("as sudden as a crash");
  };
  EXPECT_THROW(download(), std::runtime_error);
  EXPECT_EQ(recorded().at("received"), 16777216);
  server.meanwhile = [](std::size_t) {};
  // A cancel counts every byte, and cuts the file there.
  progress = [&](auto done, auto) { return server.offsets.empty() || done < 17000000; };
  EXPECT_EQ(code(), "cancelled");
  EXPECT_EQ(recorded().at("received"), fs::file_size(partial()));
  progress = {};
  options.admission = {};
  EXPECT_EQ(code(), "");
  expect_done();
  EXPECT_EQ(code() + told, "prepared<0resumed<16777216presumedcompletecomplete");
}

TEST_F(ResumableTarget, HoldsAServerToTheHashes) {
  const std::string good = server.content;
  for (const auto& [bytes, expected] :
       {std::pair(good + '!', "size_limit"), std::pair(good.substr(1), "length_mismatch"),
        std::pair(good.substr(1) + '!', "hash_mismatch")})
    for (const std::string scope : {"scope", ""}) {
      fs::remove_all(home);
      options.resume_scope = scope;
      server.content = bytes;
      EXPECT_EQ(code(), expected);
      EXPECT_TRUE(fs::is_empty(folder)) << expected;
    }
}

TEST_F(ResumableTarget, NeverGoesOnWithWhatIsNotProved) {
  const struct {
    const char* what;
    std::function<void()> change;
    std::string code;
  } rows[] = {
      {"flipped", [&] { std::fstream(partial()) << '!'; }, "download_resume_changed"},
      {"shortened", [&] { fs::resize_file(partial(), 99999); }, "allocation_changed"},
      {"replaced",
       [&] {
         fs::copy(partial(), folder / "copy");
         fs::rename(folder / "copy", partial());
       },
       "allocation_changed"},
      {"other form", [&] { rewrite("schema_version", 2); }, "download_resume_state"},
      {"bounds", [&] { rewrite("received", 200001); }, "download_resume_state"},
      {"a name", [&] { atomic_write(folder / "file.x.partial.resume.json", ""); },
       "download_resume_state"},
      {"no record", [&] { fs::remove(record()); }, ""},
      {"other scope", [&] { options.resume_scope = "other"; }, ""},
      {"other content", [&] { publish(200000, 'b'); }, ""},
      {"gone", [&] { fs::remove(partial()); }, ""},
  };
  for (const auto& row : rows) {
    fs::remove_all(home);
    leave_partial();
    row.change();
    const auto before = ending("");
    EXPECT_EQ(code(), row.code) << row.what;
    for (const fs::path& path : before) EXPECT_TRUE(fs::exists(path)) << row.what;
    if (!row.code.empty()) continue;
    EXPECT_EQ(server.offsets, std::vector<unsigned long long>{0}) << row.what;
    EXPECT_EQ(read_file(folder / "file", 1u << 20), server.content) << row.what;
  }
}

TEST_F(ResumableTarget, StopsWhenAnotherWritesItsRecord) {
  server.meanwhile = [&](std::size_t sent) {
    if (sent == server.content.size()) rewrite("received", 7);
  };
  EXPECT_EQ(code(), "download_resume_changed");
  EXPECT_EQ(recorded().at("received"), 7) << "preserved";
  EXPECT_FALSE(fs::exists(folder / "file"));
}

TEST_F(ResumableTarget, KeepsAtMostThirtyTwoPartialFiles) {
  leave_partial(65536);
  const std::string own = read_file(record(), 16384);
  const std::string nonce = recorded().at("temporary").get<std::string>().substr(7, 32);
  for (int count = 0; count < 31; ++count) {
    std::string text = own;
    const std::string other = random_id();
    text.replace(text.find(nonce), 32, other);
    text.replace(text.find(digest("scope", "sha256")), 64, digest("", "sha256"));
    atomic_write(folder / ("file." + other + ".partial.resume.json"), text);
  }
  options.resume_scope = "second";
  EXPECT_EQ(code(), "download_resume_capacity");
  options.resume_scope = "scope";
  EXPECT_EQ(code(), "") << "one of the 32 is it";
  EXPECT_EQ(server.offsets, std::vector<unsigned long long>{65536});
}

TEST_F(ResumableTarget, KeepsAFinalFileThatVerifies) {
  fs::create_directories(folder);
  std::ofstream(folder / "file") << "damaged";
  EXPECT_EQ(code(), "");
  expect_done();
  EXPECT_EQ(code(), "");
  EXPECT_TRUE(server.offsets.empty());
  fs::remove(folder / "file");
  fs::create_directory(folder / "file");
  EXPECT_EQ(code(), "unsafe_path");
  EXPECT_TRUE(server.offsets.empty()) << "before anything is fetched";
  fs::remove(folder / "file");
  publish(0);
  EXPECT_EQ(code(), "");
  EXPECT_EQ(server.offsets.size(), 1u) << "an empty target is asked for, too";
  expect_done();
}

}  // namespace tavro::resumable_target_test
