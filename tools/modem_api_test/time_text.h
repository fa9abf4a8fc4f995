// Times of arrivals as text.
#pragma once

#include <optional>
#include <string>

#include "clocks.h"

namespace pelmar::cli {

std::string local_text(WallClock::time_point time);  // "08:15:30.125", for people
std::string utc_text(WallClock::time_point time);    // "2024-05-17T06:15:30.125Z", for scripts

// The reverse of utc_text(); nothing for anything else.
std::optional<WallClock::time_point> parse_utc_text(const std::string& text);

}  // namespace pelmar::cli
