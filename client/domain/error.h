#pragma once

#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace tavro {

/// The one exception type of the system. `what()` is a complete sentence for the user; callers
/// branch on `code` alone, a stable lower_snake_case word.
class Error : public std::runtime_error {
 public:
  Error(std::string error_code, const std::string& message, std::vector<std::string> commands = {});

  std::string code;
  /// Commands or short instructions that the user can run next; usually empty.
  std::vector<std::string> next_commands;
};

/// Commands named at a call; they are copied only when the failure is thrown.
using NextCommands = std::initializer_list<std::string_view>;

[[noreturn]] void fail(std::string_view code, std::string_view message,
                       NextCommands next_commands = {});

/// Throws the `Error` unless the condition holds. Costs one branch when it does.
inline void require(bool condition, std::string_view code, std::string_view message,
                    NextCommands next_commands = {}) {
  if (!condition) [[unlikely]]
    fail(code, message, next_commands);
}

/// The same for a message that is put together: `message` is called only on failure.
template <typename Message>
requires std::is_invocable_v<Message>
void require(bool condition, std::string_view code, Message&& message,
             NextCommands next_commands = {}) {
  if (!condition) [[unlikely]]
    fail(code, std::forward<Message>(message)(), next_commands);
}

}  // namespace tavro
