// Commands that send indications: any bytes, or the vendor-specific ones by their fields.
#include <algorithm>

#include "console/command_helpers.h"
#include "qmi_codec.h"
#include "simulation.h"

namespace pelmar::sim {

namespace {

constexpr size_t kMaxTlvBytes = 60'000;
constexpr uint64_t kMaxStreamIntervalUs = 60'000'000;

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
  if (simulation.modem.find_running(slot.service->id()) == nullptr) {
    throw Refusal("service " + std::string(slot.service->name()) + " is down");
  }
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

template <uint16_t Message, auto Take>
Json event(Simulation& simulation, Arguments& arguments) {
  const auto structure = Take(arguments);
  const auto recipients =
      take_recipients(arguments, [&](uint8_t client) { return simulation.vs->wants(client, Message); });
  arguments.end();
  std::vector<uint8_t> tlvs(kMaxTlvBytes);
  size_t length = 0;
  const int32_t result = qmi::encode(simulation.vs->object(), QMI_IDL_INDICATION, Message, &structure, sizeof structure,
                                     tlvs.data(), tlvs.size(), &length);
  if (result != QMI_IDL_LIB_NO_ERR) throw Refusal("the event cannot be encoded");
  tlvs.resize(length);
  return send(simulation, *simulation.modem.find(simulation.vs->id()), Message, tlvs, recipients);
}

// --- streams ---

Json stream(Simulation& simulation, Arguments& arguments) {
  EventStream::Plan plan{};
  plan.count = static_cast<uint32_t>(arguments.number("COUNT", UINT32_MAX));
  if (arguments.accept("every")) {
    plan.interval = std::chrono::microseconds(arguments.number("MICROSECONDS", kMaxStreamIntervalUs));
  }
  if (arguments.accept("to")) plan.client = static_cast<uint8_t>(arguments.number("CLIENT", ClientIds::kHighest));
  arguments.end();
  const auto client = simulation.stream.start(plan);
  if (!client) throw Refusal("no client asked for event 3: let one ask, or name one with 'to CLIENT'");
  return {{"client", *client}};
}

Json stop_stream(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  simulation.stream.stop();
  return {{"sent", simulation.stream.sent()}};
}

constexpr Command kCommands[] = {
    {"indication", "SERVICE MESSAGE HEX [to CLIENT|each|broadcast]", "send an indication with these TLVs", indication},
    {"event 2", "VALUE FLAG1 FLAG2 [to CLIENT|each|broadcast]", "send event 2 to all clients",
     event<vs::kStatusIndication, take_status>},
    {"event 3", "VALUE [record SUB:ID:HEX]... [secondary SUB:ID:HEX]... [trailer N] [to CLIENT|each|broadcast]",
     "send event 3 to those that asked for it", event<vs::kReportAIndication, take_report_a>},
    {"event 4", "VALUE ENTRIES FIRST SECOND [to CLIENT|each|broadcast]", "send event 4 to those that asked for it",
     event<vs::kReportBIndication, take_report_b>},
    {"event 5", "VALUE [to CLIENT|each|broadcast]", "send event 5 to those that asked for it",
     event<vs::kReportCIndication, take_report_c>},
    {"stream stop", "", "end the stream", stop_stream},
    {"stream", "COUNT [every MICROSECONDS] [to CLIENT]",
     "send COUNT largest events 3, numbered from 0, as fast as they are read", stream},
};

}  // namespace

std::span<const Command> indication_commands() {
  return kCommands;
}

}  // namespace pelmar::sim
