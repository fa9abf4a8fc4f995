// The fetch of a value, under the shortest of decoders: what is asked, and which answers are refused.
#include <atomic>
#include <thread>

#include "hydra_test.h"

namespace {

using namespace scripted;

class HydraFetch : public HydraTest {
 protected:
  HydraFetch() { values[{1, 0x64}] = bytes("01 02 0304 0506 07 08"); }

  static uint8_t fetch(uint32_t sub) {
    modem_hydra_mcs_trm_asdiv record = {};
    return modem_hydra_mcs_trm_asdiv_get(sub, &record);
  }
};

TEST_F(HydraFetch, OpensHydraOnDemandAndNumbersItsRequests) {
  on_init_instance = [](int) { return QMI_SERVICE_ERR; };
  EXPECT_EQ(fetch(2), 0);
  EXPECT_EQ(lines_of("modem_hydra_api_init_ex").size(), 3u);
  on_init_instance = nullptr;
  EXPECT_EQ(fetch(1), 1);
  EXPECT_EQ(fetch(2), 0);  // refused before anything is sent
  EXPECT_EQ(fetch(1), 1);
  EXPECT_EQ(lines_of("modem_hydra_data_get"),
            (Lines{"E The hydra is not inited, will init it", "E The hydra init failed, will do nothing",
                   "E The hydra is not inited, will init it",
                   "D Success to get data, number = 1, sub = 1, ret id_num = 1, id = 100, data_len = 8",
                   "E modem_api_get_stats_parameter, sub(2) is invalid",
                   "D Success to get data, number = 2, sub = 1, ret id_num = 1, id = 100, data_len = 8"}));
  // Subscription, slot, one entry of which only the identifier is set.
  ASSERT_EQ(requests().size(), 2u);
  EXPECT_EQ(requests()[1], structure(7128, "0:0100 2:0200 4:01000000 12:64000000"));
}

// Answers with several faults are refused for the first.
TEST_F(HydraFetch, ChecksTheAnswerInOrder) {
  struct Case {
    void (*tamper)(vs::GetStatsParameterResponse& response);
    std::string line;  // behind "Fail to get data", with # for the number; empty: accepted
  };
  const Case cases[] = {
      {[](auto& r) { r.records_valid = 0; }, " fail, number = #, ret = 1, sub = 1, id = 100"},
      {[](auto& r) { r.record_count = 0; }, ", empty, number = #, sub = 1, ret id_num = 0, id = 100"},
      {[](auto& r) { r.record_count = 2; }, ", id num error, number = #, sub = 1, ret id_num = 2, id = 100"},
      {[](auto& r) { r.record_count = 0xFFFFFFFF; }, ", id num error, number = #, sub = 1, ret id_num = 10, id = 100"},
      {[](auto& r) {
         r.records[0] = {0, 0, 0x65, 0, {}};
       },
       ", ret_id(101) is invalid, number = #, sub = 1, ret id_num = 1, id = 100"},
      {[](auto& r) {
         r.records[0] = {0, 0, 0x64, 0, {}};
       },
       ", ret_sub(0) is invalid, number = #, sub = 1, ret id_num = 1, id = 100"},
      {[](auto& r) { r.records[0].data_len = 0; },
       ", data_len(0) is invalid, should be in (0, 700], number = #, sub = 1, ret id_num = 1, id = 100"},
      {[](auto& r) { r.records[0].data_len = 700; }, ""},
      {[](auto& r) { r.records[0].data_len = 0xFFFFFFFF; }, ""},
      {[](auto& r) { r.records[0].sub_high = 9; }, ""},
  };
  open_hydra();
  for (size_t i = 0; i < std::size(cases); ++i) {
    tamper = cases[i].tamper;
    forget();
    EXPECT_EQ(fetch(1), cases[i].line.empty()) << i;
    if (cases[i].line.empty()) continue;
    std::string line = "E Fail to get data" + cases[i].line;
    line.replace(line.find('#'), 1, std::to_string(i + 1));
    EXPECT_EQ(lines_of("modem_hydra_data_get"), Lines{line});
  }
}

// Opening hydra for a first reading must not wait for a callback that waits for its turn to read.
TEST_F(HydraFetch, OpensBesideACallbackThatReads) {
  modem_api_init();
  static std::thread first_reader;
  static std::atomic<int> readings{0};
  const auto on_notice = [](uint32_t notice, uint32_t) {
    if (notice != MODEM_API_NOTICE_SERVICE_UP) return;
    first_reader = std::thread([] { readings += fetch(1); });
    while (lines_of("modem_hydra_api_init_ex").empty()) std::this_thread::yield();
    readings += fetch(1);
  };
  int32_t client = -1;
  modem_api_init_client(MODEM_API_CLIENT_NAS_0, nullptr, on_notice, &client);
  first_reader.join();
  EXPECT_EQ(readings, 2);
}

}  // namespace
