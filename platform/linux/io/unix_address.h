// The address of a Unix socket from its name: a path or, as "@name", a name of the abstract namespace. Of the platform,
// the simulated modem and the tools alike, so that what one of them serves the others reach.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>

namespace pelmar {

struct UnixAddress {
  sockaddr_un socket{};
  socklen_t length = 0;

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&socket); }
};

inline bool is_abstract(std::string_view name) {
  return name.starts_with('@');
}

// The most characters that such a name may have. An abstract one starts with a zero byte in the place of its '@' and
// has no terminator; a path needs one.
inline size_t longest_unix_name(std::string_view name) {
  return sizeof sockaddr_un::sun_path - (is_abstract(name) ? 0 : 1);
}

// Nothing for a name that is empty or too long.
inline std::optional<UnixAddress> unix_address(std::string_view name) {
  if (name.size() < (is_abstract(name) ? 2 : 1) || name.size() > longest_unix_name(name)) return std::nullopt;
  UnixAddress address;
  address.socket.sun_family = AF_UNIX;
  std::copy(name.begin(), name.end(), address.socket.sun_path);
  if (is_abstract(name)) address.socket.sun_path[0] = '\0';
  const size_t terminator = is_abstract(name) ? 0 : 1;
  address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + terminator);
  return address;
}

}  // namespace pelmar
