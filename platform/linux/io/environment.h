// What the environment says, where an empty variable says nothing, and the modem's socket there. Of the platform, the
// simulated modem and the tools alike.
#pragma once

#include <cstdlib>
#include <string>

namespace pelmar {

inline constexpr const char* kModemSocketVariable = "PELMAR_QMI_SOCKET";
inline constexpr const char* kDefaultModemSocket = "@qmi-proxy";

inline std::string environment(const char* name, const char* otherwise = "") {
  const char* const value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : otherwise;
}

// An absolute path; a relative one counts as unset.
inline std::string environment_path(const char* name) {
  std::string path = environment(name);
  return path.starts_with('/') ? path : "";
}

}  // namespace pelmar
