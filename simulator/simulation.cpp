#include "simulation.h"

#include "console/commands.h"

namespace pelmar::sim {

Simulation::Simulation(const SimulationOptions& options)
    : storage(options.storage, options.max_entries),
      clock(options.held_clock),
      pictures{RadioPicture(0, options.seed), RadioPicture(1, options.seed)},
      statistics(clock, pictures),
      nas(clock, pictures),
      vs(
          storage, [this, time = options.reset_time] { loop.post([this, time] { modem.restart(time); }); }, reporters,
          statistics),
      modem(loop, {&nas, &sar, &vs}),
      power(modem, {options.starting_time, options.reset_time}, options.storage, [this] { return status_text(*this); }),
      exchange(loop, modem),
      connections(loop, output, options.socket, options.admission, exchange, options.exit_when_idle),
      stream(loop, modem, vs),
      reports(loop, modem, vs, clock, reporters, statistics, options.report_period),
      console(options.control, *this) {
  modem.attach(connections);
  if (!options.device.empty()) device.emplace(loop, connections, options.device);
  if (options.qrtr) qrtr.emplace(loop, modem, connections);
  if (!options.scenario.empty()) statistics.play(load_scenario(options.scenario));
  if (!options.pm_socket.empty()) {
    power.switch_power(false);
    manager.emplace(loop, output,
                    PeripheralManager::Options{options.pm_socket, options.admission, options.pm_device,
                                               options.pm_acknowledge_limit},
                    [this](bool on) { return power.switch_power(on); });
  } else if (options.starting_time.count() > 0) {
    modem.restart(options.starting_time);
  }
}

bool Simulation::drop_connection() {
  return output.drop_longest_waiting() || connections.drop_youngest("there is no memory for it");
}

}  // namespace pelmar::sim
