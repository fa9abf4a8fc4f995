#include "own_modem.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <thread>

#include "clocks.h"
#include "environment.h"
#include "failure.h"
#include "local_socket.h"
#include "modem_process.h"
#include "state_directory.h"

namespace pelmar::cli {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kStep = "starting the simulated modem";
constexpr auto kAnswerPatience = 2s;
constexpr auto kLockPatience = 45s;
constexpr int kAttempts = 5;  // the modem of an earlier run may be ending and still hold the storage
constexpr auto kPauseBetweenAttempts = 100ms;

struct Place {
  std::string storage;
  std::string socket;
  std::string lock;
  std::string log;
};

// FNV-1a: the same for the same storage in every build.
std::string digest(std::string_view text) {
  uint32_t value = 2166136261U;
  for (const char character : text) value = (value ^ static_cast<uint8_t>(character)) * 16777619U;
  char digits[9];
  snprintf(digits, sizeof digits, "%08x", value);
  return digits;
}

// For this user alone; the directories above it as usual.
void make_private_directory(const std::string& path) {
  std::error_code error;
  fs::create_directories(fs::path(path).parent_path(), error);
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) throw Failure::of_system("creating the directory " + path);
}

Place make_place() {
  const std::string state = user_state_directory();
  if (state.empty()) {
    throw Failure(kStep, "this user has no home directory to keep its storage in", "Set HOME or XDG_STATE_HOME.");
  }
  const std::string below = state + "/pelmar";
  const std::string storage = below + "/modem";
  make_private_directory(below);
  make_private_directory(storage);
  std::string socket = storage + "/socket";
  if (const std::string runtime = environment_path("XDG_RUNTIME_DIR"); !runtime.empty()) {
    make_private_directory(runtime + "/pelmar");
    socket = runtime + "/pelmar/modem-" + digest(storage) + ".sock";
  }
  return {storage, socket, storage + ".lock", storage + ".log"};
}

UniqueFd take_lock(const std::string& path) {
  UniqueFd lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!lock) throw Failure::of_system("opening " + path);
  const auto deadline = Clock::now() + kLockPatience;
  while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (Clock::now() > deadline) {
      throw Failure(kStep, "another modem_api_test is starting it and does not come to an end",
                    "End that process, which holds " + path + ".");
    }
    std::this_thread::sleep_for(10ms);
  }
  return lock;
}

UniqueFd reach(const Place& place) {
  UnixConnection connection = connect_unix(place.socket);
  return responds(connection, kAnswerPatience) ? std::move(connection.fd) : UniqueFd();
}

}  // namespace

OwnModem reach_own_modem() {
  const Place place = make_place();
  std::string problem;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (UniqueFd guard = reach(place)) return {place.socket, place.storage, std::move(guard)};
    const UniqueFd lock = take_lock(place.lock);
    if (UniqueFd guard = reach(place)) return {place.socket, place.storage, std::move(guard)};
    problem = start_modem_process(place.socket, place.storage, place.log);
    if (!problem.empty()) std::this_thread::sleep_for(kPauseBetweenAttempts);
  }
  if (problem.empty()) problem = "it started, but does not respond on " + place.socket;
  throw Failure(kStep, problem, "Its log is " + place.log + "; --modem SOCKET names another modem.");
}

}  // namespace pelmar::cli
