#include "services/sar_service.h"

namespace pelmar::sim {

constexpr std::array<MessageRow, 2> SarService::kMessages = {{
    Answers<&SarService::set_state>::row(QMI_SAR_RF_SET_STATE_V01, "rf-set-state"),
    Answers<&SarService::get_state>::row(QMI_SAR_RF_GET_STATE_V01, "rf-get-state"),
}};

SarService::SarService()
    : Service(
          "sar",
          sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS),
          kMessages) {}

QmiError SarService::set_state(uint8_t, const sar::RfSetStateRequest& request, sar::RfSetStateResponse&) {
  if (request.state > kHighestState) return QMI_ERR_INVALID_ARG_V01;
  state_ = request.state;
  return QMI_ERR_NONE_V01;
}

QmiError SarService::get_state(uint8_t, const sar::RfGetStateRequest&, sar::RfGetStateResponse& response) {
  response.state_valid = 1;
  response.state = state_;
  return QMI_ERR_NONE_V01;
}

}  // namespace pelmar::sim
