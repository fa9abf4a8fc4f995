// Hydra's client and its statistics client id: what opening drops, the requests, and the switching of reports.
#include "hydra_test.h"
#include "vs_client.h"

namespace {

using namespace scripted;

class HydraClient : public Golden<HydraTest> {
 protected:
  HydraClient() { words_ = {"hydra_mgr"}; }

  // Grants a statistics client id, written in hexadecimal.
  void grant(const std::string& id) {
    responses[vs::kSetStatsReportStatus] = structure(16, "8:01 12:" + id + "000000");
  }
};

TEST_F(HydraClient, OpeningDropsEveryOtherClient) {
  open_hydra();
  const int32_t nas = open(MODEM_API_CLIENT_NAS_0);
  EXPECT_EQ(modem_hydra_api_init(), 1);
  EXPECT_EQ(modem_api_set_avoid_trm(nas, 0, 1), MODEM_API_ERR_INVALID_CLIENT);
  on_call["init_instance"] = returns(QMI_SERVICE_ERR);
  EXPECT_EQ(modem_hydra_api_init(), 0);
}

TEST_F(HydraClient, ServesTheGivenCallbacksOrOnlyLogs) {
  ASSERT_EQ(modem_hydra_api_init(), 1);
  indicate(vs_client_info.client_handle, vs::kReportCIndication, bytes("01 0100 07"));
  ASSERT_EQ(modem_hydra_api_init_ex(on_event, on_notice), 1);
  indicate(vs_client_info.client_handle, vs::kReportCIndication, bytes("01 0100 07"));
  EXPECT_EQ(notices, (Notices{{MODEM_API_NOTICE_SERVICE_UP, MODEM_API_CLIENT_VS}}));
  EXPECT_EQ(events, (std::vector<Event>{{MODEM_API_EVENT_VS_REPORT_C, {7}}}));
}

// Closed, hydra does nothing, which is no error to its callers; then the modem grants everything, then nothing.
TEST_F(HydraClient, PassesStatisticsCommandsOn) {
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
  forget();
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
  on_send = [](const Call&) { return Outcome{0, header(1, 52)}; };
  use();
  EXPECT_EQ(requests(), sent);
}

TEST_F(HydraClient, SwitchesReportsUntilAStepFails) {
  const Bytes events_on = bytes("01 01 01 00");
  const Bytes events_off = bytes("01 00 01 00");
  const Bytes on = bytes("01 00 0000 00000000");
  const Bytes off_3 = bytes("00 01 0000 03000000");
  // What changes before the id is allocated (true) or freed, and what is sent.
  const std::tuple<std::function<void()>, bool, std::vector<Bytes>> steps[] = {
      {[&] { grant("0C"); }, true, {events_on, on}},
      // The held id goes back first.
      {[&] { grant("03"); }, true, {events_off, bytes("00 01 0000 0C000000"), events_on, on}},
      {[&] { responses[vs::kSetStatsReportStatus] = header(1, 52); }, true, {events_off, off_3, events_on, on}},
      // Event 4 is off although event 3 is on, then both are off.
      {[&] { grant("03"), modem_api_remove_modem_event(0, MODEM_API_EVENT_VS_REPORT_B); }, false, {}},
      {[] {}, false, {off_3}},
      {[&] { responses[vs::kSetEventReport] = header(1, 52); }, true, {off_3, events_on}},
      // A client without event callback has no subscriptions.
      {[] { modem_hydra_api_init_ex(nullptr, nullptr); }, false, {}},
  };
  open_hydra();
  for (const auto& [change, allocates, sent] : steps) {
    change();
    forget();
    allocates ? static_cast<void>(modem_hydra_stats_id_alloc()) : modem_hydra_stats_id_free();
    EXPECT_EQ(requests(), sent);
  }
}

}  // namespace
