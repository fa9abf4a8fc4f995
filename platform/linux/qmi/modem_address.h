// The address of a modem: the transport, and the place.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace pelmar::platform {

struct ModemAddress {
  enum class Kind {
    kQmuxSocket,  // a Unix socket that carries QMUX; path: its path or abstract @NAME
    kDevice,      // a character device that is opened; path: its path
    kProxy,       // a device that qmi-proxy opens; path: the device's path
    kQrtr,        // the services of QRTR; node: their node, or none for any node
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

// Returns the address with the current kind of its path: the socket or device may be created after the address was
// parsed.
ModemAddress look_at_path(ModemAddress address);

// Returns nothing if the text has none of the forms. A path contains a slash. @qmi-proxy is short for
// proxy:/dev/cdc-wdm0.
std::optional<ModemAddress> parse_modem_address(const std::string& text);

}  // namespace pelmar::platform
