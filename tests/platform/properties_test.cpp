// System properties as a process sees them.
#include "cutils/properties.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
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

// In a process of its own: a user that the user database does not know sets a property, and sees it or not.
[[noreturn]] void act_as_homeless_user(uid_t user, bool is_kept) {
  ::umask(0);
  bool is_right = ::seteuid(user) == 0;
  for (int i = 0; i < 2; ++i) {
    char value[PROPERTY_VALUE_MAX];
    is_right = is_right && (property_set("persist.a", "1") == 0) == is_kept;
    property_get("persist.a", value, "none");
    is_right = is_right && std::strcmp(value, is_kept ? "1" : "none") == 0;
  }
  std::_Exit(is_right ? 0 : 1);
}

TEST_F(Properties, WithoutAHomeAreKeptWhereNobodyElseCanWrite) {
  if (::geteuid() != 0) GTEST_SKIP() << "takes another user's identity";
  constexpr uid_t kUser = 61234;
  for (const char* name : {"PELMAR_PROPERTY_DIR", "XDG_STATE_HOME", "HOME"}) ::unsetenv(name);
  fs::permissions(directory_, fs::perms::all);
  const fs::path place = directory_ / ("pelmar-" + std::to_string(kUser));
  const fs::path elsewhere = directory_ / "elsewhere";
  const auto make = [](const fs::path& path, uid_t owner, mode_t mode) {
    fs::create_directories(path / "properties/persist");
    std::ofstream(path / "properties/persist/persist.a") << "prepared";
    for (const auto& each : {path / "properties/persist", path / "properties", path}) {
      EXPECT_EQ(::chown(each.c_str(), owner, owner) + ::chmod(each.c_str(), mode), 0);
    }
  };
  const struct {
    const char* what;
    std::function<void()> prepare;
    bool is_kept;
  } cases[] = {
      {"nothing", [] {}, true},
      {"a directory of its own", [&] { make(place, kUser, 0700); }, true},
      {"another user's", [&] { make(place, kUser + 1, 0777); }, false},
      {"open to others", [&] { make(place, kUser, 0750); }, false},
      {"a link",
       [&] {
         make(elsewhere, kUser, 0700);
         fs::create_directory_symlink(elsewhere, place);
       },
       false},
      {"no temporary files", [] { ::setenv("TMPDIR", "/no/such/directory", 1); }, false},
  };
  for (const auto& each : cases) {
    ::setenv("TMPDIR", directory_.c_str(), 1);
    each.prepare();
    EXPECT_EXIT(act_as_homeless_user(kUser, each.is_kept), testing::ExitedWithCode(0),
                each.is_kept ? "^$" : "^[^\n]*Nothing is kept[^\n]*\n$")
        << each.what;
    EXPECT_EQ(fs::status(place).permissions() == fs::perms::owner_all, each.is_kept || fs::is_symlink(place));
    fs::remove_all(place);
  }
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
