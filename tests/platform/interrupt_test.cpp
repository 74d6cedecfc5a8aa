#include "platform/interrupt.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "domain/unique_fd.h"
#include "support/failure.h"

namespace tavro {
namespace {

std::string refusal(bool attach) {
  return failure_of([attach] { const ConsoleInterrupt interrupt(attach); });
}

TEST(ConsoleInterrupt, TurnsCtrlCIntoAnAnswerThatStays) {
  {
    const ConsoleInterrupt interrupt(false);
    EXPECT_FALSE(interrupt.requested());
    EXPECT_EQ(refusal(false), "signal: Console cancellation handler is already installed");
    ::raise(SIGINT);
    ::raise(SIGINT);
    EXPECT_TRUE(interrupt.requested() && interrupt.requested());
  }
  struct sigaction after {};
  ::sigaction(SIGINT, nullptr, &after);
  EXPECT_EQ(after.sa_handler, SIG_DFL);
  EXPECT_FALSE(ConsoleInterrupt(false).requested()) << "a new one starts afresh";
}

TEST(ConsoleInterrupt, HearsItsParentOnAPipeAndNothingElse) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  UniqueFd writer(ends[1]);
  const auto name = [](const std::string& handle) {
    ::setenv(launcher_interrupt_reader_environment, handle.c_str(), 1);
  };
  for (const std::string handle : {"1:", "2:5", "1:05", "1:+5", "1:2", "1:5x", "1:4294967296",
                                   "1:1000000", ("1:" + std::to_string(ends[1])).c_str()}) {
    name(handle);
    EXPECT_EQ(refusal(true).substr(0, 16), "launcher_control") << handle;
  }
  name("1:" + std::to_string(ends[0]));
  const ConsoleInterrupt interrupt(true);
  EXPECT_NE(::fcntl(ends[0], F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_FALSE(interrupt.requested()) << "an empty channel must not block";
  EXPECT_EQ(::write(writer.get(), "\2", 1), 1);
  EXPECT_EQ(code_of([&] { interrupt.requested(); }), "launcher_control");
  EXPECT_TRUE(ConsoleInterrupt::parent_reader_attached());
  EXPECT_EQ(::write(writer.get(), "\1", 1), 1);
  EXPECT_TRUE(interrupt.requested());
  ::unsetenv(launcher_interrupt_reader_environment);
}

}  // namespace
}  // namespace tavro
