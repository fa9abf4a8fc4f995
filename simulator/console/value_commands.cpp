// Commands for what the modem sends and measures: indications, the modem's clock, statistics values and scenarios.
#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "console/commands.h"
#include "io/text.h"
#include "qmi_codec.h"
#include "simulation.h"

namespace pelmar::sim {

namespace {

constexpr size_t kMaxTlvBytes = 60'000;
constexpr uint64_t kMaxStreamIntervalUs = 60'000'000;
constexpr uint64_t kMaxClockMs = 1'000'000'000;
constexpr uint64_t kMaxPeriodMs = 3'600'000;
constexpr uint64_t kLeastPeriodMs = 10;

struct Recipients {
  bool broadcast = false;
  std::function<bool(uint8_t client)> is_recipient;
};

// [to CLIENT|each|broadcast]; without it, the clients that `by_default` accepts.
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
    throw std::runtime_error("service " + std::string(slot.service->name()) + " is down");
  }
  const size_t sent = recipients.broadcast ? simulation.modem.broadcast(slot.service->id(), message, tlvs)
                                           : simulation.modem.indicate(slot, message, tlvs, recipients.is_recipient);
  return {{"sent", sent}, {"bytes", tlvs.size()}};
}

Json indication(Simulation& simulation, Arguments& arguments) {
  Modem::Slot& slot = take_service(simulation, arguments);
  const uint16_t message = take_message(slot.service, arguments);
  const std::vector<uint8_t> tlvs = arguments.hex("HEX", kMaxTlvBytes);
  const Recipients recipients = take_recipients(arguments, [](uint8_t) { return true; });
  arguments.end();
  return send(simulation, slot, message, tlvs, recipients);
}

// --- events of the vendor-specific service ---

vs::StatusIndication take_status(Arguments& arguments) {
  vs::StatusIndication status{};
  status.value = arguments.number<uint32_t>("VALUE");
  status.flag1 = arguments.number<uint8_t>("FLAG1");
  status.flag2 = arguments.number<uint8_t>("FLAG2");
  return status;
}

// SUB:ID:HEX
vs::DataRecord take_record(Arguments& arguments) {
  std::string text = arguments.word("SUB:ID:HEX");
  std::replace(text.begin(), text.end(), ':', ' ');
  Arguments parts(text);
  vs::DataRecord record{};
  record.sub = parts.number<uint16_t>("SUB");
  record.id = parts.number<uint32_t>("ID");
  const std::vector<uint8_t> bytes = parts.is_empty() ? std::vector<uint8_t>() : parts.hex("HEX", vs::kMaxDataBytes);
  parts.end();
  record.data_len = static_cast<uint32_t>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), record.data);
  return record;
}

vs::ReportAIndication take_report_a(Arguments& arguments) {
  vs::ReportAIndication report{};
  report.value = arguments.number<uint32_t>("VALUE");
  for (;;) {
    if (report.record_count < vs::kMaxDataRecords && arguments.accept("record")) {
      report.records[report.record_count++] = take_record(arguments);
    } else if (report.secondary_count < vs::kMaxSecondaryDataRecords && arguments.accept("secondary")) {
      report.secondary_valid = 1;
      report.secondary[report.secondary_count++] = take_record(arguments);
    } else if (arguments.accept("trailer")) {
      report.trailer_valid = 1;
      report.trailer = arguments.number<uint32_t>("TRAILER");
    } else {
      return report;
    }
  }
}

vs::ReportBIndication take_report_b(Arguments& arguments) {
  vs::ReportBIndication report{};
  report.value = arguments.number<uint32_t>("VALUE");
  const std::vector<uint8_t> entries = arguments.hex("ENTRIES", vs::kMaxEventEntries);
  report.entry_count = static_cast<uint32_t>(entries.size());
  std::copy(entries.begin(), entries.end(), report.entries);
  report.first = arguments.number<uint16_t>("FIRST");
  report.second = arguments.number<uint16_t>("SECOND");
  return report;
}

vs::ReportCIndication take_report_c(Arguments& arguments) {
  return {arguments.number<uint8_t>("VALUE")};
}

template <uint16_t Message, auto Take>
Json event(Simulation& simulation, Arguments& arguments) {
  const auto structure = Take(arguments);
  const auto recipients =
      take_recipients(arguments, [&](uint8_t client) { return simulation.vs.is_registered_for(client, Message); });
  arguments.end();
  std::vector<uint8_t> tlvs(kMaxTlvBytes);
  size_t length = 0;
  const int32_t result = qmi::encode(simulation.vs.object(), QMI_IDL_INDICATION, Message, &structure, sizeof structure,
                                     tlvs.data(), tlvs.size(), &length);
  if (result != QMI_IDL_LIB_NO_ERR) throw std::runtime_error("the event cannot be encoded");
  tlvs.resize(length);
  return send(simulation, *simulation.modem.find(simulation.vs.id()), Message, tlvs, recipients);
}

