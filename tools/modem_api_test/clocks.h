// The two clocks: that on the wall, for people and files, and one that is never set, to wait by.
#pragma once

#include <chrono>

namespace pelmar::cli {

using WallClock = std::chrono::system_clock;
using Clock = std::chrono::steady_clock;

}  // namespace pelmar::cli
