// The vote for the modem's power, over a scripted peripheral manager.
#include "modem_api_peripheral_mng.h"

#include "library_test.h"

namespace {

using namespace scripted;

using PeripheralManager = Golden<testing::Test>;

TEST_F(PeripheralManager, VotesAndReleasesTheVote) {
  EXPECT_TRUE(is_zero(modem_api_peripheral_mng_conn_info) && is_zero(esoc_info));
  const auto vote_and_release = [](int outcome) {
    EXPECT_EQ(modem_api_peripheral_mng_vote(), outcome);
    modem_api_peripheral_mng_release_vote();
    modem_api_peripheral_mng_deinit();
  };
  on_call["register"] = returns(-1);
  EXPECT_EQ(modem_api_peripheral_mng_init("modem"), 1);
  vote_and_release(0);  // nothing is called without a registration
  on_call["register"] = nullptr;
  const std::string name(40, 'm');
  const std::string register_cut = "register " + name.substr(0, 31) + " MODEM_API";
  EXPECT_EQ(modem_api_peripheral_mng_init(name.c_str()), 0);
  EXPECT_EQ(modem_api_peripheral_mng_conn_info.name, name.substr(0, 31));
  vote_and_release(0);
  for (int event = 0; event < 5; ++event) announce_power(static_cast<pm_event>(event));
  on_call["register"] = on_call["disconnect"] = returns(-1);
  on_call["connect"] = returns(-2);
  // The handle is unchanged after unregistering and after a failed registration.
  EXPECT_EQ(modem_api_peripheral_mng_init("other"), 1);
  vote_and_release(-2);
  EXPECT_THAT(call_names(),
              ElementsAre("register modem MODEM_API", register_cut, "connect", "disconnect", "unregister",
                          "event_acknowledge 0", "event_acknowledge 1", "event_acknowledge 2", "event_acknowledge 3",
                          "event_acknowledge 4", "register other MODEM_API", "connect", "disconnect", "unregister"));
}

}  // namespace
