// The present reading as metrics that a Prometheus server reads over HTTP.
//
// A reading is served until the next one, but for five seconds at most: while the modem is away, or does not respond,
// its values are not there, and pelmar_modem_up is 0. Counters go on.
#pragma once

#include <optional>
#include <string>

#include "signal/reading.h"

namespace pelmar::cli {

extern const char* const kServeHelp;

// `address`: HOST:PORT, or :PORT for every IPv4 address of the machine; port 0 is one that is free. Prints the address
// of the metrics on standard error. Throws where the address cannot be served, or the build has no Prometheus. The
// server lives as long as the process, because ending it takes two seconds.
void serve_metrics(const std::string& address);

// `problem`: why a reading did not come.
void show_in_metrics(const std::optional<Reading>& reading, const std::string& problem);

}  // namespace pelmar::cli
