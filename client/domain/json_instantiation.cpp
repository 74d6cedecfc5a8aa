#include <nlohmann/json.hpp>

// Every source that is compiled with the precompiled headers counts on this one.
template class nlohmann::basic_json<>;
