#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "platform/host/host.h"
#include "platform/process/child_process.h"
#include "platform/process/image_replacement.h"
#include "support/testing.h"

namespace tavro::process_test {

constexpr auto* authority = launcher_interrupt_reader_environment;
const std::string full(4096, 'a');

class Process : public testing::Test {
 protected:
  ChildProcess start() {
    return ChildProcess(image, arguments, directory, environment, streams, inherited, started,
                        ChildGroup::own, control);
  }
  std::string failure() {
    const auto failed = failure_of([&] { start(); });
    return ::waitpid(-1, nullptr, WNOHANG) == -1 ? failed : "a child is left after " + failed;
  }
  /// The exit status of a copy of this process: what `work` answers, or 255 when it throws.
  static int in_a_copy(const std::function<int()>& work) noexcept {
    int status = 255;
    if (::fork() == 0) failure_of([&] { status = work(); }), ::_exit(status);
    return ::wait(&status), WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  TempFolder folder;
  std::filesystem::path image = "/usr/bin/bash", directory = folder.path();
  const std::filesystem::path told = directory / "told";
  std::vector<std::string> arguments;
  std::map<std::string, std::string> environment;
  ChildStreams streams = ChildStreams::output_inherited;
  ChildEnvironment inherited = ChildEnvironment::whole;
  std::function<void(unsigned long long)> started;
  ChildControl control = ChildControl::none;
};

// Each row breaks one rule more, so that the order of the rules shows too.
TEST_F(Process, RefusesByItsRulesAndLeavesNoProcessThatWasNotRecorded) {
  arguments = {"-c", ": >told"};
  const auto kill_and_await = [](unsigned long long pid) {
    ::kill(static_cast<pid_t>(pid), SIGKILL);
    ::waitid(P_PID, static_cast<id_t>(pid), nullptr, WEXITED | WNOWAIT);
  };
  const std::pair<std::function<void()>, std::string> rows[] = {
      {[&] { started = [](auto) { fail("busy", "not recorded"); }; }, "busy: not recorded"},
      {[&] { started = kill_and_await; }, "process_start: Cannot activate the prepared game"},
      {[&] { started = {}, image = "/etc/passwd"; }, "process_start: Cannot execute the install"},
      {[&] { control = ChildControl::interrupt, streams = {}; }, "process_control: Only"},
      {[&] { environment[authority] = "1:3"; }, "process_control: Launcher"},
      {[&] { arguments.assign(9, full); }, "argument_limit: Launch arguments"},
      {[&] { arguments[0] = std::string(1, '\0'); }, "argument_limit: Launch argument is"},
      {[&] { create_directory_symlink("/usr", directory /= "link"); }, "launch_directory"},
      {[&] { image = directory; }, "launch_executable"},
      {[&] { image = "/usr/bin/bash" + std::string(1, '\0') + "x"; }, "launch_executable"}};
  for (const auto& [damage, refusal] : rows)
    EXPECT_EQ((damage(), failure().substr(0, refusal.size())), refusal);
  EXPECT_FAILURE(exec_process("/etc/passwd", {}, folder.path(), {}),
                 "process_start: Cannot replace this process (native error 13)");
  EXPECT_TRUE(!exists(told) && std::filesystem::current_path() != folder.path());
}

TEST_F(Process, PassesArgumentsAndTheEnvironmentOnByTheirRules) {
  for (const auto& name : {"LD_A", "DYLD_B", "LDX", "OVER", authority}) ::setenv(name, "1:3", 1);
  environment = {{"EMPTY", ""}, {"LD_X", "own"}, {"OVER", "own"}};
  arguments = {"-c", "tr '\\0' '\\n' </proc/$$/environ >told; ! [ -e /proc/$$/fd/9 ] && exit $#"};
  arguments.resize(9, full);
  arguments.back().resize(full.size() - arguments[0].size() - arguments[1].size());
  for (int mode = 0; mode < 4; ++mode) {
    const bool whole = mode % 2 == 0;
    inherited = ChildEnvironment(!whole);
    const int count = in_a_copy([&] {
      ::dup2(STDERR_FILENO, 9);
      const auto replace = whole ? exec_process : replace_process;
      if (mode < 2) replace(image, arguments, directory, environment);
      return start().wait({});
    });
    const auto block = "\n" + read_file(told, 65536);
    const auto has = [&](const std::string& name) { return block.find("\n" + name) != block.npos; };
    EXPECT_TRUE(count == 6 && block.ends_with("\nEMPTY=\nLD_X=own\nOVER=own\n")) << block;
    EXPECT_TRUE(has("LDX=1:3") && !has("OVER=1:3") && !has(authority));
    EXPECT_TRUE(has("LD_A") == whole && has("DYLD_B") == whole);
  }
  ::unsetenv(authority);
}

// Also when it was itself started without some of them, and its channels get their numbers.
TEST_F(Process, GivesItsChildTheStandardStreamsAndTheChannelAndNothingElse) {
  arguments = {"-c",
               "for n in {0..1023}; do fd=/proc/$$/fd/$n; [ -e $fd ] || continue\n"
               "[ 1:$n = \"$TAVRO_LAUNCHER_INTERRUPT_READER\" ] && n=channel\n"
               "[ $fd -ef /dev/full ] && n=inherited; all+=\"$n \"\n"
               "done; echo \"$all$(readlink /proc/$$/fd/0)\" >told"};
  for (int mask = 0; mask < 16; ++mask) {
    const auto closed = [mask](int stream) { return (mask >> stream & 1) != 0; };
    const bool controlled = closed(3);
    control = ChildControl(controlled), streams = ChildStreams(controlled);
    const int status = in_a_copy([&] {
      ::dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
      for (const int inherited_unmarked : {3, 9, 1000}) ::dup2(STDOUT_FILENO, inherited_unmarked);
      for (const int stream : {0, 1, 2})
        if (closed(stream)) ::close(stream);
      return start().wait({});
    });
    // Without a standard error there is nothing to send the output to, and that must be noticed.
    EXPECT_EQ(status, closed(2) && !controlled ? 255 : 0) << mask;
    if (status != 0) continue;
    std::string expected = !controlled ? "0 1 " : closed(1) ? "0 " : "0 inherited ";
    expected.append(closed(2) ? "" : "2 ").append(controlled ? "channel " : "");
    EXPECT_EQ(read_file(told, 4096), expected + "/dev/null\n") << mask;
  }
}

TEST_F(Process, EndsAChildOrAsksItToStopOrLeavesItAlone) {
  for (const std::string trap : {"exit 7", ""}) {
    arguments = {"-c", "trap '" + trap + "' TERM; : >told; while :; do :; done"};
    auto child = start();
    while (!remove(told)) continue;
    EXPECT_TRUE(child.terminate(std::chrono::milliseconds(trap.empty() ? 0 : 2000)));
    EXPECT_EQ(child.poll(), trap.empty() ? 128 + SIGKILL : 7);
  }
  // The status is 40 at the channel's end, and 41 for a request.
  arguments[1] =
      "read -rN1 -u ${TAVRO_LAUNCHER_INTERRUPT_READER#1:} byte\n"
      "printf -v value %d \"'$byte\"; exit $((40 + value))";
  control = ChildControl::interrupt;
  EXPECT_EQ(start().wait([] { return true; }), 41);
  const auto left = static_cast<pid_t>(start().pid());
  int status = 0;
  EXPECT_TRUE(::waitpid(left, &status, 0) == left && status == W_EXITCODE(40, 0)) << status;
}

TEST_F(Process, ShowsADirectoryByTheDesktopsOwnOpener) {
  const auto opener = directory / host::desktop_opener();
  for (const bool works : {false, true}) {
    std::ofstream(opener) << "#!/bin/sh\necho \"$#$1\"\n! [ -e /proc/$$/fd/9 ] && exit " << !works;
    permissions(opener, std::filesystem::perms::owner_all);
    testing::internal::CaptureStderr();
    const auto show = [&] {
      ::dup2(STDERR_FILENO, 9);
      return setenv("PATH", directory.c_str(), 1), open_directory("/usr"), 0;
    };
    EXPECT_EQ(in_a_copy(show), works ? 0 : 255);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "1/usr\n");
  }
}

}  // namespace tavro::process_test