Json stream(Simulation& simulation, Arguments& arguments) {
  EventStream::Plan plan{};
  plan.count = arguments.number<uint32_t>("COUNT");
  if (arguments.accept("every")) {
    plan.interval = std::chrono::microseconds(arguments.number("MICROSECONDS", kMaxStreamIntervalUs));
  }
  if (arguments.accept("to")) plan.client = static_cast<uint8_t>(arguments.number("CLIENT", ClientIds::kHighest));
  arguments.end();
  const auto client = simulation.stream.start(plan);
  if (!client)
    throw std::runtime_error("no client has registered for event 3: register one, or name a client with 'to CLIENT'");
  return {{"client", *client}};
}

Json stop_stream(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  simulation.stream.stop();
  return {{"sent", simulation.stream.sent()}};
}

// --- the clock ---

Json clock(Simulation& simulation, Arguments& arguments) {
  if (arguments.is_only_check()) throw CommandError("a scenario does not move the clock that it is played by");
  ModemClock& clock = simulation.clock;
  const bool is_shown = arguments.is_empty();
  const bool runs = arguments.accept("run");
  const bool is_held = arguments.accept("hold");
  const ModemClock::Time base{is_held || arguments.accept("advance") ? clock.now() : ModemClock::Time{0}};
  const ModemClock::Time time{is_shown || runs || is_held ? 0 : arguments.number("MS", kMaxClockMs)};
  arguments.end();
  if (runs) clock.run();
  if (!is_shown && !runs) clock.hold_at(base + time);
  simulation.reports.clock_changed();
  simulation.timed_commands.clock_changed();
  return {{"clock_ms", clock.now().count()}, {"held", clock.is_held()}};
}

// --- values ---

// Takes a statistics identifier by its number, or by its name where it has a row.
uint32_t take_statistic(Arguments& arguments) {
  const std::string text = arguments.word("ID");
  const auto number = parse_number(text);
  if (number && *number <= UINT32_MAX) return static_cast<uint32_t>(*number);
  if (const StatisticRow* const row = find_statistic(text)) return row->id;
  throw CommandError("no statistic '" + text + "': a number or one of " +
                     list_names(statistic_rows(), [](const StatisticRow& row) { return row.name; }) + " is expected");
}

// FIELD=NUMBER: the field's place in the row, and its number.
std::pair<size_t, double> take_field(const StatisticRow& row, Arguments& arguments) {
  const std::string text = arguments.word("FIELD=NUMBER");
  const size_t equals = std::min(text.find('='), text.size());
  const std::string name = text.substr(0, equals);
  const statistics::Field* const field = row.find_field(name);
  if (field == nullptr) {
    throw CommandError(std::string(row.name) + " has no field '" + name + "': there are " +
                       list_names(row.fields, [&](const statistics::Field& each) { return row.field_name(each); }));
  }
  const char* const begin = text.c_str() + std::min(equals + 1, text.size());
  char* end = nullptr;
  const double number = strtod(begin, &end);
  const auto [least, most] = range_of(field->type);
  if (end == begin || *end != '\0' || !(number >= least && number <= most)) {
    throw CommandError("'" + text + "' gives " + name + " no number from " + Json(least).dump() + " to " +
                       Json(most).dump());
  }
  return {static_cast<size_t>(field - row.fields.data()), number};
}

Json describe(const Simulation& simulation, StatisticKey key) {
  constexpr std::string_view kSources[] = {"none", "radio", "scenario", "user"};
  vs::DataRecord record{};
  const Statistics::Source source = simulation.statistics.read(key, record);
  const std::span<const uint8_t> bytes(record.data, record.data_len);
  std::string hex = to_hex_lines(bytes);
  std::replace(hex.begin(), hex.end(), '\n', ' ');
  if (!hex.empty()) hex.pop_back();
  Json response = {{"source", kSources[static_cast<size_t>(source)]}, {"hex", hex}};
  const StatisticRow* const row = find_statistic(key.id);
  if (row == nullptr) return response;
  response["name"] = row->name;
  Json fields = Json::object();
  size_t at = 0;
  for (const statistics::Field& field : row->fields) {
    if (at + width_of(field.type) > bytes.size()) break;
    const double number = unpack(field.type, bytes.data() + at);
    fields[row->field_name(field)] = field.type == WireType::kFloat ? Json(number) : Json(static_cast<int64_t>(number));
    at += width_of(field.type);
  }
  response["fields"] = std::move(fields);
  return response;
}

