// The vote for the modem's power, over a scripted peripheral manager.
#include "modem_api_peripheral_mng.h"

#include <string_view>

#include "golden_log.h"

namespace {

using namespace scripted;
using testing::ElementsAre;

using PeripheralManager = Golden<testing::Test>;

modem_api_peripheral_mng_connection& connection() {
  return modem_api_peripheral_mng_conn_info;
}

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
  EXPECT_THAT(pm_calls, ElementsAre("register " + name.substr(0, 31) + " MODEM_API"));
}

TEST_F(PeripheralManager, IsLeftAloneWithoutRegistration) {
  pm_results["register"] = -1;
  EXPECT_EQ(modem_api_peripheral_mng_init("modem"), 1);
  EXPECT_EQ(modem_api_peripheral_mng_vote(), 0);
  modem_api_peripheral_mng_release_vote();
  modem_api_peripheral_mng_deinit();
  EXPECT_THAT(pm_calls, ElementsAre("register modem MODEM_API"));
}

TEST_F(PeripheralManager, VotesAndTakesTheVoteBack) {
  modem_api_peripheral_mng_init("modem");
  EXPECT_EQ(modem_api_peripheral_mng_vote(), 0);
  modem_api_peripheral_mng_release_vote();
  for (int event = 0; event < 5; ++event) pm_callback(pm_callback_data, static_cast<pm_event>(event));
  pm_results = {{"connect", -2}, {"disconnect", -1}, {"register", -1}};
  EXPECT_EQ(modem_api_peripheral_mng_vote(), -2);
  modem_api_peripheral_mng_release_vote();
  // Neither the end of the registration nor a failed one changes the handle.
  modem_api_peripheral_mng_deinit();
  EXPECT_EQ(modem_api_peripheral_mng_init("other"), 1);
  EXPECT_EQ(modem_api_peripheral_mng_vote(), -2);
  EXPECT_THAT(pm_calls,
              ElementsAre("register modem MODEM_API", "connect", "disconnect", "event_acknowledge 0",
                          "event_acknowledge 1", "event_acknowledge 2", "event_acknowledge 3", "event_acknowledge 4",
                          "connect", "disconnect", "unregister", "register other MODEM_API", "connect"));
}

}  // namespace
