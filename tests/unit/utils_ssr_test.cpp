// The modem's restart type.
#include "library_test.h"

namespace scripted {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kLevel = "persist.vendor.ssr.restart_level";
const std::string kSaved = "persist.vendor.ssr.type_bak";
const std::string kFlag = "persist.vendor.ssr.type_bak_flag";

TEST(RestartType, FirstGetSavesTheLevelThatZeroRestores) {
  properties[kLevel] = "ALL_DISABLE";
  EXPECT_EQ(pelmar_get_modem_ssr_type(), MODEM_RESTART_LEVEL_ID_DEF);
  EXPECT_THAT(property_writes, ElementsAre(kSaved + "=ALL_DISABLE", kFlag + "=yes"));
  property_writes.clear();

  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_SSR), 1);
  EXPECT_THAT(property_writes, ElementsAre(kLevel + "=ALL_ENABLE"));
  EXPECT_EQ(pelmar_get_modem_ssr_type(), MODEM_RESTART_LEVEL_ID_SSR);
  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DEF), 1);
  EXPECT_EQ(properties[kLevel], "ALL_DISABLE");
}

TEST(RestartType, FirstSetSavesTheLevelItWrote) {
  properties[kLevel] = "ALL_DISABLE";
  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_SSR), 1);
  EXPECT_THAT(property_writes, ElementsAre(kLevel + "=ALL_ENABLE", kSaved + "=ALL_ENABLE", kFlag + "=yes"));
  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DEF), 0);
}

TEST(RestartType, GetNamesTheLevel) {
  const struct {
    const char* level;
    const char* saved;
    int32_t type;
  } cases[] = {{"ALL_ENABLE", "ALL_ENABLE", 0},
               {"ALL_ENABLE", "x", 1},
               {"ALL_DISABLE", "x", 2},
               {"", "x", 2},
               {"", "", 0},
               {"related", "x", 3}};
  for (const auto& level_case : cases) {
    properties = {{kLevel, level_case.level}, {kSaved, level_case.saved}, {kFlag, "yes"}};
    EXPECT_EQ(pelmar_get_modem_ssr_type(), level_case.type) << level_case.level;
  }
  EXPECT_THAT(property_writes, IsEmpty());
}

TEST(RestartType, SetWritesAnotherLevelAlone) {
  const struct {
    int32_t type;
    const char* level;
    const char* flag;
    int32_t result;
    const char* written;
  } cases[] = {
      {0, "ALL_ENABLE", "", 0, "ALL_ENABLE"},       {1, "ALL_ENABLE", "", 0, "ALL_ENABLE"},
      {2, "ALL_DISABLE", "yes", 0, "ALL_DISABLE"},  {3, "ALL_DISABLE", "yes", 0, "ALL_DISABLE"},
      {-1, "ALL_DISABLE", "yes", 0, "ALL_DISABLE"}, {2, "", "yes", 1, "ALL_DISABLE"},
      {2, "related", "yes", 1, "ALL_DISABLE"},      {2, "ALL_ENABLE", "yes", 1, "ALL_DISABLE"},
  };
  for (const auto& set_case : cases) {
    properties = {{kLevel, set_case.level}, {kSaved, "x"}, {kFlag, set_case.flag}};
    EXPECT_EQ(pelmar_set_modem_ssr_type(set_case.type), set_case.result) << set_case.level;
    EXPECT_EQ(properties[kLevel], set_case.written);
    EXPECT_EQ(properties[kSaved], "x") << "saved once";
  }
}

TEST(RestartTypeName, CopiesWithoutTerminatorAndNeverNothing) {
  const struct {
    const char* level;
    uint32_t room;
    std::string name;
  } cases[] = {
      {"ALL_ENABLE", 16, "ALL_ENABLE"}, {"ALL_ENABLE", 3, "ALL"}, {"", 5, "CONFIG_EMPTY"}, {"x", 0, "CONFIG_EMPTY"}};
  for (const auto& name_case : cases) {
    properties[kLevel] = name_case.level;
    std::string name(16, '#');
    uint32_t length = name_case.room;
    pelmar_get_modem_ssr_type_name(name.data(), &length);
    EXPECT_EQ(name, name_case.name + std::string(16 - name_case.name.size(), '#'));
    EXPECT_EQ(length, name_case.room);
  }
}

TEST(RestartWait, SleepsAsRequestedOrConfigured) {
  EXPECT_EQ(pelmar_modem_ssr_wait_s(0), 0);
  EXPECT_EQ(pelmar_modem_ssr_wait_s(-1), 5);
  EXPECT_EQ(pelmar_modem_ssr_wait_s(2), 2);
  properties["persist.radio.ssr_wait_s"] = "-3";
  EXPECT_EQ(pelmar_modem_ssr_wait_s(-1), -3);
  EXPECT_THAT(sleeps, ElementsAre(5U, 2U));
}

}  // namespace
}  // namespace scripted
