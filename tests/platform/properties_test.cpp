// System properties as a process sees them.
#include "cutils/properties.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

class Properties : public testing::Test {
 protected:
  void SetUp() override {
    char path[] = "/tmp/properties-XXXXXX";
    ASSERT_NE(::mkdtemp(path), nullptr);
    directory_ = path;
    ::setenv("PELMAR_PROPERTY_DIR", path, 1);
  }
  void TearDown() override { fs::remove_all(directory_); }

  static std::string get(const char* name, const char* otherwise = "none") {
    char value[PROPERTY_VALUE_MAX];
    const int length = property_get(name, value, otherwise);
    EXPECT_EQ(static_cast<size_t>(length), std::strlen(value));
    return value;
  }

  std::vector<fs::path> files() const {
    std::vector<fs::path> list;
    for (const auto& entry : fs::recursive_directory_iterator(directory_)) {
      if (entry.is_regular_file()) list.push_back(entry.path());
    }
    return list;
  }

  fs::path directory_;
};

TEST_F(Properties, KeepsTheLastValue) {
  EXPECT_EQ(get("persist.a"), "none");
  EXPECT_EQ(get("persist.a", nullptr), "");
  EXPECT_EQ(property_set("persist.a", "1"), 0);
  EXPECT_EQ(property_set("persist.a", "2"), 0);
  EXPECT_EQ(property_set("b", std::string(91, 'x').c_str()), 0);
  EXPECT_EQ(get("persist.a"), "2");
  EXPECT_EQ(get("b"), std::string(91, 'x'));
  EXPECT_EQ(property_set("b", ""), 0);
  EXPECT_EQ(get("b"), "none") << "an empty value is no value";
  EXPECT_EQ(get("c", std::string(200, 'd').c_str()).size(), 91u);
  EXPECT_EQ(files().size(), 2u) << "no temporary file is left";
}

TEST_F(Properties, RefusesBadNamesAndLongValues) {
  const std::string too_long_name(300, 'n'), too_long_value(92, 'v');
  for (const char* name : {"", "a/b", "../a", ".hidden", "a\nb", "a b", too_long_name.c_str()}) {
    EXPECT_LT(property_set(name, "1"), 0) << name;
    EXPECT_EQ(get(name), "none") << name;
  }
  EXPECT_LT(property_set("a", too_long_value.c_str()), 0);
  EXPECT_LT(property_set("ro.a", too_long_value.c_str()), 0);
  EXPECT_TRUE(files().empty());
}

TEST_F(Properties, SetsReadOnlyOnesOnce) {
  std::vector<std::thread> writers;
  std::atomic<int> winners{0};
  for (int i = 0; i < 8; ++i) {
    writers.emplace_back([&, i] { winners += property_set("ro.once", std::to_string(i).c_str()) == 0 ? 1 : 0; });
  }
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(winners, 1);
  const std::string first = get("ro.once");
  EXPECT_LT(property_set("ro.once", "other"), 0);
  EXPECT_EQ(get("ro.once"), first);
  EXPECT_EQ(files().size(), 1u);
}

TEST_F(Properties, OnlyPersistentOnesOutliveABoot) {
  property_set("persist.a", "kept");
  property_set("ro.b", "lost");
  std::string boot;
  std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), boot);
  fs::rename(directory_ / boot, directory_ / "the-boot-before");
  EXPECT_EQ(get("persist.a"), "kept");
  EXPECT_EQ(get("ro.b"), "none");
  EXPECT_EQ(property_set("ro.b", "new"), 0);
}

TEST_F(Properties, HaveAPlaceWhereTheUserHasNone) {
  for (const char* name : {"PELMAR_PROPERTY_DIR", "XDG_STATE_HOME", "HOME"}) ::unsetenv(name);
  ::setenv("TMPDIR", directory_.c_str(), 1);
  EXPECT_EQ(property_set("persist.a", "1"), 0);
  EXPECT_EQ(get("persist.a"), "1");
  EXPECT_EQ(files().size(), 1u);
  ::setenv("TMPDIR", "/no/such/directory", 1);
  EXPECT_EQ(get("persist.of-the-properties-test"), "none") << "nothing is thrown";
}

TEST_F(Properties, ReadsNothingFromAFileThatIsNoProperty) {
  property_set("persist.a", "1");
  const fs::path file = files().at(0);
  std::ofstream(file) << std::string(92, 'x');
  EXPECT_EQ(get("persist.a"), "none");
  std::ofstream(file) << std::string("a\0b", 3);
  EXPECT_EQ(get("persist.a"), "none");
  fs::remove(file);
  fs::create_directory(file);
  EXPECT_EQ(get("persist.a"), "none");
}

}  // namespace
