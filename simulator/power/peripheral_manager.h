// The peripheral manager: counts the votes of all processes for the modem's power, and switches it.
//
// The modem has power while at least one voter votes. Every registered voter is notified of each step: events 2 and 3
// when the modem powers up, events 0 and 1 when it powers down. The next step follows when all notified voters have
// acknowledged, or when their time for that is over. A change of the votes meanwhile takes effect after the last step.
// A voter is a connection: its vote ends with the connection or with its process, whichever ends first.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "io/event_loop.h"
#include "io/local_socket.h"
#include "io/stream.h"
#include "manager_protocol.h"

namespace pelmar::sim {

class PeripheralManager final {
 public:
  struct Options {
    std::string socket;
    Admission admission;
    std::string device;                           // the only peripheral
    std::chrono::milliseconds acknowledge_limit;  // for one step
  };

  // Switches the power; returns how long that takes.
  using Switch = std::function<std::chrono::milliseconds(bool on)>;

  // Connections at one time, voters or not.
  static constexpr size_t kMostConnections = 64;

  // The modem is without power at first. Throws std::runtime_error where the socket cannot be served.
  PeripheralManager(EventLoop& loop, WaitingOutput& output, const Options& options, Switch switch_power);
  ~PeripheralManager();

  pm_event state() const { return state_; }
  size_t votes() const;
  std::vector<platform::power::VoterEntry> voters() const;
  uint64_t overdue_acknowledgements() const { return overdue_; }

 private:
  class Session;

  void accept(UniqueFd fd);
  void on_request(Session& session, const platform::power::Request& request);
  int apply(Session& session, const platform::power::Request& request);
  void send_status(Session& session) const;
  void remove(Session& session);
  void advance_later();
  void advance();
  void notify_voters(pm_event event);
  void switch_power(bool on);

  EventLoop& loop_;
  WaitingOutput& output_;
  const std::string device_;
  const std::chrono::milliseconds acknowledge_limit_;
  const Switch switch_power_;
  pm_event state_ = EVENT_PERIPH_IS_OFFLINE;
  bool awaits_acknowledgements_ = false;
  bool is_switching_ = false;  // the power is being switched
  EventLoop::TimerId timer_{};
  uint64_t overdue_ = 0;
  uint64_t last_number_ = 0;
  std::map<uint64_t, std::unique_ptr<Session>> sessions_;
  LocalListener listener_;
};

}  // namespace pelmar::sim
