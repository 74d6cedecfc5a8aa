#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace tavro {

/// How often an option may stand on a command line.
enum class OptionUse { flag, optional, required, repeated };

struct OptionRule {
  std::string_view name;   ///< with its dashes; without them, an argument that needs no option
  std::string_view value;  ///< what the usage text calls its value; empty for a flag
  std::string_view help;
  OptionUse use = OptionUse::optional;
};

/// The options of one command, proved against its rules.
class Arguments {
 public:
  /// Reads the tokens behind the command words. Every failure is `usage`: an unknown option, a
  /// missing value, an option given twice, a required one missing, a word that is no option. With
  /// "--help" among them nothing is required.
  Arguments(const std::vector<OptionRule>& rules, const std::vector<std::string>& tokens);

  bool has(std::string_view option) const;
  /// Empty when the option was not given.
  std::string value(std::string_view option) const;
  const std::vector<std::string>& values(std::string_view option) const;
  /// A decimal number within the bounds, or `fallback`. Throws `usage`.
  unsigned long long number(std::string_view option, unsigned long long least,
                            unsigned long long most, unsigned long long fallback) const;

 private:
  std::map<std::string, std::vector<std::string>, std::less<>> given_;
};

}  // namespace tavro
