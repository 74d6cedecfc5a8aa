#pragma once

#include <string>
#include <utility>

#include "domain/error.h"

namespace tavro {

/// The code, ": " and the message of the `Error` that `work` throws; empty when it returns.
template <typename Work>
std::string failure_of(Work&& work) {
  try {
    std::forward<Work>(work)();
  } catch (const Error& error) {
    return error.code + ": " + error.what();
  }
  return {};
}

/// The code alone.
template <typename Work>
std::string code_of(Work&& work) {
  const std::string failure = failure_of(std::forward<Work>(work));
  return failure.substr(0, failure.find(':'));
}

}  // namespace tavro

/// Expects the code and message of an `Error` from the call; an empty text where it must return.
#define EXPECT_FAILURE(call, failure) EXPECT_EQ(::tavro::failure_of([&] { call; }), failure)
