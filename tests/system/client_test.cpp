// Items, commands, events and statistics from client processes to a modem and back.
#include <gmock/gmock.h>
#include <signal.h>

#include <condition_variable>
#include <cstring>
#include <future>
#include <list>
#include <mutex>

#include "cutils/properties.h"
#include "hydra_mem.h"
#include "modem_hydra.h"
#include "modem_test.h"

namespace pelmar::system_test {
namespace {

using testing::ElementsAre;

using Bytes = std::vector<uint8_t>;

uint32_t size(const Bytes& bytes) {
  return static_cast<uint32_t>(bytes.size());
}

// What callbacks got, in order. Never destroyed: they run until the process is gone.
class Calls {
 public:
  struct Call {
    uint32_t id;  // an event, or an asynchronous command's result
    Bytes data;
  };

  static void add_event(uint32_t id, const uint8_t* payload, uint32_t length) {
    add({id, {payload, payload + length}});
  }
  static void add_response(const uint8_t* data, uint32_t length, void*, uint32_t result) {
    add({result, Bytes(data, data + length)});
    if (data != nullptr) hydra_free_adv(const_cast<uint8_t*>(data), __func__, __LINE__);
  }

  static Call next() {
    std::unique_lock guard(lock_);
    if (!changed_.wait_for(guard, std::chrono::seconds(60), [] { return !calls_.empty(); })) return {};
    Call call = calls_.front();
    calls_.pop_front();
    return call;
  }

  template <typename Payload>
  static Payload next_event(uint32_t id) {
    const Call call = next();
    Payload payload{};
    EXPECT_EQ(call.id, id);
    EXPECT_EQ(call.data.size(), sizeof(payload));
    if (call.data.size() == sizeof(payload)) std::memcpy(&payload, call.data.data(), sizeof(payload));
    return payload;
  }

 private:
  static void add(const Call& call) {
    const std::lock_guard guard(lock_);
    calls_.push_back(call);
    changed_.notify_all();
  }

