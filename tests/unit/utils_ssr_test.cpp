// The modem's restart type.
#include "golden_log.h"
#include "pelmar_ssr.h"

namespace scripted {
namespace {

using testing::ElementsAre;

const std::string kLevel = "persist.vendor.ssr.restart_level";
const std::string kSaved = "persist.vendor.ssr.type_bak";
const std::string kFlag = "persist.vendor.ssr.type_bak_flag";

using RestartType = Golden<testing::Test>;

// The first call saves the level that a later set of type 0 restores: a get the present one, a set the one that it
// wrote.
TEST_F(RestartType, IsReadFromAndWrittenToProperties) {
  const std::string enable = "ALL_ENABLE", disable = "ALL_DISABLE";
  constexpr int32_t kGet = 100;
  const struct {
    int32_t type;  // to set, or kGet
    std::string level, saved, flag;
    int32_t result;
    Lines written;
  } calls[] = {
      {kGet, disable, "", "", 0, {kSaved + "=" + disable, kFlag + "=yes"}},
      {kGet, enable, enable, "yes", 0, {}},
      {kGet, enable, disable, "yes", 1, {}},
      {kGet, disable, "x", "yes", 2, {}},
      {kGet, "", "x", "yes", 2, {}},
      {kGet, "", "", "yes", 0, {}},
      {kGet, "related", "x", "yes", 3, {}},
      {0, enable, "x", "", 0, {}},
      {0, enable, enable, "yes", 0, {}},
      {0, enable, disable, "yes", 1, {kLevel + "=" + disable}},
      {1, disable, "", "", 1, {kLevel + "=" + enable, kSaved + "=" + enable, kFlag + "=yes"}},
      {1, enable, "x", "", 0, {}},
      {2, disable, "x", "yes", 0, {}},
      {2, "", "x", "yes", 1, {kLevel + "=" + disable}},
      {2, "related", "x", "yes", 1, {kLevel + "=" + disable}},
      {3, disable, "x", "yes", 0, {}},
      {-1, disable, "x", "yes", 0, {}},
  };
  for (const auto& call : calls) {
    SCOPED_TRACE(&call - calls);
    properties = {{kLevel, call.level}, {kSaved, call.saved}, {kFlag, call.flag}};
    property_writes.clear();
    EXPECT_EQ(call.type == kGet ? pelmar_get_modem_ssr_type() : pelmar_set_modem_ssr_type(call.type), call.result);
    EXPECT_EQ(property_writes, call.written);
  }
}

TEST_F(RestartType, NameIsCopiedWithoutTerminatorAndNeverEmpty) {
  const std::tuple<const char*, uint32_t, std::string> cases[] = {
      {"ALL_ENABLE", 16, "ALL_ENABLE"}, {"ALL_ENABLE", 3, "ALL"}, {"", 5, "CONFIG_EMPTY"}, {"x", 0, "CONFIG_EMPTY"}};
  uint32_t length = 16;
  for (const auto& [level, room, wanted] : cases) {
    properties[kLevel] = level;
    std::string name(16, '#');
    length = room;
    pelmar_get_modem_ssr_type_name(name.data(), &length);
    EXPECT_EQ(name, wanted + std::string(16 - wanted.size(), '#'));
    EXPECT_EQ(length, room);
    pelmar_get_modem_ssr_type_name(name.data(), nullptr);
  }
  pelmar_get_modem_ssr_type_name(nullptr, &length);
}

TEST_F(RestartType, WaitSleepsAsGivenOrConfigured) {
  EXPECT_EQ(pelmar_modem_ssr_wait_s(0), 0);
  EXPECT_EQ(pelmar_modem_ssr_wait_s(-1), 5);
  EXPECT_EQ(pelmar_modem_ssr_wait_s(2), 2);
  properties["persist.radio.ssr_wait_s"] = "-3";
  EXPECT_EQ(pelmar_modem_ssr_wait_s(-1), -3);
  EXPECT_THAT(calls(), ElementsAre(Call{.name = "sleep", .timeout = 5}, Call{.name = "sleep", .timeout = 2}));
}

}  // namespace
}  // namespace scripted
