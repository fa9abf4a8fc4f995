// An indication's way through the library: from the framework's callback to the client's event callback, over a
// platform with the real codec, and with every log line written.
//
//   input: u8 indication (by the table below), wire bytes
//
// What holds whatever the bytes: one event where the indication decodes, none where it does not; the event has its
// exact size, counts and lengths within their bounds, and zero bytes beyond them; every block is given back.
#include <algorithm>
#include <cstring>
#include <memory>

#include "instant_platform.h"
#include "messages.h"
#include "modem_api.h"
#include "pelmar_log.h"
#include "qmi_codec.h"
#include "vs_client.h"
#include "vs_messages.h"

using namespace pelmar::fuzz;

namespace {

struct IndicationRow {
  uint16_t id;
  uint32_t event;  // 0: none
  uint32_t payload_length;
};

constexpr IndicationRow kIndications[] = {
    {pelmar::vs::kStatusIndication, MODEM_API_EVENT_VS_STATUS, sizeof(modem_api_vs_status_event)},
    {pelmar::vs::kReportAIndication, MODEM_API_EVENT_VS_REPORT_A, sizeof(modem_api_vs_report_a_event)},
    {pelmar::vs::kReportBIndication, MODEM_API_EVENT_VS_REPORT_B, sizeof(modem_api_vs_report_b_event)},
    {pelmar::vs::kReportCIndication, MODEM_API_EVENT_VS_REPORT_C, sizeof(modem_api_vs_report_c_event)},
    {pelmar::vs::kReadNv, 0, 0},  // a request's number
};

const IndicationRow* g_expected;
int g_events;

template <typename T, size_t kCapacity>
void require_zero_from(const T (&array)[kCapacity], uint32_t count) {
  require(count <= kCapacity);
  const auto* const bytes = reinterpret_cast<const uint8_t*>(array);
  require(std::all_of(bytes + count * sizeof(T), bytes + sizeof(array), [](uint8_t byte) { return byte == 0; }));
}

template <size_t kCapacity>
void check_records(const modem_api_event_record (&records)[kCapacity], uint32_t count) {
  require_zero_from(records, count);
  for (uint32_t i = 0; i < count; ++i) require_zero_from(records[i].data, records[i].data_len);
}

void check(const modem_api_vs_status_event& event) {
  require(event.flag1 <= 1 && event.flag2 <= 1);
}

void check(const modem_api_vs_report_a_event& event) {
  check_records(event.records, event.record_count);
  check_records(event.secondary, event.secondary_count);
}

void check(const modem_api_vs_report_b_event& event) {
  require_zero_from(event.entries, event.entry_count);
  for (uint32_t i = 0; i < event.entry_count; ++i) require(event.entries[i] <= UINT8_MAX);
}

template <typename Event>
void check_payload(const uint8_t* payload) {
  const auto event = std::make_unique<Event>();
  std::memcpy(event.get(), payload, sizeof(Event));
  check(*event);
}

void on_event(uint32_t event, const uint8_t* payload, uint32_t length) {
  ++g_events;
  require(event == g_expected->event && length == g_expected->payload_length);
  const Bytes copy(payload, payload + length);  // every byte of it can be read
  if (event == MODEM_API_EVENT_VS_STATUS) check_payload<modem_api_vs_status_event>(copy.data());
  if (event == MODEM_API_EVENT_VS_REPORT_A) check_payload<modem_api_vs_report_a_event>(copy.data());
  if (event == MODEM_API_EVENT_VS_REPORT_B) check_payload<modem_api_vs_report_b_event>(copy.data());
}

bool decodes(uint16_t id, const Bytes& wire) {
  pelmar::qmi::MessageSize size;
  if (pelmar::qmi::message_size(vs_client_info.service_object, QMI_IDL_INDICATION, id, &size) != 0) return false;
  Bytes structure(size.structure_length);
  return pelmar::qmi::decode(vs_client_info.service_object, QMI_IDL_INDICATION, id, wire.data(), wire.size(),
                             structure.data(), structure.size()) == QMI_IDL_LIB_NO_ERR;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  pelmar::instant_platform::set_log([](const char*) {});
  pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_close_shell_print();
  vs_init();
  require(vs_client_init(on_event));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  g_expected = &kIndications[data[0] % std::size(kIndications)];
  g_events = 0;
  Bytes wire(data + 1, data + size);
  vs_client_unsol_ind_cb(vs_client_info.client_handle, g_expected->id, wire.data(), static_cast<unsigned>(wire.size()),
                         nullptr);
  require(g_events == (decodes(g_expected->id, wire) ? 1 : 0));
  return 0;
}
