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

// The longest wait for a modem's list of services.
constexpr Deadline::Milliseconds kInspectTimeout{2000};

std::string modem_name() {
  return environment(kModemVariable, kDefaultModem);
}

std::string describe_wrong_name() {
  return std::string("this is no modem's address; ") + kModemAddressForms;
}

// The address of this process's modem.
std::optional<ModemAddress> modem_address() {
  auto address = parse_modem_address(modem_name());
  if (!address) report_problem(std::string(kModemVariable) + "=" + modem_name() + ": " + describe_wrong_name());
  return address;
}

}  // namespace

const Transport& transport_of(const ModemAddress& address) {
  static constexpr Transport kQmux = {open_qmux_connection, watch_qmux_service, inspect_qmux};
  static constexpr Transport kQrtr = {open_qrtr_connection, watch_qrtr_service, inspect_qrtr};
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

ModemReport inspect_modem() {
  ModemReport report;
  report.address = modem_name();
  if (const auto address = parse_modem_address(report.address)) {
    transport_of(*address).inspect(*address, Deadline::after(kInspectTimeout), report);
  } else {
    report.problem = describe_wrong_name();
  }
  return report;
}

std::vector<HeldClientId> list_modem_client_ids() {
  const auto address = parse_modem_address(modem_name());
  if (!address || address->kind == ModemAddress::Kind::kQrtr) return {};
  return list_client_ids(*address, Deadline::after(kInspectTimeout));
}

}  // namespace pelmar::platform
