// Hydra: its client and its statistics client id, the decoders of statistics (the value that each fetches, the offsets
// of its fields, and values that are too short), and the transmit power.
#include "modem_hydra.h"

#include <atomic>
#include <limits>
#include <thread>

#include "library_test.h"
#include "pelmar_log.h"
#include "vs_client.h"
#include "vs_messages.h"

namespace {

using namespace scripted;
namespace vs = pelmar::vs;

const Bytes kRefusal = bytes("01000000 34000000");

// The modem responds to the statistics commands with values that a test sets.
class HydraTest : public LibraryTest {
 protected:
  HydraTest() {
    on_send = [this](const Call& call) {
      if (responses.contains(call.msg_id)) return Outcome{0, responses[call.msg_id]};
      return call.msg_id == vs::kGetStatsParameter ? value_response(call) : Outcome{};
    };
  }
  ~HydraTest() override { on_send = nullptr; }

  static void open_hydra() {
    ASSERT_EQ(modem_hydra_api_init(), 1);
    clear_records();
  }

  static std::vector<Bytes> requests() {
    std::vector<Bytes> requests;
    for (const Call& call : calls()) requests.push_back(call.request);
    return requests;
  }
  std::map<std::pair<uint32_t, uint32_t>, Bytes> values;  // by subscription and statistics identifier
  std::function<void(Bytes& response)> on_fetch;          // may change the response; may be empty
  std::map<unsigned, Bytes> responses;                    // to other messages; a success if there is none

  Outcome value_response(const Call& call) const {
    Bytes response(sizeof(vs::GetStatsParameterResponse));
    uint16_t sub = 0;
    uint32_t id = 0;
    std::memcpy(&sub, &call.request[0], sizeof(sub));
    std::memcpy(&id, &call.request[12], sizeof(id));
    if (const auto value = values.find({sub, id}); value != values.end()) {
      response[8] = response[12] = 1;
      put(response, 16, sub);
      put(response, 20, id);
      put(response, 24, static_cast<uint32_t>(value->second.size()));
      std::copy(value->second.begin(), value->second.end(), response.begin() + 28);
    }
    if (on_fetch) on_fetch(response);
    return {0, response};
  }
};

class HydraClient : public Golden<HydraTest> {
 protected:
  HydraClient() { words_ = {"hydra_mgr"}; }

