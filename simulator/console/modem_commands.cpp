// Commands for the modem as a whole: its services, its power, the faults of its responses, and its state.
#include <nlohmann/json.hpp>
#include <random>

#include "console/commands.h"
#include "simulation.h"

namespace pelmar::sim {

namespace {

constexpr uint64_t kMaxStartingMs = 3'600'000;
constexpr uint64_t kMaxDelayMs = 3'600'000;
constexpr size_t kMaxGarbageBytes = 4096;
constexpr size_t kRandomGarbageBytes = 64;
constexpr std::string_view kAny = "any";
constexpr const char* kIsOff = "the modem is off: 'power' shows why";

// Indexed by Modem::State and FaultKind.
constexpr std::string_view kStateNames[] = {"ready", "starting", "off"};
constexpr std::string_view kFaultNames[] = {"delay",  "error",   "silence",        "cut",      "garbage",
                                            "repeat", "reorder", "die connection", "die modem"};

// --- services ---

Json switch_service(Simulation& simulation, Arguments& arguments) {
  Modem::Slot& slot = take_service(simulation, arguments);
  const std::string state = arguments.word("up or down");
  if (state != "up" && state != "down") throw CommandError("'" + state + "' is neither up nor down");
  arguments.end();
  const size_t clients = slot.clients.count();
  if (state == "up") simulation.modem.bring_up(slot);
  if (state == "down") simulation.modem.take_down(slot);
  return {{"service", slot.service->name()}, {"up", slot.is_up}, {"revoked", clients - slot.clients.count()}};
}

Json restart(Simulation& simulation, Arguments& arguments) {
  const uint64_t ms = arguments.is_empty() ? 0 : arguments.number("MS", kMaxStartingMs);
  arguments.end();
  if (simulation.modem.state() == Modem::State::kOff) throw std::runtime_error(kIsOff);
  simulation.modem.restart(std::chrono::milliseconds(ms));
  return {{"starting_ms", ms}, {"connections_told", simulation.connections.count()}};
}

// --- power ---

Json show_power(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  Json response = {{"power", simulation.power.has_power()}, {"crashed", simulation.power.is_crashed()}};
  Json& manager = response["manager"];
  if (!simulation.manager) return response;
  Json voters = Json::array();
  for (const auto& voter : simulation.manager->voters()) {
    voters.push_back({{"process", voter.process}, {"name", voter.voter}, {"votes", voter.votes}});
  }
  manager = {{"state", platform::power::state_text(simulation.manager->state())},
             {"votes", simulation.manager->votes()},
             {"overdue_acknowledgements", simulation.manager->overdue_acknowledgements()},
             {"voters", std::move(voters)}};
  return response;
}

Json crash(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  if (simulation.modem.state() == Modem::State::kOff) throw std::runtime_error(kIsOff);
  const ModemPower::Crash crash = simulation.power.crash();
  Json response = {{"restart_level", crash.level}, {"restarts", crash.dump.empty()}};
  if (!crash.dump.empty()) response["dump"] = crash.dump;
  return response;
}

Json start(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  if (!simulation.power.start()) throw std::runtime_error("no crash has left the modem down");
  return Json::object();
}

// --- faults ---

// [SERVICE|any [MESSAGE|any [COUNT]]]
void take_target(Simulation& simulation, Arguments& arguments, Fault& fault) {
  const Service* service = nullptr;
  if (!arguments.is_empty() && !arguments.accept(kAny)) {
    if (arguments.accept("ctl")) {
      fault.service = qmi::kControlService;
    } else {
      service = take_service(simulation, arguments).service;
      fault.service = service->id();
    }
  }
  if (!arguments.is_empty() && !arguments.accept(kAny)) fault.message = take_message(service, arguments);
  if (!arguments.is_empty()) fault.times_left = arguments.number<uint32_t>("COUNT");
  if (fault.times_left == 0) throw CommandError("COUNT 0 would do nothing");
  arguments.end();
}

std::vector<uint8_t> take_garbage(Arguments& arguments) {
  if (!arguments.accept("random")) return arguments.hex("HEX", kMaxGarbageBytes);
  std::vector<uint8_t> bytes(kRandomGarbageBytes);
  std::random_device source;
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(source());
  return bytes;
}

template <FaultKind Kind>
Json add_fault(Simulation& simulation, Arguments& arguments) {
  Fault fault(Kind);
  if (Kind == FaultKind::kDelay || Kind == FaultKind::kReorder) {
    fault.delay = std::chrono::milliseconds(arguments.number("MS", kMaxDelayMs));
  } else if (Kind == FaultKind::kError) {
    fault.error = arguments.number<uint16_t>("NUMBER");
    if (fault.error == QMI_ERR_NONE_V01) throw CommandError("error 0 is success");
  } else if (Kind == FaultKind::kCut) {
    fault.cut_to = arguments.number<uint16_t>("BYTES");
  } else if (Kind == FaultKind::kGarbage) {
    fault.garbage = take_garbage(arguments);
  } else if (Kind == FaultKind::kDieHalf) {
    const std::string what = arguments.word("connection or modem");
    if (what != "connection" && what != "modem") throw CommandError("'" + what + "' is neither connection nor modem");
    if (what == "connection") fault.kind = FaultKind::kCloseHalf;
  }
  take_target(simulation, arguments, fault);
  simulation.exchange.faults.push_back(std::move(fault));
  return {{"faults", simulation.exchange.faults.size()}};
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
  const size_t removed = simulation.exchange.faults.size();
  simulation.exchange.faults.clear();
  return {{"removed", removed}};
}

// --- the state ---

Json describe(const Modem::Slot& slot) {
  Json clients = Json::array();
  slot.clients.for_each([&](uint8_t client, Connection& owner) {
    clients.push_back({{"id", client}, {"connection", owner.number()}, {"process", owner.process()}});
  });
  const Service& service = *slot.service;
  const std::string version = std::to_string(service.major_version()) + '.' + std::to_string(service.minor_version());
  return {{"name", service.name()},
          {"id", service.id()},
          {"version", version},
          {"up", slot.is_up},
          {"clients", std::move(clients)}};
}

Json describe(Simulation& simulation, const Fault& fault) {
  const Modem::Slot* const slot = fault.service ? simulation.modem.find(*fault.service) : nullptr;
  const Service* const service = slot != nullptr ? slot->service : nullptr;
  Json response = {{"kind", kFaultNames[static_cast<size_t>(fault.kind)]}};
  if (fault.service) response["service"] = service != nullptr ? service->name() : "ctl";
  if (fault.message) response["message"] = message_text(service, *fault.message);
  if (fault.times_left) response["times_left"] = *fault.times_left;
  return response;
}

Json describe_radio(Simulation& simulation, size_t number) {
  const NasService::Subscription& subscription = simulation.nas.subscription(number);
  const RadioPicture& picture = simulation.pictures[number];
  const RadioSample radio = picture.sample(simulation.clock.now());
  std::string cell = "none";
  if (const SeenCell* const serving = radio.serving()) {
    cell = std::to_string(serving->site->earfcn) + ':' + std::to_string(serving->site->physical_cell_id);
  }
  return {{"sub", number},
          {"serving_cell", cell},
          {"locked_cells", picture.lock().size()},
          {"nr", radio.has_nr()},
          {"nr_disable_mode", picture.nr_disable_mode()},
          {"drx", subscription.drx},
          {"avoid_trm", subscription.avoid_trm}};
}

Json status(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  Json services = Json::array();
  for (const Modem::Slot& slot : simulation.modem.slots()) services.push_back(describe(slot));
  Json faults = Json::array();
  for (const Fault& fault : simulation.exchange.faults) faults.push_back(describe(simulation, fault));
  Json connections = Json::array();
  simulation.connections.for_each([&](Connection& connection) {
    connections.push_back({{"number", connection.number()}, {"process", connection.process()}});
  });
  Json radio = Json::array();
  for (size_t number = 0; number < kSubscriptions; ++number) radio.push_back(describe_radio(simulation, number));
  const Exchange::Counters& counters = simulation.exchange.counters();
  const Storage& storage = simulation.storage;
  return {
      {"state", kStateNames[static_cast<size_t>(simulation.modem.state())]},
      {"clock_ms", simulation.clock.now().count()},
      {"services", std::move(services)},
      {"connections", std::move(connections)},
      {"faults", std::move(faults)},
      {"counters",
       {{"connections", simulation.connections.accepted()},
        {"dropped_connections", counters.dropped_connections},
        {"requests", counters.requests},
        {"failures", counters.failures},
        {"faults", counters.faults},
        {"ignored_frames", counters.ignored},
        {"indications", simulation.modem.indications()},
        {"shutdown_notices", simulation.vs.shutdown_notices()}}},
      {"storage",
       {{"nv", storage.nv.count()},
        {"efs", storage.efs.count()},
        {"rfnv", storage.rfnv.count()},
        {"efs_paths", storage.files.count()}}},
      {"statistics",
       {{"reporters", simulation.reporters.granted()},
        {"registrations", simulation.reporters.registrations()},
        {"period_ms", simulation.reports.period().count()}}},
      {"sar_rf_state", simulation.sar.state()},
      {"radio", std::move(radio)},
  };
}

Json fix_drx(Simulation& simulation, Arguments& arguments) {
  const size_t sub = arguments.number("SUB", kSubscriptions - 1);
  const auto drx = arguments.number<uint32_t>("VALUE");
  arguments.end();
  simulation.nas.subscription(sub).drx = drx;
  return Json::object();
}

Json messages(Simulation& simulation, Arguments& arguments) {
  const Service& service = *take_service(simulation, arguments).service;
  arguments.end();
  Json names = Json::array();
  for (const MessageRow& row : service.messages()) names.push_back(message_text(&service, row.id));
  return {{"messages", std::move(names)}};
}

Json help(Simulation&, Arguments& arguments) {
  arguments.end();
  Json response;
  for (const CommandGroup& group : command_groups()) {
    Json& commands = response[std::string(group.title)];
    for (const Command& command : group.commands) commands[usage_of(command)] = command.summary;
  }
  return response;
}

Json quit(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  simulation.loop.post([&simulation] { simulation.loop.stop(); });
  return Json::object();
}

// --- the groups ---

constexpr Command kServiceRows[] = {
    {"service", "SERVICE up|down", "take a service down (its clients are revoked) or up again", switch_service},
    {"restart", "[MS]", "restart the whole modem; it is not ready for MS milliseconds (0)", restart},
};

constexpr Command kPowerRows[] = {
    {"power", "", "whether the modem has power, and who votes for it", show_power},
    {"crash", "", "crash: it restarts alone, or leaves a dump and stays down, as the restart level says", crash},
    {"start", "", "start a modem that a crash has left down", start},
};

using enum FaultKind;
constexpr Command kFaultRows[] = {
    {"delay", "MS [SERVICE|any [MESSAGE|any [COUNT]]]", "respond MS milliseconds late", add_fault<kDelay>},
    {"error", "NUMBER [SERVICE|any [MESSAGE|any [COUNT]]]", "refuse with that QMI error, doing nothing",
     add_fault<kError>},
    {"silence", "[SERVICE|any [MESSAGE|any [COUNT]]]", "carry out the request, but send no response",
     add_fault<kSilence>},
    {"cut", "BYTES [SERVICE|any [MESSAGE|any [COUNT]]]", "send only the message's first BYTES, in a frame of that size",
     add_fault<kCut>},
    {"garbage", "HEX|random [SERVICE|any [MESSAGE|any [COUNT]]]", "send bytes that are no message instead",
     add_fault<kGarbage>},
    {"repeat", "[SERVICE|any [MESSAGE|any [COUNT]]]", "send the response twice", add_fault<kRepeat>},
    {"reorder", "MS [SERVICE|any [MESSAGE|any [COUNT]]]",
     "respond after the connection's next response, or MS milliseconds late where none comes", add_fault<kReorder>},
    {"die", "connection|modem [SERVICE|any [MESSAGE|any [COUNT]]]",
     "send half of the frame, then close the connection or end the process", add_fault<kDieHalf>},
    {"inject", "HEX|random", "send bytes to every connection now", inject},
    {"clear", "", "remove all faults", clear},
};

constexpr Command kGeneralRows[] = {
    {"status", "", "services, clients, connections, faults, counters", status},
    {"messages", "SERVICE", "the names and numbers of the service's messages", messages},
    {"drx", "SUB VALUE", "fix the DRX value of a subscription until the service restarts", fix_drx},
    {"help", "", "list the commands", help},
    {"quit", "", "end the simulated modem", quit},
};

}  // namespace

constinit const CommandGroup kServiceCommands = {"Services and the modem", kServiceRows};
constinit const CommandGroup kPowerCommands = {"Power and crashes", kPowerRows};
constinit const CommandGroup kFaultCommands = {"Faults of the next responses", kFaultRows};
constinit const CommandGroup kGeneralCommands = {"The rest", kGeneralRows};

std::string status_text(Simulation& simulation) {
  Arguments none("");
  return status(simulation, none).dump(2, ' ', false, Json::error_handler_t::replace);
}

}  // namespace pelmar::sim
