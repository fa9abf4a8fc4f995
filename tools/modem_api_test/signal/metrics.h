// The present reading as metrics that a Prometheus server reads over HTTP.
//
// A reading is served until the next one, but for five seconds at most: while the modem is away, or does not respond,
// its values are not there, and pelmar_modem_up is 0. Counters go on.
#pragma once

#include <functional>

#include "signal/reading.h"

namespace pelmar::cli {

extern const char* const kServeHelp;

// Takes each reading or, in `problem`, why it did not come.
using TakeReading = std::function<void(const std::optional<Reading>& reading, const std::string& problem)>;

// Serves what the returned function takes. `address`: HOST:PORT, or :PORT for every IPv4 address of the machine; port 0
// is one that is free. Prints the address of the metrics on standard error. Throws where the address cannot be served,
// or the build has no Prometheus. The server and its counters live as long as the process, because ending it takes two
// seconds.
TakeReading serve_metrics(const std::string& address);

}  // namespace pelmar::cli
