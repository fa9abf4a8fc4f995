// The modem's restart type.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "settled_log.h"

namespace scripted {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kLevel[] = "persist.vendor.ssr.restart_level";
constexpr char kSaved[] = "persist.vendor.ssr.type_bak";
constexpr char kFlag[] = "persist.vendor.ssr.type_bak_flag";

// What an operation said itself, all at debug level, without the lines of what it called.
Lines said(const std::string& function) {
  Lines lines = new_messages(function);
  for (std::string& line : lines) EXPECT_EQ(line.substr(0, 2), "D ");
  for (std::string& line : lines) line.erase(0, 2);
  return lines;
}

Lines get_said() {
  return said("pelmar_get_modem_ssr_type");
}
Lines set_said() {
  return said("pelmar_set_modem_ssr_type");
}

TEST(RestartType, FirstGetSavesTheLevelThatZeroRestores) {
  settle_log();
  properties[kLevel] = "ALL_DISABLE";
  EXPECT_EQ(pelmar_get_modem_ssr_type(), MODEM_RESTART_LEVEL_ID_DEF);
  EXPECT_THAT(get_said(), ElementsAre("g_ssr_start_flag: 0, ssr_type_bak: , ssr_type_bak_flag: ",
                                      "PROP - MODEM_RESTART_LEVEL_ID_DEF: ALL_DISABLE, type: 0, and save"));
  EXPECT_THAT(property_writes, ElementsAre(PropertyWrite{kSaved, "ALL_DISABLE"}, PropertyWrite{kFlag, "yes"}));
  property_writes.clear();

  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_SSR), 1);
  EXPECT_THAT(set_said(),
              ElementsAre("g_ssr_start_flag: 0, type: 1, ssr_type_bak_flag: yes",
                          "PROP - MODEM_RESTART_LEVEL_ID_SSR: ALL_ENABLE", "PELMAR_SSR_START_WITH_PROP, already bak"));
  EXPECT_THAT(property_writes, ElementsAre(PropertyWrite{kLevel, "ALL_ENABLE"}));
  EXPECT_EQ(pelmar_get_modem_ssr_type(), MODEM_RESTART_LEVEL_ID_SSR);
  EXPECT_THAT(get_said(), ElementsAre("g_ssr_start_flag: 0, ssr_type_bak: ALL_DISABLE, ssr_type_bak_flag: yes",
                                      "PROP - MODEM_RESTART_LEVEL_ID_SSR: ALL_ENABLE, type: 1"));
  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DEF), 1);
  EXPECT_EQ(set_said()[1], "PROP - MODEM_RESTART_LEVEL_ID_DEF: ALL_DISABLE");
  EXPECT_EQ(properties[kLevel], "ALL_DISABLE");
}

TEST(RestartType, FirstSetSavesTheLevelItWrote) {
  settle_log();
  properties[kLevel] = "ALL_DISABLE";
  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_SSR), 1);
  EXPECT_THAT(property_writes, ElementsAre(PropertyWrite{kLevel, "ALL_ENABLE"}, PropertyWrite{kSaved, "ALL_ENABLE"},
                                           PropertyWrite{kFlag, "yes"}));
  set_said();
  EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DEF), 0);
  EXPECT_EQ(set_said().back(), "PROP - ssr type is def, do nothing");
}

TEST(RestartType, SetWritesDumpAlsoOverALevelThatIsNone) {
  settle_log();
  for (const char* level : {"", "related", "ALL_ENABLE"}) {
    properties = {{kLevel, level}, {kSaved, "x"}, {kFlag, "yes"}};
    EXPECT_EQ(pelmar_set_modem_ssr_type(MODEM_RESTART_LEVEL_ID_DUMP), 1);
    EXPECT_EQ(set_said()[1], "PROP - MODEM_RESTART_LEVEL_ID_DUMP: ALL_DISABLE");
    EXPECT_EQ(properties[kLevel], "ALL_DISABLE");
  }
  EXPECT_EQ(properties[kSaved], "x") << "saved once";
}

