// Property access, and the values that the library derives from properties: traits of the build, lists, the modem's
// restart type. The golden log shows the other results.
#include "library_test.h"
#include "pelmar_ssr.h"

namespace {

using namespace scripted;

using Properties = Golden<testing::Test>;

TEST_F(Properties, AreCheckedAndConverted) {
  char value[PELMAR_PROPERTY_BUFFER_BYTES + 1] = "untouched";
  int32_t number = 7;
  value[PELMAR_PROPERTY_BUFFER_BYTES] = '#';
  const std::string longest(92, 'x'), value_255(255, 'v');
  pelmar_get_property_value(nullptr, value, "");
  pelmar_get_property_value("a", nullptr, "");
  pelmar_get_property_value("a", value, nullptr);
  pelmar_get_property_value_from_int(nullptr, &number, 3);
  pelmar_get_property_value_from_int("a", nullptr, 3);
  EXPECT_STREQ(value, "untouched");
  EXPECT_EQ(number, 7);
  properties[std::string(255, 'n')] = value_255;
  pelmar_get_property_value(std::string(300, 'n').c_str(), value, "");
  EXPECT_EQ(value, value_255);
  EXPECT_EQ(value[PELMAR_PROPERTY_BUFFER_BYTES], '#');

  pelmar_set_property_value(nullptr, "1");
  pelmar_set_property_value("a", nullptr);
  pelmar_set_property_value("a", (longest + "x").c_str());
  EXPECT_THAT(property_writes, IsEmpty());
  pelmar_set_property_value("a", longest.c_str());
  pelmar_set_property_value_to_int("n", INT32_MIN);
  EXPECT_THAT(property_writes, ElementsAre("a=" + longest, "n=-2147483648"));
  pelmar_get_property_value_from_int("n", &number, 0);
  EXPECT_EQ(number, INT32_MIN);
  pelmar_get_property_value_from_int("unset", &number, -5);
  pelmar_get_property_value_from_int("a", &number, 9);
  EXPECT_EQ(number, 0);
}

// A trait of the build, and a value of its property for which it holds and one for which it does not.
struct Trait {
  bool (*holds)();
  const char* property;
  const char* yes;
  const char* no;
};

const Trait kTraits[] = {
    {pelmar_is_factory_version, "ro.boot.factorybuild", "10", "01"},
    {pelmar_is_ct_cert_version, "ro.cust.test", "ct", "ctx"},
    {pelmar_is_cm_cert_version, "ro.cust.test", "cm", ""},
    {pelmar_is_cu_cert_version, "ro.cust.test", "cu", "c"},
    {pelmar_is_cert_version, "ro.cust.test", "", "NULL"},
    {pelmar_is_china_version, "ro.vendor.radio.build_region", "cn", "CN"},
    {pelmar_is_test_build, "ro.build.tags", "dev-keys", "release-keys"},
    {pelmar_is_native_version, "ro.vendor.radio.build_profile", "xnativex", "nativ"},
    {pelmar_is_factory_version_ex, "ro.vendor.radio.build_profile", "xfactoryx", "fact"},
    {pelmar_is_root_version, "ro.debuggable", "1", "10"},
    {pelmar_is_mp_version, "ro.boot.hwlevel", "MP", "MP1"},
    {pelmar_is_orbo_version, "ro.orbo.build.region", "eu", "NULL"},
};

class BuildTraits : public Golden<testing::TestWithParam<const char * Trait::*>> {};

// Each function keeps its first value, even if several functions read one property.
TEST_P(BuildTraits, AreReadOnce) {
  words_ = {" version, val"};
  for (const Trait& trait : kTraits) {
    SCOPED_TRACE(trait.property);
    if (GetParam() != nullptr) properties[trait.property] = trait.*GetParam();
    const bool holds = trait.holds();
    properties[trait.property] = holds ? trait.no : trait.yes;
    EXPECT_EQ(trait.holds(), holds);
    properties.erase(trait.property);
  }
}

INSTANTIATE_TEST_SUITE_P(Set, BuildTraits, testing::Values(&Trait::yes, &Trait::no, nullptr));

TEST_F(Properties, AreCachedReadAgainOrReadOnlyByTheFirstCall) {
  const std::map<std::string, std::string> settings[] = {{{"ro.vendor.radio.manufacturer_id", "5"},
                                                          {"ro.radio.device_type", "2"},
                                                          {"ro.product.device", "lynx"},
                                                          {"persist.vendor.radio.build_region", "eu"}},
                                                         {{"ro.product.device", "other"},
                                                          {"ro.orbo.build.region", "in"},
                                                          {"persist.radio.multisim.config", "ssss"},
                                                          {"persist.radio.default_data_sub", "1"},
                                                          {"persist.radio.active_call_sub", "0"}}};
  for (const auto& setting : settings) {
    properties = setting;
    pelmar_is_user_version();
    pelmar_get_pelmar_manufacturer_id();
    pelmar_get_pelmar_device_type();
    EXPECT_STREQ(pelmar_device_name_get(), "lynx");
    EXPECT_STREQ(pelmar_build_region_get(), "NULL");
    EXPECT_STREQ(pelmar_vendor_build_region_get(), &setting == settings ? "eu" : "NULL");
    pelmar_vendor_build_region_is_cfged();
    pelmar_get_default_data_sub();
    pelmar_get_active_call_sub();
    pelmar_get_single_sim_flag();
  }
  pelmar_set_pelmar_manufacturer_id(-1);
  pelmar_update_default_data_sub(1);
  pelmar_update_active_call_sub(0);
  EXPECT_THAT(property_writes, ElementsAre("ro.vendor.radio.manufacturer_id=-1", "persist.radio.default_data_sub=1",
                                           "persist.radio.active_call_sub=0"));
}

// Certification, profile and version, and the resulting type.
using Build = std::tuple<std::string, std::string, std::string, int32_t>;

class BuildType : public Golden<testing::TestWithParam<Build>> {};

TEST_P(BuildType, FollowsCertificationThenProfileThenVersion) {
  words_ = {"BUILD_PROFILE", "version, ret"};
  const auto& [cert, profile, version, type] = GetParam();
  properties = {
      {"ro.vendor.radio.build_profile", profile}, {"ro.build.version.incremental", version}, {"ro.cust.test", cert}};
  EXPECT_EQ(pelmar_is_pre_version(), type == PELMAR_BUILD_TYPE_PRE);
  EXPECT_EQ(pelmar_is_dev_version(), type == PELMAR_BUILD_TYPE_DEV);
  EXPECT_EQ(pelmar_is_stable_version(), type == PELMAR_BUILD_TYPE_STABLE);
  properties.clear();  // the properties were read before
  EXPECT_EQ(pelmar_build_type_get(), type);
  pelmar_is_stable_version();  // the build type is kept, not derived again
}

INSTANTIATE_TEST_SUITE_P(Builds, BuildType,
                         testing::Values(Build{"ct", "native_factory", "V1", 3},
                                         Build{"NULL", "native_factory", "V1", 2},
                                         Build{"NULL", "orbo_native", "V1", 5}, Build{"NULL", "orbo", "V1.DEV2", 6},
                                         Build{"NULL", "orbo", "V1", 4}, Build{"NULL", "orbo", "1.DEV", 1},
                                         Build{"NULL", "other", "V1.DEV", 1}));

TEST_F(Properties, MatchListsOfSubstrings) {
  properties = {{"ro.product.device", "lynx"}, {"ro.orbo.build.region", "eu"}};
  const char* const parts[] = {"x1", "ly"};
  const char* const empty[] = {""};
  const char* const others[] = {nullptr, "lynx2"};
  const char* const all[] = {"none", "all_product", "all_region"};
  for (const uint32_t count : {2, 1, 0}) pelmar_string_list_contain(parts, count, "lynx");
  pelmar_string_list_contain(empty, 1, "lynx");
  pelmar_string_list_contain(nullptr, 1, "lynx");
  pelmar_string_list_contain(parts, 1, nullptr);
  for (const auto& list : {all, parts}) pelmar_device_name_list_contain(list, 2);
  pelmar_device_name_list_contain(others, 2);
  pelmar_build_region_list_contain(all, 3);
  pelmar_build_region_list_contain(parts, 2);
}

// Values are compared as signed numbers of the list's width.
template <typename Element, typename Value>
void search_lists(bool (*contains)(const Element* list, uint32_t count, Value value)) {
  constexpr Value kHighest = Value{1} << (8 * sizeof(Value) - 2);
  const Element list[] = {3, static_cast<Element>(-1), kHighest};
  for (const uint32_t count : {3, 2, 1, 0}) contains(list, count, kHighest);
  contains(list, 3, -1);
  contains(nullptr, 1, 3);
}

TEST_F(Properties, ListsOfNumbersAreSearched) {
  search_lists(pelmar_int8_list_contain);
  search_lists(pelmar_int16_list_contain);
  search_lists(pelmar_int32_list_contain);
  search_lists(pelmar_int64_list_contain);
  const int8_t types[] = {PELMAR_BUILD_TYPE_DEV, PELMAR_BUILD_TYPE_PRE, PELMAR_BUILD_TYPE_ALL};
  for (const uint32_t count : {1, 2}) pelmar_build_type_list_contain(types, count);
  pelmar_build_type_list_contain(types + 2, 1);
}

TEST_F(Properties, SubscriptionMasksAndIdsAreChecked) {
  for (int32_t mask = -1; mask <= 4; ++mask) pelmar_check_sub_mask(mask);
  for (const uint32_t id : {0U, 1U, 2U, 0xFFFFFFFFU}) {
    pelmar_check_sub_id(id);
    pelmar_get_sub_mask_by_id(id);
  }
}

// --- the modem's restart type ---

const std::string kLevel = "persist.vendor.ssr.restart_level";
const std::string kSaved = "persist.vendor.ssr.type_bak";
const std::string kFlag = "persist.vendor.ssr.type_bak_flag";

using RestartType = Golden<testing::Test>;

// The first call saves a level, which a later set of type 0 restores. A get saves the current level, a set the one that
// it wrote.
TEST_F(RestartType, IsReadFromAndWrittenToProperties) {
  const std::string enable = "ALL_ENABLE", disable = "ALL_DISABLE";
  constexpr int32_t kGet = 100;
  // The type to set, or kGet; the properties: level, saved level and flag; the result, and what is written.
  const std::tuple<int32_t, std::string, std::string, std::string, int32_t, Lines> calls[] = {
      {kGet, disable, "", "", 0, {kSaved + "=" + disable, kFlag + "=yes"}},
      {kGet, enable, enable, "yes", 0, {}},
      {kGet, enable, disable, "yes", 1, {}},
      {kGet, disable, "x", "yes", 2, {}},
      {kGet, "", "x", "yes", 2, {}},
      {kGet, "", "", "yes", 0, {}},
      {kGet, "r", "x", "yes", 3, {}},
      {0, enable, "x", "", 0, {}},
      {0, enable, enable, "yes", 0, {}},
      {0, enable, disable, "yes", 1, {kLevel + "=" + disable}},
      {1, disable, "", "", 1, {kLevel + "=" + enable, kSaved + "=" + enable, kFlag + "=yes"}},
      {1, enable, "x", "", 0, {}},
      {2, disable, "x", "yes", 0, {}},
      {2, "related", "x", "yes", 1, {kLevel + "=" + disable}},
      {3, disable, "x", "yes", 0, {}},
  };
  for (const auto& [type, level, saved, flag, result, written] : calls) {
    properties = {{kLevel, level}, {kSaved, saved}, {kFlag, flag}};
    property_writes.clear();
    EXPECT_EQ(type == kGet ? pelmar_get_modem_ssr_type() : pelmar_set_modem_ssr_type(type), result) << type << level;
    EXPECT_EQ(property_writes, written) << type << level;
  }
}

TEST_F(RestartType, NameIsCopiedWithoutTerminatorAndNeverEmpty) {
  const std::tuple<const char*, uint32_t, std::string> cases[] = {{"ALL_ENABLE", 16, "ALL_ENABLE"},
                                                                  {"ALL_ENABLE", 3, "ALL"},
                                                                  {"x", 1, "x"},
                                                                  {"", 5, "CONFIG_EMPTY"},
                                                                  {"x", 0, "CONFIG_EMPTY"}};
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

TEST_F(RestartType, WaitSleepsForTheGivenOrConfiguredTime) {
  EXPECT_EQ(pelmar_modem_ssr_wait_s(0), 0);
  EXPECT_EQ(pelmar_modem_ssr_wait_s(-1), 5);
  EXPECT_EQ(pelmar_modem_ssr_wait_s(1), 1);
  properties["persist.radio.ssr_wait_s"] = "-3";
  EXPECT_EQ(pelmar_modem_ssr_wait_s(-1), -3);
  EXPECT_THAT(calls(), ElementsAre(Call{.name = "sleep", .timeout = 5}, Call{.name = "sleep", .timeout = 1}));
}

}  // namespace
