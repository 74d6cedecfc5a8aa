// The program as a terminal and a bootstrap have it.

#include <pty.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>

#include "launcher/launcher_store.h"
#include "launcher_program/program_world.h"
#include "support/installation.h"

namespace tavro::program_test {

constexpr std::size_t slow_bytes = 3 << 20;

/// Everything that a terminal of so many columns is told while a slow install runs, which is ended
/// by Ctrl+C; half-way the window gets another width.
std::string told(const Client& client, unsigned short columns, unsigned short then) {
  winsize size{24, columns, 0, 0};
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, nullptr, &size);
  if (child == 0) {
    setenv("TERM", "xterm", 1);
    setenv("NO_COLOR", "1", 1);
    _exit(Launched::become(program("tavro"), {},
                           {"--data-dir", client.data.string(), "install", "slower"}));
  }
  std::string text;
  char block[4096];
  bool resized = false, stopped = false;
  for (ssize_t count; (count = read(terminal, block, sizeof block)) > 0;) {
    text.append(block, static_cast<std::size_t>(count));
    const auto draws = std::count(text.begin(), text.end(), '\r');
    if (draws > 3 && !std::exchange(resized, true)) {
      size.ws_col = then;
      ioctl(terminal, TIOCSWINSZ, &size);
      text += '\f';
    }
    // Once: a second one is for a program that does not hear.
    if (draws > 6 && !std::exchange(stopped, true)) (void)!write(terminal, "\x03", 1);
  }
  close(terminal);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 4) << status << text;
  return text;
}

TEST(Terminal, HasOneLineThatFitsItsWidth) {
  repository().publish("slower", "1.0", "exit 0", slow_bytes);
  Client client;
  client.answer("settings set download_limit 100000");
  const std::string text = told(client, 70, 25);
  EXPECT_NE(text.find('%'), text.npos);
  EXPECT_EQ(text.find("\x1b[3"), text.npos) << "colours";
  EXPECT_NE(text.find("\x1b[2A\x1b[J"), text.npos) << "what the narrower window folded stays";
  // The answer follows the last redraw.
  const std::size_t end = text.rfind('\r', text.rfind("\x1b[J"));
  std::size_t width = 70;
  for (std::size_t at = text.find('\r'); at < end;) {
    const std::size_t next = text.find('\r', at + 1);
    std::string line = text.substr(at + 1, next - at - 1);
    if (const std::size_t erased = line.rfind("\x1b[J"); erased != line.npos)
      line.erase(0, erased + 3);
    // One redraw may have begun in the wider window.
    EXPECT_LT(line.substr(0, line.find('\f')).size(), width) << line;
    if (line.find('\f') != line.npos) width = 70;
    if (text.find('\f') < at) width = 25;
    at = next;
  }
}

TEST(StartContract, IsKeptUnderABootstrap) {
  const TempFolder folder;
  const fs::path image = folder.path() / "tavro";
  ASSERT_EQ(std::system(("strip -o " + image.string() + " " + program("tavro").string()).c_str()),
            0);
  SealedPackageOptions options;
  options.bootstrap_image = program("tavro-bootstrap");
  options.launcher_image = image;
  options.launcher_build = LAUNCHER_BUILD;
  Installation installed(options);
  installed.install();
  const auto start = [&](const std::vector<std::string>& words) {
    return Started(folder.path(), installed.paths.bootstrap / "bin/tavro-bootstrap", words, {})
        .wait();
  };
  const Ending first = start({"list"});
  EXPECT_EQ(first.status, 0) << first.errors;
  EXPECT_EQ(first.output, "No game is installed. See what there is: tavro available\n");
  EXPECT_EQ(LauncherStore::existing(installed.paths.root)->load().at("active").at("build_id"),
            LAUNCHER_BUILD);
  const Ending missing = start({"status", "space", "--json"});
  EXPECT_EQ(missing.status, 3) << missing.errors;
  EXPECT_EQ(missing.code(), "not_installed");
}

}  // namespace tavro::program_test
