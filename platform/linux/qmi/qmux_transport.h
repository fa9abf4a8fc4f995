// The transport over a QMUX proxy: a Unix stream socket named by PELMAR_QMI_SOCKET (a path, or @NAME in the abstract
// namespace; @qmi-proxy without it). The device that the proxy opens is PELMAR_QMI_DEVICE, else /dev/cdc-wdm0.
//
// Every connection is a socket of its own with a client id of its own. A real modem has few client ids, so each one is
// given back.
#pragma once

#include "transport.h"

namespace pelmar::platform {

class QmuxTransport final : public Transport {
 public:
  int32_t open(uint32_t service, size_t message_capacity, const Deadline& deadline,
               std::unique_ptr<Connection>& connection) override;
  std::unique_ptr<ServiceWatch> watch(uint32_t service) override;
};

}  // namespace pelmar::platform
