// A terminal whose whole screen shows one picture, redrawn in place.
//
// The screen is the terminal's second one: what stood there before comes back at the end, whatever the end is: the
// object's, the process's exit, or a signal that kills it. A stopped process gives the terminal back too.
#pragma once

#include <string>
#include <vector>

#include "output.h"
#include "signal/live_view.h"

namespace pelmar::cli {

// Whether pictures can be redrawn on the output.
bool is_screen(const Output& output);

// Whether colours are wanted there: NO_COLOR is not set.
bool wants_colour();

// What the terminal's character set has.
Glyphs screen_glyphs();

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

}  // namespace pelmar::cli
