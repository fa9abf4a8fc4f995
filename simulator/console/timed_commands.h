// The commands of the scenario that is played, run at their times by the modem's clock.
//
// While the clock is held, commands run when the user moves it past their times. If it moves over a whole round, only
// the due commands of the present round run. A failed command is reported on standard error with its place in the file.
#pragma once

#include <cstddef>

#include "io/event_loop.h"

namespace pelmar::sim {

struct Simulation;

class TimedCommands {
 public:
  explicit TimedCommands(Simulation& simulation) : simulation_(simulation) {}

  // Another scenario is played, or none.
  void scenario_changed();
  // The clock was held, moved or let run. Commands that are due run after the present event.
  void clock_changed();

 private:
  void run_due();

  Simulation& simulation_;
  double done_ = 0;         // the second of the scenario up to which commands have run
  double round_start_ = 0;  // when the next command's round began
  size_t next_ = 0;         // the next command's place
  EventLoop::TimerId timer_{};
};

}  // namespace pelmar::sim
