// The live view of the signal on a terminal, whose whole screen it takes and redraws in place.
//
// The screen is the terminal's second one. The first one comes back at the end: the object's, the process's exit, or a
// signal that kills it. A stopped process gives the terminal back too.
#pragma once

#include <string>

#include "output.h"
#include "signal/live_view.h"

namespace pelmar::cli {

// Whether pictures can be redrawn on the output.
bool is_screen(const Output& output);

// One at a time. Prints its last picture where the screen was when it ends.
class LiveWatch {
 public:
  LiveWatch(Output& output, std::string modem, uint32_t rate);
  ~LiveWatch();
  LiveWatch(const LiveWatch&) = delete;
  LiveWatch& operator=(const LiveWatch&) = delete;

  void take(const Reading& reading);
  void miss(const std::string& problem);  // a reading that did not come

 private:
  TerminalSize size() const;
  void draw();

  Output& output_;
  const Style style_;
  LiveState state_;
  Clock::time_point lost_;
  Reading last_;
  History history_;
};

}  // namespace pelmar::cli
