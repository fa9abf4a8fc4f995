// Each of the four indications becomes one event with a payload of fixed size.
//
// The payload lies on the stack and is zero where the indication has no field; counts and lengths from the modem are
// cut to what the payload holds.
#include "vs_events.h"

#include <algorithm>
#include <cstring>

#include "vs_messages.h"

namespace pelmar::vs {
namespace {

constexpr uint32_t kNoTrailer = 0xFFFFFFFF;

void convert(const StatusIndication& indication, modem_api_vs_status_event& event) {
  event.value = indication.value;
  event.flag1 = indication.flag1 != 0 ? 1 : 0;
  event.flag2 = indication.flag2 != 0 ? 1 : 0;
}

// Returns how many records were copied.
template <size_t kCapacity>
uint32_t convert_records(const DataRecord (&from)[kCapacity], uint32_t count, modem_api_event_record (&to)[kCapacity]) {
  const uint32_t copied = std::min<uint32_t>(count, kCapacity);
  for (uint32_t i = 0; i < copied; ++i) {
    to[i].id = from[i].id;
    to[i].data_len = std::min<uint32_t>(from[i].data_len, kMaxDataBytes);
    std::memcpy(to[i].data, from[i].data, to[i].data_len);
    to[i].sub = from[i].sub;
    to[i].sub_high = from[i].sub_high;
  }
  return copied;
}

void convert(const ReportAIndication& indication, modem_api_vs_report_a_event& event) {
  event.value = indication.value;
  event.record_count = convert_records(indication.records, indication.record_count, event.records);
  // The count is taken even where the list is absent; it reads 0 then.
  event.secondary_count = convert_records(indication.secondary, indication.secondary_count, event.secondary);
  event.trailer = indication.trailer_valid != 0 ? indication.trailer : kNoTrailer;
}

void convert(const ReportBIndication& indication, modem_api_vs_report_b_event& event) {
  event.value = indication.value;
  event.entry_count = std::min<uint32_t>(indication.entry_count, kMaxEventEntries);
  std::copy_n(indication.entries, event.entry_count, event.entries);
  event.first = indication.first;
  event.second = indication.second;
}

void convert(const ReportCIndication& indication, modem_api_vs_report_c_event& event) {
  event.value = indication.value;
}

template <typename Indication, typename Event>
void deliver(modem_api_event id, const void* decoded, modem_api_event_cb event_cb) {
  Event event;
  std::memset(&event, 0, sizeof(event));
  convert(*static_cast<const Indication*>(decoded), event);
  event_cb(id, reinterpret_cast<const uint8_t*>(&event), sizeof(event));
}

struct EventRow {
  MessageId indication;
  modem_api_event event;
  void (*deliver)(modem_api_event id, const void* decoded, modem_api_event_cb event_cb);
};

constexpr EventRow kEvents[] = {
    {kStatusIndication, MODEM_API_EVENT_VS_STATUS, deliver<StatusIndication, modem_api_vs_status_event>},
    {kReportAIndication, MODEM_API_EVENT_VS_REPORT_A, deliver<ReportAIndication, modem_api_vs_report_a_event>},
    {kReportBIndication, MODEM_API_EVENT_VS_REPORT_B, deliver<ReportBIndication, modem_api_vs_report_b_event>},
    {kReportCIndication, MODEM_API_EVENT_VS_REPORT_C, deliver<ReportCIndication, modem_api_vs_report_c_event>},
};

}  // namespace

bool deliver_event(uint32_t msg_id, const void* decoded, modem_api_event_cb event_cb) {
  for (const EventRow& row : kEvents) {
    if (row.indication == msg_id) {
      row.deliver(row.event, decoded, event_cb);
      return true;
    }
  }
  return false;
}

}  // namespace pelmar::vs
