#include "in_turn.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>

#include "domain/error.h"

namespace tavro {

void must(bool condition, const char* what) { require(condition, "measure", what); }

double timed(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

json in_turn(int rounds, const std::function<double()>& ours, const std::function<double()>& bare) {
  std::vector<double> ours_ms, bare_ms, ratios;
  for (int round = 0; round <= rounds; ++round) {
    const double mine = ours();
    const double theirs = bare();
    if (round == 0) continue;
    ours_ms.push_back(mine);
    bare_ms.push_back(theirs);
    ratios.push_back(mine / theirs);
  }
  return {{"ours_ms", median(ours_ms)}, {"bare_ms", median(bare_ms)}, {"ratio", median(ratios)}};
}

}  // namespace tavro
