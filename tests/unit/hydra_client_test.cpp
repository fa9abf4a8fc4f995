// Hydra's client and its statistics client id: opening and closing, the feature, report switching, pass-through.
#include "hydra_test.h"

namespace {

using namespace scripted;

const std::string kNotInited = "E The hydra is not inited, do nothing";

class HydraClient : public HydraTest {
 protected:
  // Grants a statistics client id, written in hexadecimal.
  void grant(const std::string& id) {
    answers[vs::kSetStatsReportStatus] = {0, structure(16, "8:01 12:" + id + "000000")};
  }
  void refuse(unsigned msg_id) { answers[msg_id] = {0, header(1, 52)}; }
};

TEST_F(HydraClient, OpeningDropsEveryOtherClient) {
  open_hydra();
  int32_t nas = -1;
  ASSERT_EQ(modem_api_init_client(MODEM_API_CLIENT_NAS_0, nullptr, nullptr, &nas), MODEM_API_SUCCESS);
  forget();
  EXPECT_EQ(modem_hydra_api_init(), 1);
  EXPECT_EQ(lines_of("modem_hydra_api_init_ex"), (Lines{"D old g_hydra_client_id = 0", "D new g_hydra_client_id = 0"}));
  const Lines bodies = log_bodies();
  auto position = bodies.begin();
  for (const std::string step : {"free_client", "release", "init", "init_client"}) {
    position = std::find(position, bodies.end(), "D modem_api_" + step + ": function entry ------------->");
    EXPECT_NE(position, bodies.end()) << step;
  }
  uint8_t valid = 0;
  uint32_t drx = 0;
  EXPECT_EQ(modem_api_get_drx(nas, &valid, &drx), MODEM_API_ERR_INVALID_CLIENT);

  on_init_instance = [](int) { return QMI_SERVICE_ERR; };
  forget();
  EXPECT_EQ(modem_hydra_api_init(), 0);
  EXPECT_EQ(lines_of("modem_hydra_api_init_ex"),
            (Lines{"D old g_hydra_client_id = 0", "D new g_hydra_client_id = -1", "E modem_api_init_client failed"}));
  EXPECT_EQ(modem_hydra_api_is_inited(), 0);
}

TEST_F(HydraClient, ServesTheGivenCallbacksOrOnlyLogs) {
  ASSERT_EQ(modem_hydra_api_init(), 1);
  indicate(last_connection(), vs::kReportCIndication, bytes("01 0100 07"));
  EXPECT_EQ(lines_of("modem_hydra_operational_status_cb"), Lines{"D do nothing, event_id = 65538, client_type = 0"});
  EXPECT_EQ(lines_of("modem_hydra_callback_event_cb"), Lines{"D do nothing, event_id = 5, data_len = 1"});
  ASSERT_EQ(modem_hydra_api_init_ex(on_event, on_notice), 1);
  indicate(last_connection(), vs::kReportCIndication, bytes("01 0100 07"));
  EXPECT_EQ(notices.size(), 1u);
  EXPECT_EQ(events.at(0), (Event{MODEM_API_EVENT_VS_REPORT_C, {7}}));
}

// A closed hydra is no error to its callers.
TEST_F(HydraClient, DoesNothingWhileClosed) {
  EXPECT_EQ(modem_hydra_stats_is_started(), 0);
  EXPECT_EQ(modem_hydra_stats_start(), 0);
  EXPECT_EQ(modem_hydra_stats_stop(), 0);
  EXPECT_EQ(modem_hydra_register_modem_stats_data(0, 0, 0, 0, nullptr, 0), 0);
  EXPECT_EQ(modem_hydra_deregister_modem_stats_data(0, 0, 0, 0, nullptr, 0), 0);
  EXPECT_EQ(modem_hydra_get_stats_parameter(0, 1, nullptr), 0);
  EXPECT_EQ(modem_hydra_clear_stats_parameter(0, 1, 0, nullptr), 0);
  EXPECT_EQ(modem_hydra_stats_id_alloc(), 1);
  for (const char* const function :
       {"get_feature_status", "stats_start", "stats_stop", "register_modem_stats_data", "deregister_modem_stats_data",
        "get_stats_parameter", "clear_stats_parameter", "set_vs_event_report", "set_modem_stats_report_status"}) {
    EXPECT_EQ(lines_of(std::string("modem_hydra_") + function), Lines{kNotInited}) << function;
  }
  EXPECT_EQ(lines_of("modem_hydra_add_modem_event"), (Lines{kNotInited, kNotInited}));
  EXPECT_EQ(lines_of("modem_hydra_stats_id_alloc"),
            Lines{"D modem_hydra_stats_set_report_status, TRUE, result = 0, g_hydra_stats_client_id = -1"});
  EXPECT_TRUE(calls().empty());
}

TEST_F(HydraClient, ReadsAndSwitchesTheFeature) {
  open_hydra();
  answers[vs::kGetFeatureStatus] = {0, structure(12, "8:01")};
  EXPECT_EQ(modem_hydra_stats_is_started(), 1);
  refuse(vs::kGetFeatureStatus);
  EXPECT_EQ(modem_hydra_stats_is_started(), 0);
  EXPECT_EQ(lines_of("modem_hydra_get_feature_status"), (Lines{"D ret = 0", "D ret = 8"}));
  EXPECT_EQ(lines_of("modem_hydra_stats_is_started"),
            (Lines{"D result = 1, enabled = 1, effective = 0", "D result = 0, enabled = 0, effective = 0"}));
  EXPECT_EQ(modem_hydra_stats_start(), 1);
  EXPECT_EQ(requests().back(), bytes("02000000 01 01 01 00"));
  refuse(vs::kSetFeatureStatus);
  EXPECT_EQ(modem_hydra_stats_stop(), 0);
  EXPECT_EQ(requests().back(), bytes("02000000 00 00 00 00"));
  EXPECT_EQ(lines_of("modem_hydra_set_feature_status"), (Lines{"D ret = 0", "D ret = 8"}));
}

class HydraReporting : public HydraClient {
 protected:
  // What changes, what is then done, what is sent, and what the switching writes but its exit.
  struct Step {
    std::function<void()> change;
    bool allocates;
    Lines requests;
    Lines lines;
  };

