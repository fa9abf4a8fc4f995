// What the platform shares with the programs that use it: sockets and their names, the environment, and system
// properties.
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>

#include "cutils/properties.h"
#include "environment.h"
#include "scripted_modem.h"

namespace pelmar::platform {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kUser = 61234;  // is not in the user database

class AsUser {
 public:
  explicit AsUser(uid_t user) { EXPECT_EQ(::seteuid(user), 0); }
  ~AsUser() { EXPECT_EQ(::seteuid(0), 0); }
};

// Each test has its own directory, which every user can write.
class DirectoryTest : public testing::Test {
 protected:
  DirectoryTest() {
    char path[] = "/tmp/io-test-XXXXXX";
    EXPECT_NE(::mkdtemp(path), nullptr);
    directory_ = path;
    ::umask(0);
    fs::permissions(directory_, fs::perms::all);
    ::setenv("PELMAR_PROPERTY_DIR", (directory_ / "made").c_str(), 1);
  }
  ~DirectoryTest() override { fs::remove_all(directory_); }

  fs::path directory_;
};

// --- sockets ---

TEST(UnixSocket, ConnectingToAListenerThatDoesNotAcceptTimesOut) {
  const std::string name = "@io-test-full-" + std::to_string(::getpid());
  const UniqueFd listener = listen_on(name, 0);
  const UnixConnection pending = connect_unix(name);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(connect_unix(name).error, ETIMEDOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, kConnectTimeout);
  timeval limit = {1, 1};
  socklen_t size = sizeof limit;
  ASSERT_EQ(::getsockopt(pending.fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, &size), 0);
  EXPECT_EQ(limit.tv_sec + limit.tv_usec, 0) << "later sends have no time-out";
}

TEST_F(DirectoryTest, OnAnAbstractNameOnlyThisUserAndRootAreTrusted) {
  if (::geteuid() != 0) GTEST_SKIP() << "takes another user's identity";
  const std::string abstract = "@io-test-user-" + std::to_string(::getpid()), path = directory_ / "socket";
  // The name, the users of the listener and of the caller, PELMAR_ANY_USER, the error, and whether the other may
  // refuse.
  const std::tuple<std::string, uid_t, uid_t, const char*, int, bool> cases[] = {
      {abstract, kUser, 0, "0", EPERM, false}, {abstract, kUser, 0, "1", 0, false},
      {abstract, 0, kUser, "0", 0, true},      {abstract, kUser, kUser + 1, "1", 0, true},
      {path, kUser, 0, "0", 0, false},
  };
  for (const auto& [name, listening, calling, any_user, error, may_refuse] : cases) {
    ::setenv("PELMAR_ANY_USER", any_user, 1);
    const UniqueFd listener = (AsUser(listening), listen_on(name, 1));
    const AsUser caller(calling);
    const UnixConnection connection = connect_unix(name);
    const std::string refusal = connection.fd ? describe_refusal(connection.fd.get(), name) : "";
    EXPECT_EQ(connection.error, error) << listening << ' ' << calling << ' ' << any_user;
    EXPECT_EQ(connection.problem.find("user 61234") != std::string::npos, error != 0) << connection.problem;
    EXPECT_EQ(!refusal.empty(), may_refuse) << refusal;
  }
  ::unsetenv("PELMAR_ANY_USER");
}

// --- properties ---

class Properties : public DirectoryTest {
 protected:
  static std::string get(const std::string& name, const char* otherwise = "none") {
    char value[PROPERTY_VALUE_MAX];
    const int length = property_get(name.c_str(), value, otherwise);
    EXPECT_EQ(static_cast<size_t>(length), std::strlen(value));
    return value;
  }
};

TEST_F(Properties, KeepTheLastValidValueOfAValidName) {
  const std::string longest(91, 'x'), b(200, 'b');  // both have the greatest length
  const std::tuple<std::string, std::string, bool, std::string> cases[] = {
      {"persist.a", "2", true, "2"}, {b, longest, true, longest}, {b, longest + 'x', false, longest},
      {b, "", true, "none"},  // an empty value counts as none
      {"ro.a", "1", true, "1"},      {"ro.a", "2", false, "1"},   {"", "1", false, "none"},
      {"a/b", "1", false, "none"},   {"a b", "1", false, "none"}, {"a\x7f", "1", false, "none"},
      {"..", "1", false, "none"},    {".a", "1", false, "none"},  {b + 'b', "1", false, "none"},
  };
  const int unused = UniqueFd(::dup(0)).get();
  for (const auto& [name, value, is_set, read] : cases) {
    EXPECT_EQ(property_set(name.c_str(), value.c_str()) == 0, is_set) << name;
    EXPECT_EQ(get(name), read) << name;
  }
  EXPECT_EQ(UniqueFd(::dup(0)).get(), unused) << "a descriptor leaks";
  EXPECT_EQ(get("c", nullptr), "");
  EXPECT_EQ(get("c", std::string(200, 'd').c_str()), std::string(91, 'd'));
  rlimit limit{};
  ASSERT_TRUE(::signal(SIGXFSZ, SIG_IGN) != SIG_ERR && ::getrlimit(RLIMIT_FSIZE, &limit) == 0);
  const rlimit full = {0, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
  const int error = property_set("persist.a", "3");
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_EQ(error, -1);
  EXPECT_EQ(get("persist.a"), "2");
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(directory_), {}), 3 + 3) << "no temporary file is left";
  for (const std::string& foreign : {longest + 'x', std::string("a\0b", 3)}) {
    std::ofstream(directory_ / "made/persist/persist.a") << foreign;
    EXPECT_EQ(get("persist.a"), "none");
  }
}

