#include "signal/metrics.h"

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include "modem_link.h"

namespace pelmar::cli {

namespace {

using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<prometheus::ClientMetric::Label>;

constexpr std::chrono::seconds kLongestAge{5};

Labels with(Labels labels, const char* name, const std::string& value) {
  labels.push_back({name, value});
  return labels;
}

struct MetricFamilies {
  // Adds a value to the family of that name. By convention, the name of a counter ends with "_total".
  void add(const std::string& name, const std::string& help, double value, Labels labels = {}) {
    auto family = std::find_if(list.begin(), list.end(), [&](const auto& each) { return each.name == name; });
    const bool is_counter = name.ends_with("_total");
    if (family == list.end()) {
      family = list.insert(family, {name, help, is_counter ? MetricType::Counter : MetricType::Gauge, {}});
    }
    prometheus::ClientMetric& metric = family->metric.emplace_back();
    metric.label = std::move(labels);
    (is_counter ? metric.counter.value : metric.gauge.value) = value;
  }

  void add(const Carrier& carrier, const Labels& labels) {
    if (carrier.channel) add("pelmar_channel", "EARFCN of the carrier", *carrier.channel, labels);
    if (carrier.pci) add("pelmar_pci", "Physical cell id of the carrier", *carrier.pci, labels);
    for (const Measure& measure : kMeasures) {
      const std::string name = std::string("pelmar_") + measure.word + '_' + measure.unit;
      for (size_t chain = 0; chain < kChains; ++chain) {
        const double level = (carrier.*measure.levels)[chain];
        if (!std::isnan(level)) add(name, measure.title, level, with(labels, "antenna", std::to_string(chain)));
      }
    }
  }

  void add(const SubscriptionReading& sub) {
    const Labels labels = {{"subscription", std::to_string(sub.sub)}};
    add("pelmar_mode_info", "System mode, as a label of the value 1", 1, with(labels, "mode", mode_text(sub.mode)));
    if (sub.tx_power) add("pelmar_transmit_power_dbm", "Transmit power", *sub.tx_power, labels);
    for (const Carrier& carrier : sub.carriers) add(carrier, with(labels, "carrier", word_of(carrier.name)));
  }

  std::vector<MetricFamily> list;
};

// Readings come from the command's thread, scrapes from a thread of the web server's.
class Metrics : public prometheus::Collectable {
 public:
  void take(const std::optional<Reading>& reading, const std::string& problem) {
    const std::lock_guard lock(mutex_);
    reading_ = reading;
    time_ = Clock::now();
    readings_ += reading ? 1 : 0;
    if (reading && std::exchange(was_lost_, false)) ++restarts_;
    was_lost_ |= !reading && problem != kNoResponseText;  // a modem that was only slow did not restart
  }

  std::vector<MetricFamily> Collect() const override {
    const std::lock_guard lock(mutex_);
    const bool is_up = reading_ && Clock::now() - time_ < kLongestAge;
    MetricFamilies families;
    families.add("pelmar_modem_up", "1 while the modem responds, 0 while it is away", is_up);
    families.add("pelmar_readings_total", "Readings of the signal", readings_);
    families.add("pelmar_errors_total", "Requests that failed or had no response in time", failed_exchanges());
    families.add("pelmar_restarts_total", "Times that the modem came back after a loss of its connection", restarts_);
    for (size_t i = 0; is_up && i < reading_->subs.size(); ++i) families.add(reading_->subs[i]);
    return std::move(families.list);
  }

 private:
  mutable std::mutex mutex_;
  std::optional<Reading> reading_;
  Clock::time_point time_;
  uint32_t readings_ = 0;
  uint32_t restarts_ = 0;
  bool was_lost_ = false;
};

struct Server {
  explicit Server(const std::string& address) : exposer(address, 1) { exposer.RegisterCollectable(metrics); }

  prometheus::Exposer exposer;
  const std::shared_ptr<Metrics> metrics = std::make_shared<Metrics>();
};

}  // namespace

const char* const kServeHelp =
    "serve the readings as Prometheus metrics at http://ADDRESS/metrics, for example 127.0.0.1:9464, or :9464 for "
    "every IPv4 address of the machine; port 0 is any that is free";

TakeReading serve_metrics(const std::string& address) {
  const std::string host = address.substr(0, address.rfind(':') + 1);  // with the colon
  const std::string port = address.substr(host.size());
  if (!parse_number(port, 0, UINT16_MAX)) {
    throw Failure::of_usage("'" + address + "' is no address to serve metrics at",
                            "Give HOST:PORT or :PORT, for example 127.0.0.1:9464.");
  }
  try {
    // Never destroyed, because its threads use the metrics until the process has ended.
    static auto& server = *new Server(host.size() > 1 ? address : port);
    remark("metrics are at http://" + (host.size() > 1 ? host : "0.0.0.0:") +
           std::to_string(server.exposer.GetListeningPorts().front()) + "/metrics");
    return [](const auto& reading, const std::string& problem) { server.metrics->take(reading, problem); };
  } catch (const std::exception&) {
    throw Failure("serving metrics at " + address, "the address is in use, or is none of this machine's",
                  "Give HOST:PORT or :PORT, for example 127.0.0.1:9464; Debian's web server, civetweb, has no IPv6.");
  }
}

}  // namespace pelmar::cli
