// The vote for the modem's power, over a scripted peripheral manager.
#include <string_view>

#include "library_test.h"
#include "modem_api_peripheral_mng.h"
#include "pelmar_log.h"

namespace {

using namespace scripted;

class PeripheralManager : public testing::Test {
 protected:
  PeripheralManager() {
    pelmar_hal_close_shell_print();
    pelmar_hal_get_logcat_print_flag(PELMAR_LOG_LEVEL_DEBUG);
    clear_log();
  }

  static modem_api_peripheral_mng_connection& connection() { return modem_api_peripheral_mng_conn_info; }

  static std::string names() {
    std::string called;
    for (const PmCall& call : pm_calls) called += call.name + " ";
    return called;
  }
};

TEST_F(PeripheralManager, RecordsAreZeroAtLoad) {
  const auto is_zero = [](const auto& record) {
    const std::string_view bytes(reinterpret_cast<const char*>(&record), sizeof record);
    return bytes.find_first_not_of('\0') == bytes.npos;
  };
  EXPECT_TRUE(is_zero(connection()));
  EXPECT_TRUE(is_zero(esoc_info));
}

TEST_F(PeripheralManager, RegistersUnderANameThatFits) {
  const std::string name(40, 'm');
  EXPECT_EQ(modem_api_peripheral_mng_init(name.c_str()), 0);
  EXPECT_EQ(connection().name, name.substr(0, 31));
  EXPECT_EQ(pm_calls.at(0), (PmCall{.name = "register", .device = name.substr(0, 31), .client = "MODEM_API"}));
  EXPECT_THAT(messages(), testing::Contains("D modem_api_peripheral_mng_init: Successful registration\n"));
}

TEST_F(PeripheralManager, IsLeftAloneWithoutRegistration) {
  pm_results["register"] = -1;
  EXPECT_EQ(modem_api_peripheral_mng_init("modem"), 1);
  EXPECT_EQ(modem_api_peripheral_mng_vote(), 0);
  modem_api_peripheral_mng_release_vote();
  modem_api_peripheral_mng_deinit();
  EXPECT_EQ(names(), "register ");
  EXPECT_THAT(messages(), testing::Contains("E modem_api_peripheral_mng_init: Failed to register for modem\n"));
}

TEST_F(PeripheralManager, VotesAndTakesTheVoteBack) {
  modem_api_peripheral_mng_init("modem");
  void* const handle = connection().handle;
  EXPECT_EQ(modem_api_peripheral_mng_vote(), 0);
  modem_api_peripheral_mng_release_vote();
  clear_log();
  pm_results = {{"connect", -2}, {"disconnect", -1}, {"register", -1}};
  EXPECT_EQ(modem_api_peripheral_mng_vote(), -2);
  modem_api_peripheral_mng_release_vote();
  EXPECT_THAT(messages(), testing::ElementsAre("E modem_api_peripheral_mng_vote: modem connect failed -2",
                                               "E modem_api_peripheral_mng_release_vote: modem disconnect failed -1"));
  // Neither the end of the registration nor a failed one changes the handle.
  modem_api_peripheral_mng_deinit();
  EXPECT_EQ(modem_api_peripheral_mng_init("other"), 1);
  EXPECT_EQ(modem_api_peripheral_mng_vote(), -2);
  EXPECT_EQ(pm_calls.back().handle, handle);
  EXPECT_EQ(names(), "register connect disconnect connect disconnect unregister register connect ");
}

TEST_F(PeripheralManager, EventsAreAcknowledgedThenLogged) {
  modem_api_peripheral_mng_init("modem");
  const std::string bodies[] = {"modem is going off-line\n", "modem is off-line\n", "modem going on-line\n",
                                "modem is on-line\n", "modem: invalid event\n"};
  for (int event = 0; event < 5; ++event) {
    clear_log();
    pm_callback(pm_callback_data, static_cast<pm_event>(event));
    EXPECT_EQ(pm_calls.back(), (PmCall{.name = "event_acknowledge", .handle = connection().handle, .event = event}));
    EXPECT_THAT(messages(), testing::ElementsAre("D modem_api_pm_event_notifier: " + bodies[event]));
  }
}

}  // namespace
