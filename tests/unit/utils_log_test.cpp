// The masks of both sinks, the direct lines of the system log, and the property echo. The golden log shows the format
// of lines.
#include <algorithm>
#include <latch>
#include <thread>

#include "library_test.h"
#include "pelmar_string.h"

namespace {

using namespace scripted;

constexpr int kError = PELMAR_LOG_LEVEL_ERROR;
constexpr int kDebug = PELMAR_LOG_LEVEL_DEBUG;

// The process name is read for the first line without an instance.
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

// A value of the masks' properties, the levels that are logged, a value of the echo's property, and whether the echo is
// on.
class LogProperties : public testing::TestWithParam<std::tuple<const char*, int, const char*, bool>> {};

TEST_P(LogProperties, AreReadOnce) {
  const auto& [property, passing, echo, echo_is_on] = GetParam();
  for (const char* const name : {"persist.vendor.radio.adb_log_ka", "persist.vendor.radio.adb_log_shell"}) {
    if (property != nullptr) properties[name] = property;
  }
  if (echo != nullptr) properties["persist.vendor.radio.print_prop"] = echo;
  pelmar_hal_set_logcat_print_mask(0xFFFF);  // the property limits this mask like any other
  for (const int level : {kError, kDebug, kError | kDebug}) {
    EXPECT_EQ(pelmar_hal_get_logcat_print_flag(level), (level & ~passing) == 0);
    EXPECT_EQ(pelmar_hal_get_shell_print_flag(level), (level & ~passing) == 0);
  }
  testing::internal::CaptureStdout();
  pelmar_str_find_right(nullptr, 'x');
  const std::string written = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(written.begin(), written.end(), '\n'),
            ((passing & kError) != 0) + 2 * ((passing & kDebug) != 0));
  pelmar_hal_set_logcat_print_mask(kError | kDebug);
  pelmar_hal_close_shell_print();
  EXPECT_EQ(pelmar_utils_get_prop_print_flag(), echo_is_on);
  properties["persist.vendor.radio.print_prop"] = echo_is_on ? "0" : "1";
  pelmar_print_property_value("ro.unset");
  pelmar_print_property_value(nullptr);
  pelmar_get_pelmar_device_type();
  expect_golden_log();
}

INSTANTIATE_TEST_SUITE_P(, LogProperties,
                         testing::Values(std::tuple{nullptr, kError | kDebug, nullptr, true},
                                         std::tuple{"1", kError, "11", false}, std::tuple{"4", kDebug, "", false}));

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
  pelmar_utils_syslog_err("error %d", 1);  // the masks do not apply
  pelmar_utils_syslog_dbg("debug %s", "2");
  expect_golden_log();
}

TEST(SystemLog, FormatsWithinTheBuffer) {
  char buffer[8];
  EXPECT_EQ(pelmar_utils_format_log_msg(buffer, 0, "%d", 1), 0);
  EXPECT_EQ(pelmar_utils_format_log_msg(nullptr, 8, "%d", 1), 0);
  EXPECT_EQ(pelmar_utils_format_log_msg(buffer, 1, "%d", 12), 2);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(pelmar_utils_format_log_msg(buffer, 4, "%d", 123456), 6);
  EXPECT_STREQ(buffer, "123");
}

// Mainly for the thread sanitizer: two threads initialise the library and make the first calls of functions that decide
// something at their first call.
TEST(FirstCalls, MayComeFromSeveralThreads) {
  properties["persist.hydra.mem_trace"] = "true";
  redirect_opens("/status", file_with("Name:\tmtb\n"));  // the name from either file may be stored last
  std::latch start(2);
  const auto call = [&] {
    start.arrive_and_wait();
    for (int i = 0; i < 50; ++i) {
      modem_api_init();
      modem_api_release();
    }
    pelmar_device_name_get();
    EXPECT_STREQ(pelmar_vendor_build_region_get(), "NULL");
    EXPECT_TRUE(pelmar_is_pre_version());
    pelmar_get_current_pid_name_ex();
    pelmar_utils_get_pid_number();
    hydra_free_adv(hydra_malloc_adv(64, "f", 1), "f", 1);
    live_blocks();
  };
  std::thread other(call);
  call();
  other.join();
  EXPECT_STREQ(pelmar_get_current_pid_name(), "mtb");
}

}  // namespace
