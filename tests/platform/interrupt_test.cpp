#include "platform/interrupt.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <string>

#include "domain/unique_fd.h"
#include "support/failure.h"

namespace tavro {
namespace {

/// A pipe, and the environment that names its read end as the parent's channel.
class Channel {
 public:
  Channel() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe(ends.data()), 0);
    reader = ends[0];
    writer.reset(ends[1]);
    name("1:" + std::to_string(reader));
  }
  ~Channel() { ::unsetenv(launcher_interrupt_reader_environment); }
  static void name(const std::string& handle) {
    ::setenv(launcher_interrupt_reader_environment, handle.c_str(), 1);
  }
  void send(char byte) const { EXPECT_EQ(::write(writer.get(), &byte, 1), 1); }

  int reader = -1;  // taken over by the interrupt that attaches it
  UniqueFd writer;
};

std::string refusal(bool attach) {
  return failure_of([attach] { const ConsoleInterrupt interrupt(attach); });
}

void (*handler_of_sigint())(int) {
  struct sigaction action {};
  ::sigaction(SIGINT, nullptr, &action);
  return action.sa_handler;
}

TEST(ConsoleInterrupt, TurnsCtrlCIntoAnAnswerThatStays) {
  {
    const ConsoleInterrupt interrupt(false);
    EXPECT_FALSE(interrupt.requested());
    ::raise(SIGINT);
    ::raise(SIGINT);
    EXPECT_TRUE(interrupt.requested());
    EXPECT_TRUE(interrupt.requested());
  }
  EXPECT_EQ(handler_of_sigint(), SIG_DFL);
  EXPECT_FALSE(ConsoleInterrupt(false).requested()) << "a new one starts afresh";
}

TEST(ConsoleInterrupt, ExistsOnceAtATime) {
  const ConsoleInterrupt first(false);
  EXPECT_EQ(refusal(false), "signal: Console cancellation handler is already installed");
  ::raise(SIGINT);
  EXPECT_TRUE(first.requested()) << "the first keeps working";
}

TEST(ConsoleInterrupt, AttachesNothingWithoutAName) {
  ::unsetenv(launcher_interrupt_reader_environment);
  const ConsoleInterrupt interrupt(true);
  EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
  EXPECT_FALSE(interrupt.requested());
}

TEST(ConsoleInterrupt, HearsTheRequestOfItsParent) {
  const Channel channel;
  {
    const ConsoleInterrupt interrupt(true);
    EXPECT_TRUE(ConsoleInterrupt::parent_reader_attached());
    EXPECT_NE(::fcntl(channel.reader, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_FALSE(interrupt.requested()) << "an empty channel must not block";
    channel.send(1);
    EXPECT_TRUE(interrupt.requested());
  }
  EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
  EXPECT_EQ(::fcntl(channel.reader, F_GETFD), -1) << "the channel closes with its owner";
}

TEST(ConsoleInterrupt, OutlivesItsParent) {
  Channel channel;
  const ConsoleInterrupt interrupt(true);
  channel.writer.reset();
  EXPECT_FALSE(interrupt.requested());
  EXPECT_FALSE(ConsoleInterrupt::parent_reader_attached());
  ::raise(SIGINT);
  EXPECT_TRUE(interrupt.requested());
}

TEST(ConsoleInterrupt, RefusesAnUnknownRequest) {
  const Channel channel;
  const ConsoleInterrupt interrupt(true);
  channel.send(2);
  EXPECT_EQ(failure_of([&] { interrupt.requested(); }),
            "launcher_control: Launcher interrupt channel request is invalid");
}

TEST(ConsoleInterrupt, RefusesAMalformedChannelName) {
  const Channel channel;
  const std::pair<const char*, const char*> rows[] = {{"1:", "version"},
                                                      {"2:5", "version"},
                                                      {"1", "version"},
                                                      {"x:5", "version"},
                                                      {"1:05", "channel handle"},
                                                      {"1:+5", "channel handle"},
                                                      {"1:2", "handle"},
                                                      {"1:x", "channel handle"},
                                                      {"1:5x", "channel handle"},
                                                      {"1:4294967296", "descriptor"},
                                                      {"1:1000000", "inherited read pipe"}};
  for (const auto& [handle, word] : rows) {
    Channel::name(handle);
    const auto answer = refusal(true);
    EXPECT_EQ(answer.rfind("launcher_control", 0), 0U) << handle;
    EXPECT_NE(answer.find(word), std::string::npos) << handle << ": " << answer;
  }
  Channel::name("1:" + std::to_string(channel.writer.get()));
  EXPECT_NE(refusal(true).find("inherited read pipe"), std::string::npos);
  EXPECT_EQ(handler_of_sigint(), SIG_DFL);
  EXPECT_EQ(refusal(false), "") << "a failed attachment must leave the scope free";
  ::close(channel.reader);
}

}  // namespace
}  // namespace tavro
