// A process that reads hydra's statistics: its own commands on one thread, decoders on all.
//
// A hydra whose service went away reads nothing any more until it is opened again. While it is opened, nobody reads.
#include <array>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <vector>

#include "chaos/journal.h"
#include "chaos/party.h"
#include "chaos/random.h"
#include "chaos/statistic_stamp.h"
#include "modem_hydra.h"

namespace pelmar::system_test::chaos {

namespace {

constexpr std::chrono::seconds kPatience{90};
constexpr int kFailuresOfALostHydra = 20;
// Readings take turns, and the one at work may be opening hydra.
constexpr Clock::duration kTurnLimit = kWorkers * (kCallLimit + std::chrono::seconds(60));

// --- decoders ---

struct Decoder {
  uint32_t id;
  // Reads and returns the decoder's answer; the record's version goes to `version`.
  uint8_t (*read)(uint32_t sub, uint8_t& version);
};

template <auto Get, auto Version, class Record>
uint8_t read_record(uint32_t sub, uint8_t& version) {
  Record record{};
  const uint8_t came = Get(sub, &record);
  version = static_cast<uint8_t>(record.*Version);
  return came;
}

#define DECODER(id, Record, function, version) \
  { id, read_record<Record##_##function, &Record::version, Record> }

constexpr Decoder kDecoders[] = {
    DECODER(0x52, modem_hydra_lte_srv_meas_info, get_for_pcc, version),
    DECODER(0x67, modem_hydra_lte_srv_meas_info, get_for_scc1, version),
    DECODER(0x68, modem_hydra_lte_srv_meas_info, get_for_scc2, version),
    DECODER(0x69, modem_hydra_lte_srv_meas_info, get_for_scc3, version),
    DECODER(0x6a, modem_hydra_lte_srv_meas_info, get_for_scc4, version),
    DECODER(0x6b, modem_hydra_lte_srv_meas_info, get_for_scc5, version),
    DECODER(0x6c, modem_hydra_lte_srv_meas_info, get_for_scc6, version),
    DECODER(0x87, modem_hydra_nr5g_srv_meas_info, get_for_pcc, version),
    DECODER(0x06, modem_hydra_nr5g_srv_meas_info, get_for_scc1, version),
    DECODER(0x07, modem_hydra_nr5g_srv_meas_info, get_for_scc2, version),
    DECODER(0x5e, modem_hydra_nr5g_ll1_fw_rx_control_agc, get, version),
    DECODER(0x70, modem_hydra_nr5g_ll1_fw_serving_ftl, get, version),
    DECODER(0x71, modem_hydra_nr5g_ml1_antenna_switch_diversity, get, version),
    DECODER(0x6e, modem_hydra_wcdma_pn_search_edition2, get, version),
    DECODER(0x6f, modem_hydra_gsm_l1_rx_diversity_metrics, get, version),
    DECODER(0x64, modem_hydra_mcs_trm_asdiv, get, version),
    DECODER(0x62, modem_hydra_lte_pusch_power_info, get, version),
    DECODER(0x5a, modem_hydra_nr5g_mac_ul_phy_ch_power_info, get, version_hook),
};
#undef DECODER

// A yes-or-no answer as a result that every call may have.
modem_api_result as_result(uint8_t yes) {
  return yes != 0 ? MODEM_API_SUCCESS : MODEM_API_ERR_GENERIC;
}

// --- operations ---

struct Worker {
  Random random;
  std::atomic<int>& failures;  // readings in a row
  uint32_t sub() { return random.between(0, 1); }
};

void decode(Worker& worker) {
  const Decoder& decoder = worker.random.element(std::span(kDecoders));
  const uint32_t sub = worker.sub();
  uint8_t version = 0;
  const auto result = noted(
      "decode", [&] { return as_result(decoder.read(sub, version)); }, kTurnLimit);
  if (result != MODEM_API_SUCCESS) {
    ++worker.failures;
    return;
  }
  worker.failures = 0;
  if (!is_stamped_right(version, static_cast<uint16_t>(sub), decoder.id)) {
    journal().problem("decoder " + std::to_string(decoder.id) + " was given version " + std::to_string(version));
  }
}

void read_power(Worker& worker) {
  const uint32_t sub = worker.sub();
  noted(
      "read power",
      [&] {
        modem_tx_power_get_by_sub(sub);
        modem_tx_power_get_for_max_sub();
        return modem_sys_mode_get(sub) == MODEM_SYS_MODE_UNKNOWN ? MODEM_API_ERR_GENERIC : MODEM_API_SUCCESS;
      },
      6 * kTurnLimit);  // so many readings at most
}

void get_value(Worker& worker) {
  const auto sub = static_cast<uint16_t>(worker.sub());
  const uint32_t id = worker.random.element(sim::statistic_rows()).id;
  stats_para_data data{};
  data.para_num = 1;
  data.entries[0].id = id;
  const auto result = noted("hydra value", [&] { return modem_hydra_get_stats_parameter(sub, 1, &data); });
  const stats_para_entry& entry = data.entries[0];
  const bool came = result == MODEM_API_SUCCESS && data.para_num == 1 && entry.value_len > 0;
  if (came && (entry.id != id || !is_stamped_right(entry.value[0], sub, id))) {
    journal().problem("hydra was given another value than the one it asked for");
  }
}

void switch_feature(Worker& worker) {
  const bool on = worker.random.one_in(2);
  noted("hydra feature", [&] { return as_result(on ? modem_hydra_stats_start() : modem_hydra_stats_stop()); });
  noted("hydra feature", [] { return as_result(modem_hydra_stats_is_started()); });
}

// Two or three commands each way.
void switch_reporting(Worker& worker) {
  const bool on = worker.random.one_in(2);
  noted(
      "hydra reporting",
      [&] {
        if (!on) modem_hydra_stats_id_free();
        return on ? as_result(modem_hydra_stats_id_alloc()) : MODEM_API_SUCCESS;
      },
      4 * kCallLimit);
}

void register_values(Worker& worker) {
  modem_api_stats_registration record{};
  record.id = worker.random.element(sim::statistic_rows()).id;
  const uint32_t id = worker.random.element(sim::statistic_rows()).id;
  noted("hydra register", [&] { return modem_hydra_register_modem_stats_data(0, 0, 0, 0, &record, 1); });
  noted("hydra deregister", [&] { return modem_hydra_deregister_modem_stats_data(0, 0, 0, 0, &id, 1); });
  noted("hydra clear", [&] { return modem_hydra_clear_stats_parameter(0, 1, 1, &id); });
}

struct Operation {
  uint32_t weight;
  void (*run)(Worker& worker);
};

constexpr Operation kReadings[] = {{10, decode}, {1, read_power}};
// Of the one thread that may call what is no reading.
constexpr Operation kCommands[] = {
    {10, decode}, {10, get_value}, {3, switch_feature}, {3, switch_reporting}, {3, register_values},
};

class HydraParty final : public Party {
 public:
  HydraParty(uint64_t seed, uint32_t process, size_t workers) {
    for (uint32_t i = 0; i < workers; ++i) {
      workers_.push_back({Random(seed, process * kWorkers + i), failures_});
    }
  }

  void open() override {
    noted(
        "hydra open", [] { return as_result(modem_hydra_api_init()); }, kTurnLimit);
  }

  void tend() override {
    if (failures_ < kFailuresOfALostHydra) return;
    const std::unique_lock nobody_reads(reading_);
    journal().add_reopening();
    open();
    failures_ = 0;
  }

  void run_operation(size_t worker) override {
    const std::shared_lock reading(reading_);
    const auto operations = worker == 0 ? std::span<const Operation>(kCommands) : std::span<const Operation>(kReadings);
    workers_[worker].random.row(operations).run(workers_[worker]);
  }

  void verify() override {
    const auto limit = Clock::now() + kPatience;
    for (uint32_t sub = 0; sub < kStampedSubscriptions; ++sub) {
      for (const Decoder& decoder : kDecoders) {
        uint8_t version = 0;
        while (decoder.read(sub, version) == 0 && Clock::now() < limit) open();
        if (version != statistic_stamp(static_cast<uint16_t>(sub), decoder.id)) {
          journal().problem("decoder " + std::to_string(decoder.id) + " ends with version " + std::to_string(version));
        }
      }
    }
  }

  void close() override {
    modem_hydra_stats_id_free();
    modem_hydra_api_deinit();
  }

 private:
  std::shared_mutex reading_;
  std::atomic<int> failures_{0};
  std::vector<Worker> workers_;
};

}  // namespace

std::unique_ptr<Party> make_hydra_party(uint64_t seed, uint32_t process, size_t workers) {
  return std::make_unique<HydraParty>(seed, process, workers);
}

}  // namespace pelmar::system_test::chaos
