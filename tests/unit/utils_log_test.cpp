// The masks of both sinks, what reaches the system log directly, and the property echo. What a line looks like is in
// the golden log.
#include <algorithm>
#include <array>
#include <thread>

#include "golden_log.h"
#include "pelmar_string.h"

namespace scripted {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// All lines since the last call, each behind its priority.
Lines texts() {
  Lines texts;
  for (const LogLine& line : log_lines()) texts.push_back(std::to_string(line.priority) + " " + line.text);
  clear_log();
  return texts;
}

TEST(LogSite, WritesToBothSinks) {
  testing::internal::CaptureStdout();
  pelmar_check_sub_id(1);
  pelmar_print_property_value("ro.unset");
  g_pelmar_qcril_ril_process_instance_id = 1;
  pelmar_str_find_right(nullptr, 'x');
  std::istringstream written(testing::internal::GetCapturedStdout());
  for (std::string line; std::getline(written, line);) pelmar_utils_syslog_dbg("stdout: %s", line.c_str());
  expect_golden_log();
}

TEST(LogSite, ReadsTheNameOnlyWithoutAnInstance) {
  const std::string name_line = "D|pelmar_get_current_pid_name, g_pid_info.p_name = mtb";
  g_pelmar_qcril_ril_process_instance_id = 1;
  pelmar_check_sub_id(0);
  EXPECT_FALSE(logged(name_line));
  g_pelmar_qcril_ril_process_instance_id = PELMAR_RIL_INSTANCE_UNKNOWN;
  pelmar_check_sub_id(0);
  EXPECT_TRUE(logged(name_line));
}

struct MaskCase {
  const char* property;
  bool error_passes;
  bool debug_passes;
  const char* state;
};

class MaskProperty : public testing::TestWithParam<MaskCase> {};

TEST_P(MaskProperty, NarrowsTheMaskOnce) {
  const auto& [property, error_passes, debug_passes, state] = GetParam();
  const std::string names[] = {"persist.vendor.radio.adb_log_ka", "persist.vendor.radio.adb_log_shell"};
  for (const std::string& name : names) {
    if (property != nullptr) properties[name] = property;
  }
  pelmar_hal_set_logcat_print_mask(0xFFFF);  // narrowed like any other
  for (const auto passes : {pelmar_hal_get_logcat_print_flag, pelmar_hal_get_shell_print_flag}) {
    EXPECT_EQ(passes(PELMAR_LOG_LEVEL_ERROR), error_passes);
    EXPECT_EQ(passes(PELMAR_LOG_LEVEL_DEBUG), debug_passes);
    EXPECT_EQ(passes(PELMAR_LOG_LEVEL_ERROR | PELMAR_LOG_LEVEL_DEBUG), error_passes && debug_passes);
  }
  EXPECT_TRUE(logged("D|logcat print is " + std::string(state)));
  for (const std::string& name : names) EXPECT_EQ(reads_of(name), 1);

  settle_log();
  testing::internal::CaptureStdout();
  pelmar_str_find_right(nullptr, 'x');
  const std::string written = testing::internal::GetCapturedStdout();
  const int lines = (error_passes ? 1 : 0) + (debug_passes ? 2 : 0);
  EXPECT_EQ(log_lines().size(), static_cast<size_t>(lines));
  EXPECT_EQ(std::count(written.begin(), written.end(), '\n'), lines);
}

INSTANTIATE_TEST_SUITE_P(Values, MaskProperty,
                         testing::Values(MaskCase{nullptr, true, true, "started, g_pelmar_logcat_print_mask 0xffff"},
                                         MaskCase{"1", true, false, "started, g_pelmar_logcat_print_mask 0x1"},
                                         MaskCase{"4", false, true, "started, g_pelmar_logcat_print_mask 0x4"},
                                         MaskCase{"0", false, false, "stoped, g_pelmar_logcat_print_mask 0x0"},
                                         MaskCase{"debug", false, false, "stoped, g_pelmar_logcat_print_mask 0x0"}));

TEST(Masks, LogTheirOwnChanges) {
  const struct {
    void (*operation)(uint32_t);
    uint32_t mask;
    const char* verb;
    std::string name;
    const char* before;
    const char* after;
  } cases[] = {
      {pelmar_hal_set_logcat_print_mask, 0xF5, "set", "pelmar_hal_set_logcat", "0xffff, dst_mask 0xf5", "0xf5"},
      {pelmar_hal_merge_logcat_print_mask, 0x3C, "merge", "pelmar_hal_set_logcat", "0xf5, merge_mask 0x3c", "0x34"},
      {pelmar_hal_add_logcat_print_mask, 0x3, "add", "pelmar_hal_set_logcat", "0x34, add_mask 0x3", "0x37"},
      {pelmar_hal_remove_logcat_print_mask, 0x11, "remove", "g_pelmar_logcat", "0x37, rm_mask 0x11", "0x26"},
      {pelmar_hal_set_shell_print_mask, 0xF5, "set", "g_pelmar_shell", "0xffff, dst_mask 0xf5", "0xf5"},
      {pelmar_hal_merge_shell_print_mask, 0x3C, "merge", "g_pelmar_shell", "0xf5, merge_mask 0x3c", "0x34"},
      {pelmar_hal_add_shell_print_mask, 0x3, "add", "g_pelmar_shell", "0x34, add_mask 0x3", "0x37"},
      {pelmar_hal_remove_shell_print_mask, 0x11, "remove", "g_pelmar_shell", "0x37, rm_mask 0x11", "0x26"},
  };
  for (const auto& change : cases) {
    change.operation(change.mask);
    const std::string name = change.name + "_print_mask ";
    EXPECT_THAT(texts(), ElementsAre(std::string("7 ") + change.verb + ", old " + name + change.before,
                                     "7 new " + name + change.after));
  }
  pelmar_utils_close_logcat_print();
  pelmar_hal_close_shell_print();
  EXPECT_THAT(texts(),
              ElementsAre("7 close, g_pelmar_logcat_print_mask 0x26", "7 close, g_pelmar_shell_print_mask 0x26"));
  for (const auto passes : {pelmar_hal_get_logcat_print_flag, pelmar_hal_get_shell_print_flag}) {
    EXPECT_FALSE(passes(PELMAR_LOG_LEVEL_ERROR));
    pelmar_hal_add_logcat_print_mask(PELMAR_LOG_LEVEL_ERROR);
    pelmar_hal_add_shell_print_mask(PELMAR_LOG_LEVEL_ERROR);
    EXPECT_TRUE(passes(PELMAR_LOG_LEVEL_ERROR));
    clear_log();
    pelmar_hal_close_print();
    EXPECT_TRUE(texts().empty());
    EXPECT_FALSE(passes(PELMAR_LOG_LEVEL_ERROR));
  }
}

TEST(SystemLog, WritesBothPrioritiesThroughClosedMasks) {
  pelmar_hal_close_print();
  pelmar_utils_syslog_err("error %d", 1);
  pelmar_utils_syslog_dbg("debug %s", "2");
  EXPECT_THAT(texts(), ElementsAre("3 error 1", "7 debug 2"));

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
  if (value != nullptr) properties["persist.vendor.radio.print_prop"] = value;
  EXPECT_EQ(pelmar_utils_get_prop_print_flag(), on);
  EXPECT_THAT(texts(), ElementsAre(on ? "7 prop print is started" : "7 prop print is stoped"));
  properties["persist.vendor.radio.print_prop"] = on ? "0" : "1";
  pelmar_print_property_value("ro.unset");
  pelmar_print_property_value(nullptr);
  pelmar_get_pelmar_device_type();
  EXPECT_EQ(lines_of("pelmar_print_property_value"),
            on ? (Lines{"D ro.unset: null_val", "E property_name is null"}) : Lines{});
  EXPECT_EQ(lines_of("pelmar_get_property_value"), on ? Lines{"D ro.radio.device_type: 0"} : Lines{});
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
