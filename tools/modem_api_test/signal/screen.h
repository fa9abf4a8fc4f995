// The live view of the signal on a terminal, whose whole screen it takes and redraws in place.
//
// The screen is the terminal's second one, and keys are read one by one, without echo. The first screen and the
// terminal's own modes come back at the end: the object's, the process's exit, or a signal that kills it. A stopped
// process gives the terminal back too.
//
// A thread of its own takes the keys, so that they act also while the modem does not respond.
#pragma once

#include <mutex>
#include <thread>

#include "inbox.h"
#include "output.h"
#include "signal/live_view.h"

namespace pelmar::cli {

// Whether pictures can be redrawn on the output.
bool is_screen(const Output& output);

// One at a time. Prints its last picture where the screen was when it ends.
class LiveWatch {
 public:
  // The key q interrupts the inbox.
  LiveWatch(Output& output, Inbox& inbox, std::string modem, uint32_t rate);
  ~LiveWatch();
  LiveWatch(const LiveWatch&) = delete;
  LiveWatch& operator=(const LiveWatch&) = delete;

  void take(const Reading& reading);
  void miss(const std::string& problem);  // a reading that did not come

 private:
  TerminalSize size() const;
  std::vector<std::string> picture(TerminalSize size) const;
  void draw();
  void read_keys();
  void act_on(char key);

  Output& output_;
  Inbox& inbox_;
  const Style style_;
  std::mutex mutex_;  // guards what follows, and drawing
  LiveState state_;
  Clock::time_point lost_;
  Shown shown_;
  Shown frozen_;    // of a paused view
  UniqueFd ended_;  // an eventfd
  std::thread keys_;
};

}  // namespace pelmar::cli
