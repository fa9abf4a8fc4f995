// Traced allocation.
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "library_test.h"

namespace scripted {
namespace {

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
  if (GetParam() != nullptr) properties[kTrace] = GetParam();
  auto* const block = static_cast<unsigned char*>(hydra_malloc_adv(1000, "f", 1));
  EXPECT_EQ(Bytes(block, block + 1000), Bytes(1000));
  EXPECT_EQ(lines_of("hydra_mem_init"), GetParam() == nullptr ? Lines{"D HYDRA_MEM_TRACE_PROP not exist"} : Lines{});
  properties[kTrace] = "true";  // read no more
  hydra_free_adv(hydra_malloc_adv(1, "f", 1), "f", 1);
  EXPECT_EQ(dump(), "1");
  hydra_free_adv(block, "f", 1);
  EXPECT_EQ(reads_of(kTrace), 1);
}

INSTANTIATE_TEST_SUITE_P(Properties, Untraced, testing::Values(nullptr, "1", "TRUE", "true "));

class TracedAllocation : public testing::Test {
 protected:
  TracedAllocation() {
    properties[kTrace] = "true";
    for (size_t i = 0; i < 3; ++i) blocks_[i] = hydra_malloc_adv(16 * (i + 1), "function", 1);
    clear_log();
  }
  ~TracedAllocation() override {
    for (void* const block : blocks_) hydra_free_adv(block, "", 0);
    EXPECT_EQ(dump(), "1");
  }
  void free_block(size_t i) { hydra_free_adv(std::exchange(blocks_[i], nullptr), "f", 1); }

  void* blocks_[3];
};

TEST_F(TracedAllocation, ListsLiveBlocksOldestFirst) {
  free_block(1);
  hydra_free_adv(std::malloc(8), "f", 1);
  const time_t now = std::time(nullptr);
  const tm today = *std::localtime(&now);
  std::string expected = "1";
  for (const size_t i : {0, 2}) {
    char entry[512];
    std::snprintf(entry, sizeof(entry),
                  "\r\n\t<TraceMemData address=\"0x%p\" size=\"0x%zx\" caller_proc=\"mtb\" caller_func=\"function\" "
                  "time=\" day%d, month%d, year%d\"/>",
                  blocks_[i], 16 * (i + 1), today.tm_mday, today.tm_mon + 1, today.tm_year + 1900);
    expected += entry;
  }
  std::string listed = dump();
  for (size_t at = 0; (at = listed.find("time=\"", at)) != listed.npos; at += 6) {
    tm time = today;
    const char* const rest = strptime(&listed[at + 6], "%H:%M:%S", &time);
    EXPECT_LE(std::abs(std::mktime(&time) - now), 60);
    listed.erase(at + 6, static_cast<size_t>(rest - &listed[at + 6]));
  }
  EXPECT_EQ(listed, expected);

  free_block(0);  // both ends of the list
  free_block(2);
  EXPECT_EQ(dump(), "1");
  blocks_[0] = hydra_malloc_adv(1, "again", 1);
  EXPECT_EQ(entries_in(dump()), 1U);
}

TEST_F(TracedAllocation, DumpThatDoesNotFitKeepsWholeEntries) {
  const auto whole = static_cast<int32_t>(dump().size());  // the text, and room for its terminator
  EXPECT_EQ(dump(whole)[0], '1');
  const std::string cut = dump(whole - 1);
  EXPECT_EQ(cut[0], '0');
  EXPECT_EQ(entries_in(cut), 2U);
  EXPECT_TRUE(cut.ends_with("\"/>"));
  EXPECT_EQ(lines_of("hydra_mem_trace_dump"), Lines{"E Not enough memory"});
  for (const int32_t size : {0, 1, 2, 20}) EXPECT_EQ(dump(size)[0], '0') << size;
  EXPECT_EQ(hydra_mem_trace_dump(nullptr, 100), 0);

  free_block(0);
  blocks_[0] = hydra_malloc_adv(1, "f", 4);  // tracing is on again
  EXPECT_EQ(entries_in(dump()), 3U);
}

TEST_F(TracedAllocation, DumpWithoutTheProcessNameLeavesItEmpty) {
  const std::string path = "/proc/" + std::to_string(getpid()) + "/cmdline";
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"/nonexistent", "", "E failed to open proc_entry=" + path + ", errno=[2:No such file or directory]"},
      {file_with(""), "", "E read failed errno=["},
      {file_with(std::string(60, 'p')), std::string(49, 'p'), ""}};
  for (const auto& [file, name, line] : cases) {
    redirect_opens("/cmdline", file);
    clear_log();
    EXPECT_NE(dump().find("caller_proc=\"" + name + "\""), std::string::npos);
    const Lines lines = lines_of("hydra_mem_get_proc_name");
    EXPECT_EQ(lines.empty() ? "" : lines[0].substr(0, line.size()), line);
  }
}

}  // namespace
}  // namespace scripted
