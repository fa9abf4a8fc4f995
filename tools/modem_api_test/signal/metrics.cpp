#include "signal/metrics.h"

#include "failure.h"

#ifdef PELMAR_PROMETHEUS

#include <netdb.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>
#include <sys/socket.h>

#include <mutex>
#include <utility>

#include "modem_link.h"
#include "unique_fd.h"

namespace pelmar::cli {

namespace {

using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<prometheus::ClientMetric::Label>;

constexpr std::chrono::seconds kLongestAge{5};

MetricFamily family_of(const std::string& name, const std::string& help, MetricType type = MetricType::Gauge) {
  return {"pelmar_" + name, help, type, {}};
}

void add(MetricFamily& family, double value, Labels labels = {}) {
  prometheus::ClientMetric& metric = family.metric.emplace_back();
  metric.label = std::move(labels);
  (family.type == MetricType::Gauge ? metric.gauge.value : metric.counter.value) = value;
}

void add_levels(MetricFamily& family, const Levels& levels, Labels labels) {
  labels.push_back({"antenna", ""});
  for (size_t chain = 0; chain < kChains; ++chain) {
    labels.back().value = std::to_string(chain);
    if (!std::isnan(levels[chain])) add(family, levels[chain], labels);
  }
}

void add_reading(std::vector<MetricFamily>& families, const Reading& reading) {
  MetricFamily mode = family_of("mode_info", "System mode, as a label of the value 1");
  MetricFamily power = family_of("transmit_power_dbm", "Transmit power");
  MetricFamily channel = family_of("channel", "EARFCN of the carrier");
  MetricFamily pci = family_of("pci", "Physical cell id of the carrier");
  std::vector<MetricFamily> levels;
  for (const Measure& measure : kMeasures) {
    levels.push_back(family_of(std::string(measure.word) + '_' + measure.unit,
                               std::string(measure.title) + " at each receive antenna"));
  }
  for (const SubscriptionReading& sub : reading.subs) {
    Labels labels = {{"subscription", std::to_string(sub.sub)}};
    if (sub.mode) add(mode, 1, {labels[0], {"mode", mode_text(sub.mode)}});
    if (sub.tx_power) add(power, *sub.tx_power, labels);
    labels.emplace_back();
    for (const Carrier& carrier : sub.carriers) {
      labels[1] = {"carrier", word_of(carrier.name)};
      if (carrier.channel) add(channel, *carrier.channel, labels);
      if (carrier.pci) add(pci, *carrier.pci, labels);
      for (size_t i = 0; i < levels.size(); ++i) add_levels(levels[i], carrier.*kMeasures[i].levels, labels);
    }
  }
  families.insert(families.end(), {mode, power, channel, pci});
  families.insert(families.end(), levels.begin(), levels.end());
}

// The web server gives no reason where it cannot have an address; the system does.
void require_free(const std::string& host, const std::string& port, const std::string& step) {
  const bool has_brackets = host.starts_with('[') && host.ends_with(']');
  const std::string bare = has_brackets ? host.substr(1, host.size() - 2) : host;
  addrinfo hints{};
  hints.ai_family = host.empty() ? AF_INET : AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (const int error = getaddrinfo(host.empty() ? nullptr : bare.c_str(), port.c_str(), &hints, &found)) {
    throw Failure(step, gai_strerror(error), "Give HOST:PORT or :PORT, for example 127.0.0.1:9464.");
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
  const UniqueFd fd(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (bind(fd.get(), found->ai_addr, found->ai_addrlen) == 0) return;
  throw Failure::of_system(step, "Name another address; port 0 is any port that is free.");
}

// Readings come from the command's thread, scrapes from a thread of the web server's.
class PrometheusServer : public MetricsServer, private prometheus::Collectable {
 public:
  PrometheusServer(const std::string& address, std::string modem) : modem_(std::move(modem)) {
    const size_t colon = address.rfind(':');
    const std::string host = address.substr(0, colon);
    const std::string port = colon == address.npos ? "" : address.substr(colon + 1);
    const std::string step = "serving metrics at " + address;
    require_free(host, port, step);
    try {
      exposer_.emplace(host.empty() ? port : address, 1);
    } catch (const std::exception&) {
      throw Failure(step,
                    std::string("the web server, civetweb, ") +
                        (host.starts_with('[') ? "is built without IPv6, as Debian's is" : "refuses the address"));
    }
    exposer_->RegisterCollectable(self_);
    url_ = "http://" + (host.empty() ? "0.0.0.0" : host) + ':' + std::to_string(exposer_->GetListeningPorts().front()) +
           "/metrics";
  }

  void take(const Reading& reading) override {
    const std::lock_guard lock(mutex_);
    reading_ = reading;
    time_ = Clock::now();
    ++readings_;
    restarts_ += std::exchange(was_lost_, false) ? 1 : 0;
  }

  // A modem that was only slow did not restart.
  void miss(const std::string& problem) override {
    const std::lock_guard lock(mutex_);
    reading_.reset();
    was_lost_ |= problem != kNoResponseText;
  }

  std::string url() const override { return url_; }

 private:
  std::vector<MetricFamily> Collect() const override {
    const std::lock_guard lock(mutex_);
    const bool is_up = reading_ && Clock::now() - time_ < kLongestAge;
    std::vector<MetricFamily> families = {family_of("modem_up", "1 while the modem responds, 0 while it is away")};
    add(families[0], is_up ? 1 : 0, {{"modem", modem_}});
    const auto add_counter = [&families](const char* name, const char* help, uint64_t value) {
      add(families.emplace_back(family_of(name, help, MetricType::Counter)), static_cast<double>(value));
    };
    add_counter("readings_total", "Readings of the signal", readings_);
    add_counter("errors_total", "Requests that the modem refused or did not respond to", failed_exchanges());
    add_counter("restarts_total", "Times that the modem came back after its connection was lost", restarts_);
    if (is_up) add_reading(families, *reading_);
    return families;
  }

  const std::string modem_;
  std::string url_;
  mutable std::mutex mutex_;
  std::optional<Reading> reading_;
  Clock::time_point time_;
  uint64_t readings_ = 0;
  uint64_t restarts_ = 0;
  bool was_lost_ = false;
  // The web server takes shared ownership, which nobody needs: it ends before this object does.
  const std::shared_ptr<prometheus::Collectable> self_{static_cast<prometheus::Collectable*>(this),
                                                       [](prometheus::Collectable*) {}};
  std::optional<prometheus::Exposer> exposer_;
};

}  // namespace

const char* const kServeHelp =
    "serve the readings as Prometheus metrics at http://ADDRESS/metrics, for example 127.0.0.1:9464, or :9464 for "
    "every IPv4 address of the machine; port 0 is any that is free";

std::unique_ptr<MetricsServer> serve_metrics(const std::string& address, const std::string& modem) {
  return std::make_unique<PrometheusServer>(address, modem);
}

}  // namespace pelmar::cli

#else

namespace pelmar::cli {

const char* const kServeHelp = "serve the readings as Prometheus metrics (not in this build: it lacks prometheus-cpp)";

std::unique_ptr<MetricsServer> serve_metrics(const std::string& /*address*/, const std::string& /*modem*/) {
  throw Failure::of_usage("this build has no --serve",
                          "Install Debian's prometheus-cpp-dev and build again, with PELMAR_PROMETHEUS on.");
}

}  // namespace pelmar::cli

#endif
