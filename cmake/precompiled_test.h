#pragma once

// What tests include beyond that.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <ostream>

#include "precompiled.h"
