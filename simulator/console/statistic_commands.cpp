// Commands for the values that change by themselves: the modem's clock, statistics values, and their reports.
#include "console/command_helpers.h"
#include "io/hex.h"
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

Json statistic(Simulation& simulation, Arguments& arguments) {
  const auto sub = static_cast<uint16_t>(arguments.number("SUB", kSubscriptions - 1));
  const auto id = static_cast<uint32_t>(arguments.number("ID", UINT32_MAX));
  std::vector<uint8_t> bytes = arguments.hex("HEX", vs::kMaxDataBytes);
  arguments.end();
  simulation.statistics.fix({sub, id}, std::move(bytes));
  return Json::object();
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
    {"statistic", "SUB ID HEX", "fix the value of a statistics identifier", statistic},
    {"report-period", "MS", "how often registered statistics are reported", set_period},
};

}  // namespace

std::span<const Command> statistic_commands() {
  return kCommands;
}

}  // namespace pelmar::sim
