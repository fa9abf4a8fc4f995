// A terminal whose whole screen shows one picture, redrawn in place, and the live view of the signal on it.
//
// The screen is the terminal's second one: what stood there before comes back at the end, whatever the end is: the
// object's, the process's exit, or a signal that kills it. A stopped process gives the terminal back too.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "output.h"
#include "signal/live_view.h"

namespace pelmar::cli {

// Whether pictures can be redrawn on the output.
bool is_screen(const Output& output);

class Screen {
 public:
  // One at a time.
  explicit Screen(Output& output);
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  TerminalSize size() const;

  // Lines that are no wider than the screen, and no more than it has rows. Draws nothing while the terminal is given
  // back.
  void draw(const std::vector<std::string>& lines);

 private:
  Output& output_;
};

// A live view of the readings on a screen. Prints its last picture where the screen was when it ends.
class LiveWatch {
 public:
  LiveWatch(Output& output, std::string modem, uint32_t rate);
  ~LiveWatch();
  LiveWatch(const LiveWatch&) = delete;
  LiveWatch& operator=(const LiveWatch&) = delete;

  void take(const Reading& reading);
  void miss(const std::string& problem);  // a reading that did not come

 private:
  void draw();

  Output& output_;
  std::optional<Screen> screen_;
  const Style style_;
  LiveState state_;
  Clock::time_point lost_;
  Reading last_;
  History history_;
};

}  // namespace pelmar::cli
