// The address of a modem: which way it is reached, and where it is.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace pelmar::platform {

struct ModemAddress {
  enum class Kind {
    kQmuxSocket,  // a Unix socket that is spoken to in QMUX; path: its path or abstract @NAME
    kDevice,      // a character device that is opened; path: its path
    kProxy,       // a device that qmi-proxy opens; path: the device's path
    kQrtr,        // the services of QRTR; node: where they are, any if there is none
  };

  Kind kind;
  std::string path;
  std::optional<uint32_t> node = std::nullopt;

  bool operator==(const ModemAddress&) const = default;
};

inline constexpr const char* kModemAddressForms =
    "the forms are @NAME or the path of a Unix socket, the path of a character device such as /dev/cdc-wdm0, "
    "proxy:DEVICE, qrtr and qrtr:NODE";

bool is_character_device(const std::string& path);

// The address with what its path is now: a modem may come as a socket or as a device after the address was parsed.
ModemAddress look_at_path(ModemAddress address);

// Nothing for a text that has none of the forms. A path contains a slash. @qmi-proxy is short for proxy:/dev/cdc-wdm0.
std::optional<ModemAddress> parse_modem_address(const std::string& text);

}  // namespace pelmar::platform
