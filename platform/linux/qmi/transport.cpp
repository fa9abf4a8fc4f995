#include "transport.h"

#include <string>

#include "environment.h"
#include "handle.h"
#include "qmi_client.h"
#include "qmux_transport.h"
#include "qrtr_transport.h"

namespace pelmar::platform {
namespace {

class NoService final : public ServiceWatch {
 public:
  Presence look() override { return {false, false}; }
  int descriptor() const override { return -1; }
};

// The address of this process's modem.
std::optional<ModemAddress> modem_address() {
  const std::string text = environment(kModemVariable, kDefaultModem);
  const auto address = parse_modem_address(text);
  if (!address)
    report_problem(std::string(kModemVariable) + "=" + text + ": this is no modem's address; " + kModemAddressForms);
  return address;
}

}  // namespace

const Transport& transport_of(const ModemAddress& address) {
  static constexpr Transport kQmux = {open_qmux_connection, watch_qmux_service};
  static constexpr Transport kQrtr = {open_qrtr_connection, watch_qrtr_service};
  return address.kind == ModemAddress::Kind::kQrtr ? kQrtr : kQmux;
}

int32_t open_connection(const ServiceName& service, size_t message_capacity, const Deadline& deadline,
                        std::unique_ptr<Connection>& connection) {
  const auto address = modem_address();
  if (!address) return QMI_CLIENT_PARAM_ERR;
  return transport_of(*address).open(*address, service, message_capacity, deadline, connection);
}

std::unique_ptr<ServiceWatch> watch_service(uint32_t service) {
  const auto address = modem_address();
  if (!address) return std::make_unique<NoService>();
  return transport_of(*address).watch(*address, service);
}

}  // namespace pelmar::platform
