// All parts of a running simulated modem.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "capture.h"
#include "console/console.h"
#include "console/timed_commands.h"
#include "io/event_loop.h"
#include "io/local_socket.h"
#include "power/modem_power.h"
#include "power/peripheral_manager.h"
#include "qmi/connection.h"
#include "qmi/device_server.h"
#include "qmi/exchange.h"
#include "qmi/modem.h"
#include "qmi/qrtr_server.h"
#include "radio/radio_picture.h"
#include "replay/replay.h"
#include "services/event_stream.h"
#include "services/radio_services.h"
#include "services/vs_service.h"
#include "statistics/reports.h"
#include "statistics/statistics.h"
#include "storage/storage.h"

namespace pelmar::sim {

struct SimulationOptions {
  std::string socket;
  std::string storage;
  std::string control;
  std::string device;  // the link of a character device that serves clients as well; empty: none
  bool qrtr = false;   // serve clients of the kernel's QRTR as well
  Admission admission =
      Admission::kThisUserAndRoot;  // of clients and voters; the control socket is never for every user
  size_t max_entries = 4096;
  std::chrono::milliseconds starting_time{0};  // not ready for that long after the start
  std::chrono::milliseconds reset_time{200};   // not ready for that long after a reset by a client, or a crash
  std::string pm_socket;                       // of the peripheral manager; empty: none, the modem always has power
  std::string pm_device = "modem";             // what voters call the modem
  std::chrono::milliseconds pm_acknowledge_limit{2000};
  std::optional<std::chrono::seconds> exit_when_idle;
  uint64_t seed = 1;  // of the radio picture
  std::optional<ModemClock::Time> held_clock;
  std::chrono::milliseconds report_period{1000};
  std::string scenario;  // a file, played from the start
  std::string trace;     // the file of a capture that is written; empty: none
  std::string replay;    // the file of a capture that gives the responses; empty: none
  double replay_speed = 1;
};

struct Simulation {
  // Throws std::runtime_error where a socket, the storage or a file of the options cannot be opened.
  explicit Simulation(const SimulationOptions& options);

  // Returns after loop.stop().
  void run() { loop.run(); }

  // Plays a scenario from now on. Throws ScenarioError.
  void play(const std::string& scenario_file);

  // Closes one connection to free its memory: the one that has read nothing for the longest time, or else the youngest.
  // False where there is none.
  bool drop_connection();

  UniqueFd trace_file;
  std::unique_ptr<qmi::CaptureWriter> trace;  // null: none
  WaitingOutput output;                       // destroyed after the loop, whose posted tasks hold connections
  EventLoop loop;
  Storage storage;
  ModemClock clock;
  RadioPictures pictures;
  Reporters reporters;
  Statistics statistics;
  NasService nas;
  SarService sar;
  VsService vs;
  std::unique_ptr<Replay> replay;  // null: the services respond
  Modem modem;
  ModemPower power;
  std::optional<PeripheralManager> manager;
  Exchange exchange;
  Connections connections;
  std::optional<DeviceServer> device;
  std::optional<QrtrServer> qrtr;
  EventStream stream;
  StatisticReports reports;
  TimedCommands timed_commands;
  Console console;
};

}  // namespace pelmar::sim