TEST_F(Properties, OnlyPersistentOnesSurviveAReboot) {
  property_set("persist.a", "kept");
  property_set("ro.b", "lost");
  fs::rename(directory_ / "made" / boot_id(), directory_ / "made/the-boot-before");
  EXPECT_EQ(get("persist.a"), "kept");
  EXPECT_EQ(get("ro.b"), "none");
  EXPECT_EQ(property_set("ro.b", "new"), 0);
}

TEST_F(Properties, WithoutAHomeAreStoredInADirectoryThatOnlyTheUserCanWrite) {
  if (::geteuid() != 0) GTEST_SKIP() << "takes another user's identity";
  for (const char* name : {"PELMAR_PROPERTY_DIR", "XDG_STATE_HOME", "HOME"}) ::unsetenv(name);
  EXPECT_EQ(user_state_directory(), std::string(::getpwuid(0)->pw_dir) + "/.local/state");
  const passwd* const daemon = ::getpwnam("daemon");
  ASSERT_NE(daemon, nullptr);
  EXPECT_EQ((AsUser(daemon->pw_uid), user_state_directory()), "") << "root owns its home";
  ::setenv("TMPDIR", directory_.c_str(), 1);
  const fs::path place = directory_ / ("pelmar-" + std::to_string(kUser)), elsewhere = directory_ / "elsewhere";
  // The directory that exists before (empty: none), its owner and mode, the property's value, and whether one is kept.
  const std::tuple<const char*, fs::path, uid_t, mode_t, std::string, bool> cases[] = {
      {"nothing", "", 0, 0, "none", true},
      {"a directory of its own", place, kUser, 0700, "prepared", true},
      {"one that it cannot write", place, kUser, 0500, "prepared", false},
      {"another user's", place, kUser + 1, 0777, "none", false},
      {"one that is open to others", place, kUser, 0770, "none", false},
      {"a link", elsewhere, kUser, 0700, "none", false},
  };
  ::openlog("io", LOG_PERROR, LOG_USER);
  testing::internal::CaptureStderr();
  ::setenv("XDG_STATE_HOME", (directory_ / "state").c_str(), 1);
  EXPECT_EQ(get("persist.a"), "none") << "no warning, because nothing has been stored";
  EXPECT_FALSE(fs::exists(directory_ / "state"));
  ::unsetenv("XDG_STATE_HOME");
  for (const auto& [what, made, owner, mode, before, is_kept] : cases) {
    if (!made.empty()) {
      fs::create_directories(made / "properties/persist");
      std::ofstream(made / "properties/persist/persist.a") << "prepared";
      for (const fs::path& path : {made / "properties/persist", made / "properties", made}) {
        ASSERT_EQ(::chown(path.c_str(), owner, owner) + ::chmod(path.c_str(), mode), 0);
      }
    }
    if (made == elsewhere) fs::create_directory_symlink(elsewhere, place);
    EXPECT_EQ((AsUser(kUser), get("persist.a")), before) << what;
    for (const AsUser user(kUser); const char* const value : {"1", "2"}) {
      EXPECT_EQ(property_set("persist.a", value) == 0, is_kept) << what;
      EXPECT_EQ(get("persist.a"), is_kept ? value : before) << what;
    }
    EXPECT_EQ(fs::status(place).permissions() == fs::perms::owner_all, is_kept || fs::is_symlink(place));
    fs::remove_all(place);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "io: Cannot store files in " + place.string() +
                                                        ": another user owns it, or it is open to others. "
                                                        "Set HOME or XDG_STATE_HOME to a directory of this user.\n");
}

}  // namespace
}  // namespace pelmar::platform
