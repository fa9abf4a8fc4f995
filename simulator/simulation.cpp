#include "simulation.h"

#include <memory>

namespace pelmar::sim {

Simulation::Simulation(const SimulationOptions& options)
    : storage(options.storage, options.max_entries),
      modem(loop),
      exchange(loop, modem, faults),
      connections(loop, options.socket, exchange, options.exit_when_idle, [this] { loop.stop(); }),
      console(loop, options.control, *this) {
  auto reset = [this, time = options.reset_time] { loop.post([this, time] { modem.restart(time); }); };
  auto vendor_specific = std::make_unique<VsService>(storage, reset);
  vs = vendor_specific.get();
  modem.add(std::move(vendor_specific));
  modem.attach(connections);
  if (options.starting_time.count() > 0) modem.restart(options.starting_time);
}

}  // namespace pelmar::sim
