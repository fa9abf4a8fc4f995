// The arrivals while a command follows the modem: modem events, notices of services going up and down, responses to
// asynchronous commands, steps of the modem's power, and the user's wish to end.
//
// The library's event callbacks carry no user data, so there is one inbox in the process. They run on the framework's
// threads and only copy; the command takes the copies out in order. Where it is too slow, the newest are dropped and
// counted: the framework never waits.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "failure.h"
#include "text.h"

namespace pelmar::cli {

struct Arrival {
  enum class Kind { kEvent, kNotice, kResponse, kPowerStep };

  Kind kind;
  WallClock::time_point time;
  uint32_t number;       // MODEM_API_EVENT_*, MODEM_API_NOTICE_*, the response's result, or enum pm_event
  uint32_t client_type;  // of a notice: MODEM_API_CLIENT_*
  Bytes payload;         // of an event, laid out as its structure in modem_api.h; of a response
  std::optional<Exchange> exchange = std::nullopt;  // of a response
};

class Inbox {
 public:
  Inbox();
  ~Inbox();
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;

  // The library's callbacks.
  static void receive_event(uint32_t id, const uint8_t* payload, uint32_t length);
  static void receive_notice(uint32_t notice, uint32_t client_type);
  static void receive_response(const uint8_t* data, uint32_t length, void* user_data, uint32_t result);

  // Called by the peripheral manager's thread.
  static void receive_power_step(uint32_t event);

  // The next arrival; nothing when the time is up, the user wishes to end, or wake() was called.
  std::optional<Arrival> next(std::optional<Clock::time_point> deadline);

  // How many arrivals next() would return without waiting.
  size_t waiting() const;

  // Waits for that time, whatever arrives, or until `is_over`, which is checked with each wake(). False when the user
  // wishes to end.
  bool pause_until(std::optional<Clock::time_point> deadline, const std::function<bool()>& is_over = nullptr);

  // Wakes next() and pause_until(). If next() does not wait, its next call returns at once.
  void wake();

  // The user wishes to end. Called by the signal thread.
  void interrupt();
  bool is_interrupted() const;

  // Events that were dropped since the last call.
  size_t take_dropped();

 private:
  static void put(Arrival arrival);
  template <typename Condition>
  void wait(std::unique_lock<std::mutex>& lock, std::optional<Clock::time_point> deadline, Condition is_ready);

  static std::atomic<Inbox*> current_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Arrival> arrivals_;
  size_t dropped_ = 0;
  bool is_interrupted_ = false;
  bool is_woken_ = false;
};

}  // namespace pelmar::cli
