// Commands that send indications: any bytes, or the vendor-specific ones by their fields.
#include <algorithm>

#include "console/command_helpers.h"
#include "qmi_codec.h"
#include "simulation.h"

namespace pelmar::sim {

namespace {

constexpr size_t kMaxTlvBytes = 60'000;

struct Recipients {
  bool broadcast = false;
  std::function<bool(uint8_t client)> wants;
};

// [to CLIENT|each|broadcast]; without it those that `by_default` accepts.
Recipients take_recipients(Arguments& arguments, std::function<bool(uint8_t)> by_default) {
  Recipients recipients{false, std::move(by_default)};
  if (!arguments.accept("to")) return recipients;
  const auto everyone = [](uint8_t) { return true; };
  if (arguments.accept("broadcast")) return {true, everyone};
  if (arguments.accept("each")) return {false, everyone};
  const auto only = static_cast<uint8_t>(arguments.number("CLIENT", ClientIds::kHighest));
  return {false, [only](uint8_t client) { return client == only; }};
}

Json send(Simulation& simulation, Modem::Slot& slot, uint16_t message, std::span<const uint8_t> tlvs,
          const Recipients& recipients) {
  if (!slot.is_up) throw CommandError("service " + std::string(slot.service->name()) + " is down");
  const size_t sent = recipients.broadcast ? simulation.modem.broadcast(slot.service->id(), message, tlvs)
                                           : simulation.modem.indicate(slot, message, tlvs, recipients.wants);
  return {{"sent", sent}, {"bytes", tlvs.size()}};
}

Json indication(Simulation& simulation, Arguments& arguments) {
  Modem::Slot& slot = take_service(simulation, arguments);
  const uint16_t message = take_message(slot.service.get(), arguments);
  const std::vector<uint8_t> tlvs = arguments.hex("HEX", kMaxTlvBytes);
  const Recipients recipients = take_recipients(arguments, [](uint8_t) { return true; });
  arguments.end();
  return send(simulation, slot, message, tlvs, recipients);
}

// --- events of the vendor-specific service ---

vs::StatusIndication take_status(Arguments& arguments) {
  vs::StatusIndication status{};
  status.value = static_cast<uint32_t>(arguments.number("VALUE", UINT32_MAX));
  status.flag1 = static_cast<uint8_t>(arguments.number("FLAG1", UINT8_MAX));
  status.flag2 = static_cast<uint8_t>(arguments.number("FLAG2", UINT8_MAX));
  return status;
}

// SUB:ID:HEX
vs::DataRecord take_record(Arguments& arguments) {
  std::string text = arguments.word("SUB:ID:HEX");
  std::replace(text.begin(), text.end(), ':', ' ');
  Arguments parts(text);
  vs::DataRecord record{};
  record.sub = static_cast<uint16_t>(parts.number("SUB", UINT16_MAX));
  record.id = static_cast<uint32_t>(parts.number("ID", UINT32_MAX));
  const std::vector<uint8_t> bytes = parts.is_empty() ? std::vector<uint8_t>() : parts.hex("HEX", vs::kMaxDataBytes);
  parts.end();
  record.data_len = static_cast<uint32_t>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), record.data);
  return record;
}

vs::ReportAIndication take_report_a(Arguments& arguments) {
  vs::ReportAIndication report{};
  report.value = static_cast<uint32_t>(arguments.number("VALUE", UINT32_MAX));
  for (;;) {
    if (report.record_count < vs::kMaxDataRecords && arguments.accept("record")) {
      report.records[report.record_count++] = take_record(arguments);
    } else if (report.secondary_count < vs::kMaxSecondaryDataRecords && arguments.accept("secondary")) {
      report.secondary_valid = 1;
      report.secondary[report.secondary_count++] = take_record(arguments);
    } else if (arguments.accept("trailer")) {
      report.trailer_valid = 1;
      report.trailer = static_cast<uint32_t>(arguments.number("TRAILER", UINT32_MAX));
    } else {
      return report;
    }
  }
}

vs::ReportBIndication take_report_b(Arguments& arguments) {
  vs::ReportBIndication report{};
  report.value = static_cast<uint32_t>(arguments.number("VALUE", UINT32_MAX));
  const std::vector<uint8_t> entries = arguments.hex("ENTRIES", vs::kMaxEventEntries);
  report.entry_count = static_cast<uint32_t>(entries.size());
  std::copy(entries.begin(), entries.end(), report.entries);
  report.first = static_cast<uint16_t>(arguments.number("FIRST", UINT16_MAX));
  report.second = static_cast<uint16_t>(arguments.number("SECOND", UINT16_MAX));
  return report;
}

vs::ReportCIndication take_report_c(Arguments& arguments) {
  return {static_cast<uint8_t>(arguments.number("VALUE", UINT8_MAX))};
}

template <auto Take>
Json send_event(Simulation& simulation, Arguments& arguments, uint16_t message) {
  const auto structure = Take(arguments);
  const auto recipients =
      take_recipients(arguments, [&](uint8_t client) { return simulation.vs->wants(client, message); });
  arguments.end();
  std::vector<uint8_t> tlvs(kMaxTlvBytes);
  size_t length = 0;
  const int32_t result = platform::encode(simulation.vs->object(), QMI_IDL_INDICATION, message, &structure,
                                          sizeof structure, tlvs.data(), tlvs.size(), &length);
  if (result != QMI_IDL_LIB_NO_ERR) throw CommandError("the event cannot be encoded");
  tlvs.resize(length);
  return send(simulation, *simulation.modem.find(simulation.vs->id()), message, tlvs, recipients);
}

struct Event {
  uint64_t number;
  uint16_t message;
  Json (*send)(Simulation& simulation, Arguments& arguments, uint16_t message);
};

constexpr Event kEvents[] = {
    {2, vs::kStatusIndication, send_event<take_status>},
    {3, vs::kReportAIndication, send_event<take_report_a>},
    {4, vs::kReportBIndication, send_event<take_report_b>},
    {5, vs::kReportCIndication, send_event<take_report_c>},
};

Json event(Simulation& simulation, Arguments& arguments) {
  const uint64_t number = arguments.number("event", 5);
  const auto row =
      std::find_if(std::begin(kEvents), std::end(kEvents), [&](const Event& e) { return e.number == number; });
  if (row == std::end(kEvents)) throw CommandError("the events are 2 to 5");
  return row->send(simulation, arguments, row->message);
}

constexpr Command kCommands[] = {
    {"indication", "SERVICE MESSAGE HEX [to CLIENT|each|broadcast]", "send an indication with these TLVs", indication},
    {"event",
     "2 VALUE FLAG1 FLAG2 | 3 VALUE [record SUB:ID:HEX]... [secondary SUB:ID:HEX]... [trailer N] | "
     "4 VALUE ENTRIES FIRST SECOND | 5 VALUE  [to CLIENT|each|broadcast]",
     "send a vendor-specific event to those that asked for it", event},
};

}  // namespace

std::span<const Command> indication_commands() {
  return kCommands;
}

}  // namespace pelmar::sim
