// The metrics of `signal --serve`, as a client of HTTP reads them, and as Prometheus's tools check them.

#include "client_program.h"

namespace pelmar::cli {
namespace {

using testing::HasSubstr;
using testing::Not;

#ifdef PELMAR_PROMETHEUS

constexpr const char* kFetch =
    "python3 -c 'import sys, urllib.request as r; print(r.urlopen(sys.argv[1]).read().decode())' ";

class MetricsTest : public ClientTest {
 protected:
  // What a scrape shows as soon as it contains the text.
  std::string scrape_until(const std::string& text) {
    std::string metrics;
    wait_until([&] {
      metrics = shell(kFetch + url_).output;
      return metrics.find(text) != metrics.npos;
    });
    EXPECT_THAT(metrics, HasSubstr(text));
    return metrics;
  }

  std::string address() const { return url_.substr(0, url_.find("/metrics")).substr(strlen("http://")); }

  Process client_ = start("signal --rate 50 --serve 127.0.0.1:0");
  const std::string url_ = after(client_, "metrics are at ").value_or("");
};

TEST_F(MetricsTest, HaveThePresentReadingWhileTheModemIsThere) {
  const std::string state = "\npelmar_modem_up";
  const std::string up = scrape_until(state + " 1\n");
  for (const char* text :
       {"\npelmar_rsrp_dbm{subscription=\"0\",carrier=\"lte_pcc\",antenna=\"3\"} -",
        "\npelmar_rsrp_dbm{subscription=\"1\",carrier=\"lte_pcc\",antenna=\"0\"} -",
        "\npelmar_snr_db{subscription=\"1\",carrier=\"nr_pcc\",antenna=\"0\"} ",
        "\npelmar_channel{subscription=\"0\",carrier=\"lte_pcc\"} 1300\n",
        "\npelmar_pci{subscription=\"0\",carrier=\"lte_pcc\"} 101\n",
        "\npelmar_transmit_power_dbm{subscription=\"1\"} ", "\npelmar_mode_info{subscription=\"0\",mode=\"NR\"} 1\n",
        "\npelmar_errors_total 0\n", "\npelmar_restarts_total 0\n"}) {
    EXPECT_THAT(up, HasSubstr(text));
  }
  ctl("restart 60000");
  EXPECT_THAT(scrape_until(state + " 0\n"), Not(HasSubstr("pelmar_rsrp_dbm{")));
  ctl("restart");
  const std::string back = scrape_until("\npelmar_restarts_total 1\n");
  EXPECT_THAT(back, Not(HasSubstr("\npelmar_errors_total 0\n")));
  // While the modem does not respond there is no reading. This does not count as a restart.
  ctl("silence vs any 1");
  EXPECT_THAT(scrape_until(state + " 0\n"), Not(HasSubstr("pelmar_rsrp_dbm{")));
  EXPECT_EQ(client_.end(SIGTERM), 128 + SIGTERM);
}

// The dashboard of the documentation, too, shows names that exist.
TEST_F(MetricsTest, HaveNamesThatPrometheusAcceptsAndTheDashboardUses) {
  const std::string metrics = scrape_until("pelmar_rsrp_dbm{");
  const std::string names = "grep -o 'pelmar_[a-z_]*' " DOCUMENTS "/fleet-dashboard.json | sort -u";
  std::istringstream used(shell(names).output);
  size_t count = 0;
  for (std::string name; used >> name; ++count) EXPECT_THAT(metrics, HasSubstr("\n# TYPE " + name + " ")) << name;
  EXPECT_GT(count, 5U);
  if (access("/usr/bin/promtool", X_OK) != 0) GTEST_SKIP() << "there is no promtool (package prometheus)";
  expect({{kFetch + url_ + " | grep pelmar_ | promtool check metrics", 0, ""},
          {"promtool check config " DOCUMENTS "/fleet-prometheus.yml", 0, "SUCCESS"}});
}

TEST_F(MetricsTest, NeedAnAddressThatIsFree) {
  expect({{"client signal --count 1 --serve " + address(), 1, "the address is in use"},
          {"client signal --count 1 --serve 192.0.2.1:0", 1, "none of this machine's"},
          {"client signal --count 1 --serve 127.0.0.1:x", 2, "is no address to serve metrics at"},
          {"client signal --count 2 --serve :0 --csv a && wc -l <a", 0, "metrics are at http://0.0.0.0:"},
          {"client --json signal --count 1 --serve :0 2>&1 | grep -c subscriptions", 0, "1\n"}});
}

#else

TEST_F(ClientTest, ABuildWithoutPrometheusServesNoMetrics) {
  expect({{"client signal --serve :0", 2, "prometheus-cpp-dev"}});
}

#endif

}  // namespace
}  // namespace pelmar::cli