Json statistic(Simulation& simulation, Arguments& arguments) {
  const auto sub = static_cast<uint16_t>(arguments.number("SUB", kSubscriptions - 1));
  const StatisticKey key{sub, take_statistic(arguments)};
  const StatisticRow* const row = find_statistic(key.id);
  Statistics& statistics = simulation.statistics;
  if (arguments.is_empty()) {
    arguments.end();
    return describe(simulation, key);
  }
  if (arguments.accept("clear")) {
    arguments.end();
    statistics.release(key);
  } else if (row != nullptr && arguments.peek().find('=') != std::string_view::npos) {
    std::vector<std::pair<size_t, double>> fixes;
    while (!arguments.is_empty()) fixes.push_back(take_field(*row, arguments));
    arguments.end();
    for (const auto& [field, number] : fixes) statistics.fix(key, field, number);
  } else {
    std::vector<uint8_t> bytes = arguments.hex("HEX", vs::kMaxDataBytes);
    arguments.end();
    statistics.fix(key, std::move(bytes));
  }
  return describe(simulation, key);
}

// --- scenarios ---

Json describe_scenario(const Statistics& statistics) {
  const Scenario* const scenario = statistics.playing();
  if (scenario == nullptr) return {{"playing", false}};
  return {{"playing", true},
          {"description", scenario->description()},
          {"tracks", scenario->tracks().size()},
          {"commands", scenario->commands().size()},
          {"repeat_s", scenario->repeat()},
          {"played_s", statistics.seconds_played()}};
}

Json scenario(Simulation& simulation, Arguments& arguments) {
  if (arguments.is_only_check()) throw CommandError("a scenario plays no scenario");
  if (arguments.is_empty()) return describe_scenario(simulation.statistics);
  const std::string path = arguments.rest("FILE");
  if (path == "stop") {
    simulation.statistics.stop_playing();
    simulation.timed_commands.scenario_changed();
  } else {
    simulation.play(path);
  }
  return describe_scenario(simulation.statistics);
}

Json set_period(Simulation& simulation, Arguments& arguments) {
  const uint64_t ms = arguments.number("MS", kMaxPeriodMs);
  if (ms < kLeastPeriodMs) throw CommandError("a period is at least " + std::to_string(kLeastPeriodMs) + " ms");
  arguments.end();
  simulation.reports.set_period(StatisticReports::Period(ms));
  return {{"period_ms", ms}};
}

// --- the groups ---

constexpr Command kIndicationRows[] = {
    {"indication", "SERVICE MESSAGE HEX [to CLIENT|each|broadcast]", "send an indication with these TLVs", indication},
    {"event 2", "VALUE FLAG1 FLAG2 [to CLIENT|each|broadcast]", "send event 2 to all clients",
     event<vs::kStatusIndication, take_status>},
    {"event 3", "VALUE [record SUB:ID:HEX]... [secondary SUB:ID:HEX]... [trailer N] [to CLIENT|each|broadcast]",
     "send event 3 to the clients registered for it", event<vs::kReportAIndication, take_report_a>},
    {"event 4", "VALUE ENTRIES FIRST SECOND [to CLIENT|each|broadcast]",
     "send event 4 to the clients registered for it", event<vs::kReportBIndication, take_report_b>},
    {"event 5", "VALUE [to CLIENT|each|broadcast]", "send event 5 to the clients registered for it",
     event<vs::kReportCIndication, take_report_c>},
    {"stream stop", "", "end the stream", stop_stream},
    {"stream", "COUNT [every MICROSECONDS] [to CLIENT]",
     "send COUNT largest events 3, numbered from 0, as fast as they are read", stream},
};

constexpr Command kStatisticRows[] = {
    {"clock", "[run|hold|MS|advance MS]", "show the modem's clock, let it run, hold it or move it", clock},
    {"statistic", "SUB ID [HEX|FIELD=NUMBER...|clear]", "show a value, fix it or fields of it, or end that", statistic},
    {"scenario", "[FILE|stop]", "show, play or end a scenario: values over time, from a JSON file", scenario},
    {"report-period", "MS", "how often registered statistics are reported", set_period},
};

}  // namespace

constinit const CommandGroup kIndicationCommands = {"Indications", kIndicationRows};
constinit const CommandGroup kStatisticCommands = {"Radio values over time", kStatisticRows};

}  // namespace pelmar::sim
