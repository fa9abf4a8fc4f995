// Commands for the values that change by themselves: the modem's clock, statistics values, and their reports.
#include <algorithm>
#include <cstdlib>

#include "console/command_helpers.h"
#include "io/hex.h"
#include "io/numbers.h"
#include "simulation.h"

namespace pelmar::sim {

namespace {

constexpr uint64_t kMaxClockMs = 1'000'000'000;
constexpr uint64_t kMaxPeriodMs = 3'600'000;
constexpr uint64_t kLeastPeriodMs = 10;

Json clock(Simulation& simulation, Arguments& arguments) {
  ModemClock& clock = simulation.clock;
  if (arguments.accept("run")) {
    clock.run();
  } else if (arguments.accept("hold")) {
    clock.hold_at(clock.now());
  } else if (arguments.accept("advance")) {
    clock.hold_at(clock.now() + ModemClock::Time(arguments.number("MS", kMaxClockMs)));
  } else if (!arguments.is_empty()) {
    clock.hold_at(ModemClock::Time(arguments.number("MS", kMaxClockMs)));
  }
  arguments.end();
  simulation.reports.clock_changed();
  return {{"clock_ms", clock.now().count()}, {"held", clock.is_held()}};
}

// --- values ---

// The identifier by its number or, where the modem knows it, by its name.
uint32_t take_statistic(Arguments& arguments) {
  const std::string text = arguments.word("ID");
  const auto number = parse_number(text);
  if (number && *number <= UINT32_MAX) return static_cast<uint32_t>(*number);
  if (const StatisticRow* const row = find_statistic(text)) return row->id;
  std::string names;
  for (const StatisticRow& row : statistic_rows()) names.append(names.empty() ? "" : ", ").append(row.name);
  throw CommandError("no statistic '" + text + "': a number or one of " + names + " is expected");
}

struct FieldFix {
  size_t field;
  double number;
};

// FIELD=NUMBER
FieldFix take_field(const StatisticRow& row, Arguments& arguments) {
  const std::string text = arguments.word("FIELD=NUMBER");
  const size_t equals = std::min(text.find('='), text.size());
  const std::string name = text.substr(0, equals);
  const StatisticField* const field = row.find_field(name);
  if (field == nullptr) {
    std::string names;
    for (const StatisticField& each : row.fields) names.append(names.empty() ? "" : ", ").append(each.name);
    throw CommandError(std::string(row.name) + " has no field '" + name + "': there are " + names);
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
  constexpr std::string_view kSources[] = {"none", "radio", "scenario", "operator"};
  vs::DataRecord record{};
  simulation.statistics.read(key, record);
  const std::span<const uint8_t> bytes(record.data, record.data_len);
  std::string hex = to_hex_lines(bytes);
  std::replace(hex.begin(), hex.end(), '\n', ' ');
  if (!hex.empty()) hex.pop_back();
  Json response = {{"source", kSources[static_cast<size_t>(simulation.statistics.source(key))]}, {"hex", hex}};
  const StatisticRow* const row = find_statistic(key.id);
  if (row == nullptr) return response;
  response["name"] = row->name;
  Json fields = Json::object();
  size_t at = 0;
  for (const StatisticField& field : row->fields) {
    if (at + width_of(field.type) > bytes.size()) break;
    const double number = unpack(field.type, bytes.data() + at);
    if (field.type == WireType::kFloat) {
      fields[std::string(field.name)] = number;
    } else {
      fields[std::string(field.name)] = static_cast<int64_t>(number);
    }
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
  if (arguments.is_empty()) return describe(simulation, key);
  if (arguments.accept("clear")) {
    arguments.end();
    statistics.release(key);
  } else if (row != nullptr && arguments.peek().find('=') != std::string_view::npos) {
    std::vector<FieldFix> fixes;
    while (!arguments.is_empty()) fixes.push_back(take_field(*row, arguments));
    for (const FieldFix& fix : fixes) statistics.fix(key, fix.field, fix.number);
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
          {"repeat_s", scenario->repeat()},
          {"played_s", statistics.seconds_played()}};
}

Json scenario(Simulation& simulation, Arguments& arguments) {
  if (arguments.is_empty()) return describe_scenario(simulation.statistics);
  const std::string path = arguments.rest("FILE");
  if (path == "stop") {
    simulation.statistics.stop_playing();
  } else {
    simulation.statistics.play(load_scenario(path));
  }
  return describe_scenario(simulation.statistics);
}

Json set_period(Simulation& simulation, Arguments& arguments) {
  const uint64_t ms = arguments.number("MS", kMaxPeriodMs);
  arguments.end();
  if (ms < kLeastPeriodMs) throw CommandError("a period is at least " + std::to_string(kLeastPeriodMs) + " ms");
  simulation.reports.set_period(StatisticReports::Period(ms));
  return {{"period_ms", ms}};
}

constexpr Command kCommands[] = {
    {"clock", "[run|hold|MS|advance MS]", "show the modem's clock, let it run, hold it or move it", clock},
    {"statistic", "SUB ID [HEX|FIELD=NUMBER...|clear]", "show a value, fix it or fields of it, or let it go again",
     statistic},
    {"scenario", "[FILE|stop]", "show, play or end a scenario: values over time, from a JSON file", scenario},
    {"report-period", "MS", "how often registered statistics are reported", set_period},
};

}  // namespace

std::span<const Command> statistic_commands() {
  return kCommands;
}

}  // namespace pelmar::sim
