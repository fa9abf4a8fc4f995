#include "event_text.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "bytes.h"
#include "modem_api.h"
#include "services.h"
#include "statistic_values.h"
#include "time_text.h"

namespace pelmar::cli {

namespace {

constexpr uint32_t kNoTrailer = 0xFFFFFFFF;
constexpr size_t kIndent = 14;  // the width of a time and its blanks
constexpr size_t kBytesInText = 24;

std::string record_line(const char* kind, const modem_api_event_record& record) {
  const auto bytes = counted(record.data, record.data_len);
  const auto shown = bytes.first(std::min(bytes.size(), kBytesInText));
  const std::string fields = statistic_fields_text(record.id, bytes);
  std::string text = "\n";
  text.append(kIndent, ' ').append(kind).append(" sub ").append(std::to_string(record.sub));
  text.append(" id ").append(statistic_text(record.id)).append(", ").append(byte_count(bytes.size()));
  if (!bytes.empty()) text.append(": ").append(to_hex(shown, " "));
  if (shown.size() < bytes.size()) text.append(" ...");
  if (!fields.empty()) text.append("\n").append(kIndent + 2, ' ').append(fields);
  return text;
}

Json records_json(std::span<const modem_api_event_record> records) {
  Json list = Json::array();
  for (const modem_api_event_record& record : records) {
    Json object = {{"sub", record.sub}, {"id", record.id}};
    const auto bytes = counted(record.data, record.data_len);
    put_bytes(object, bytes);
    put_statistic(object, record.id, bytes);
    list.push_back(std::move(object));
  }
  return list;
}

void put(Description& out, const modem_api_vs_status_event& event) {
  out.document.update({{"value", event.value}, {"flag1", event.flag1 != 0}, {"flag2", event.flag2 != 0}});
  out.text += "value " + std::to_string(event.value) + ", flags " + std::to_string(event.flag1) + " " +
              std::to_string(event.flag2);
}

void put(Description& out, const modem_api_vs_report_a_event& event) {
  const auto records = counted(event.records, event.record_count);
  const auto secondary = counted(event.secondary, event.secondary_count);
  out.document.update(
      {{"value", event.value}, {"records", records_json(records)}, {"secondary", records_json(secondary)}});
  out.text += "value " + std::to_string(event.value);
  if (event.trailer != kNoTrailer) {
    out.document["trailer"] = event.trailer;
    out.text += ", trailer " + std::to_string(event.trailer);
  }
  for (const modem_api_event_record& record : records) out.text += record_line("record", record);
  for (const modem_api_event_record& record : secondary) out.text += record_line("secondary", record);
}

void put(Description& out, const modem_api_vs_report_b_event& event) {
  const auto entries = counted(event.entries, event.entry_count);
  out.document.update({{"value", event.value}, {"entries", entries}, {"first", event.first}, {"second", event.second}});
  out.text += "value " + std::to_string(event.value) + ", first " + std::to_string(event.first) + ", second " +
              std::to_string(event.second) + ", entries";
  for (const uint32_t entry : entries) out.text += ' ' + std::to_string(entry);
  if (entries.empty()) out.text += " none";
}

void put(Description& out, const modem_api_vs_report_c_event& event) {
  out.document["value"] = event.value;
  out.text += "value " + std::to_string(event.value);
}

// False where the payload is too short for the structure.
template <typename Payload>
bool put_payload(Description& out, std::span<const uint8_t> bytes) {
  if (bytes.size() < sizeof(Payload)) return false;
  Payload payload;
  std::memcpy(&payload, bytes.data(), sizeof payload);
  put(out, payload);
  return true;
}

struct EventRow {
  uint32_t id;
  const char* name;
  const char* title;
  bool (*put)(Description& out, std::span<const uint8_t> bytes);
};

constexpr EventRow kEvents[] = {
    {MODEM_API_EVENT_VS_STATUS, "status", "status", put_payload<modem_api_vs_status_event>},
    {MODEM_API_EVENT_VS_REPORT_A, "report_a", "report A", put_payload<modem_api_vs_report_a_event>},
    {MODEM_API_EVENT_VS_REPORT_B, "report_b", "report B", put_payload<modem_api_vs_report_b_event>},
    {MODEM_API_EVENT_VS_REPORT_C, "report_c", "report C", put_payload<modem_api_vs_report_c_event>},
};

Description describe_event(const Arrival& event) {
  Description out;
  out.document = {{"time", utc_text(event.time)}, {"event", event.number}};
  out.text = local_text(event.time) + "  event " + std::to_string(event.number) + ": ";
  for (const EventRow& row : kEvents) {
    if (row.id != event.number) continue;
    out.document["name"] = row.name;
    out.text += std::string(row.title) + ", ";
    if (row.put(out, event.payload)) return out;
  }
  put_bytes(out.document, event.payload);
  out.text += byte_count(event.payload.size()) + "\n" + hex_dump(event.payload, kIndent);
  return out;
}

Description describe_notice(const Arrival& notice) {
  const bool is_up = notice.number == MODEM_API_NOTICE_SERVICE_UP;
  const ServiceRow& service = service_of(notice.client_type);
  return {
      {{"time", utc_text(notice.time)}, {"notice", is_up ? "service_up" : "service_down"}, {"service", service.name}},
      local_text(notice.time) + "  " + service.title + " is " + (is_up ? "up" : "down")};
}

}  // namespace

Description describe(const Arrival& arrival) {
  return arrival.kind == Arrival::Kind::kEvent ? describe_event(arrival) : describe_notice(arrival);
}

}  // namespace pelmar::cli
