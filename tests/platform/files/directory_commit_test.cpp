#include "platform/files/directory_commit.h"

#include <sys/stat.h>

#include "support/answers.h"
#include "support/fail_nth_call.h"

namespace tavro::directory_commit_test {

struct DirectoryCommit : testing::Test {
  static void shell(const fs::path& at, const std::string& commands) {
    ASSERT_EQ(std::system(("umask 77; cd '" + at.string() + "' && " + commands).c_str()), 0);
  }
  /// "~" is the empty path, "#" a component that is too long, "@" stands for 128 parents.
  fs::path path_of(const std::string& word) const {
    if (word == "~") return {};
    fs::path path = base;
    while (word[0] == '@' && std::distance(path.begin(), path.end()) <= 128) path /= "d";
    if (word[0] == '@') fs::create_directories(path / "d");
    return path / (word == "#" ? std::string(4096, 'a') : word.substr(word[0] == '@'));
  }
  /// What to do, with which paths, and what somebody does meanwhile.
  void run(const std::string& line) {
    // The superuser's own link would count as one of the system.
    shell(base,
          "chmod 700 . && rm -rf * && mkdir left left/in right open && mkdir -m755 wide && "
          "touch left/old right/new file && chmod 700 right/new && ln -s . link && "
          "{ chown -h 54321 link 2>/dev/null; :; }");
    std::istringstream words(line);
    std::string what, one, other, commands;
    std::getline(words >> what >> one >> other, commands);
    const auto meanwhile = [&] { shell(base, commands.empty() ? ":" : commands); };
    if (what == "new") private_directory_new(path_of(one));
    if (what == "move") commit_private_path_new(path_of(one), path_of(other), meanwhile);
    if (what == "swap") exchange_private_directories(path_of(one), path_of(other), meanwhile);
  }
  bool stand(const char* one, const char* other) const {
    return fs::exists(base / one) && fs::exists(base / other);
  }

  TempFolder folder;
  const fs::path base = folder.path();
};

TEST_F(DirectoryCommit, TakesOnlyWhatIsPrivateAndStaysSoAndReplacesNothing) {
  const auto work = [&](const std::string& line) { run(line); };
  expect_answers(R"(|new open/new|new open/new/|new @new|move left right/to|move file open/to/
unsafe_path: New private directory requires a bounded path|new ~|new #
unsafe_path: New private directory cannot traverse parents|new open/../new
unsafe_path: New private directory cannot be a filesystem root|new /
size_limit: New private directory ancestry exceeds its bound|new @d/new
unsafe_path: New private directory requires ordinary existing parents|new no/new|new link/new
native_install_commit: Cannot reserve new private staging directory|new left
unsafe_path: Directory commit requires distinct|move ~ to|move left left/|move left /|move left #
unsafe_path: Directory commit requires ordinary existing ancestry|move link/left to|move left no/to
native_install_commit: Commit source must be|move link to|move wide to|move right/new to|move no to
native_install_commit: Source identity changed|move left to mv left a; mkdir left
native_install_commit: Source identity changed|move left to chmod 750 left|move file to ln file a
already_installed: Cannot atomically install without replacing|move left right|move file right/new
|swap left right|swap left right/|swap left/in right
unsafe_path: Directory exchange needs distinct|swap ~ left|swap left open/../left|swap left /
native_install_commit: Directory exchange requires private owned|swap link/left right|swap left file
native_install_commit: Directory exchange requires private owned|swap link/left/in right
native_install_commit: Directory exchange requires private owned|swap wide left
native_install_commit: Directory exchange identities changed|swap left right mv left a; mkdir left
native_install_commit: Directory exchange identities changed|swap left right chmod 711 .
native_install_commit: Cannot atomically exchange native directories|swap left left/in)",
                 work);
}

TEST_F(DirectoryCommit, FindsWhatWasSwappedAfterTheChecks) {
  static fs::path at = base;
  static std::string commands;
  SystemCalls calls = system_calls();
  calls.fchmod = [](int file, mode_t mode) { return shell(at, commands), ::fchmod(file, mode); };
  calls.fsync = [](int) { return shell(at, std::exchange(commands, ":")), 0; };
  const SystemCallScope scope(calls);
  for (const char* swap : {"mv open/new a; mkdir open/new", "mv open a; mkdir open; mv a/new open"})
    EXPECT_FAILURE((commands = swap, run("new open/new")),
                   "native_install_commit: New private staging directory path changed");
  EXPECT_FAILURE((commands = "mv left a; mkdir left", run("swap left right")),
                 "native_install_commit: Native directory exchange committed with changed "
                 "ownership; recover its recorded identities");
}

TEST_F(DirectoryCommit, MovesInOneStepOrNotAtAll) {
  for (const int error : {EINVAL, ENOSYS, EXDEV})
    for (const char* line : {"move left open/to", "swap left right"}) {
      const FailNthCall lacking(1, error);
      EXPECT_EQ(code_of([&] { run(line); }), "native_install_commit");
      EXPECT_EQ(lacking.struck_call() + std::to_string(lacking.calls()), "renameat21");
      EXPECT_TRUE(stand("left/old", "right/new"));
    }
  for (const Fault fault : {Fault::kill, Fault::fail}) {
    const auto work = [&] { run("swap left right"); };
    const auto check = [&](const Stop& stop) {
      EXPECT_TRUE(stop.nth == 1 ? stand("left/old", "right/new") : stand("left/new", "right/old"));
      EXPECT_TRUE(fault != Fault::fail || stop.nth != 2 || stop.code == "file_sync");
    };
    EXPECT_EQ(strike_each_call(
                  fault, EIO, [] {}, work, check),
              3);
  }
}

}  // namespace tavro::directory_commit_test
