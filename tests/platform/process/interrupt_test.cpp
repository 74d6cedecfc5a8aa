#include "platform/process/interrupt.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include "support/testing.h"

namespace tavro::interrupt_test {

void name(const std::string& channel) {
  ::setenv(launcher_interrupt_reader_environment, channel.c_str(), 1);
}

std::string refusal(const std::string& channel) {
  name(channel);
  return code_of([] { const ConsoleInterrupt interrupt(true); });
}

TEST(ConsoleInterrupt, TurnsCtrlCIntoAnAnswerThatStays) {
  auto* const before = ::signal(SIGINT, SIG_DFL);
  for (int round = 0; round < 2; ++round) {
    const ConsoleInterrupt interrupt(false);
    EXPECT_FALSE(interrupt.requested());
    EXPECT_EQ(::raise(SIGINT) + ::raise(SIGINT), 0);
    EXPECT_TRUE(interrupt.requested() && interrupt.requested());
  }
  EXPECT_EQ(::signal(SIGINT, before), SIG_DFL);
}

TEST(ConsoleInterrupt, HearsItsParentOnAPipeAndNothingElse) {
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  const auto channel = [](int end) { return "1:" + std::to_string(end); };
  const std::string wrongs[] = {"1:",   "2:5",          "1:05",      "1:+5",          "1:2",
                                "1:5x", "1:4294967296", "1:1000000", channel(ends[1])};
  for (const auto& wrong : wrongs) EXPECT_EQ(refusal(wrong), "launcher_control") << wrong;
  const std::string second = channel(::dup(ends[0]));
  {
    name(second);
    const ConsoleInterrupt interrupt(true);
    EXPECT_EQ(refusal(second), "signal") << "and the first one still listens";
    EXPECT_FALSE(interrupt.requested()) << "an empty channel must not block";
    EXPECT_EQ(::write(ends[1], "\2\1", 2), 2);
    EXPECT_EQ(code_of([&] { interrupt.requested(); }), "launcher_control");
    EXPECT_TRUE(interrupt.requested() && interrupt.requested());
  }
  name(channel(ends[0]));
  const ConsoleInterrupt interrupt(true);
  ::unsetenv(launcher_interrupt_reader_environment);
  EXPECT_NE(::fcntl(ends[0], F_GETFD) & FD_CLOEXEC, 0);
  ::close(ends[1]);
  EXPECT_FALSE(interrupt.requested() || ConsoleInterrupt::parent_reader_attached());
}

TEST(InterruptPipe, CausesNoSignalAndTakesNoneOfOthers) {
  sigset_t signal, pending;
  sigemptyset(&signal), sigaddset(&signal, SIGPIPE);
  for (const bool others : {false, true}) {
    if (others) ::pthread_sigmask(SIG_BLOCK, &signal, nullptr), ::raise(SIGPIPE);
    InterruptPipe pipe;
    pipe.close_reader();
    EXPECT_FALSE(pipe.request());
    EXPECT_TRUE(::sigpending(&pending) == 0 && ::sigismember(&pending, SIGPIPE) == others);
  }
  ::sigwaitinfo(&signal, nullptr), ::pthread_sigmask(SIG_UNBLOCK, &signal, nullptr);
}

}  // namespace tavro::interrupt_test
