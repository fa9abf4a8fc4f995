// The masks of both sinks, what reaches the system log directly, and the property echo. What a line looks like is in
// the golden log.
#include <algorithm>
#include <array>
#include <thread>

#include "golden_log.h"
#include "pelmar_string.h"

namespace scripted {
namespace {

constexpr int kError = PELMAR_LOG_LEVEL_ERROR;
constexpr int kDebug = PELMAR_LOG_LEVEL_DEBUG;

// The name of the process is read for the first line that has no instance.
TEST(LogSite, WritesToBothSinks) {
  testing::internal::CaptureStdout();
  g_pelmar_qcril_ril_process_instance_id = 1;
  pelmar_str_find_right(nullptr, 'x');
  g_pelmar_qcril_ril_process_instance_id = PELMAR_RIL_INSTANCE_UNKNOWN;
  pelmar_check_sub_id(1);
  pelmar_print_property_value("ro.unset");
  std::istringstream written(testing::internal::GetCapturedStdout());
  for (std::string line; std::getline(written, line);) pelmar_utils_syslog_dbg("stdout: %s", line.c_str());
  expect_golden_log();
}

// A value of the masks' properties, and the levels that pass.
class MaskProperty : public testing::TestWithParam<std::pair<const char*, int>> {};

TEST_P(MaskProperty, NarrowsTheMaskOnce) {
  const auto& [property, passing] = GetParam();
  for (const char* const name : {"persist.vendor.radio.adb_log_ka", "persist.vendor.radio.adb_log_shell"}) {
    if (property != nullptr) properties[name] = property;
  }
  pelmar_hal_set_logcat_print_mask(0xFFFF);  // narrowed like any other
  for (const int level : {kError, kDebug, kError | kDebug}) {
    EXPECT_EQ(pelmar_hal_get_logcat_print_flag(level), (level & ~passing) == 0);
    EXPECT_EQ(pelmar_hal_get_shell_print_flag(level), (level & ~passing) == 0);
  }
  testing::internal::CaptureStdout();
  pelmar_str_find_right(nullptr, 'x');
  const std::string written = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(written.begin(), written.end(), '\n'),
            ((passing & kError) != 0) + 2 * ((passing & kDebug) != 0));
  expect_golden_log();
}

INSTANTIATE_TEST_SUITE_P(Values, MaskProperty,
                         testing::Values(std::pair{nullptr, kError | kDebug}, std::pair{"1", kError},
                                         std::pair{"4", kDebug}, std::pair{"0", 0}, std::pair{"debug", 0}));

TEST(Masks, LogTheirOwnChanges) {
  const std::pair<void (*)(uint32_t), uint32_t> changes[] = {
      {pelmar_hal_set_logcat_print_mask, 0xF5}, {pelmar_hal_merge_logcat_print_mask, 0x3C},
      {pelmar_hal_add_logcat_print_mask, 0x3},  {pelmar_hal_remove_logcat_print_mask, 0x19},
      {pelmar_hal_set_shell_print_mask, 0xF5},  {pelmar_hal_merge_shell_print_mask, 0x3C},
      {pelmar_hal_add_shell_print_mask, 0x3},   {pelmar_hal_remove_shell_print_mask, 0x19}};
  for (const auto& [change, mask] : changes) change(mask);
  pelmar_utils_close_logcat_print();
  pelmar_hal_close_shell_print();
  for (const auto passes : {pelmar_hal_get_logcat_print_flag, pelmar_hal_get_shell_print_flag}) {
    EXPECT_FALSE(passes(kError));
    pelmar_hal_add_logcat_print_mask(kError);
    pelmar_hal_add_shell_print_mask(kError);
    EXPECT_TRUE(passes(kError));
    pelmar_hal_close_print();  // writes nothing
    EXPECT_FALSE(passes(kError));
  }
  pelmar_utils_syslog_err("error %d", 1);  // through closed masks
  pelmar_utils_syslog_dbg("debug %s", "2");
  expect_golden_log();
}

TEST(SystemLog, FormatsWithinTheRoom) {
  char buffer[8] = "before";
  EXPECT_EQ(pelmar_utils_format_log_msg(buffer, 0, "%d", 1), 0);
  EXPECT_EQ(pelmar_utils_format_log_msg(nullptr, 8, "%d", 1), 0);
  EXPECT_STREQ(buffer, "before");
  EXPECT_EQ(pelmar_utils_format_log_msg(buffer, 4, "%d", 123456), 6);
  EXPECT_STREQ(buffer, "123");
}

class PropertyEcho : public testing::TestWithParam<std::pair<const char*, bool>> {};

TEST_P(PropertyEcho, IsOnForExactlyOneAndDecidedOnce) {
  const auto [value, on] = GetParam();
  properties["persist.vendor.radio.adb_log_shell"] = "0";
  if (value != nullptr) properties["persist.vendor.radio.print_prop"] = value;
  EXPECT_EQ(pelmar_utils_get_prop_print_flag(), on);
  properties["persist.vendor.radio.print_prop"] = on ? "0" : "1";
  pelmar_print_property_value("ro.unset");
  pelmar_print_property_value(nullptr);
  pelmar_get_pelmar_device_type();
  expect_golden_log();
}

INSTANTIATE_TEST_SUITE_P(Values, PropertyEcho,
                         testing::Values(std::pair{nullptr, true}, std::pair{"1", true}, std::pair{"11", false},
                                         std::pair{"true", false}, std::pair{"", false}));

// For the thread sanitizer above all: everything that is decided by its first caller, by several callers at once.
TEST(FirstCalls, MayComeFromSeveralThreads) {
  properties = {{"persist.hydra.mem_trace", "true"}, {"ro.product.device", "lynx"}};
  redirect_opens("/status", file_with("Name:\tmtb\n"));  // the name from either file may be published last
  std::array<std::thread, 4> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([] {
      EXPECT_STREQ(pelmar_device_name_get(), "lynx");
      EXPECT_STREQ(pelmar_vendor_build_region_get(), "NULL");
      EXPECT_TRUE(pelmar_is_pre_version());
      pelmar_get_current_pid_name_ex();
      pelmar_utils_get_pid_number();
      pelmar_hal_add_shell_print_mask(2);
      hydra_free_adv(hydra_malloc_adv(64, "f", 1), "f", 1);
      char dump[2048];
      hydra_mem_trace_dump(dump, sizeof(dump));
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_STREQ(pelmar_get_current_pid_name(), "mtb");
}

}  // namespace
}  // namespace scripted
