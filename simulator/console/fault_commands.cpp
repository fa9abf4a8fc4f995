// Commands that add fault rows. The words after a fault's own say which responses it takes.
#include <random>

#include "console/command_helpers.h"
#include "simulation.h"

namespace pelmar::sim {

namespace {

constexpr uint64_t kMaxDelayMs = 3'600'000;
constexpr size_t kMaxGarbageBytes = 4096;
constexpr size_t kRandomGarbageBytes = 64;
constexpr std::string_view kAny = "any";

// [SERVICE|any [MESSAGE|any [COUNT]]]
FaultRow take_target(Simulation& simulation, Arguments& arguments, Fault fault) {
  FaultRow row(std::move(fault));
  const Service* service = nullptr;
  if (!arguments.is_empty() && !arguments.accept(kAny)) {
    if (arguments.accept("ctl")) {
      row.service = qmi::kControlService;
    } else {
      service = take_service(simulation, arguments).service.get();
      row.service = service->id();
    }
  }
  if (!arguments.is_empty() && !arguments.accept(kAny)) row.message = take_message(service, arguments);
  if (!arguments.is_empty()) row.times_left = arguments.number("COUNT", UINT32_MAX);
  arguments.end();
  if (row.times_left == 0) throw CommandError("COUNT 0 would do nothing");
  return row;
}

Json add(Simulation& simulation, Arguments& arguments, Fault fault) {
  simulation.faults.add(take_target(simulation, arguments, std::move(fault)));
  return {{"faults", simulation.faults.rows().size()}};
}

Json delay(Simulation& simulation, Arguments& arguments) {
  Fault fault(FaultKind::kDelay);
  fault.delay = std::chrono::milliseconds(arguments.number("MS", kMaxDelayMs));
  return add(simulation, arguments, std::move(fault));
}

Json error(Simulation& simulation, Arguments& arguments) {
  Fault fault(FaultKind::kError);
  fault.error = static_cast<uint16_t>(arguments.number("NUMBER", UINT16_MAX));
  if (fault.error == QMI_ERR_NONE_V01) throw CommandError("error 0 is success");
  return add(simulation, arguments, std::move(fault));
}

Json silence(Simulation& simulation, Arguments& arguments) {
  return add(simulation, arguments, Fault(FaultKind::kSilence));
}

Json cut(Simulation& simulation, Arguments& arguments) {
  Fault fault(FaultKind::kCut);
  fault.cut_to = arguments.number("BYTES", UINT16_MAX);
  return add(simulation, arguments, std::move(fault));
}

std::vector<uint8_t> take_garbage(Arguments& arguments) {
  if (!arguments.accept("random")) return arguments.hex("HEX", kMaxGarbageBytes);
  std::vector<uint8_t> bytes(kRandomGarbageBytes);
  std::random_device source;
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(source());
  return bytes;
}

Json garbage(Simulation& simulation, Arguments& arguments) {
  Fault fault(FaultKind::kGarbage);
  fault.garbage = take_garbage(arguments);
  return add(simulation, arguments, std::move(fault));
}

Json repeat(Simulation& simulation, Arguments& arguments) {
  return add(simulation, arguments, Fault(FaultKind::kRepeat));
}

Json reorder(Simulation& simulation, Arguments& arguments) {
  Fault fault(FaultKind::kReorder);
  fault.delay = std::chrono::milliseconds(arguments.number("MS", kMaxDelayMs));
  return add(simulation, arguments, std::move(fault));
}

Json die(Simulation& simulation, Arguments& arguments) {
  const std::string what = arguments.word("connection or modem");
  if (what != "connection" && what != "modem") throw CommandError("'" + what + "' is neither connection nor modem");
  return add(simulation, arguments, Fault(what == "modem" ? FaultKind::kDieHalf : FaultKind::kCloseHalf));
}

Json inject(Simulation& simulation, Arguments& arguments) {
  const std::vector<uint8_t> bytes = take_garbage(arguments);
  arguments.end();
  const size_t connections = simulation.connections.count();
  simulation.connections.for_each([&](Connection& connection) { connection.send(bytes); });
  return {{"connections", connections}, {"bytes", bytes.size()}};
}

Json clear(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  const size_t removed = simulation.faults.rows().size();
  simulation.faults.clear();
  return {{"removed", removed}};
}

constexpr Command kCommands[] = {
    {"delay", "MS [SERVICE|any [MESSAGE|any [COUNT]]]", "respond MS milliseconds late", delay},
    {"error", "NUMBER [SERVICE|any [MESSAGE|any [COUNT]]]", "refuse with that QMI error, doing nothing", error},
    {"silence", "[SERVICE|any [MESSAGE|any [COUNT]]]", "do what is asked without a response", silence},
    {"cut", "BYTES [SERVICE|any [MESSAGE|any [COUNT]]]", "send only the message's first BYTES, in a frame of that size",
     cut},
    {"garbage", "HEX|random [SERVICE|any [MESSAGE|any [COUNT]]]", "send bytes that are no message instead", garbage},
    {"repeat", "[SERVICE|any [MESSAGE|any [COUNT]]]", "send the response twice", repeat},
    {"reorder", "MS [SERVICE|any [MESSAGE|any [COUNT]]]",
     "respond after the connection's next response, or MS milliseconds late where none comes", reorder},
    {"die", "connection|modem [SERVICE|any [MESSAGE|any [COUNT]]]",
     "send half of the frame, then close the connection or end the process", die},
    {"inject", "HEX|random", "send bytes to every connection now", inject},
    {"clear", "", "remove all faults", clear},
};

}  // namespace

std::span<const Command> fault_commands() {
  return kCommands;
}

}  // namespace pelmar::sim
