// Clients of the modem's services that speak in structures.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "nas_messages.h"
#include "network_access_service_v01.h"
#include "qmux_client.h"
#include "sim_process.h"
#include "vs_messages.h"
#include "vs_tables.h"

namespace pelmar::sim::test {

// One client of one service.
class Client {
 public:
  Client(const SimProcess& modem, qmi_idl_service_object_type object)
      : connection_(modem.socket()),
        object_(object),
        id_(connection_.allocate(static_cast<uint8_t>(object->service_id))) {}

  template <typename Response, typename Request>
  Response call(uint16_t message, const Request& request, uint16_t expected_error = 0) {
    Response response{};
    EXPECT_EQ(connection_.call(object_, id_, message, request, response), expected_error) << "message " << message;
    return response;
  }

  QmuxClient& connection() { return connection_; }
  uint8_t id() const { return id_; }

 private:
  QmuxClient connection_;
  qmi_idl_service_object_type object_;
  uint8_t id_;
};

class VsClient : public Client {
 public:
  explicit VsClient(const SimProcess& modem) : Client(modem, &vs::kService) {}
  void want_events(bool ab, bool c) {
    call<vs::PlainResponse>(vs::kSetEventReport, vs::SetEventReportRequest{1, ab, 1, c});
  }
};

class NasClient : public Client {
 public:
  NasClient(const SimProcess& modem, uint32_t sub)
      : Client(modem, nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS,
                                                          NAS_V01_IDL_TOOL_VERS)) {
    call<nas::PlainResponse>(QMI_NAS_BIND_SUBSCRIPTION_V01, nas::BindSubscriptionRequest{sub});
  }
  nas::CellLocationResponse cells() {
    return call<nas::CellLocationResponse>(QMI_NAS_GET_CELL_LOCATION_INFO_V01, nas::EmptyRequest{});
  }
  void lock(const std::vector<nas::LteCellLock>& cells) {
    nas::SetLteCellLockRequest request{};
    request.lock_count = static_cast<uint32_t>(cells.size());
    std::copy(cells.begin(), cells.end(), request.locks);
    request.option_valid = request.option = 1;
    call<nas::PlainResponse>(QMI_NAS_SET_LTE_CELL_LOCK_V01, request);
  }
  void disable_nr(uint32_t mode, uint16_t error = 0) {
    nas::SetSystemSelectionPreferenceRequest request{};
    request.nr_disable_mode_valid = 1;
    request.nr_disable_mode = mode;
    call<nas::PlainResponse>(QMI_NAS_SET_SYSTEM_SELECTION_PREFERENCE_V01, request, error);
  }
};

}  // namespace pelmar::sim::test
