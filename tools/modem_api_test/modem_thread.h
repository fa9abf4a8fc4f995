// Calls of the library on a thread of their own. A call may last as long as the modem wants, so the thread that prints
// starts it here and waits for it no longer than suits.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "command_line.h"

namespace pelmar::cli {

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

  // Runs a command that follows the modem; the command ends by itself then. Where a call is still under way behind it,
  // the process ends here: the call uses what would be destroyed, and no thread waits for it.
  void run(const std::function<void()>& command);

 private:
  const Context& context_;
  std::atomic<bool> is_busy_{false};
  std::mutex mutex_;
  std::condition_variable ended_;
  std::thread thread_;
};

}  // namespace pelmar::cli
