#pragma once

#include <cstdlib>

// Included before the installer's main.cpp: the seal of a package that a test makes is known only
// when the test runs.
#define TAVRO_INITIAL_PACKAGE_SHA256 std::getenv("TAVRO_TEST_SEAL")
