// What the modem holds and has done, the DRX value, and the end.
#include "console/command_helpers.h"
#include "simulation.h"

namespace pelmar::sim {

namespace {

std::string_view state_text(Modem::State state) {
  switch (state) {
    case Modem::State::kReady:
      return "ready";
    case Modem::State::kStarting:
      return "starting";
    case Modem::State::kOff:
      return "off";
  }
  return "";
}

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

std::string_view kind_text(FaultKind kind) {
  switch (kind) {
    case FaultKind::kDelay:
      return "delay";
    case FaultKind::kError:
      return "error";
    case FaultKind::kSilence:
      return "silence";
    case FaultKind::kCut:
      return "cut";
    case FaultKind::kGarbage:
      return "garbage";
    case FaultKind::kRepeat:
      return "repeat";
    case FaultKind::kReorder:
      return "reorder";
    case FaultKind::kCloseHalf:
      return "die connection";
    case FaultKind::kDieHalf:
      return "die modem";
  }
  return "";
}

Json describe(Simulation& simulation, const FaultRow& row) {
  const Modem::Slot* const slot = row.service ? simulation.modem.find(*row.service) : nullptr;
  const Service* const service = slot != nullptr ? slot->service.get() : nullptr;
  Json fault = {{"kind", kind_text(row.fault.kind)}};
  if (row.service) fault["service"] = service != nullptr ? service->name() : "ctl";
  if (row.message) fault["message"] = message_text(service, *row.message);
  if (row.times_left) fault["times_left"] = *row.times_left;
  return fault;
}

Json describe_radio(const Simulation& simulation) {
  Json subscriptions = Json::array();
  for (size_t number = 0; number < kSubscriptions; ++number) {
    const NasService::Subscription& subscription = simulation.nas->subscription(number);
    const RadioPicture& picture = simulation.pictures[number];
    const RadioSample radio = picture.sample(simulation.clock.now());
    std::string cell = "none";
    if (const SeenCell* const serving = radio.serving()) {
      cell = std::to_string(serving->site->earfcn) + ':' + std::to_string(serving->site->physical_cell_id);
    }
    subscriptions.push_back({{"sub", number},
                             {"serving_cell", cell},
                             {"locked_cells", picture.lock().size()},
                             {"nr", radio.has_nr()},
                             {"nr_disable_mode", picture.nr_disable_mode()},
                             {"drx", subscription.drx},
                             {"avoid_trm", subscription.avoid_trm}});
  }
  return subscriptions;
}

Json status(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  Json services = Json::array();
  for (const Modem::Slot& slot : simulation.modem.slots()) services.push_back(describe(slot));
  Json faults = Json::array();
  for (const FaultRow& row : simulation.faults.rows()) faults.push_back(describe(simulation, row));
  Json connections = Json::array();
  simulation.connections.for_each([&](Connection& connection) {
    connections.push_back({{"number", connection.number()}, {"process", connection.process()}});
  });
  const Exchange::Counters& counters = simulation.exchange.counters();
  const Storage& storage = simulation.storage;
  return {
      {"state", state_text(simulation.modem.state())},
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
        {"shutdown_notices", simulation.vs->shutdown_notices()}}},
      {"storage",
       {{"nv", storage.nv.count()},
        {"efs", storage.efs.count()},
        {"rfnv", storage.rfnv.count()},
        {"efs_paths", storage.files.count()}}},
      {"statistics",
       {{"reporters", simulation.reporters.granted()},
        {"registrations", simulation.reporters.registrations()},
        {"period_ms", simulation.reports.period().count()}}},
      {"sar_rf_state", simulation.sar->state()},
      {"radio", describe_radio(simulation)},
  };
}

Json fix_drx(Simulation& simulation, Arguments& arguments) {
  const size_t sub = arguments.number("SUB", kSubscriptions - 1);
  simulation.nas->subscription(sub).drx = static_cast<uint32_t>(arguments.number("VALUE", UINT32_MAX));
  arguments.end();
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
    for (const Command& command : group.commands) {
      commands[usage_of(command)] = command.summary;
    }
  }
  return response;
}

Json quit(Simulation& simulation, Arguments& arguments) {
  arguments.end();
  simulation.loop.post([&simulation] { simulation.loop.stop(); });
  return Json::object();
}

constexpr Command kCommands[] = {
    {"status", "", "services, clients, connections, faults, counters", status},
    {"messages", "SERVICE", "the names and numbers of the service's messages", messages},
    {"drx", "SUB VALUE", "fix the DRX value of a subscription until the service restarts", fix_drx},
    {"help", "", "list the commands", help},
    {"quit", "", "end the simulated modem", quit},
};

}  // namespace

std::span<const Command> general_commands() {
  return kCommands;
}

}  // namespace pelmar::sim
