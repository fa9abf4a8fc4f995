// All parts of a running simulated modem, put together.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "connection.h"
#include "console.h"
#include "event_loop.h"
#include "exchange.h"
#include "faults.h"
#include "modem.h"
#include "storage.h"
#include "vs_service.h"

namespace pelmar::sim {

struct SimulationOptions {
  std::string socket;
  std::string storage;
  std::string control;
  size_t max_entries = Storage::kDefaultMaxEntries;
  std::chrono::milliseconds starting_time{0};  // not ready for that long after the start
  std::chrono::milliseconds reset_time{200};   // not ready for that long after a reset by a client
  std::optional<std::chrono::seconds> exit_when_idle;
};

struct Simulation {
  // Throws std::runtime_error where a socket or the storage cannot be had.
  explicit Simulation(const SimulationOptions& options);

  // Returns after loop.stop().
  void run() { loop.run(); }

  EventLoop loop;
  Storage storage;
  Faults faults;
  Modem modem;
  Exchange exchange;
  Connections connections;
  Console console;
  VsService* vs = nullptr;  // lives in the modem
};

}  // namespace pelmar::sim
