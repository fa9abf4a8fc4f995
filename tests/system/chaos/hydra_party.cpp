// A process that reads hydra's statistics: decoders on all threads, hydra's commands on one.
//
// A hydra whose service went away reads nothing any more until it is opened again. While it is opened, nobody reads.
#include <mutex>
#include <shared_mutex>
#include <vector>

#include "chaos/chaos.h"
#include "modem_hydra.h"

namespace pelmar::system_test::chaos {

namespace {

constexpr int kFailuresOfALostHydra = 20;
// Readings take turns, and the one at work may be opening hydra.
constexpr Clock::duration kTurnLimit = kWorkers * kCallLimit;

struct Decoder {
  uint32_t id;
  // Reads a record; returns what the decoder returns, and the record's version.
  uint8_t (*read)(uint32_t sub, uint8_t& version);
};

template <auto Get, class Record>
uint8_t read_record(uint32_t sub, uint8_t& version) {
  Record record{};
  const uint8_t came = Get(sub, &record);
  version = static_cast<uint8_t>(record.version);
  return came;
}

// One of each way to a value; the tests of the decoders have all of them.
constexpr Decoder kDecoders[] = {
    {0x52, read_record<modem_hydra_lte_srv_meas_info_get_for_pcc, modem_hydra_lte_srv_meas_info>},
    {0x6c, read_record<modem_hydra_lte_srv_meas_info_get_for_scc6, modem_hydra_lte_srv_meas_info>},
    {0x87, read_record<modem_hydra_nr5g_srv_meas_info_get_for_pcc, modem_hydra_nr5g_srv_meas_info>},
    {0x6e, read_record<modem_hydra_wcdma_pn_search_edition2_get, modem_hydra_wcdma_pn_search_edition2>},
    {0x64, read_record<modem_hydra_mcs_trm_asdiv_get, modem_hydra_mcs_trm_asdiv>},
    {0x62, read_record<modem_hydra_lte_pusch_power_info_get, modem_hydra_lte_pusch_power_info>},
};

// A yes or no as a result that every call may have.
modem_api_result as_result(uint8_t yes) {
  return yes != 0 ? MODEM_API_SUCCESS : MODEM_API_ERR_GENERIC;
}

class HydraParty final : public Party {
 public:
  HydraParty(uint64_t seed, uint32_t process) {
    for (uint32_t i = 0; i < kWorkers; ++i) random_.emplace_back(seed, process * kWorkers + i);
  }

  void open() override {
    const std::unique_lock nobody_reads(reading_);
    noted(
        "hydra open", [] { return as_result(modem_hydra_api_init()); }, kTurnLimit);
    failures_ = 0;
  }

  void tend() override {
    if (failures_ >= kFailuresOfALostHydra) open();
  }

  void run_operation(uint32_t worker) override {
    const std::shared_lock reading(reading_);
    Random& random = random_[worker];
    if (worker == 0 && random.one_in(8)) return switch_reporting(random);  // only one thread may do so
    const Decoder& decoder = random.element(kDecoders);
    const uint32_t sub = random.between(0, 1);
    uint8_t version = 0;
    const auto result = noted("decode", [&] { return as_result(decoder.read(sub, version)); });
    failures_ = result == MODEM_API_SUCCESS ? 0 : failures_ + 1;
    if (result == MODEM_API_SUCCESS && !is_stamped_right(version, sub, decoder.id)) {
      problem("decoder " + std::to_string(decoder.id) + " read version " + std::to_string(version));
    }
  }

  void settle() override {
    uint8_t version = 0;
    for (const auto limit = Clock::now() + kPatience; kDecoders[0].read(0, version) == 0; open()) {
      if (Clock::now() > limit) return problem("hydra did not come back");
    }
  }

  void verify(uint32_t, uint32_t) override {
    for (uint32_t at = 0; at < kSubscriptions * std::size(kDecoders); ++at) {
      const Decoder& decoder = kDecoders[at / kSubscriptions];
      uint8_t version = 0;
      decoder.read(at % kSubscriptions, version);
      if (version == statistic_stamp(at % kSubscriptions, decoder.id)) continue;
      problem("decoder " + std::to_string(decoder.id) + " ends with version " + std::to_string(version));
    }
  }

  void close() override {
    modem_hydra_stats_id_free();
    modem_hydra_api_deinit();
  }

 private:
  static void switch_reporting(Random& random) {
    modem_api_stats_registration record{};
    record.id = random_statistic(random);
    if (random.one_in(2)) modem_hydra_stats_id_free();
    modem_hydra_stats_id_alloc();
    noted("register", [&] { return modem_hydra_register_modem_stats_data(0, 0, 0, 0, &record, 1); });
  }

  std::shared_mutex reading_;
  std::atomic<int> failures_{0};  // readings in a row
  std::vector<Random> random_;    // of each worker
};

}  // namespace

std::unique_ptr<Party> make_hydra_party(uint64_t seed, uint32_t process) {
  return std::make_unique<HydraParty>(seed, process);
}

}  // namespace pelmar::system_test::chaos
