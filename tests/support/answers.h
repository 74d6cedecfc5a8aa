#pragma once

#include "support/testing.h"

namespace tavro {

/// Each line of the table holds words and inputs, with "|" between them. Every input is handed to
/// `visit` behind the words of its line.
template <typename Visit>
void each_cell(const std::string& table, Visit&& visit) {
  std::istringstream lines(table);
  for (std::string line, words, input; std::getline(lines, line);) {
    std::istringstream cells(line);
    for (std::getline(cells, words, '|'); std::getline(cells, input, '|');) visit(words, input);
  }
}

/// The failure of `work` must hold the words; without words there must be none.
template <typename Work>
void expect_words(const std::string& words, const std::string& input, Work&& work) {
  const std::string failure = failure_of(work);
  EXPECT_TRUE(failure.empty() == words.empty() && failure.find(words) != failure.npos)
      << input.substr(0, 99) << ": \"" << failure << "\", not \"" << words << '"';
}

/// Hands every input of the table to `work`: its failure must hold the words; an input without
/// words must be accepted.
template <typename Work>
void expect_answers(const std::string& table, Work&& work) {
  each_cell(table, [&](const std::string& words, const std::string& input) {
    expect_words(words, input, [&] { work(input); });
  });
}

}  // namespace tavro
