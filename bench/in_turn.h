#pragma once

#include <functional>
#include <vector>

#include "domain/json.h"

namespace tavro {

/// Fails the measurement, which then is none.
void must(bool condition, const char* what);

/// Milliseconds that the work takes.
double timed(const std::function<void()>& work);

double median(std::vector<double> values);

/// Runs both in turn, each of which answers milliseconds; the first round only warms the machine.
/// The object holds the medians of each and of their ratio.
json in_turn(int rounds, const std::function<double()>& ours, const std::function<double()>& bare);

}  // namespace tavro
