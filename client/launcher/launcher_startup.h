#pragma once

#include <array>
#include <map>
#include <string>

namespace tavro {

/// The authority of one candidate start, as the bootstrap passes it: nonce, version, build,
/// interface and data folder. All five empty, or not set, means an ordinary start.
inline constexpr char launcher_nonce_environment[] = "TAVRO_LAUNCHER_HEALTH_NONCE";
inline constexpr char launcher_manifest_environment[] = "TAVRO_LAUNCHER_MANIFEST";
inline constexpr char launcher_build_environment[] = "TAVRO_LAUNCHER_BUILD";
inline constexpr char launcher_interface_environment[] = "TAVRO_LAUNCHER_INTERFACE";
inline constexpr char launcher_root_environment[] = "TAVRO_LAUNCHER_DATA_ROOT";

inline constexpr std::array<const char*, 5> launcher_startup_variables = {
    launcher_nonce_environment, launcher_manifest_environment, launcher_build_environment,
    launcher_interface_environment, launcher_root_environment};

/// Bound on a health document and on a lease acknowledgement.
inline constexpr unsigned long long launcher_proof_bytes = 4096;

/// The five with empty values, for a process that is no candidate start.
std::map<std::string, std::string> cleared_startup_environment();

}  // namespace tavro
