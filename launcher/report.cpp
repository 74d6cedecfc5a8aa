#include "report.h"

#include <algorithm>
#include <array>
#include <iostream>
#include <utility>

#include "console/console_report.h"
#include "domain/error.h"
#include "exit_status.h"
#include "text_layout.h"

namespace tavro::program {
namespace {

struct NextStep {
  std::string_view code;
  /// GAME stands for the subject of the command.
  std::string_view step;
};

constexpr std::array steps{
    NextStep{"not_installed", "tavro available, and tavro install GAME"},
    NextStep{"game_not_published", "tavro available"},
    NextStep{"busy", "tavro operations list, and tavro operations wait ID"},
    NextStep{"too_many_operations", "tavro operations list, and tavro operations wait ID"},
    NextStep{"game_running", "Close the game, and run the same again"},
    NextStep{"content_mismatch", "tavro repair GAME"},
    NextStep{"no_previous_build", "tavro update GAME"},
    NextStep{"cancelled", "Run the same again; it goes on where it stopped"},
    NextStep{"expired_metadata", "Check this computer's date, and run the same again later"},
    NextStep{"unknown_setting", "tavro settings get"},
    NextStep{"setting_value", "tavro settings get"},
};

/// Empty when the step names a game and there is none.
std::string step_for(const NextStep& step, const std::string& subject) {
  std::string text(step.step);
  const std::size_t place = text.find("GAME");
  if (place == std::string::npos) return text;
  return subject.empty() ? std::string() : text.replace(place, 4, subject);
}

std::string code_of(const std::exception& failure) {
  const auto* error = dynamic_cast<const Error*>(&failure);
  return error == nullptr ? "unexpected" : error->code;
}

}  // namespace

int tell(Answer answer, bool as_json) {
  if (as_json) {
    answer.document["schema_version"] = 1;
    write_line(compact_line(answer.document));
  } else if (!answer.text.empty()) {
    write_line(plain_text(answer.text));
  }
  return answer.status;
}

std::vector<std::string> next_steps(const std::exception& failure, const std::string& subject) {
  const auto* error = dynamic_cast<const Error*>(&failure);
  if (error == nullptr) return {};
  if (!error->next_commands.empty()) return error->next_commands;
  const auto* const step = std::find_if(
      steps.begin(), steps.end(), [&](const NextStep& each) { return each.code == error->code; });
  if (step == steps.end()) return {};
  const std::string text = step_for(*step, subject);
  return text.empty() ? std::vector<std::string>() : std::vector<std::string>{text};
}

int tell_failure(const std::exception& failure, bool as_json, const std::string& subject) noexcept {
  try {
    const std::string code = code_of(failure);
    const auto next = next_steps(failure, subject);
    if (as_json) {
      const json problem = {{"code", code}, {"message", failure.what()}, {"next", next}};
      std::cout << compact_line({{"schema_version", 1}, {"problem", problem}}) << std::endl;
    }
    std::cerr << plain_text(failure.what()) << std::endl;
    if (!as_json)
      for (const std::string& step : next) std::cerr << "Try: " << plain_text(step) << std::endl;
    return exit_status(code);
  } catch (const std::exception&) {
    // Nothing is left to tell it to; the status still does.
    return exit_failed;
  }
}

}  // namespace tavro::program
