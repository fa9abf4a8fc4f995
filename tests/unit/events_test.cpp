// Subscriptions of modem events, the report request that follows from them, and the registration for NAS indications.
#include "client_command.h"

namespace {

using namespace scripted;
using testing::ElementsAre;

class Events : public CommandTest {
 protected:
  using Edit = modem_api_result (*)(int32_t client_id, int32_t event);

  // The result of an edit, and its messages.
  static void expect_edit(Edit edit, int32_t client_id, int32_t event, modem_api_result result,
                          const std::vector<std::string>& lines) {
    clear_log();
    EXPECT_EQ(edit(client_id, event), result) << client_id << ", " << event;
    EXPECT_EQ(messages(), lines);
  }

  const CommandRow report_ = {
      "modem_api_set_vs_event_report", modem_api_set_vs_event_report, MODEM_API_CLIENT_VS, 1, {1, 0, 1, 0}};
};

TEST_F(Events, RefusesToEditWhatIsNoSubscription) {
  const std::pair<Edit, std::string> edits[] = {{modem_api_add_modem_event, "E modem_api_add_modem_event: "},
                                                {modem_api_remove_modem_event, "E modem_api_remove_modem_event: "}};
  for (const auto& [edit, prefix] : edits) {
    for (int32_t event : {-1, 0, 1, 2, 6}) {
      const auto line = prefix + "modem event " + std::to_string(event) + " not supported";
      for (int32_t client_id : {0, 1, 4}) expect_edit(edit, client_id, event, 4, {line});
    }
    for (int32_t client_id : {1, 2, 3, 4}) expect_edit(edit, client_id, 3, 6, {prefix + "client not initialized"});
    expect_edit(edit, -1, 2, 7, {});
  }
  EXPECT_EQ(modem_api_free_client(0), 0);
  modem_api_init();
  int32_t id = -1;
  ASSERT_EQ(modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &id), 0);
  for (const auto& [edit, prefix] : edits) expect_edit(edit, id, 5, 6, {prefix + "client not initialized"});
}

TEST_F(Events, AddsAgainButRemovesOnce) {
  const std::string added = "E modem_api_add_modem_event: event already added";
  const std::string removed = "E modem_api_remove_modem_event: event already removed";
  for (int32_t event : {3, 4, 5}) {
    expect_edit(modem_api_remove_modem_event, 0, event, 13, {removed});
    expect_edit(modem_api_add_modem_event, 0, event, 0, {});
    EXPECT_THAT(log_bodies(), ElementsAre("D modem_api_add_modem_event: function entry ------------->",
                                          "D modem_api_add_modem_event: function exit, ret(0) <-------------"));
    expect_edit(modem_api_add_modem_event, 0, event, 0, {added});
    expect_edit(modem_api_remove_modem_event, 0, event, 0, {});
    EXPECT_THAT(log_bodies(), ElementsAre());
    expect_edit(modem_api_remove_modem_event, 0, event, 13, {removed});
  }
}

TEST_F(Events, ReportsWhatIsSubscribed) {
  for (int subscribed = 0; subscribed < 8; ++subscribed) {
    for (int event = 3; event <= 5; ++event) {
      const bool wanted = (subscribed >> (event - 3) & 1) != 0;
      wanted ? modem_api_add_modem_event(0, event) : modem_api_remove_modem_event(0, event);
    }
    CommandRow row = report_;
    row.request[1] = (subscribed & 3) != 0;
    row.request[3] = (subscribed & 4) != 0;
    expect_exchange(row);
  }
  expect_mapped(report_);
  EXPECT_EQ(modem_api_set_vs_event_report(0), MODEM_API_SUCCESS);
}

TEST_F(Events, RegistersEachNasConnectionForItsIndications) {
  const auto request = fields(175, {{4, 1, 1}});
  for (int32_t sub : {0, 1, 5, -1}) {
    const modem_api_client_type type = sub == 0 ? MODEM_API_CLIENT_NAS_0 : MODEM_API_CLIENT_NAS_1;
    const CommandRow row = {"modem_api_util_enable_networking_indications",
                            [=](int32_t id) { return modem_api_util_enable_networking_indications(id, sub); },
                            type,
                            0x0003,
                            request,
                            8,
                            "enable_indication result: "};
    expect_exchange(row);
    expect_mapped(row);
  }
  // The connection's own registration answers the transport code as it is.
  on_send = [](const Call&) { return Answer{-3, {}}; };
  const CommandRow own[] = {
      {"nas_0_client_set_networking_indications", [](int32_t) { return nas_0_client_set_networking_indications(); },
       MODEM_API_CLIENT_NAS_0, 0x0003, request},
      {"nas_1_client_set_networking_indications", [](int32_t) { return nas_1_client_set_networking_indications(); },
       MODEM_API_CLIENT_NAS_1, 0x0003, request}};
  for (const CommandRow& row : own) {
    EXPECT_EQ(run(row, 0), -3);
    EXPECT_THAT(messages(), ElementsAre("D " + row.name + ": enable_indication result: -3"));
    EXPECT_THAT(calls(), ElementsAre(Call{"send_msg_sync", connection(row.type), row.msg_id, request, 8, 30000}));
  }
}

}  // namespace
