// A reading for people who read it once, in a log or on paper, and as a JSON document for scripts.
#pragma once

#include <string>

#include "json_fwd.h"
#include "signal/reading.h"

namespace pelmar::cli {

std::string reading_text(const Reading& reading);

// One line a subscription, as the heading explains it.
inline constexpr const char* kReadingLineHeading =
    "transmit power in dBm; RSRP in dBm / SNR in dB of the strongest chain, by carrier: the primary one, then "
    "secondary 1, 2, ...";
std::string reading_line(const Reading& reading);

Json reading_json(const Reading& reading);

// "rx 1 2 3 0 (was 0 1 2 3), tx 1 3": the antennas of the chains; empty where nothing is known.
std::string antennas_text(const SubscriptionReading& reading);

// "LTE, transmit power 12 dBm".
std::string state_text(const SubscriptionReading& reading);

}  // namespace pelmar::cli
