#pragma once

// The headers that most sources include, parsed once for all of them.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

// Instantiated once, in the lowest folder, and not in each source.
extern template class nlohmann::basic_json<>;