  // Grants a statistics client id, written in hexadecimal.
  void grant(const std::string& id) {
    responses[vs::kSetStatsReportStatus] = structure(16, "8:01 12:" + id + "000000");
  }
};

TEST_F(HydraClient, OpensWithGivenOrDefaultCallbacksAndRemovesOtherClients) {
  ASSERT_EQ(modem_hydra_api_init(), 1);
  const int32_t nas = open(MODEM_API_CLIENT_NAS_0);
  indicate(vs_client_info.client_handle, vs::kReportCIndication, bytes("01 0100 07"));
  clear_records();
  ASSERT_EQ(modem_hydra_api_init_ex(on_event, on_notice), 1);
  EXPECT_EQ(open_handles(), 2U) << "hydra's, and that of NAS, whose client has no record now";
  EXPECT_EQ(modem_api_set_avoid_trm(nas, 0, 1), MODEM_API_ERR_INVALID_CLIENT);
  indicate(vs_client_info.client_handle, vs::kReportCIndication, bytes("01 0100 07"));
  EXPECT_EQ(notices, (Notices{{MODEM_API_NOTICE_SERVICE_UP, MODEM_API_CLIENT_VS}}));
  EXPECT_EQ(events, (std::vector<Event>{{MODEM_API_EVENT_VS_REPORT_C, {7}}}));
  on_call["init_instance"] = returns(QMI_SERVICE_ERR);
  EXPECT_EQ(modem_hydra_api_init(), 0);
}

// While it is closed, hydra does nothing and returns no error. Then the modem accepts every command, then refuses every
// one.
TEST_F(HydraClient, ForwardsStatisticsCommands) {
  const modem_api_stats_registration record = {};
  const uint32_t id = 0x52;
  stats_para_data data = {};
  data.para_num = 1;
  const auto use = [&] {
    modem_hydra_stats_is_started();
    modem_hydra_stats_start();
    modem_hydra_stats_stop();
    modem_hydra_register_modem_stats_data(1, 2, 3, 4, &record, 1);
    modem_hydra_deregister_modem_stats_data(1, 2, 3, 4, &id, 1);
    modem_hydra_get_stats_parameter(5, 6, &data);
    modem_hydra_clear_stats_parameter(5, 6, 1, &id);
  };
  use();
  modem_hydra_stats_id_alloc();
  EXPECT_TRUE(calls().empty());
  open_hydra();
  modem_hydra_stats_id_free();
  use();  // without an id
  grant("0C");
  modem_hydra_stats_id_alloc();
  clear_records();
  responses[vs::kGetFeatureStatus] = structure(12, "8:01");
  use();
  const std::vector<Bytes> sent = {bytes("02000000"),
                                   bytes("02000000 01010100"),
                                   bytes("02000000 00000000"),
                                   structure(5616, "0:0C 4:01 5608:01 5610:02 5612:03 5614:04"),
                                   structure(416, "0:0C 4:01 8:52 408:01 410:02 412:03 414:04"),
                                   structure(7128, "0:05 2:06 4:01"),
                                   structure(48, "0:05 2:06 4:01 8:52")};
  EXPECT_EQ(requests(), sent);
  EXPECT_EQ(modem_hydra_api_deinit(), MODEM_API_SUCCESS);
  EXPECT_EQ(open_handles(), 0U);
  open_hydra();  // the id outlives the client
  on_send = [](const Call&) { return Outcome{0, kRefusal}; };
  use();
  EXPECT_EQ(requests(), sent);
}

TEST_F(HydraClient, SwitchesReportsUntilAStepFails) {
  const Bytes events_on = bytes("01 01 01 00"), events_off = bytes("01 00 01 00");
  const Bytes on = bytes("01 00 0000 00000000"), off_3 = bytes("00 01 0000 03000000");
  // A change, whether the id is then allocated (true) or freed, and the requests.
  const std::tuple<std::function<void()>, bool, std::vector<Bytes>> steps[] = {
      {[&] { grant("0C"); }, true, {events_on, on}},
      // The id that hydra has is freed first.
      {[&] { grant("0A"); }, true, {events_off, bytes("00 01 0000 0C000000"), events_on, on}},
      {[&] { grant("00"); }, true, {events_off, bytes("00 01 0000 0A000000"), events_on, on}},
      {[&] { grant("03"); }, true, {events_off, bytes("00 01 0000 00000000"), events_on, on}},
      {[&] { responses[vs::kSetStatsReportStatus] = kRefusal; }, true, {events_off, off_3, events_on, on}},
      // Event 4 is off although event 3 is on, then both are off.
      {[&] { grant("03"), modem_api_remove_modem_event(0, MODEM_API_EVENT_VS_REPORT_B); }, false, {}},
      {[] {}, false, {off_3}},
      {[&] { responses[vs::kSetEventReport] = kRefusal; }, true, {off_3, events_on}},
      // A client without event callback has no subscriptions.
      {[] { modem_hydra_api_init_ex(nullptr, nullptr); }, false, {}},
  };
  open_hydra();
  for (const auto& [change, allocates, sent] : steps) {
    change();
    clear_records();
    allocates ? static_cast<void>(modem_hydra_stats_id_alloc()) : modem_hydra_stats_id_free();
    EXPECT_EQ(requests(), sent);
  }
}

// --- metrics ---

using Decode = uint8_t (*)(uint32_t sub, void* record);

template <typename Record, uint8_t (*decoder)(uint32_t, Record*)>
uint8_t decode(uint32_t sub, void* record) {
  return decoder(sub, static_cast<Record*>(record));
}

// Fields are written "name:width@offset", in the order of the value; the offset is the record's.
struct Metric {
  std::string logged_as;
  size_t record_size;
  std::vector<std::pair<uint32_t, Decode>> decoders;  // by statistics identifier
  std::string fields;
};

// clang-format off
#define DECODER(Record) decode<Record, Record##_get>
#define LTE(carrier) decode<modem_hydra_lte_srv_meas_info, modem_hydra_lte_srv_meas_info_get_for_##carrier>
#define NR(carrier) decode<modem_hydra_nr5g_srv_meas_info, modem_hydra_nr5g_srv_meas_info_get_for_##carrier>
#define METRIC(Record, size, id, fields) {#Record "_get", size, {{id, DECODER(Record)}}, fields}
const Metric kMetrics[] = {
    {"modem_hydra_lte_srv_meas_info_get", 80,
     {{0x52, LTE(pcc)}, {0x67, LTE(scc1)}, {0x68, LTE(scc2)}, {0x69, LTE(scc3)}, {0x6a, LTE(scc4)}, {0x6b, LTE(scc5)},
      {0x6c, LTE(scc6)}},
     "version:1@0 version_ssmr:1@1 earfcn:4@4 pci:2@8 is_srv_cell:1@10 rx_valid:2@12 "
     "rsrp_rx0:4@16 rsrq_rx0:4@32 rssi_rx0:4@48 snr_rx0:4@64 rsrp_rx1:4@20 rsrq_rx1:4@36 rssi_rx1:4@52 snr_rx1:4@68 "
     "rsrp_rx2:4@24 rsrq_rx2:4@40 rssi_rx2:4@56 snr_rx2:4@72 rsrp_rx3:4@28 rsrq_rx3:4@44 rssi_rx3:4@60 snr_rx3:4@76"},
    {"modem_hydra_nr5g_srv_meas_info_get", 24, {{0x87, NR(pcc)}, {0x06, NR(scc1)}, {0x07, NR(scc2)}},
     "version:4@0 rsrp_rx0:4@4 rsrp_rx1:4@8 rsrp_rx2:4@12 rsrp_rx3:4@16 rsrq:4@20"},
    METRIC(modem_hydra_nr5g_ll1_fw_rx_control_agc, 20, 0x5e, "version:4@0 rssi0:4@4 rssi1:4@8 rssi2:4@12 rssi3:4@16"),
    METRIC(modem_hydra_nr5g_ll1_fw_serving_ftl, 20, 0x70, "version:4@0 snr0:4@4 snr1:4@8 snr2:4@12 snr3:4@16"),
    METRIC(modem_hydra_nr5g_ml1_antenna_switch_diversity, 16, 0x71,
           "version:4@0 ant_rx_0_old:1@4 ant_rx_0_new:1@5 ant_rx_1_old:1@6 ant_rx_1_new:1@7 ant_rx_2_old:1@8 "
           "ant_rx_2_new:1@9 ant_rx_3_old:1@10 ant_rx_3_new:1@11 ant_tx_0_old:1@12 ant_tx_0_new:1@13 ant_tx_1_old:1@14 "
           "ant_tx_1_new:1@15"),
    METRIC(modem_hydra_wcdma_pn_search_edition2, 12, 0x6e, "version:1@0 rx_agc_0:4@4 rx_agc_1:4@8"),
    METRIC(modem_hydra_gsm_l1_rx_diversity_metrics, 12, 0x6f, "version:1@0 rx_prx:4@4 rx_drx:4@8"),
    METRIC(modem_hydra_mcs_trm_asdiv, 8, 0x64,
           "version:1@0 ant_number:1@1 ant_switch_path:2@2 sig_path:2@4 old_config:1@6 new_config:1@7"),
    METRIC(modem_hydra_lte_pusch_power_info, 10, 0x62,
           "version:1@0 pusch_tx_power:2@2 dl_path_loss:1@4 max_power:2@6 pusch_ex_tx_power:2@8"),
    METRIC(modem_hydra_nr5g_mac_ul_phy_ch_power_info, 52, 0x5a,
           "version_hook:4@0 tx_power_pusch:4@4 tx_power_pucch:4@8 tx_power_srs:4@12 tx_power_prach:4@16 mtpl_pusch:4@20 "
           "mtpl_pucch:4@24 mtpl_srs:4@28 mtpl_prach:4@32 pathloss:4@36 pathloss:4@40 pathloss:4@44 pathloss:4@48"),
};
// clang-format on

// A value that ends within a field leaves the fields before it.
TEST_F(HydraTest, DecodersFillTheFieldsThatTheValueHas) {
  const std::string done = "function exit, ret = 1 <-------------";
  open_hydra();
  for (const Metric& metric : kMetrics) {
    for (const auto& [id, decoder] : metric.decoders) {
      Bytes whole(80);  // longer than that of any metric, with bytes that differ from those of other identifiers
      for (size_t i = 0; i < whole.size(); ++i) whole[i] = static_cast<uint8_t>(1 + id * 3 + i);
      Bytes expected(metric.record_size);
      const auto expect_record = [&, id = id, decoder = decoder](size_t value_bytes, const std::string& end) {
        SCOPED_TRACE(metric.logged_as + " from " + std::to_string(value_bytes) + " bytes");
        values[{id % 2, id}] = {whole.begin(), whole.begin() + static_cast<ptrdiff_t>(value_bytes)};
        Bytes record(metric.record_size, 0xEE);
        clear_records();
        EXPECT_EQ(decoder(id % 2, record.data()), end == done);
        EXPECT_EQ(record, expected);
        EXPECT_TRUE(logged((end == done ? "D " : "E ") + metric.logged_as + ": " + end)) << end;
      };
      size_t at = 0;
      std::istringstream fields(metric.fields);
      for (std::string field; fields >> field;) {
        char name[32] = {};
        size_t width = 0, offset = 0;
        ASSERT_EQ(std::sscanf(field.c_str(), "%31[^:]:%zu@%zu", name, &width, &offset), 3);
        std::ostringstream error;
        error << "g_hydra_data_left(" << width - 1 << ") is not enough for " << name << ", id(0x" << std::hex << id
              << ")";
        if (at + width > 1) expect_record(at + width - 1, error.str());
        std::memcpy(&expected[offset], &whole[at], width);
        at += width;
      }
      expect_record(at, done);
      expect_record(whole.size(), done);
    }
  }
}

// The golden logs of the commands have the calls below the decoders.
TEST_F(HydraClient, LogsWhatItFetchesAndDecodes) {
  words_ = {"hydra_mgr_fetch", "hydra_mgr_metrics"};
  constexpr uint32_t kId = 0x64;
  Bytes record(sizeof(modem_hydra_mcs_trm_asdiv), 0xEE);
  const auto read = [&](uint32_t sub) { return DECODER(modem_hydra_mcs_trm_asdiv)(sub, record.data()); };
  values[{1, kId}] = Bytes(record.size());
  on_call["init_instance"] = returns(QMI_SERVICE_ERR);
  read(1);
  on_call["init_instance"] = nullptr;
  read(0);  // there is no value
  read(2);  // there is no such subscription
  const auto read_changed = [&](const char* change) {
    on_fetch = [&](Bytes& response) { write_fields(response, change); };
    read(1);
  };
  // No value, none and several values, another identifier before another subscription, no bytes.
  for (const char* const change : {"8:00", "12:00", "12:02", "12:FFFFFFFF", "16:33 20:33", "16:33", "24:00"}) {
    read_changed(change);
  }
  EXPECT_THAT(record, testing::Each(0xEE));
  for (const char* const change : {"24:BC02", "24:BD02", "24:FFFFFFFF", "18:09"}) read_changed(change);
  EXPECT_EQ(record, Bytes(record.size()));
  // Subscription, slot, one entry of which only the identifier is set.
  EXPECT_EQ(calls().back().request, structure(7128, "0:0100 2:0C00 4:01000000 12:64000000"));
  for (const Metric& metric : kMetrics) {
    for (const auto& [id, decoder] : metric.decoders) decoder(id % 2, nullptr);
  }
}

// A first reading that opens hydra must not wait for a callback that waits to read.
TEST_F(HydraTest, OpensWhileACallbackReads) {
  values[{1, 0x64}] = Bytes(8);
  static std::thread first_reader;
  static std::atomic<int> readings{0};
  static const auto read = [] {
    modem_hydra_mcs_trm_asdiv record = {};
    readings += modem_hydra_mcs_trm_asdiv_get(1, &record);
  };
  const auto on_notice = [](uint32_t notice, uint32_t) {
    if (notice != MODEM_API_NOTICE_SERVICE_UP) return;
    first_reader = std::thread(read);
    while (!logged("D modem_hydra_api_init_ex: old g_hydra_client_id = -1")) std::this_thread::yield();
    read();
  };
  int32_t client = -1;
  modem_api_init_client(MODEM_API_CLIENT_NAS_0, nullptr, on_notice, &client);
  first_reader.join();
  EXPECT_EQ(readings, 2);
}

constexpr uint32_t kModeId = 0x2c;
constexpr uint32_t kLteId = 0x62;
constexpr uint32_t kNrId = 0x5a;

// All decoders share the lock and the fetched value.
TEST_F(HydraTest, ThreadsFetchOneByOne) {
  open_hydra();
  pelmar_hal_close_print();
  std::atomic<int> overlaps = 0, fetching = 0;
  on_fetch = [&](Bytes&) {
    if (++fetching > 1) ++overlaps;
    std::this_thread::yield();
    --fetching;
  };
  const auto read = [] {
    modem_hydra_mcs_trm_asdiv record;
    for (uint32_t round = 0; round < 200; ++round) {
      round % 2 == 0 ? modem_hydra_mcs_trm_asdiv_get(0, &record) : modem_sys_mode_get(1);
    }
  };
  std::thread other(read);
  read();
  other.join();
  EXPECT_EQ(overlaps, 0);
}

class TxPower : public Golden<HydraTest> {
 protected:
  TxPower() {
    words_ = {"tx_power", "modem_sys_mode_get"};
    open_hydra();
  }

