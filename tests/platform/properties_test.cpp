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

#include "captured_syslog.h"

namespace pelmar {
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

  static std::string get(const std::string& name, const char* otherwise = "none") {
    char value[PROPERTY_VALUE_MAX];
    const int length = property_get(name.c_str(), value, otherwise);
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

TEST_F(Properties, KeepTheLastGoodValueOfAGoodName) {
  const std::string longest(91, 'x');
  const struct {
    std::string name, value;
    bool is_set;
    std::string read;
  } cases[] = {
      {"persist.a", "1", true, "1"},
      {"persist.a", "2", true, "2"},
      {"b", longest, true, longest},
      {"b", longest + 'x', false, longest},
      {"b", "", true, "none"},  // an empty value is no value
      {"ro.a", longest + 'x', false, "none"},
      {"ro.a", "1", true, "1"},
      {"ro.a", "2", false, "1"},
      {"", "1", false, "none"},
      {"a/b", "1", false, "none"},
      {"../a", "1", false, "none"},
      {".hidden", "1", false, "none"},
      {"a\nb", "1", false, "none"},
      {"a b", "1", false, "none"},
      {std::string(300, 'n'), "1", false, "none"},
  };
  for (const auto& [name, value, is_set, read] : cases) {
    EXPECT_EQ(property_set(name.c_str(), value.c_str()) == 0, is_set) << name;
    EXPECT_EQ(get(name), read) << name;
  }
  EXPECT_EQ(get("c", nullptr), "");
  EXPECT_EQ(get("c", std::string(200, 'd').c_str()), std::string(91, 'd'));
  EXPECT_EQ(files().size(), 3u) << "no temporary file is left";
}

TEST_F(Properties, OneOfManyWritersSetsAReadOnlyOne) {
  std::vector<std::thread> writers;
  std::atomic<int> winners{0};
  for (int i = 0; i < 8; ++i) {
    writers.emplace_back([&, i] { winners += property_set("ro.once", std::to_string(i).c_str()) == 0 ? 1 : 0; });
  }
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(winners, 1);
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

TEST_F(Properties, ReadNothingFromAFileThatIsNoProperty) {
  property_set("persist.a", "1");
  const fs::path file = files().at(0);
  for (const std::string& content : {std::string(92, 'x'), std::string("a\0b", 3)}) {
    std::ofstream(file) << content;
    EXPECT_EQ(get("persist.a"), "none");
  }
  fs::remove(file);
  fs::create_directory(file);
  EXPECT_EQ(get("persist.a"), "none");
}

TEST_F(Properties, WithoutAHomeAreKeptWhereNobodyElseCanWrite) {
  if (::geteuid() != 0) GTEST_SKIP() << "takes another user's identity";
  constexpr uid_t kUser = 61234;  // that the user database does not know
  for (const char* name : {"PELMAR_PROPERTY_DIR", "XDG_STATE_HOME", "HOME"}) ::unsetenv(name);
  fs::permissions(directory_, fs::perms::all);
  const fs::path place = directory_ / ("pelmar-" + std::to_string(kUser)), elsewhere = directory_ / "elsewhere";
  const auto make = [](const fs::path& path, uid_t owner, mode_t mode) {
    fs::create_directories(path / "properties/persist");
    std::ofstream(path / "properties/persist/persist.a") << "prepared";
    for (const auto& each : {path / "properties/persist", path / "properties", path}) {
      EXPECT_EQ(::chown(each.c_str(), owner, owner) + ::chmod(each.c_str(), mode), 0);
    }
  };
  const auto link = [&] {
    make(elsewhere, kUser, 0700);
    fs::create_directory_symlink(elsewhere, place);
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
      {"a link", link, false},
      {"no temporary files", [] { ::setenv("TMPDIR", "/no/such/directory", 1); }, false},
  };
  ::umask(0);
  for (const auto& each : cases) {
    ::setenv("TMPDIR", directory_.c_str(), 1);
    each.prepare();
    ASSERT_EQ(::seteuid(kUser), 0);
    for (const char* const value : {"1", "2"}) {
      EXPECT_EQ(property_set("persist.a", value) == 0, each.is_kept) << each.what;
      EXPECT_EQ(get("persist.a"), each.is_kept ? value : "none") << each.what;
    }
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(fs::status(place).permissions() == fs::perms::owner_all, each.is_kept || fs::is_symlink(place));
    EXPECT_EQ(platform::logged().empty(), each.is_kept) << each.what;
    fs::remove_all(place);
  }
  EXPECT_EQ(platform::logged().find("Nothing is kept"), platform::logged().rfind("Nothing is kept")) << "once";
}

}  // namespace
}  // namespace pelmar
