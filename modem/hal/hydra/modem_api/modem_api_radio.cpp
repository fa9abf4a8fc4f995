// Radio controls: one exchange a call, with the service that belongs to the client's type.
#include "modem_api_command.h"
#include "nas_client.h"
#include "nas_messages.h"
#include "sar_client.h"
#include "sar_messages.h"

namespace pelmar {
namespace {

static_assert(MODEM_API_MAX_LOCKED_CELLS == nas::kMaxCellLocks);

// A vendor-specific command without content.
modem_api_result send_empty(const char* function, int32_t client_id, vs::MessageId msg_id) {
  const modem_api_result check = check_client(function, client_id, MODEM_API_CLIENT_VS);
  if (check != MODEM_API_SUCCESS) return check;
  Zeroed<vs::EmptyRequest> request;
  return exchange_vs(msg_id, request);
}

// A SAR or NAS command that answers with its outcome alone; the outcome is logged.
template <typename Request>
modem_api_result send_control(const char* function, int32_t client_id, modem_api_client_type type, SendSync send,
                              uint32_t msg_id, Request& request) {
  const modem_api_result check = check_client(function, client_id, type);
  if (check != MODEM_API_SUCCESS) return check;
  Zeroed<vs::PlainResponse> response;
  const int32_t code = send(msg_id, &request, sizeof(request), &response, sizeof(response));
  return log_result(function, modem_api_map_qmi_error_to_modem_api(code, &response.header));
}

template <typename Request>
modem_api_result send_nas_control(const char* function, int32_t client_id, int32_t sub, uint32_t msg_id,
                                  Request& request) {
  const NasClient client = nas_client_of(sub);
  return send_control(function, client_id, client.type, client.send, msg_id, request);
}

// Neither the transport code nor the modem's outcome changes the answer.
modem_api_result get_drx(const char* function, int32_t client_id, uint8_t* valid, uint32_t* drx) {
  const modem_api_result check = check_client(function, client_id, MODEM_API_CLIENT_NAS_0);
  if (check != MODEM_API_SUCCESS) return check;
  Zeroed<nas::EmptyRequest> request;
  Zeroed<nas::GetDrxResponse> response;
  const int32_t code =
      nas_0_client_send_msg_sync(QMI_NAS_GET_DRX_V01, &request, sizeof(request), &response, sizeof(response));
  PELMAR_LOG_DEBUG_AS(function, "qmi_error %d", code);
  *valid = response.drx_valid;
  *drx = response.drx;
  PELMAR_LOG_DEBUG_AS(function, "drx: %d, %d", *valid, static_cast<int>(*drx));
  return MODEM_API_SUCCESS;
}

struct CellInfo {
  uint16_t* intra_pci;
  uint16_t* inter_earfcn;
  uint16_t* inter_pci;
  uint8_t* timing_advance_valid;
  uint32_t* timing_advance;
  uint8_t* nr_arfcn_valid;
  uint32_t* nr_arfcn;
};

void copy_cells(const nas::CellLocationResponse& response, const CellInfo& out) {
  const auto copy_ids = [](const nas::LteCell(&cells)[nas::kMaxLteCells], uint16_t* ids) {
    for (size_t i = 0; i < nas::kMaxLteCells; ++i) ids[i] = cells[i].physical_cell_id;
  };
  copy_ids(response.intra_frequency.cells, out.intra_pci);
  for (size_t i = 0; i < nas::kMaxLteFrequencies; ++i) {
    const nas::LteFrequency& frequency = response.inter_frequency.frequencies[i];
    out.inter_earfcn[i] = frequency.earfcn;
    copy_ids(frequency.cells, out.inter_pci + nas::kMaxLteCells * i);
  }
  *out.timing_advance_valid = response.timing_advance_valid;
  *out.timing_advance = response.timing_advance;
  *out.nr_arfcn_valid = response.nr_arfcn_valid;
  *out.nr_arfcn = response.nr_arfcn;
}

// The outputs are copied whatever the modem answered; its outcome alone decides the result.
modem_api_result get_cell_info(const char* function, int32_t client_id, int32_t sub, const CellInfo& out) {
  const NasClient client = nas_client_of(sub);
  const modem_api_result check = check_client(function, client_id, client.type);
  if (check != MODEM_API_SUCCESS) return check;
  Zeroed<nas::EmptyRequest> request;
  Zeroed<nas::CellLocationResponse> response;
  const int32_t code =
      client.send(QMI_NAS_GET_CELL_LOCATION_INFO_V01, &request, sizeof(request), &response, sizeof(response));
  PELMAR_LOG_DEBUG_AS(function, "qmi_error %d", code);
  copy_cells(response, out);
  PELMAR_LOG_DEBUG_AS(function, "cell info: %d, %d; %d, %d", *out.timing_advance_valid,
                      static_cast<int>(*out.timing_advance), *out.nr_arfcn_valid, static_cast<int>(*out.nr_arfcn));
  PELMAR_LOG_DEBUG_AS(function, "resp=%d,%d", static_cast<int>(response.header.result),
                      static_cast<int>(response.header.error));
  return response.header.result == QMI_RESULT_SUCCESS_V01 ? MODEM_API_SUCCESS : MODEM_API_ERR_GENERIC;
}

void put_cells(nas::SetLteCellLockRequest& request, uint32_t count, const uint32_t* values, const uint32_t* params) {
  // A count beyond the capacity goes out as it is, and the codec refuses it; the cells beyond are not read.
  request.lock_count = count;
  for (uint32_t i = 0; i < count && i < nas::kMaxCellLocks; ++i) {
    request.locks[i].value = static_cast<uint16_t>(values[i]);
    request.locks[i].parameter = params[i];
  }
  request.option_valid = 1;
  request.option = 1;
}

void put_nr_disable_mode(nas::SetSystemSelectionPreferenceRequest& request, int32_t mode) {
  request.nr_disable_mode_valid = 1;
  request.nr_disable_mode = mode == 1 || mode == 2 ? static_cast<uint32_t>(mode) : 0;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

modem_api_result modem_api_notify_shutdown(int32_t client_id) {
  PELMAR_RETURN_LOGGED(send_empty(__func__, client_id, vs::kNotifyShutdown));
}

modem_api_result modem_api_reset_modem(int32_t client_id) {
  PELMAR_RETURN_LOGGED(send_empty(__func__, client_id, vs::kResetModem));
}

modem_api_result modem_api_set_sar_rf_state(int32_t client_id, uint32_t state) {
  Zeroed<sar::RfSetStateRequest> request;
  request.state = state;
  PELMAR_RETURN_LOGGED(send_control(__func__, client_id, MODEM_API_CLIENT_SAR, sar_client_send_msg_sync,
                                    QMI_SAR_RF_SET_STATE_V01, request));
}

modem_api_result modem_api_get_drx(int32_t client_id, uint8_t* valid, uint32_t* drx) {
  PELMAR_RETURN_LOGGED(get_drx(__func__, client_id, valid, drx));
}

modem_api_result modem_api_get_cell_info(int32_t client_id, int32_t sub, uint16_t* intra_pci, uint16_t* inter_earfcn,
                                         uint16_t* inter_pci, uint8_t* timing_advance_valid, uint32_t* timing_advance,
                                         uint8_t* nr_arfcn_valid, uint32_t* nr_arfcn) {
  const CellInfo out = {intra_pci,      inter_earfcn,   inter_pci, timing_advance_valid,
                        timing_advance, nr_arfcn_valid, nr_arfcn};
  PELMAR_RETURN_LOGGED(get_cell_info(__func__, client_id, sub, out));
}

modem_api_result modem_api_set_lte_cell_lock(int32_t client_id, uint32_t sub, uint32_t count, const uint32_t* values,
                                             const uint32_t* params) {
  Zeroed<nas::SetLteCellLockRequest> request;
  put_cells(request, count, values, params);
  PELMAR_RETURN_LOGGED(
      send_nas_control(__func__, client_id, static_cast<int32_t>(sub), QMI_NAS_SET_LTE_CELL_LOCK_V01, request));
}

modem_api_result modem_api_set_avoid_trm(int32_t client_id, int32_t sub, uint8_t value) {
  nas::SetAvoidTrmRequest request = {value};
  PELMAR_RETURN_LOGGED(send_nas_control(__func__, client_id, sub, QMI_NAS_SET_AVOID_TRM_V01, request));
}

modem_api_result modem_api_set_nr_disable_mode(int32_t client_id, int32_t sub, int32_t mode) {
  Zeroed<nas::SetSystemSelectionPreferenceRequest> request;
  put_nr_disable_mode(request, mode);
  PELMAR_RETURN_LOGGED(
      send_nas_control(__func__, client_id, sub, QMI_NAS_SET_SYSTEM_SELECTION_PREFERENCE_V01, request));
}
