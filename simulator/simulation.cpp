#include "simulation.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "console/commands.h"

namespace pelmar::sim {

namespace {

// `replay`: the capture that is played, which the trace does not replace.
UniqueFd open_trace(const std::string& name, const std::string& replay) {
  if (name == "-") throw std::runtime_error("the trace cannot go to standard output: name a file or a FIFO");
  std::string problem;
  std::error_code not_there;
  if (std::filesystem::equivalent(name, replay, not_there)) problem = "it is the capture that --replay plays";
  UniqueFd file(name.empty() || !problem.empty() ? -1 : qmi::open_capture(name, problem));
  if (!problem.empty()) throw std::runtime_error("cannot write the trace '" + name + "': " + problem);
  return file;
}

std::unique_ptr<qmi::CaptureWriter> start_trace(const UniqueFd& file, const std::string& name) {
  if (!file) return nullptr;
  return std::make_unique<qmi::CaptureWriter>(file.get(), "modem_sim " PELMAR_VERSION, [name](int error) {
    fprintf(stderr, "modem_sim: the trace '%s' ends here: %s\n", name.c_str(), strerror(error));
  });
}

std::vector<Service*> services_of(Simulation& simulation) {
  std::vector<Service*> services = {&simulation.nas, &simulation.sar, &simulation.vs};
  return simulation.replay ? simulation.replay->with_recorded_services(services) : services;
}

}  // namespace

Simulation::Simulation(const SimulationOptions& options)
    : storage(options.storage, options.max_entries),
      clock(options.held_clock),
      pictures{RadioPicture(0, options.seed), RadioPicture(1, options.seed)},
      statistics(clock, pictures),
      nas(clock, pictures),
      vs(
          storage, [this, time = options.reset_time] { loop.post([this, time] { modem.restart(time); }); }, reporters,
          statistics),
      replay(options.replay.empty() ? nullptr : std::make_unique<Replay>(loop, options.replay, options.replay_speed)),
      modem(loop, services_of(*this)),
      power(modem, {options.starting_time, options.reset_time}, options.storage, [this] { return status_text(*this); }),
      exchange(loop, modem, replay.get()),
      connections(loop, output, options.socket, options.admission, exchange, options.exit_when_idle),
      stream(loop, modem, vs),
      reports(loop, modem, vs, clock, reporters, statistics, options.report_period),
      timed_commands(*this),
      console(options.control, *this) {
  modem.attach(connections);
  if (replay) replay->attach(modem, [this, time = options.reset_time] { modem.restart(time); });
  if (!options.device.empty()) device.emplace(loop, connections, options.device);
  if (options.qrtr) qrtr.emplace(loop, modem, connections);
  for (uint16_t sub = 0; sub < kSubscriptions; ++sub) {
    pictures[sub].attenuate_by([this, sub] { return statistics.attenuation(sub); });
  }
  if (!options.scenario.empty()) play(options.scenario);
  if (!options.pm_socket.empty()) {
    power.switch_power(false);
    manager.emplace(loop, output,
                    PeripheralManager::Options{options.pm_socket, options.admission, options.pm_device,
                                               options.pm_acknowledge_limit},
                    [this](bool on) { return power.switch_power(on); });
  } else if (options.starting_time.count() > 0) {
    modem.restart(options.starting_time);
  }
  // Last, because it replaces an earlier trace, which a modem that cannot start leaves as it is.
  trace_file = open_trace(options.trace, options.replay);
  trace = start_trace(trace_file, options.trace);
  connections.trace_to(trace.get());
}

void Simulation::play(const std::string& scenario_file) {
  statistics.play(load_scenario(scenario_file, [this](const std::string& line) { check_command(*this, line); }));
  timed_commands.scenario_changed();
}

bool Simulation::drop_connection() {
  return output.drop_longest_waiting() || connections.drop_youngest("there is no memory for it");
}

}  // namespace pelmar::sim
