#include "platform/interrupt.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/failure.h"

namespace tavro {
namespace {

void name(const std::string& channel) {
  ::setenv(launcher_interrupt_reader_environment, channel.c_str(), 1);
}

std::string refusal(const std::string& channel) {
  name(channel);
  return code_of([] { const ConsoleInterrupt interrupt(true); });
}

TEST(ConsoleInterrupt, TurnsCtrlCIntoAnAnswerThatStays) {
  struct sigaction before {};
  struct sigaction after {};
  ::sigaction(SIGINT, nullptr, &before);
  for (int round = 0; round < 2; ++round) {
    const ConsoleInterrupt interrupt(false);
    EXPECT_FALSE(interrupt.requested());
    EXPECT_EQ(::raise(SIGINT) + ::raise(SIGINT), 0);
    EXPECT_TRUE(interrupt.requested() && interrupt.requested());
  }
  ::sigaction(SIGINT, nullptr, &after);
  EXPECT_EQ(after.sa_handler, before.sa_handler);
}

TEST(ConsoleInterrupt, HearsItsParentOnAPipeAndNothingElse) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const std::vector<std::string> numbers = {
      "05", "+5", "2", "5x", "4294967296", "1000000", std::to_string(ends[1])};
  for (const auto& number : numbers)
    EXPECT_EQ(refusal("1:" + number), "launcher_control") << number;
  EXPECT_EQ(refusal("1:") + refusal("2:5"), "launcher_controllauncher_control");
  const std::string second = "1:" + std::to_string(::dup(ends[0]));
  {
    name(second);
    const ConsoleInterrupt interrupt(true);
    EXPECT_EQ(refusal(second), "signal") << "and the first one still listens";
    EXPECT_FALSE(interrupt.requested()) << "an empty channel must not block";
    EXPECT_EQ(::write(ends[1], "\2\1", 2), 2);
    EXPECT_EQ(code_of([&] { interrupt.requested(); }), "launcher_control");
    EXPECT_TRUE(interrupt.requested() && interrupt.requested());
  }
  name("1:" + std::to_string(ends[0]));
  const ConsoleInterrupt interrupt(true);
  ::unsetenv(launcher_interrupt_reader_environment);
  EXPECT_NE(::fcntl(ends[0], F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_TRUE(ConsoleInterrupt::parent_reader_attached());
  ::close(ends[1]);
  EXPECT_FALSE(interrupt.requested() || ConsoleInterrupt::parent_reader_attached());
}

}  // namespace
}  // namespace tavro
