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
  const bool is_path = !is_abstract(text) && text.find('/') != text.npos;
  if (is_path && is_character_device(text)) return ModemAddress{Kind::kDevice, text};
  if ((is_path || is_abstract(text)) && unix_address(text)) return ModemAddress{Kind::kQmuxSocket, text};
  return std::nullopt;
}

}  // namespace pelmar::platform
