// Strings, file copy, threads, and allocation with its free. The golden log shows the other results.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

#include "library_test.h"
#include "pelmar_string.h"

namespace {

using namespace scripted;

using Strings = Golden<testing::Test>;

TEST_F(Strings, AreChangedWithinTheirBuffer) {
  const std::tuple<std::string, uint32_t, std::string> trimmed_texts[] = {{"\t\n\v\f\r a b\r\n ", 16, "a b"},
                                                                          {"abc", 4, "abc"},
                                                                          {"", 16, ""},
                                                                          {" ", 16, ""},
                                                                          {"    ", 3, ""},
                                                                          {"a  xy", 4, "a"},
                                                                          {"   x", 4, ""},
                                                                          {" a ", 1, " a "},
                                                                          {" abcd", 4, "ab"},
                                                                          {"ab", 2, "a"}};
  for (const auto& [given, room, trimmed] : trimmed_texts) {
    std::string text = given;
    pelmar_str_trim(text.data(), room);
    EXPECT_STREQ(text.c_str(), trimmed.c_str());
  }
  pelmar_str_trim(nullptr, 8);

  const std::tuple<const char*, uint32_t, const char*, const char*, const char*> replacements[] = {
      {"aXbXX", 16, "X", "--", "a--b----"},
      {"abab", 16, "ab", "", ""},
      {"abc", 5, "x", "y", "abc"},
      {"abc", 4, "x", "y", "ab"},
      {"aXc", 5, "X", "123", "a"},
      {"abc", 0, "x", "y", "######"},
      {"abc", 1, "x", "y", ""},
      {"", 16, "x", "y", ""},
      {"abc", 16, "", "y", ""},
      {nullptr, 16, "x", "y", ""},
      {"abc", 16, nullptr, nullptr, ""},
      {"abc", 16, "x", nullptr, ""}};
  for (const auto& [in, room, src, dst, wanted] : replacements) {
    char out[17] = "######";
    pelmar_str_rpl(out, const_cast<char*>(in), room, src, dst);
    EXPECT_STREQ(out, wanted);
  }
  char out[8] = "in\0\0\0\0#";
  pelmar_str_rpl(nullptr, out, 8, "b", "x");

  pelmar_str_add_prefix(out, out, 6, "pre");
  for (const int32_t room : {5, -1}) pelmar_str_add_prefix("in", out, room, "pre");
  pelmar_str_add_prefix(nullptr, out, 8, "pre");
  pelmar_str_add_prefix("in", nullptr, 8, "pre");
  pelmar_str_add_prefix("in", out, 8, nullptr);
  EXPECT_STREQ(out, "prein");
  EXPECT_EQ(out[6], '#');

  const uint8_t data[] = {0x1A, 0x2B, 0xFC};
  for (const auto& [room, text] : {std::pair{4, " 1"}, {5, " 1"}, {9, " 1 2 F"}}) {
    std::string hex(16, '#');
    pelmar_get_hex_str(hex.data(), room, data);
    EXPECT_STREQ(hex.c_str(), text);
    EXPECT_EQ(hex[static_cast<size_t>(room)], '#');
  }
  pelmar_get_hex_str(nullptr, 4, data);
  pelmar_get_hex_str(out, 3, data);
  pelmar_get_hex_str(out, 4, nullptr);
}

TEST_F(Strings, AreComparedSearchedAndPrinted) {
  const std::pair<const char*, const char*> pairs[] = {{"ab", "ab"},  {nullptr, nullptr}, {"ab", nullptr},
                                                       {"ab", "bcd"}, {"ab", "ac"},       {"ab", "bb"}};
  for (const auto& [first, second] : pairs) pelmar_str_cmp(first, second);
  char text[] = "a/b/c";
  EXPECT_EQ(pelmar_str_find_right(text, '/'), text + 3);
  EXPECT_EQ(pelmar_str_find_right(nullptr, 'x'), nullptr);
  pelmar_str_print(text);
  pelmar_str_print(nullptr);
}

using CopyFile = Golden<testing::Test>;

TEST_F(CopyFile, TruncatesTheTargetAndContinuesAfterSignals) {
  const std::string source = file_with(std::string(10241, 'c'));
  unlink("target");
  const std::string old = file_with(std::string(20000, 'o'));
  umask(0);
  close(STDIN_FILENO);  // a file may get descriptor 0
  pelmar_copy_file(old.c_str(), "target");
  EXPECT_EQ(std::filesystem::status("target").permissions(), std::filesystem::perms::all);
  int calls = 0;
  const auto interrupted = [&calls] { return calls++ % 2 == 0 ? (errno = EINTR, true) : false; };
  on_read = [&](long requested) { return interrupted() ? -1 : requested; };
  on_write = [&](long requested) { return interrupted() ? -1 : std::min(10000L, requested); };
  pelmar_copy_file(source.c_str(), "target");
  on_read = on_write = nullptr;
  std::stringstream copied;
  copied << std::ifstream("target").rdbuf();
  EXPECT_EQ(copied.str(), std::string(10241, 'c'));

  pelmar_copy_file(nullptr, nullptr);
  pelmar_copy_file(source.c_str(), nullptr);
  pelmar_copy_file("/nonexistent/file", "target");
  pelmar_copy_file(source.c_str(), "/nonexistent/file");
  for (const auto& [transfer, outcome] : {std::pair<Transfer&, long>{on_read, -1}, {on_write, -1}, {on_write, 0}}) {
    transfer = [outcome = outcome](long) { return errno = EIO, outcome; };
    pelmar_copy_file(source.c_str(), "target");
    transfer = nullptr;
  }
  unlink("target");
}

using ThreadsAndMemory = Golden<testing::Test>;

TEST_F(ThreadsAndMemory, ThreadsRunDetachedAndBlocksAreFreedOnce) {
  static std::atomic<bool> ran{false};
  const auto run = [](void*) -> void* { return ran = true, nullptr; };
  pelmar_create_pthread("worker", run, nullptr);
  while (!ran) std::this_thread::yield();
  set_threads(Threads::kFail);
  EXPECT_EQ(pelmar_create_pthread(nullptr, run, nullptr), EAGAIN);
  EXPECT_EQ(pelmar_create_pthread("worker", nullptr, nullptr), EINVAL);

  EXPECT_EQ(pelmar_mem_malloc(0), nullptr);
  void* block = pelmar_mem_malloc(8);
  EXPECT_NE(block, nullptr);
  for (int i = 0; i < 2; ++i) pelmar_mem_free(&block);
  EXPECT_EQ(block, nullptr);
  pelmar_mem_free(nullptr);
}

}  // namespace
