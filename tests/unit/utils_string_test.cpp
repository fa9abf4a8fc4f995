// Strings, file copy, threads and the guarded allocation pair.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "scripted_files.h"
#include "settled_log.h"

namespace scripted {
namespace {

TEST(Trim, TakesBlanksFromBothEnds) {
  const std::string no_end = "D This string has no cut-off character, cnt_end = ";
  const std::string blank = "D This string is all blank characters, cnt_start = 3, cnt_end = 3";
  const std::string unterminated = "  " + std::string(298, 'x');
  const struct {
    std::string text;
    uint32_t max;
    std::string trimmed;
    Lines lines;
  } cases[] = {
      {"a b", 16, "a b", {}},
      {"\t\n\v\f\r a b\r\n ", 16, "a b", {}},
      {"abc", 4, "abc", {}},
      {"", 16, "", {"D This string is empty, cnt_end = 0"}},
      {" \t ", 16, "", {"D This string is empty, cnt_start = 3"}},
      {"    ", 3, "", {"D This string is empty for max cnt, cnt_start = 3(max:3)"}},
      {unterminated, 256, std::string(253, 'x'), {no_end + "256(max:256), new cnt_end = 255"}},
      {"a  xy", 4, "a", {no_end + "4(max:4), new cnt_end = 3"}},
      {"   x", 4, "", {no_end + "4(max:4), new cnt_end = 3", blank}},
      {" a ", 1, " a ", {"E str_len_max(1) can not < 2"}},
  };
  settle_log();
  for (const auto& trim_case : cases) {
    std::string text = trim_case.text;
    const int length = pelmar_str_trim(text.data(), trim_case.max);
    EXPECT_STREQ(text.c_str(), trim_case.trimmed.c_str());
    EXPECT_EQ(length, trim_case.max < 2 ? 0 : static_cast<int>(trim_case.trimmed.size()));
    EXPECT_EQ(new_messages("pelmar_str_trim"), trim_case.lines);
  }
  pelmar_str_trim(nullptr, 8);
  EXPECT_EQ(new_messages("pelmar_str_trim"), Lines{"E str is null, str_len_max = 8"});
}

TEST(Compare, LengthsBeforeBytes) {
  const struct {
    const char* str1;
    const char* str2;
    int32_t code;
    const char* line;
  } cases[] = {
      {"ab", "ab", 0, "D same, str1(2): ab, str2(2): ab"},
      {nullptr, nullptr, -101, "E str1 is null"},
      {"ab", nullptr, -102, "E str2 is null"},
      {"ab", "abc", -103, "D len1(2) != len2(3), str1: ab, str2: abc"},
      {"ab", "ac", 104, "D str1[1]('b') != str2[1]('c'), str1(2): ab, str2(2): ac"},
  };
  settle_log();
  for (const auto& compare_case : cases) {
    EXPECT_EQ(pelmar_str_cmp(compare_case.str1, compare_case.str2), compare_case.code);
    EXPECT_EQ(new_messages("pelmar_str_cmp"), Lines{compare_case.line});
  }
}

TEST(Replace, EveryOccurrenceWithinTheRoom) {
  const struct {
    const char* in;
    uint32_t room;
    const char* src;
    const char* dst;
    const char* out;
    Lines lines;
  } cases[] = {
      {"aXbXX", 16, "X", "--", "a--b----", {}},
      {"aaa", 16, "aa", "b", "ba", {}},
      {"abab", 16, "ab", "", "", {}},
      {"abc", 5, "x", "y", "abc", {}},
      {"abc", 4, "x", "y", "ab", {"E len(2) + 1 + 1 >= outlen(4), abort"}},
      {"aXc", 5, "X", "123", "a", {"E len(1) + dst_len(3) + 1 >= outlen(5), abort"}},
      {"abc", 0, "x", "y", "######", {"E len(0) + 1 + 1 >= outlen(0), abort"}},
      {"", 16, "x", "y", "", {"E in is empty"}},
      {"abc", 16, "", "y", "", {"E src is empty"}},
      {nullptr, 16, "x", "y", "", {"E in is null"}},
      {"abc", 16, nullptr, nullptr, "", {"E src is null"}},
      {"abc", 16, "x", nullptr, "", {"E dst is null"}},
  };
  settle_log();
  for (const auto& replace_case : cases) {
    char out[17] = "######";
    pelmar_str_rpl(out, const_cast<char*>(replace_case.in), replace_case.room, replace_case.src, replace_case.dst);
    EXPECT_STREQ(out, replace_case.out);
    EXPECT_EQ(new_messages("pelmar_str_rpl"), replace_case.lines);
  }
  char in[] = "abc";
  pelmar_str_rpl(nullptr, in, 16, "x", "y");
  EXPECT_EQ(new_messages("pelmar_str_rpl"), Lines{"E out is null"});
}

TEST(Prefix, FitsOrFails) {
  settle_log();
  char out[8] = "in";
  EXPECT_TRUE(pelmar_str_add_prefix(out, out, 6, "pre"));
  EXPECT_FALSE(pelmar_str_add_prefix("in", out, 5, "pre"));
  EXPECT_FALSE(pelmar_str_add_prefix("in", out, -1, ""));
  EXPECT_FALSE(pelmar_str_add_prefix(nullptr, out, 8, "pre"));
  EXPECT_FALSE(pelmar_str_add_prefix("in", nullptr, 8, "pre"));
  EXPECT_FALSE(pelmar_str_add_prefix("in", out, 8, nullptr));
  EXPECT_STREQ(out, "prein");
  EXPECT_EQ(new_messages("pelmar_str_add_prefix"), (Lines{"E in_len(2) + prefix_len(3) can not >= outlen(5)",
                                                          "E in_len(2) + prefix_len(0) can not >= outlen(-1)",
                                                          "E in is null", "E out is null", "E prefix is null"}));
}

TEST(HexText, ShowsTheHighDigits) {
  settle_log();
  const uint8_t data[] = {0x1A, 0x2B, 0xFC};
  char hex[16];
  for (const auto& [length, text] : {std::pair{4, " 1"}, {5, " 1"}, {6, " 1 2"}, {9, " 1 2 F"}}) {
    std::memset(hex, '#', sizeof(hex));
    EXPECT_TRUE(pelmar_get_hex_str(hex, length, data));
    EXPECT_STREQ(hex, text);
    EXPECT_EQ(hex[length], '#');
  }
  EXPECT_FALSE(pelmar_get_hex_str(nullptr, 9, data));
  EXPECT_FALSE(pelmar_get_hex_str(hex, 3, data));
  EXPECT_FALSE(pelmar_get_hex_str(hex, 9, nullptr));
  EXPECT_EQ(new_messages("pelmar_get_hex_str"),
            (Lines{"E hex_str is null", "E str_len is invalid", "E ptr_data is null"}));
}

TEST(Strings, FindAndPrint) {
  settle_log();
  const char text[] = "a/b/c";
  EXPECT_EQ(pelmar_str_find_right(text, '/'), text + 3);
  EXPECT_EQ(pelmar_str_find_right(text, '\0'), text + 5);
  EXPECT_EQ(pelmar_str_find_right(nullptr, 'x'), nullptr);
  char print[] = "h\xE9";
  pelmar_str_print(print);
  EXPECT_EQ(new_messages("pelmar_str_print"),
            (Lines{"D Will print str(len = 2): h\xE9", "D str[0] = h(104)", "D str[1] = \xE9(233)"}));
  clear_log();
  pelmar_str_print(nullptr);
  EXPECT_EQ(new_messages("pelmar_str_print"), Lines{"E str is NULL"});
}

std::string content_of(const std::string& path) {
  std::stringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

// Lines without what the C library counts.
Lines copy_said() {
  Lines lines = new_messages("pelmar_copy_file");
  for (std::string& line : lines) line.erase(std::min(line.find(", errno"), line.size()));
  return lines;
}

TEST(CopyFile, TruncatesTheTargetAndContinuesWhatWasInterrupted) {
  settle_log();
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
  const std::string read = "D Start to read src file: bytes_read = ";
  const std::string write = "D Start to write tgt file: bytes_write = ";
  EXPECT_EQ(copy_said(),
            (Lines{"D src: " + source + ", tgt: " + target, read + "-1", "D Continue to read src file: bytes_read = -1",
                   read + "10240", write + "10000", write + "-1", "D Continue to write tgt file: bytes_read = 10240",
                   write + "240", read + "1", write + "1", read + "0", "D Write done with success."}));
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
  settle_log();
  const std::string source = file_with("content");
  const std::string target = file_with("");
  EXPECT_EQ(pelmar_copy_file(nullptr, nullptr), -1);
  EXPECT_EQ(pelmar_copy_file(source.c_str(), nullptr), -2);
  EXPECT_EQ(pelmar_copy_file("/nonexistent/file", target.c_str()), -3);
  EXPECT_EQ(pelmar_copy_file(source.c_str(), "/nonexistent/file"), -4);
  EXPECT_EQ(copy_said(), (Lines{"E src is null", "E tgt is null", "E src open failed", "E tgt open failed"}));

  const struct {
    Transfer& transfer;
    long outcome;
    const char* line;
  } cases[] = {{on_read, -1, "E Error happen during reading src file"},
               {on_write, -1, "E Error happen during writing tgt file"},
               {on_write, 0, "E Error happen during writing tgt file, abort copy"}};
  for (const auto& failure : cases) {
    failure.transfer = [&](long) { return errno = EIO, failure.outcome; };
    const int32_t result = pelmar_copy_file(source.c_str(), target.c_str());
    failure.transfer = nullptr;
    EXPECT_EQ(result, PELMAR_COPY_FAILED);
    EXPECT_EQ(copy_said().back(), failure.line);
  }
}

TEST(CreateThread, RunsDetachedOrTellsWhyNot) {
  settle_log();
  static std::atomic<bool> ran{false};
  const auto run = [](void*) -> void* { return ran = true, nullptr; };
  EXPECT_EQ(pelmar_create_pthread("worker", run, nullptr), 0);
  while (!ran) std::this_thread::yield();
  set_threads(Threads::kFail);
  EXPECT_EQ(pelmar_create_pthread(nullptr, run, nullptr), EAGAIN);
  EXPECT_EQ(pelmar_create_pthread("worker", nullptr, nullptr), EINVAL);
  EXPECT_EQ(new_messages("pelmar_create_pthread"),
            (Lines{"D pthread[worker] will be created", "D result = 0", "D pthread[Unkown name] will be created",
                   "D result = 11", "E p_thread_proc_cb is NULL, do nothing"}));
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