  static inline std::mutex& lock_ = *new std::mutex;
  static inline std::condition_variable& changed_ = *new std::condition_variable;
  static inline std::list<Call>& calls_ = *new std::list<Call>;
};

using ClientTest = ModemTest;

TEST_F(ClientTest, EveryKindOfItemIsWrittenReadAndDeleted) {
  const int32_t client = open(MODEM_API_CLIENT_VS);
  const Bytes whole(MODEM_API_MAX_ITEM_BYTES, 0x5A);
  const Bytes small = {1, 2, 3};
  const char* const path = "/nv/item_files/modem/test";
  // One read with room for a whole item: its bytes, or the result as the only byte.
  const auto read = [&](auto function, auto... key) {
    Bytes data(MODEM_API_MAX_ITEM_BYTES);
    uint32_t length = MODEM_API_MAX_ITEM_BYTES;
    const modem_api_result result = function(client, key..., data.data(), &length);
    if (result != MODEM_API_SUCCESS) return Bytes{static_cast<uint8_t>(result)};
    data.resize(length);
    return data;
  };
  EXPECT_EQ(modem_api_write_nv(client, 7, 1, 2, whole.data(), size(whole)), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_write_nv(client, 7, 1, 3, small.data(), size(small)), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_write_efs(client, 7, 1, small.data(), size(small)), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_write_rfnv(client, 7, whole.data(), size(whole)), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_write_efs_path(client, path, 0, 0, small.data(), size(small)), MODEM_API_SUCCESS);
  EXPECT_EQ(modem_api_efs_sync(client, 0, 1, 2), MODEM_API_SUCCESS);
  EXPECT_EQ(read(modem_api_read_nv, 7, 1, 2), whole);
  EXPECT_EQ(read(modem_api_read_nv, 7, 1, 3), small);
  EXPECT_EQ(read(modem_api_read_efs, 7, 1), small);
  EXPECT_EQ(read(modem_api_read_rfnv, 7), whole);
  EXPECT_EQ(read(modem_api_read_efs_path, path, 0, 0), small);

  EXPECT_EQ(modem_api_delete_nv(client, 7, 1, 2), MODEM_API_SUCCESS);
  EXPECT_THAT(read(modem_api_read_nv, 7, 1, 2), ElementsAre(MODEM_API_ERR_GENERIC));
  EXPECT_EQ(read(modem_api_read_nv, 7, 1, 3), small);
  EXPECT_EQ(modem_api_delete_efs_path(client, path, 0, 0), MODEM_API_SUCCESS);
  EXPECT_THAT(read(modem_api_read_efs_path, path, 0, 0), ElementsAre(MODEM_API_ERR_GENERIC));
  EXPECT_EQ(modem_api_write_efs_path(client, "../../outside", 0, 0, small.data(), size(small)),
            MODEM_API_ERR_INVALID_PARAM);
  ctl("error 52 vs any 1");
  EXPECT_EQ(modem_api_delete_nv(client, 7, 1, 3), MODEM_API_ERR_NOT_READY);
}

TEST_F(ClientTest, APassThroughCommandReturnsDataAndThenItsEnd) {
  const int32_t client = open(MODEM_API_CLIENT_VS);
  const Bytes payload(MODEM_API_MAX_PASS_THROUGH_BYTES, 0x33);
  EXPECT_EQ(modem_api_common_command(client, payload.data(), 512), MODEM_API_SUCCESS);
  ASSERT_EQ(modem_api_common_command_async(client, payload.data(), 512, nullptr, Calls::add_response),
            MODEM_API_SUCCESS);
  const Calls::Call data = Calls::next();
  EXPECT_EQ(data.id, uint32_t{MODEM_API_SUCCESS});
  EXPECT_EQ(data.data, payload);
  EXPECT_EQ(Calls::next().id, uint32_t{MODEM_API_RESP_END});
}

TEST_F(ClientTest, EventsThatWereSubscribedArriveWithTheirPayloads) {
  const int32_t client = open(MODEM_API_CLIENT_VS, Calls::add_event);
  for (const int32_t event : {3, 5}) EXPECT_EQ(modem_api_add_modem_event(client, event), MODEM_API_SUCCESS);
  ASSERT_EQ(modem_api_set_vs_event_report(client), MODEM_API_SUCCESS);
  ctl("event 2 77 0 9");
  const auto status = Calls::next_event<modem_api_vs_status_event>(2);
  EXPECT_EQ(status.value, 77u);
  EXPECT_EQ(status.flag2, 1);
  ctl("event 3 5 record 0:82:0102 record 1:98:ff secondary 1:6:abcd trailer 9");
  const auto report_a = Calls::next_event<modem_api_vs_report_a_event>(3);
  EXPECT_EQ(report_a.value, 5u);
  ASSERT_EQ(report_a.record_count, 2u);
  EXPECT_EQ(report_a.records[0].id, 82u);
  EXPECT_EQ(report_a.records[0].data_len, 2u);
  EXPECT_EQ(report_a.records[0].data[1], 2);
  EXPECT_EQ(report_a.records[1].sub, 1);
  ASSERT_EQ(report_a.secondary_count, 1u);
  EXPECT_EQ(report_a.secondary[0].data[0], 0xAB);
  EXPECT_EQ(report_a.trailer, 9u);
  ctl("event 4 1 0aff 7 8");
  const auto report_b = Calls::next_event<modem_api_vs_report_b_event>(4);
  EXPECT_EQ(report_b.entry_count, 2u);
  EXPECT_EQ(report_b.entries[1], 255u);
  EXPECT_EQ(report_b.second, 8);

  ASSERT_EQ(modem_api_remove_modem_event(client, 5), MODEM_API_SUCCESS);
  ctl("event 5 2");  // the modem has not received the change yet
  EXPECT_EQ(Calls::next_event<modem_api_vs_report_c_event>(5).value, 2);
  ASSERT_EQ(modem_api_set_vs_event_report(client), MODEM_API_SUCCESS);
  ctl("event 5 3");
  ctl("event 2 1 0 0");
  EXPECT_EQ(Calls::next_event<modem_api_vs_status_event>(2).value, 1u);
}

TEST_F(ClientTest, StatisticsAreReadDecodedAndReported) {
  ctl("statistic 0 lte-scc6 earfcn=1300 pci=101 rsrp_rx0=-850 snr_rx3=180");
  ctl("statistic 0 lte-uplink pusch_tx_power=-10");
  ctl("statistic 1 nr-uplink tx_power_pusch=3.7");
  ctl("statistic 0 system-mode rat=9");
  ctl("statistic 1 system-mode rat=12");
  ASSERT_EQ(modem_hydra_api_init_ex(Calls::add_event, nullptr), 1);
  modem_hydra_lte_srv_meas_info cell{};
  EXPECT_EQ(modem_hydra_lte_srv_meas_info_get_for_scc6(0, &cell), 1);
  EXPECT_EQ(cell.earfcn, 1300u);
  EXPECT_EQ(cell.pci, 101);
  EXPECT_EQ(cell.rsrp[0], -850);
  EXPECT_EQ(cell.snr[3], 180);
  EXPECT_EQ(modem_hydra_lte_srv_meas_info_get_for_scc6(1, &cell), 0) << "the modem has no such carrier";
  EXPECT_EQ(static_cast<int32_t>(modem_tx_power_get_by_sub(0)), -10);
  EXPECT_EQ(static_cast<int32_t>(modem_tx_power_get_for_max_sub()), 3);
  property_set("persist.radio.default_data_sub", "1");
  EXPECT_EQ(static_cast<int32_t>(modem_tx_power_get_for_dds_sub()), 3);

  ctl("clock 0");
  modem_hydra_stats_id_alloc();
  modem_api_stats_registration record{};
  record.id = 0x2c;
  EXPECT_EQ(modem_hydra_register_modem_stats_data(1, 1, 0, 0, &record, 1), MODEM_API_SUCCESS);
  ctl("clock advance 1000");
  const auto report = Calls::next_event<modem_api_vs_report_a_event>(3);
  ASSERT_EQ(report.record_count, 1u);
  EXPECT_EQ(report.records[0].sub, 1);
  EXPECT_EQ(report.records[0].data[1], 12);
  EXPECT_EQ(Calls::next_event<modem_api_vs_report_b_event>(4).entry_count, 1u);
  modem_hydra_stats_id_free();
  EXPECT_EQ(modem().value("status", "/statistics/reporters"), 0);
}

TEST_F(ClientTest, AKilledClientFreesItsId) {
  std::list<ClientProcess> clients;
  for (int i = 0; i < 10; ++i) clients.emplace_back("mtb", "hold", std::vector<std::string>{"0", "0"});
  for (ClientProcess& client : clients) ASSERT_EQ(client.line(), "0");
  EXPECT_EQ(clients.front().end(SIGKILL), -SIGKILL);
  open(MODEM_API_CLIENT_VS);
}

TEST_F(ClientTest, AClientWaitsForAServiceThatIsAbsent) {
  ctl("service vs down");
  auto opening = std::async(std::launch::async, [] { return open(MODEM_API_CLIENT_VS); });
  EXPECT_TRUE(sim::test::comes_true([&] { return modem().value("status", "/counters/requests") >= 2; }));
  ctl("service vs up");
  EXPECT_EQ(modem_api_notify_shutdown(opening.get()), MODEM_API_SUCCESS);
}

TEST_F(ClientTest, AModemThatDiesInTheMiddleOfAResponseEndsTheCallAtOnce) {
  const int32_t client = open(MODEM_API_CLIENT_VS);
  const uint8_t byte = 1;
  ASSERT_EQ(modem_api_write_nv(client, 1, 0, 0, &byte, 1), MODEM_API_SUCCESS);
  ctl("die modem vs");
  uint8_t data[4] = {42};
  uint32_t length = sizeof(data);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(modem_api_read_nv(client, 1, 0, 0, data, &length), MODEM_API_ERR_GENERIC);
  EXPECT_EQ(data[0], 42) << "no part of a response that broke off";
  EXPECT_EQ(modem_api_write_nv(client, 1, 0, 0, &byte, 1), MODEM_API_ERR_GENERIC) << "not while the service is gone";
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(25)) << "no command waits for its time-out";
  EXPECT_EQ(modem().end(0), 70);
  EXPECT_EQ(modem_api_free_client(client), MODEM_API_SUCCESS);
}

TEST_F(ClientTest, AProcessOfAnotherNameIsRefused) {
  const std::pair<const char*, const char*> cases[] = {{"qcrilNrd", "0"}, {"mtb", "0"}, {"modem_api_test", "0"},
                                                       {"mtb2", "6"},     {"MTB", "6"}, {"rild", "6"}};
  for (const auto& [name, result] : cases) EXPECT_EQ(ClientProcess(name, "hold", {"0", "0"}).line(), result) << name;
}

}  // namespace
}  // namespace pelmar::system_test
