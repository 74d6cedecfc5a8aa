#pragma once

// What nearly every test needs.

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "domain/crypto.h"
#include "domain/input.h"
#include "domain/json.h"
#include "support/failure.h"
#include "support/temp_folder.h"

namespace tavro {

namespace fs = std::filesystem;

}  // namespace tavro