  // 65535: the modem has no value.
  void set_lte(uint32_t sub, int32_t power) {
    values[{sub, kModeId}] = bytes("01 09000000");
    values[{sub, kLteId}] = Bytes(power == kNone ? 0 : 8);
    if (power != kNone) put(values[{sub, kLteId}], 1, static_cast<int16_t>(power));
  }

  static constexpr int32_t kNone = 65535;
};

// The power of NR is rounded towards zero; one outside the range of int32_t counts as none.
TEST_F(TxPower, FollowsTheModeOfTheFirstStack) {
  const std::tuple<const char*, float, int32_t> cases[] = {
      {"01 0C000000", -3.7F, -3},
      {"01 0C000000", -2147483648.0F, INT32_MIN},
      {"01 0C000000", -2147483904.0F, kNone},
      {"01 0C000000", 2147483520.0F, 2147483520},
      {"01 0C000000", 2147483648.0F, kNone},
      {"01 0C000000", std::numeric_limits<float>::quiet_NaN(), kNone},
      {"03 0C000000 09000000 09000000", 1.0F, 1},
      {"01 05000000", 1.0F, kNone},
      {"00 0C000000", 1.0F, kNone},
      {"01 0C0000", 1.0F, kNone},
      {"", 1.0F, kNone}};
  values[{1, kModeId}] = bytes("01 0C000000");
  modem_tx_power_get_by_sub(1);
  values[{1, kNrId}] = Bytes(52);
  for (const auto& [mode, power, expected] : cases) {
    values[{1, kModeId}] = bytes(mode);
    put(values[{1, kNrId}], 4, power);
    EXPECT_EQ(static_cast<int32_t>(modem_tx_power_get_by_sub(1)), expected) << mode << ": " << power;
  }
}

TEST_F(TxPower, IsReadForTheDefaultDataSubscriptionAndAsTheMaximum) {
  for (const auto& [power0, power1] :
       {std::pair{kNone, -5}, {-5, kNone}, {kNone, kNone}, {10, 10}, {-20, -5}, {3, -5}, {-5, 3}}) {
    set_lte(0, power0);
    set_lte(1, power1);
    modem_tx_power_get_for_max_sub();
  }
  for (const char* const sub : {"0", "1", "-1"}) {
    properties["persist.radio.default_data_sub"] = sub;
    modem_tx_power_get_for_dds_sub();
  }
}

}  // namespace
