#include "modem_address.h"

#include <sys/stat.h>

#include <charconv>
#include <string_view>

#include "unix_socket.h"

namespace pelmar::platform {
namespace {

using Kind = ModemAddress::Kind;

constexpr std::string_view kQrtrPrefix = "qrtr:";
constexpr std::string_view kProxyPrefix = "proxy:";

std::optional<uint32_t> parse_node(std::string_view text) {
  uint32_t node = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, node);
  if (error != std::errc() || rest != end) return std::nullopt;
  return node;
}

}  // namespace

bool is_character_device(const std::string& path) {
  struct stat found {};
  return ::stat(path.c_str(), &found) == 0 && S_ISCHR(found.st_mode);
}

std::optional<ModemAddress> parse_modem_address(const std::string& text) {
  if (text == "qrtr") return ModemAddress{Kind::kQrtr, ""};
  if (text == "@qmi-proxy") return ModemAddress{Kind::kProxy, "/dev/cdc-wdm0"};
  if (text.starts_with(kQrtrPrefix)) {
    const auto node = parse_node(std::string_view(text).substr(kQrtrPrefix.size()));
    if (!node) return std::nullopt;
    return ModemAddress{Kind::kQrtr, "", node};
  }
  if (text.starts_with(kProxyPrefix)) {
    std::string device = text.substr(kProxyPrefix.size());
    if (!device.starts_with('/')) return std::nullopt;
    return ModemAddress{Kind::kProxy, std::move(device)};
  }
  if (!is_abstract(text) && text.find('/') == text.npos) return std::nullopt;
  const bool is_device_name = text.starts_with("/dev/");
  const ModemAddress address = look_at_path({is_device_name ? Kind::kDevice : Kind::kQmuxSocket, text});
  return address.kind == Kind::kDevice || unix_address(text) ? std::optional(address) : std::nullopt;
}

ModemAddress look_at_path(ModemAddress address) {
  if (address.kind != Kind::kQmuxSocket && address.kind != Kind::kDevice) return address;
  struct stat found {};
  const bool exists = !is_abstract(address.path) && ::stat(address.path.c_str(), &found) == 0;
  if (exists) address.kind = S_ISCHR(found.st_mode) ? Kind::kDevice : Kind::kQmuxSocket;
  return address;
}

}  // namespace pelmar::platform
