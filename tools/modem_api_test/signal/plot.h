// A recording as a picture: RSRP and SNR of each carrier over time, one above the other, as an SVG document.
#pragma once

#include <string>

#include "signal/recording.h"

namespace pelmar::cli {

// The recording has at least one track.
std::string plot_svg(const Recording& recording);

}  // namespace pelmar::cli
