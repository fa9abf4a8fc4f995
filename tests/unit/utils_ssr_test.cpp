// The modem's restart type.
#include "golden_log.h"
#include "pelmar_ssr.h"

namespace scripted {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kLevel = "persist.vendor.ssr.restart_level";
const std::string kSaved = "persist.vendor.ssr.type_bak";
const std::string kFlag = "persist.vendor.ssr.type_bak_flag";

using RestartType = Golden<testing::Test>;

TEST_F(RestartType, FirstCallSavesTheLevelThatZeroRestores) {
  properties[kLevel] = "ALL_DISABLE";
  EXPECT_EQ(pelmar_get_modem_ssr_type(), MODEM_RESTART_LEVEL_ID_DEF);
  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_SSR), 1);
  EXPECT_EQ(pelmar_get_modem_ssr_type(), MODEM_RESTART_LEVEL_ID_SSR);
  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DEF), 1);
  EXPECT_THAT(property_writes,
              ElementsAre(kSaved + "=ALL_DISABLE", kFlag + "=yes", kLevel + "=ALL_ENABLE", kLevel + "=ALL_DISABLE"));
  // The first set saves the level that it wrote.
  properties = {{kLevel, "ALL_DISABLE"}};
  property_writes.clear();
  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_SSR), 1);
  EXPECT_THAT(property_writes, ElementsAre(kLevel + "=ALL_ENABLE", kSaved + "=ALL_ENABLE", kFlag + "=yes"));
  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DEF), 0);
}

TEST_F(RestartType, GetNamesTheLevel) {
  const std::tuple<const char*, const char*, int32_t> cases[] = {{"ALL_ENABLE", "ALL_ENABLE", 0},
                                                                 {"ALL_ENABLE", "x", 1},
                                                                 {"ALL_DISABLE", "x", 2},
                                                                 {"", "x", 2},
                                                                 {"", "", 0},
                                                                 {"related", "x", 3}};
  for (const auto& [level, saved, type] : cases) {
    properties = {{kLevel, level}, {kSaved, saved}, {kFlag, "yes"}};
    EXPECT_EQ(pelmar_get_modem_ssr_type(), type) << level;
  }
  EXPECT_THAT(property_writes, IsEmpty());
}

TEST_F(RestartType, SetWritesAnotherLevelAlone) {
  const struct {
    int32_t type;
    const char* level;
    const char* flag;
    const char* written;  // empty: nothing
  } cases[] = {
      {0, "ALL_ENABLE", "", ""},
      {1, "ALL_ENABLE", "", ""},
      {2, "ALL_DISABLE", "yes", ""},
      {3, "ALL_DISABLE", "yes", ""},
      {-1, "ALL_DISABLE", "yes", ""},
      {2, "", "yes", "ALL_DISABLE"},
      {2, "related", "yes", "ALL_DISABLE"},
      {2, "ALL_ENABLE", "yes", "ALL_DISABLE"},
  };
  for (const auto& [type, level, flag, written] : cases) {
    properties = {{kLevel, level}, {kSaved, "x"}, {kFlag, flag}};
    property_writes.clear();
    const Lines writes = *written == 0 ? Lines{} : Lines{kLevel + "=" + written};
    EXPECT_EQ(pelmar_set_modem_ssr_type(type), static_cast<int32_t>(writes.size())) << level;
    EXPECT_EQ(property_writes, writes) << "the level is saved once";
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
