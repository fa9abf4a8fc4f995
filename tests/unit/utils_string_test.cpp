// Strings, file copy, threads and the guarded allocation pair.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "library_test.h"

namespace scripted {
namespace {

TEST(Trim, TakesBlanksFromBothEnds) {
  const struct {
    std::string text;
    uint32_t max;
    std::string trimmed;
  } cases[] = {
      {"a b", 16, "a b"},
      {"\t\n\v\f\r a b\r\n ", 16, "a b"},
      {"abc", 4, "abc"},
      {"", 16, ""},
      {" \t ", 16, ""},
      {"    ", 3, ""},
      {"  " + std::string(298, 'x'), 256, std::string(253, 'x')},
      {"a  xy", 4, "a"},
      {"   x", 4, ""},
      {" a ", 1, " a "},
  };
  for (const auto& trim_case : cases) {
    std::string text = trim_case.text;
    const int length = pelmar_str_trim(text.data(), trim_case.max);
    EXPECT_STREQ(text.c_str(), trim_case.trimmed.c_str());
    EXPECT_EQ(length, trim_case.max < 2 ? 0 : static_cast<int>(trim_case.trimmed.size()));
  }
}

TEST(Compare, LengthsBeforeBytes) {
  EXPECT_EQ(pelmar_str_cmp("ab", "ab"), 0);
  EXPECT_EQ(pelmar_str_cmp(nullptr, nullptr), -101);
  EXPECT_EQ(pelmar_str_cmp("ab", nullptr), -102);
  EXPECT_EQ(pelmar_str_cmp("ab", "bcd"), -103);
  EXPECT_EQ(pelmar_str_cmp("ab", "ac"), 104);
}

TEST(Replace, EveryOccurrenceWithinTheRoom) {
  const struct {
    const char* in;
    uint32_t room;
    const char* src;
    const char* dst;
    const char* out;
  } cases[] = {
      {"aXbXX", 16, "X", "--", "a--b----"},
      {"aaa", 16, "aa", "b", "ba"},
      {"abab", 16, "ab", "", ""},
      {"abc", 5, "x", "y", "abc"},
      {"abc", 4, "x", "y", "ab"},
      {"aXc", 5, "X", "123", "a"},
      {"abc", 0, "x", "y", "######"},
      {"", 16, "x", "y", ""},
      {"abc", 16, "", "y", ""},
      {nullptr, 16, "x", "y", ""},
      {"abc", 16, nullptr, nullptr, ""},
  };
  for (const auto& replace_case : cases) {
    char out[17] = "######";
    pelmar_str_rpl(out, const_cast<char*>(replace_case.in), replace_case.room, replace_case.src, replace_case.dst);
    EXPECT_STREQ(out, replace_case.out);
  }
}

TEST(Prefix, FitsOrFails) {
  char out[8] = "in";
  EXPECT_TRUE(pelmar_str_add_prefix(out, out, 6, "pre"));
  EXPECT_FALSE(pelmar_str_add_prefix("in", out, 5, "pre"));
  EXPECT_FALSE(pelmar_str_add_prefix("in", out, -1, ""));
  EXPECT_FALSE(pelmar_str_add_prefix(nullptr, out, 8, "pre"));
  EXPECT_STREQ(out, "prein");
}

TEST(HexText, ShowsTheHighDigits) {
  const uint8_t data[] = {0x1A, 0x2B, 0xFC};
  char hex[16];
  for (const auto& [length, text] : {std::pair{4, " 1"}, {5, " 1"}, {6, " 1 2"}, {9, " 1 2 F"}}) {
    std::memset(hex, '#', sizeof(hex));
    EXPECT_TRUE(pelmar_get_hex_str(hex, length, data));
    EXPECT_STREQ(hex, text);
    EXPECT_EQ(hex[length], '#');
  }
  EXPECT_FALSE(pelmar_get_hex_str(hex, 3, data));
}

TEST(FindRight, FindsTheLastOne) {
  const char text[] = "a/b/c";
  EXPECT_EQ(pelmar_str_find_right(text, '/'), text + 3);
  EXPECT_EQ(pelmar_str_find_right(text, '\0'), text + 5);
  EXPECT_EQ(pelmar_str_find_right(nullptr, 'x'), nullptr);
}

std::string content_of(const std::string& path) {
  std::stringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

TEST(CopyFile, TruncatesTheTargetAndContinuesWhatWasInterrupted) {
  const std::string content(10241, 'c');
  const std::string source = file_with(content);
  const std::string target = file_with(std::string(20000, 'o'));
  int reads = 0;
  int writes = 0;
  const auto interrupted = [] { return errno = EINTR, -1L; };
  on_read = [&](long asked) { return reads++ == 0 ? interrupted() : asked; };
  on_write = [&](long asked) { return writes++ == 1 ? interrupted() : std::min(10000L, asked); };
  const int32_t result = pelmar_copy_file(source.c_str(), target.c_str());
  on_read = on_write = nullptr;
  EXPECT_EQ(result, PELMAR_COPY_DONE);
  EXPECT_EQ(content_of(target), content);
}

TEST(CopyFile, CreatesTheTargetForAllThatTheMaskLeaves) {
  char directory[] = "/tmp/copy-file-XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string target = std::string(directory) + "/target";
  umask(0);
  EXPECT_EQ(pelmar_copy_file(file_with("content").c_str(), target.c_str()), PELMAR_COPY_DONE);
  struct stat status = {};
  EXPECT_EQ(stat(target.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0777u);
  unlink(target.c_str());
  rmdir(directory);
}

TEST(CopyFile, FailsWithItsOwnCodes) {
  const std::string source = file_with("content");
  const std::string target = file_with("");
  EXPECT_EQ(pelmar_copy_file(nullptr, nullptr), -1);
  EXPECT_EQ(pelmar_copy_file(source.c_str(), nullptr), -2);
  EXPECT_EQ(pelmar_copy_file("/nonexistent/file", target.c_str()), -3);
  EXPECT_EQ(pelmar_copy_file(source.c_str(), "/nonexistent/file"), -4);
  for (const auto& [transfer, outcome] : {std::pair<Transfer&, long>{on_read, -1}, {on_write, -1}, {on_write, 0}}) {
    transfer = [outcome = outcome](long) { return errno = EIO, outcome; };
    const int32_t result = pelmar_copy_file(source.c_str(), target.c_str());
    transfer = nullptr;
    EXPECT_EQ(result, PELMAR_COPY_FAILED);
  }
}

TEST(CreateThread, RunsDetachedOrFails) {
  static std::atomic<bool> ran{false};
  const auto run = [](void*) -> void* { return ran = true, nullptr; };
  EXPECT_EQ(pelmar_create_pthread("worker", run, nullptr), 0);
  while (!ran) std::this_thread::yield();
  set_threads(Threads::kFail);
  EXPECT_EQ(pelmar_create_pthread(nullptr, run, nullptr), EAGAIN);
  EXPECT_EQ(pelmar_create_pthread("worker", nullptr, nullptr), EINVAL);
}

TEST(GuardedAllocation, TakesAndClears) {
  EXPECT_EQ(pelmar_mem_malloc(0), nullptr);
  void* block = pelmar_mem_malloc(8);
  ASSERT_NE(block, nullptr);
  pelmar_mem_free(&block);
  EXPECT_EQ(block, nullptr);
  pelmar_mem_free(&block);
  pelmar_mem_free(nullptr);
}

}  // namespace
}  // namespace scripted
