// The present reading as metrics that a Prometheus server reads over HTTP.
//
// A reading is served until the next one, but for five seconds at most: while the modem is away, or does not respond,
// its values are not there, and pelmar_modem_up is 0. Counters go on.
#pragma once

#include <memory>
#include <string>

#include "signal/reading.h"

namespace pelmar::cli {

extern const char* const kServeHelp;

class MetricsServer {
 public:
  virtual ~MetricsServer() = default;

  virtual void take(const Reading& reading) = 0;
  virtual void miss(const std::string& problem) = 0;  // a reading that did not come
  virtual std::string url() const = 0;
};

// `address`: HOST:PORT, [IPV6]:PORT, or :PORT for every IPv4 address of the machine; port 0 is one that is free.
// `modem`: its address, as a label. Throws where the address cannot be served, or the build has no Prometheus.
std::unique_ptr<MetricsServer> serve_metrics(const std::string& address, const std::string& modem);

}  // namespace pelmar::cli
