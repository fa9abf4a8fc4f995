// Traced allocation.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "library_test.h"

namespace {

using namespace scripted;

constexpr char kTrace[] = "persist.hydra.mem_trace";

// Returns the dump's text behind its result.
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
  EXPECT_EQ(logged("D hydra_mem_init: HYDRA_MEM_TRACE_PROP not exist"), GetParam() == nullptr);
  properties[kTrace] = "true";  // no effect: it was read before
  void* const other = hydra_malloc_adv(1, "f", 1);
  for (const int32_t size : {1, 4096}) EXPECT_EQ(dump(size), "1");
  for (void* const each : {static_cast<void*>(block), other}) hydra_free_adv(each, "f", 1);
}

INSTANTIATE_TEST_SUITE_P(Properties, Untraced, testing::Values(nullptr, "true ", "1"));

class TracedAllocation : public testing::Test {
 protected:
  TracedAllocation() {
    properties[kTrace] = "true";
    setenv("TZ", std::time(nullptr) / 3600 % 24 == 0 ? "X-5" : "X0", 1);  // a record's hour is not 0
    tzset();
    do {  // until all three blocks have the same second
      time_ = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
      for (size_t i = 0; i < 3; ++i) {
        free_block(i);
        blocks_[i] = hydra_malloc_adv(16 * (i + 1), "function", 1);
      }
    } while (time_ != std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()));
    clear_log();
  }
  ~TracedAllocation() override {
    for (size_t i = 0; i < 3; ++i) free_block(i);
    EXPECT_EQ(dump(), "1");
  }
  void free_block(size_t i) { hydra_free_adv(std::exchange(blocks_[i], nullptr), "f", 1); }

  void* blocks_[3] = {};
  time_t time_;
};

TEST_F(TracedAllocation, ListsLiveBlocksOldestFirst) {
  free_block(1);
  hydra_free_adv(std::malloc(8), "f", 1);
  const tm local = *std::localtime(&time_);
  std::string expected = "1";
  for (const size_t i : {0, 2}) {
    char entry[512];
    std::snprintf(entry, sizeof(entry),
                  "\r\n\t<TraceMemData address=\"0x%p\" size=\"0x%zx\" caller_proc=\"mtb\" caller_func=\"function\" "
                  "time=\"%d:%d:%d day%d, month%d, year%d\"/>",
                  blocks_[i], 16 * (i + 1), local.tm_hour, local.tm_min, local.tm_sec, local.tm_mday, local.tm_mon + 1,
                  local.tm_year + 1900);
    expected += entry;
  }
  on_read = [](long requested) {  // blocks that are allocated meanwhile are not listed
    return hydra_free_adv(hydra_malloc_adv(1, "f", 1), "f", 1), requested;
  };
  const int lowest = dup(STDOUT_FILENO);
  close(lowest);
  EXPECT_EQ(dump(), expected);
  on_read = nullptr;
  EXPECT_EQ(dup(STDOUT_FILENO), lowest) << "a file is still open";
  for (const size_t end : {0, 2}) free_block(end);
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
  EXPECT_TRUE(logged("E hydra_mem_trace_dump: Not enough memory"));
  for (const int32_t size : {0, 1, 2, 20}) EXPECT_EQ(dump(size)[0], '0') << size;
  EXPECT_EQ(hydra_mem_trace_dump(nullptr, 100), 0);
}

TEST_F(TracedAllocation, DumpWithoutTheProcessNameLeavesItEmpty) {
  on_read = [](long requested) {
    EXPECT_EQ(requested, 49) << "room for the terminator";
    return requested;
  };
  const std::string path = "/proc/" + std::to_string(getpid()) + "/cmdline";
  for (const auto& [file, name] : {std::pair{std::string("/nonexistent"), std::string()},
                                   {file_with(""), ""},
                                   {file_with("p"), "p"},
                                   {file_with(std::string(60, 'p')), std::string(49, 'p')}}) {
    close(STDIN_FILENO);  // the file is opened as descriptor 0
    redirect_opens("/cmdline", file);
    EXPECT_NE(dump().find("caller_proc=\"" + name + "\""), std::string::npos);
  }
  const std::string problem = "E hydra_mem_get_proc_name: ";
  for (const std::string& text : {"failed to open proc_entry=" + path + ", errno=[2:No such file or directory]",
                                  std::string("read failed errno=[")}) {
    EXPECT_THAT(log_bodies(), testing::Contains(testing::StartsWith(problem + text)).Times(3)) << "of three blocks";
  }
  on_read = nullptr;
}

}  // namespace