  static void take(const Step& step) {
    step.change();
    forget();
    if (step.allocates) {
      EXPECT_EQ(modem_hydra_stats_id_alloc(), 1);
    } else {
      modem_hydra_stats_id_free();
    }
    std::vector<Bytes> expected;
    for (const std::string& request : step.requests) expected.push_back(bytes(request));
    EXPECT_EQ(requests(), expected);
    Lines lines = lines_of("modem_hydra_stats_set_report_status");
    std::erase(lines, "D function exit <-------------");
    EXPECT_EQ(lines, step.lines);
  }
};

TEST_F(HydraReporting, SwitchesUntilAStepFails) {
  const std::string events_on = "01 01 01 00";
  const std::string events_off = "01 00 01 00";
  const std::string on = "01 00 0000 00000000";
  const std::string off_3 = "00 01 0000 03000000";
  const std::string enabled = "D enable, modem_api_ret = 0";
  const std::string disabled = "D disable, modem_api_ret = 0";
  const std::string flag_on = "D flag = 1, stats_client_id = ";
  const std::string flag_off = "D flag = 0, stats_client_id = ";
  const std::string remove = "D modem_hydra_remove_modem_event";
  const std::string status = "D modem_hydra_set_modem_stats_report_status";
  const std::string ret_0 = ", modem_api_ret = 0, stats_client_id = ";
  const std::string ret_8 = ", modem_api_ret = 8, stats_client_id = ";
  const std::string failed_8 = status + " failed, modem_api_ret = 8";
  const Step steps[] = {
      {[&] { grant("0C"); }, true, {events_on, on}, {flag_on + "-1", enabled, status + ret_0 + "12"}},
      // The held id goes back first.
      {[&] { grant("03"); },
       true,
       {events_off, "00 01 0000 0C000000", events_on, on},
       {flag_off + "12", disabled, status + ret_0 + "12", flag_on + "12", enabled, status + ret_0 + "3"}},
      {[&] { refuse(vs::kSetStatsReportStatus); },
       true,
       {events_off, off_3, events_on, on},
       {flag_off + "3", disabled, status + ret_8 + "3", failed_8, flag_on + "3", enabled, status + ret_8 + "3",
        failed_8}},
      // Event 4 is off although event 3 is on, then both are off.
      {[&] { grant("03"), modem_api_remove_modem_event(0, MODEM_API_EVENT_VS_REPORT_B); },
       false,
       {},
       {flag_off + "3", disabled, remove + " fail, modem_api_ret = 13"}},
      {[] {},
       false,
       {off_3},
       {flag_off + "3", "D disable, modem_api_ret = 13", remove + " already done", status + ret_0 + "3"}},
      {[&] { refuse(vs::kSetEventReport); },
       true,
       {off_3, events_on},
       {flag_off + "3", "D disable, modem_api_ret = 13", remove + " already done", status + ret_0 + "3", flag_on + "3",
        enabled, "D modem_hydra_set_vs_event_report fail, modem_api_ret = 8"}},
      // A client without event callback has no subscriptions.
      {[] { modem_hydra_api_init_ex(nullptr, nullptr); },
       false,
       {},
       {flag_off + "3", "D disable, modem_api_ret = 6", remove + " fail, modem_api_ret = 6"}},
  };
  open_hydra();
  for (const Step& step : steps) take(step);
}

TEST_F(HydraClient, KeepsItsStatisticsIdForEver) {
  const auto free_lines = [] { return lines_of("modem_hydra_stats_id_free"); };
  open_hydra();
  const uint32_t id = 0x52;
  EXPECT_EQ(modem_hydra_deregister_modem_stats_data(0, 0, 0, 0, &id, 1), 0);
  EXPECT_EQ(lines_of("modem_hydra_deregister_modem_stats_data"),
            Lines{"E The hydra stats_clien is not inited, do nothing"});
  grant("0C");
  modem_hydra_stats_id_alloc();
  EXPECT_EQ(free_lines().front(), "D g_hydra_stats_client_id is not inited");
  EXPECT_EQ(lines_of("modem_hydra_stats_id_alloc"),
            (Lines{"D modem_hydra_stats_set_report_status, TRUE, result = 0, g_hydra_stats_client_id = 12",
                   "D g_hydra_stats_client_id is out of range, can not >= 10"}));
  forget();
  modem_hydra_stats_id_free();
  EXPECT_EQ(free_lines().front(),
            "D modem_hydra_stats_set_report_status, FALSE, result = 0, g_hydra_stats_client_id = 12");
  EXPECT_EQ(modem_hydra_api_deinit(), MODEM_API_SUCCESS);
  EXPECT_FALSE(is_open(last_connection()));
  EXPECT_EQ(modem_hydra_api_is_inited(), 0);
  EXPECT_EQ(modem_hydra_stats_client_is_inited(), 1);
  open_hydra();
  EXPECT_EQ(modem_hydra_deregister_modem_stats_data(0, 0, 1, 4, &id, 1), MODEM_API_SUCCESS);
  EXPECT_EQ(requests().back(), structure(416, "0:0C000000 4:01000000 8:52000000 412:01 414:0400"));
}

}  // namespace
