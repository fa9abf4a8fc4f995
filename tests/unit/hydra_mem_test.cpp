// Traced allocation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <regex>
#include <tuple>

#include "hydra_mem.h"
#include "scripted_files.h"
#include "settled_log.h"

namespace scripted {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

constexpr char kTrace[] = "persist.hydra.mem_trace";

// The dump's text, and its result in front.
std::string dump(int32_t size = 4096) {
  std::string buffer(static_cast<size_t>(size) + 1, '#');
  const int32_t result = hydra_mem_trace_dump(buffer.data(), size);
  EXPECT_EQ(buffer.back(), '#') << "written beyond the buffer";
  EXPECT_TRUE(size == 0 || buffer[buffer.size() - 2] == '\0');
  return std::to_string(result) + buffer.c_str();
}

size_t entries_in(const std::string& text) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

class Untraced : public testing::TestWithParam<const char*> {};

TEST_P(Untraced, BlocksAreZeroedAndNotListed) {
  settle_log();
  if (GetParam() != nullptr) properties[kTrace] = GetParam();
  auto* const block = static_cast<unsigned char*>(hydra_malloc_adv(1000, "f", 1));
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(block[i], 0);
  if (GetParam() == nullptr) {
    EXPECT_THAT(log_bodies(), ElementsAre("D hydra_malloc_adv: function entry ------------->",
                                          "D hydra_mem_init: HYDRA_MEM_TRACE_PROP not exist",
                                          "D hydra_malloc_adv: function exit <-------------"));
  }
  EXPECT_EQ(dump(), "1");
  properties[kTrace] = "true";  // read no more
  hydra_free_adv(hydra_malloc_adv(1, "f", 1), "f", 1);
  hydra_free_adv(block, "f", 1);
  EXPECT_EQ(reads_of(kTrace), 1);
  EXPECT_EQ(dump(), "1");
}

INSTANTIATE_TEST_SUITE_P(Properties, Untraced, testing::Values(nullptr, "1", "TRUE", "true "));

class TracedAllocation : public testing::Test {
 protected:
  void SetUp() override {
    settle_log();
    properties[kTrace] = "true";
    first_ = hydra_malloc_adv(0x10, "first", 1);
    second_ = hydra_malloc_adv(0x20, "second", 2);
    third_ = hydra_malloc_adv(0x30, "third", 3);
    clear_log();
  }
  void TearDown() override {
    for (void* const block : {first_, second_, third_}) hydra_free_adv(block, "", 0);
    EXPECT_EQ(dump(), "1");
  }
  void* first_;
  void* second_;
  void* third_;
};

TEST_F(TracedAllocation, ListsLiveBlocksOldestFirst) {
  hydra_free_adv(second_, "f", 1);
  hydra_free_adv(std::malloc(8), "f", 1);
  const time_t now = std::time(nullptr);
  const tm today = *std::localtime(&now);
  std::string expected = "1";
  for (const auto& [block, size, function] : {std::tuple{first_, 0x10, "first"}, {third_, 0x30, "third"}}) {
    char entry[512];
    std::snprintf(entry, sizeof(entry),
                  "\r\n\t<TraceMemData address=\"0x%p\" size=\"0x%x\" caller_proc=\"mtb\" caller_func=\"%s\" "
                  "time=\"TIME day%d, month%d, year%d\"/>",
                  block, size, function, today.tm_mday, today.tm_mon + 1, today.tm_year + 1900);
    expected += entry;
  }
  EXPECT_EQ(std::regex_replace(dump(), std::regex("\"[0-9]+:[0-9]+:[0-9]+ "), "\"TIME "), expected);

  hydra_free_adv(first_, "f", 1);  // both ends of the list
  hydra_free_adv(third_, "f", 1);
  EXPECT_EQ(dump(), "1");
  first_ = hydra_malloc_adv(1, "again", 1);
  second_ = third_ = nullptr;
  EXPECT_EQ(entries_in(dump()), 1U);
}

TEST_F(TracedAllocation, DumpThatDoesNotFitKeepsWholeEntries) {
  const auto whole = static_cast<int32_t>(dump().size());  // the text, and room for its terminator
  EXPECT_EQ(dump(whole)[0], '1');
  const std::string cut = dump(whole - 1);
  EXPECT_EQ(cut[0], '0');
  EXPECT_EQ(entries_in(cut), 2U);
  EXPECT_EQ(cut.substr(cut.size() - 3), "\"/>");
  EXPECT_EQ(new_messages("hydra_mem_trace_dump"), Lines{"E Not enough memory"});
  for (int32_t size : {0, 1, 2, 20}) EXPECT_EQ(dump(size)[0], '0') << size;
  EXPECT_EQ(hydra_mem_trace_dump(nullptr, 100), 0);

  void* const fourth = hydra_malloc_adv(1, "fourth", 4);  // tracing is on again
  EXPECT_EQ(entries_in(dump()), 4U);
  hydra_free_adv(fourth, "f", 1);
}

TEST_F(TracedAllocation, DumpWithoutTheProcessNameLeavesItEmpty) {
  redirect_opens("/cmdline", "/nonexistent");
  EXPECT_NE(dump().find("caller_proc=\"\""), std::string::npos);
  EXPECT_EQ(new_messages()[0], "E hydra_mem_get_proc_name: failed to open proc_entry=/proc/" +
                                   std::to_string(getpid()) + "/cmdline, errno=[2:No such file or directory]");
  redirect_opens("/cmdline", file_with(""));
  dump();
  EXPECT_THAT(new_messages()[0], MatchesRegex(R"(E hydra_mem_get_proc_name: read failed errno=\[.*])"));
  redirect_opens("/cmdline", file_with(std::string(60, 'p')));
  EXPECT_NE(dump().find("caller_proc=\"" + std::string(49, 'p') + "\""), std::string::npos);
}

}  // namespace
}  // namespace scripted
