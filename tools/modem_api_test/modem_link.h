// For commands that follow the modem: a connection that is opened again whenever the modem was away, and a thread for
// calls of the library, which may block until the modem responds or the call times out.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "command_line.h"
#include "modem_api.h"

namespace pelmar::cli {

// A connection to the vendor-specific service. The library reports no loss of that service, so is_up() is called from
// time to time.
class ModemLink {
 public:
  // `open` opens the connection, also where it is open already, and throws where it cannot; it is called at once.
  // `probe` reads something from the modem over that connection. A refused probe shows that the modem responds; it
  // counts as away if the error is that the client id is void or the modem not ready, or if `needs_value` is set.
  ModemLink(std::function<void()> open, std::function<modem_api_result()> probe, bool needs_value);

  // Whether the modem responds; opens the connection again where the last call found it lost.
  bool is_up();

  // Why the modem is away; empty where it responded last.
  const std::string& problem() const { return problem_; }

 private:
  const std::function<void()> open_;
  const std::function<modem_api_result()> probe_;
  const bool needs_value_;
  std::string problem_;
};

// A value for probes, which every modem with statistics has.
stats_para_data probe_request();

std::string away_text(const std::string& problem);
inline constexpr const char* kNoResponseText = "it does not respond";
inline constexpr const char* kBackText = "the modem is back";

// Runs calls of the library on a thread of their own, so that the printing thread waits for them only as long as it
// wants to.
class ModemThread {
 public:
  explicit ModemThread(const Context& context) : context_(context) {}
  ~ModemThread();
  ModemThread(const ModemThread&) = delete;
  ModemThread& operator=(const ModemThread&) = delete;

  // Starts the call; none is under way. The inbox wakes up when it has ended.
  void start(std::function<void()> call);
  bool is_busy() const { return is_busy_; }

  // Waits for the call. False when the time is up or the user wishes to end before.
  bool wait(std::optional<Clock::time_point> deadline) const;

  // Runs a command that follows the modem. If a call still runs when the command has ended, this ends the process: the
  // call uses objects that a return would destroy.
  void run(const std::function<void()>& command);

 private:
  const Context& context_;
  std::atomic<bool> is_busy_{false};
  std::mutex mutex_;
  std::condition_variable ended_;
  std::thread thread_;
};

}  // namespace pelmar::cli
