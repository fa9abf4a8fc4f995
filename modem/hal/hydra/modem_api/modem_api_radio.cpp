// Radio controls. Each call is one exchange with the service of the client's type.
#include <algorithm>

#include "modem_api_command.h"
#include "nas_client.h"
#include "nas_messages.h"
#include "sar_client.h"
#include "sar_messages.h"

namespace pelmar {
namespace {

static_assert(MODEM_API_MAX_LOCKED_CELLS == nas::kMaxCellLocks);

// A vendor-specific command without content.
modem_api_result send_empty(Command& command, int32_t client_id, vs::MessageId msg_id) {
  if (!is_ready(client_id, MODEM_API_CLIENT_VS)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  Zeroed<vs::EmptyRequest> request;
  return command.exit(exchange_vs(msg_id, request));
}

void copy_cell_ids(const nas::LteCell (&cells)[nas::kMaxLteCells], uint16_t* ids) {
  for (const nas::LteCell& cell : cells) *ids++ = cell.physical_cell_id;
}

// A SAR or NAS command whose response has only a result, which is logged.
template <typename Request>
modem_api_result send_control(Command& command, int32_t client_id, const ServiceSender& client, uint32_t msg_id,
                              Request& request) {
  if (!is_ready(client_id, client.type)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  qmi_response_type_v01 response{};
  const int32_t code = client.send(msg_id, &request, sizeof(request), &response, sizeof(response));
  return command.exit(command.log_result(modem_api_map_qmi_error_to_modem_api(code, &response)));
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

modem_api_result modem_api_notify_shutdown(int32_t client_id) {
  Command command(PELMAR_HERE);
  return send_empty(command, client_id, vs::kNotifyShutdown);
}

modem_api_result modem_api_reset_modem(int32_t client_id) {
  Command command(PELMAR_HERE);
  return send_empty(command, client_id, vs::kResetModem);
}

modem_api_result modem_api_set_sar_rf_state(int32_t client_id, uint32_t state) {
  Command command(PELMAR_HERE);
  Zeroed<sar::RfSetStateRequest> request;
  request.state = state;
  return send_control(command, client_id, {MODEM_API_CLIENT_SAR, sar_client_send_msg_sync}, QMI_SAR_RF_SET_STATE_V01,
                      request);
}

// Compatibility: neither the transport code nor the modem's error changes the result.
modem_api_result modem_api_get_drx(int32_t client_id, uint8_t* valid, uint32_t* drx) {
  Command command(PELMAR_HERE);
  if (!is_ready(client_id, MODEM_API_CLIENT_NAS_0)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  Zeroed<nas::EmptyRequest> request;
  Zeroed<nas::GetDrxResponse> response;
  const int32_t code =
      nas_0_client_send_msg_sync(QMI_NAS_GET_DRX_V01, &request, sizeof(request), &response, sizeof(response));
  PELMAR_LOG_DEBUG("qmi_error %d", code);
  *valid = response.drx_valid;
  *drx = response.drx;
  PELMAR_LOG_DEBUG("drx: %d, %d", *valid, static_cast<int>(*drx));
  return command.exit(MODEM_API_SUCCESS);
}

// Compatibility: the outputs are copied even if the modem reports an error, and only the result word decides the
// result.
modem_api_result modem_api_get_cell_info(int32_t client_id, int32_t sub, uint16_t* intra_pci, uint16_t* inter_earfcn,
                                         uint16_t* inter_pci, uint8_t* timing_advance_valid, uint32_t* timing_advance,
                                         uint8_t* nr_arfcn_valid, uint32_t* nr_arfcn) {
  Command command(PELMAR_HERE);
  const ServiceSender client = nas_client_of(sub);
  if (!is_ready(client_id, client.type)) return command.refuse(MODEM_API_ERR_INVALID_CLIENT);
  Zeroed<nas::EmptyRequest> request;
  Zeroed<nas::CellLocationResponse> response;
  const int32_t code =
      client.send(QMI_NAS_GET_CELL_LOCATION_INFO_V01, &request, sizeof(request), &response, sizeof(response));
  PELMAR_LOG_DEBUG("qmi_error %d", code);
  copy_cell_ids(response.intra_frequency.cells, intra_pci);
  for (size_t i = 0; i < nas::kMaxLteFrequencies; ++i) {
    const nas::LteFrequency& frequency = response.inter_frequency.frequencies[i];
    inter_earfcn[i] = frequency.earfcn;
    copy_cell_ids(frequency.cells, inter_pci + nas::kMaxLteCells * i);
  }
  *timing_advance_valid = response.timing_advance_valid;
  *timing_advance = response.timing_advance;
  *nr_arfcn_valid = response.nr_arfcn_valid;
  *nr_arfcn = response.nr_arfcn;
  PELMAR_LOG_DEBUG("cell info: %d, %d; %d, %d", *timing_advance_valid, static_cast<int>(*timing_advance),
                   *nr_arfcn_valid, static_cast<int>(*nr_arfcn));
  PELMAR_LOG_DEBUG("resp=%d,%d", static_cast<int>(response.header.result), static_cast<int>(response.header.error));
  const bool succeeded = response.header.result == QMI_RESULT_SUCCESS_V01;
  return command.exit(succeeded ? MODEM_API_SUCCESS : MODEM_API_ERR_GENERIC);
}

modem_api_result modem_api_set_lte_cell_lock(int32_t client_id, uint32_t sub, uint32_t count, const uint32_t* values,
                                             const uint32_t* params) {
  Command command(PELMAR_HERE);
  Zeroed<nas::SetLteCellLockRequest> request;
  // The codec refuses a count above the capacity; the cells above it are not read.
  request.lock_count = count;
  const uint32_t read = std::min<uint32_t>(count, nas::kMaxCellLocks);
  for (uint32_t i = 0; i < read; ++i) {
    request.locks[i].value = static_cast<uint16_t>(values[i]);
    request.locks[i].parameter = params[i];
  }
  request.option_valid = 1;
  request.option = 1;
  return send_control(command, client_id, nas_client_of(static_cast<int32_t>(sub)), QMI_NAS_SET_LTE_CELL_LOCK_V01,
                      request);
}

modem_api_result modem_api_set_avoid_trm(int32_t client_id, int32_t sub, uint8_t value) {
  Command command(PELMAR_HERE);
  nas::SetAvoidTrmRequest request = {value};
  return send_control(command, client_id, nas_client_of(sub), QMI_NAS_SET_AVOID_TRM_V01, request);
}

modem_api_result modem_api_set_nr_disable_mode(int32_t client_id, int32_t sub, int32_t mode) {
  Command command(PELMAR_HERE);
  Zeroed<nas::SetSystemSelectionPreferenceRequest> request;
  request.nr_disable_mode_valid = 1;
  request.nr_disable_mode = mode == 1 || mode == 2 ? static_cast<uint32_t>(mode) : 0;
  return send_control(command, client_id, nas_client_of(sub), QMI_NAS_SET_SYSTEM_SELECTION_PREFERENCE_V01, request);
}
