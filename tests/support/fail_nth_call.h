#pragma once

#include <cerrno>
#include <memory>

#include "platform/host/system_calls.h"
#include "support/testing.h"

namespace tavro {

/// What happens at the call that is struck. An open counts when it may create a file.
enum class Fault {
  /// The call alone fails; what follows, clean-up included, is carried out.
  fail,
  /// The process dies there, as far as the disk can tell: this call and all later ones fail, and a
  /// write still stores the first half of its bytes.
  cut,
  /// The process gets SIGKILL before the call.
  kill,
  /// A write stores half of its bytes and says so; any other call is carried out.
  shorten,
};

/// Strikes the Nth call that changes the disk, counted from 1, while the object lives; 0 strikes
/// none and only counts. One object and one thread at a time. With `only` just the calls of that
/// name count, such as "fsync".
class FailNthCall {
 public:
  explicit FailNthCall(int nth, int error = EIO, Fault fault = Fault::fail,
                       std::string_view only = {});
  FailNthCall(const FailNthCall&) = delete;
  FailNthCall& operator=(const FailNthCall&) = delete;

  /// Calls seen so far.
  int calls() const;
  /// The name of the call that was struck, empty before.
  std::string struck_call() const;

 private:
  SystemCallScope scope_;
};

/// How far apart the stops of a sweep are that starts processes: a sanitized one takes many times
/// as long, and what its sanitizers see does not depend on the call where another ends.
#ifdef __SANITIZE_ADDRESS__
inline constexpr int process_stride = 5;
#else
inline constexpr int process_stride = 1;
#endif

/// Puts another file, empty and private too, where that of the descriptor stands. Answers 0.
int replace_open_file(int descriptor);

/// One stop of a sweep.
struct Stop {
  int nth;
  /// The name of the call, for messages; empty in the last round, which nothing struck.
  std::string call;
  /// The code of the failure, empty when the operation returned. A foreign exception is its text.
  std::string code;
};

/// Runs `prepare`, then `work` with call 1 struck, then `check`; the same for call 2, 3, ... until
/// a round ends with nothing struck, which must succeed. Answers how many calls there were, so
/// that a test can demand some. For `Fault::kill` each `work` is a child process,
/// and behind the first twenty `process_stride` calls lie between the stops.
int strike_each_call(Fault fault, int error, const std::function<void()>& prepare,
                     const std::function<void()>& work,
                     const std::function<void(const Stop&)>& check);

}  // namespace tavro