TEST(RestartType, GetNamesTheLevel) {
  const struct {
    std::string level;
    const char* saved;
    int32_t type;
    std::string name;
  } cases[] = {{"ALL_ENABLE", "ALL_ENABLE", 0, "DEF"},
               {"ALL_ENABLE", "x", 1, "SSR"},
               {"ALL_DISABLE", "x", 2, "DUMP"},
               {"", "x", 2, "DUMP"},
               {"", "", 0, "DEF"},
               {"related", "x", 3, "INVALID"}};
  settle_log();
  for (const auto& level_case : cases) {
    properties = {{kLevel, level_case.level}, {kSaved, level_case.saved}, {kFlag, "yes"}};
    EXPECT_EQ(pelmar_get_modem_ssr_type(), level_case.type) << level_case.name;
    EXPECT_EQ(get_said().back(), "PROP - MODEM_RESTART_LEVEL_ID_" + level_case.name + ": " + level_case.level +
                                     ", type: " + std::to_string(level_case.type));
  }
  EXPECT_THAT(property_writes, IsEmpty());
}

TEST(RestartType, SetRefusesWhatHasNoEffect) {
  const struct {
    int32_t type;
    const char* level;
    const char* flag;
    const char* line;
  } cases[] = {
      {0, "ALL_ENABLE", "", "PROP - NO ssr type def, do nothing"},
      {1, "ALL_ENABLE", "", "ssr type is enable, do nothing"},
      {2, "ALL_DISABLE", "yes", "ssr type is disable, do nothing"},
      {3, "ALL_DISABLE", "yes", "PELMAR_SSR_START_WITH_PROP, invalid ssr type"},
      {-1, "ALL_DISABLE", "yes", "PELMAR_SSR_START_WITH_PROP, invalid ssr type"},
  };
  settle_log();
  for (const auto& set_case : cases) {
    properties = {{kLevel, set_case.level}, {kFlag, set_case.flag}};
    EXPECT_EQ(pelmar_set_modem_ssr_type(set_case.type), 0);
    EXPECT_EQ(set_said().back(), set_case.line);
  }
  EXPECT_THAT(property_writes, IsEmpty());
}

TEST(RestartTypeName, CopiesWithoutTerminatorAndNeverNothing) {
  const struct {
    const char* level;
    uint32_t room;
    std::string name;
  } cases[] = {
      {"ALL_ENABLE", 16, "ALL_ENABLE"}, {"ALL_ENABLE", 3, "ALL"}, {"", 5, "CONFIG_EMPTY"}, {"x", 0, "CONFIG_EMPTY"}};
  settle_log();
  for (const auto& name_case : cases) {
    properties[kLevel] = name_case.level;
    std::string name(16, '#');
    uint32_t length = name_case.room;
    pelmar_get_modem_ssr_type_name(name.data(), &length);
    EXPECT_EQ(name, name_case.name + std::string(16 - name_case.name.size(), '#'));
    EXPECT_EQ(length, name_case.room);
  }
  const Lines lines = said("pelmar_get_modem_ssr_type_name");
  EXPECT_EQ(Lines(lines.end() - 5, lines.end()),
            (Lines{"g_ssr_start_flag = 0, in_len: 0", "out_len: 1, ssr_level: x",
                   "out_len is out of range, set it to in_len, out_len: 1",
                   "out_len is invalid, set name to invalid, out_len: 12", "out_len: 12, name: CONFIG_EMPTY"}));
  char name[16];
  uint32_t length = 16;
  pelmar_get_modem_ssr_type_name(nullptr, &length);
  pelmar_get_modem_ssr_type_name(name, nullptr);
  EXPECT_THAT(said("pelmar_get_modem_ssr_type_name"), ElementsAre("name is NULL", "in_out_len is NULL"));
}

TEST(RestartWait, SleepsWhatIsAskedOrConfigured) {
  settle_log();
  const auto wait_said = [] { return said("pelmar_modem_ssr_wait_s"); };
  EXPECT_EQ(pelmar_modem_ssr_wait_s(0), 0);
  EXPECT_THAT(wait_said(), ElementsAre("ssr wait_s = 0", "modem ssr will not wait"));
  EXPECT_EQ(pelmar_modem_ssr_wait_s(-1), 5);
  EXPECT_THAT(wait_said(), ElementsAre("ssr wait_s = 5", "wait-start(5s) ...", "wait-end(5s)"));
  EXPECT_EQ(pelmar_modem_ssr_wait_s(2), 2);
  properties["persist.radio.ssr_wait_s"] = "-3";
  EXPECT_EQ(pelmar_modem_ssr_wait_s(-1), -3);
  EXPECT_THAT(sleeps, ElementsAre(5U, 2U));
}

}  // namespace
}  // namespace scripted
