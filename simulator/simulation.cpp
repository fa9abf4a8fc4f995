#include "simulation.h"

#include <memory>

#include "power/crash_dump.h"

namespace pelmar::sim {

template <typename S, typename... Arguments>
S* Simulation::add_service(Arguments&&... arguments) {
  auto service = std::make_unique<S>(std::forward<Arguments>(arguments)...);
  S* const added = service.get();
  modem.add(std::move(service));
  return added;
}

Simulation::Simulation(const SimulationOptions& options)
    : storage(options.storage, options.max_entries),
      clock(options.held_clock),
      pictures{RadioPicture(0, options.seed), RadioPicture(1, options.seed)},
      statistics(clock, pictures),
      modem(loop),
      power(modem, {options.starting_time, options.reset_time},
            [this, directory = options.storage] { return write_crash_dump(directory, *this); }),
      exchange(loop, modem, faults),
      connections(loop, output, options.socket, options.admission, exchange, options.exit_when_idle,
                  [this] { loop.stop(); }),
      stream(loop, modem),
      reports(loop, modem, clock, reporters, statistics, options.report_period),
      console(loop, output, options.control, *this) {
  auto reset = [this, time = options.reset_time] { loop.post([this, time] { modem.restart(time); }); };
  nas = add_service<NasService>(clock, pictures);
  sar = add_service<SarService>();
  vs = add_service<VsService>(storage, reset, reporters, statistics);
  modem.attach(connections);
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
