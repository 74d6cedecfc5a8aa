#include "publisher/arguments.h"

#include <algorithm>
#include <charconv>

#include "domain/error.h"

namespace tavro {
namespace {

using Given = std::map<std::string, std::vector<std::string>, std::less<>>;

bool is_operand(const OptionRule& rule) { return !rule.name.starts_with("-"); }

bool is_option(const std::string& token) { return token.starts_with("-") && token != "-"; }

const OptionRule& operand_of(const std::vector<OptionRule>& rules, const Given& given,
                             const std::string& token) {
  const auto rule = std::ranges::find_if(rules, [&](const OptionRule& candidate) {
    return is_operand(candidate) && !given.contains(candidate.name);
  });
  require(rule != rules.end(), "usage", [&] { return "Unexpected argument: " + token; });
  return *rule;
}

const OptionRule& rule_of(const std::vector<OptionRule>& rules, const std::string& token) {
  const auto rule = std::ranges::find(rules, token, &OptionRule::name);
  require(rule != rules.end(), "usage", [&] { return "Unknown option: " + token; });
  return *rule;
}

void check_required(const std::vector<OptionRule>& rules, const Given& given) {
  for (const OptionRule& rule : rules)
    require(rule.use != OptionUse::required || given.contains(rule.name), "usage", [&] {
      return (is_operand(rule) ? "" : "Option ") + std::string(rule.name) + " is needed";
    });
}

}  // namespace

Arguments::Arguments(const std::vector<OptionRule>& rules, const std::vector<std::string>& tokens) {
  for (auto token = tokens.begin(); token != tokens.end(); ++token) {
    if (!is_option(*token)) {
      given_[std::string(operand_of(rules, given_, *token).name)] = {*token};
      continue;
    }
    const OptionRule& rule = rule_of(rules, *token);
    std::vector<std::string>& values = given_[*token];
    if (rule.use == OptionUse::flag) continue;
    require(values.empty() || rule.use == OptionUse::repeated, "usage",
            [&] { return "Option " + *token + " was given twice"; });
    const std::string& option = *token;
    const bool has_value = std::next(token) != tokens.end() && !std::next(token)->empty();
    require(has_value, "usage", [&] { return "Option " + option + " needs a value"; });
    values.push_back(*++token);
  }
  if (!has("--help")) check_required(rules, given_);
}

bool Arguments::has(std::string_view option) const { return given_.contains(option); }

std::string Arguments::value(std::string_view option) const {
  const std::vector<std::string>& all = values(option);
  return all.empty() ? std::string() : all.front();
}

const std::vector<std::string>& Arguments::values(std::string_view option) const {
  static const std::vector<std::string> none;
  const auto found = given_.find(option);
  return found == given_.end() ? none : found->second;
}

unsigned long long Arguments::number(std::string_view option, unsigned long long least,
                                     unsigned long long most, unsigned long long fallback) const {
  if (!has(option)) return fallback;
  const std::string text = value(option);
  unsigned long long number = 0;
  const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool whole = problem == std::errc() && end == text.data() + text.size();
  require(whole && number >= least && number <= most, "usage", [&] {
    return "Option " + std::string(option) + " needs a number from " + std::to_string(least) +
           " to " + std::to_string(most);
  });
  return number;
}

}  // namespace tavro
