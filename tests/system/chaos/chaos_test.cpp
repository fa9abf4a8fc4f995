// Client processes that do all that a client may do, at a modem that does all that a modem should not.
//
// Rounds: a storm of faults under the clients' operations, then a calm in which each process checks what the modem
// holds, closes everything and reports. CHAOS_SECONDS names the length, CHAOS_SEED replays the operations and faults.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <list>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

#include "chaos/chaos.h"
#include "client_process.h"
#include "cutils/properties.h"
#include "sim_process.h"

namespace pelmar::system_test::chaos {

namespace {

constexpr uint64_t kStreamOfFaults = 1'000'000;  // beyond those of the workers
constexpr uint64_t kShortSeconds = 5;
constexpr std::chrono::seconds kShortestStorm{3};
constexpr std::chrono::seconds kLongestStorm{20};
constexpr int kReplyMs = 300'000;  // more than a client process has for all that it waits for
constexpr int kEventsOfACalm = 30;
constexpr int kStatusOfSuddenDeath = 70;

// Commands to the modem, or "wait MS", "kill SIGNAL" (0: it dies by itself), "serve" (a new process) and "events".
// LOW-HIGH stands for a number, SERVICE for the same service in the whole row, TARGET, ERROR, RESPONSE and GARBAGE for
// one of their kind. A response that is lost is followed by a restart of its service, which ends the call that waits.
struct Fault {
  uint32_t weight;
  const char* script;
};
constexpr Fault kFaults[] = {
    {30, "delay 1-300 TARGET any 1-20"},
    {30, "error ERROR TARGET any 1-5"},
    {20, "repeat TARGET any 1-20"},
    {20, "reorder 1-100 TARGET any 1-20"},
    {15, "cut 7-40 SERVICE any 1-3"},  // the frame stays in step and the message has a header
    {2, "cut 0-6 SERVICE any 1 ; wait 20-400 ; service SERVICE down ; wait 0-50 ; service SERVICE up"},
    {5, "silence SERVICE any 1 ; wait 20-400 ; service SERVICE down ; wait 0-50 ; service SERVICE up"},
    {3, "garbage GARBAGE SERVICE any 1 ; wait 20-400 ; service SERVICE down ; wait 0-50 ; service SERVICE up"},
    {5, "inject GARBAGE"},
    {10, "inject RESPONSE"},
    {20, "events"},
    {10, "die connection TARGET any 1"},
    {15, "service SERVICE down ; service SERVICE up"},
    {5, "service SERVICE down ; wait 1-1500 ; service SERVICE up"},
    {5, "restart 0-500"},
    {3, "crash ; wait 0-300 ; start"},
    {2, "kill 9 ; wait 0-500 ; serve"},
    {1, "kill 15 ; wait 0-500 ; serve"},
    {2, "clear ; die modem any any 1 ; kill 0 ; wait 0-500 ; serve"},  // in the middle of a response
};

// These end all faults and every call that still waits for a response.
constexpr const char* kCures[] = {
    "kill 9 ; serve",
    "clear ; service vs down ; service vs up ; service sar down ; service sar up ; service nas down ; service nas up",
};

constexpr const char* kServices[] = {"vs", "sar", "nas"};
constexpr const char* kTargets[] = {"vs", "vs", "sar", "nas", "ctl", "any"};
// Not 26, "no effect", which is a success to a client.
constexpr int kErrors[] = {1, 3, 4, 5, 7, 17, 19, 24, 41, 42, 48, 49, 50, 51, 52, 57, 58, 71, 77, 80, 94, 0xFFFF};

uint64_t number_from(const char* variable, uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 10) : otherwise;
}

class ChaosTest : public testing::Test {
 protected:
  ChaosTest() {
    std::cout << "CHAOS_SEED=" << seed_ << " CHAOS_SECONDS=" << length_.count() << std::endl;
    setenv("PELMAR_PROPERTY_DIR", directory_.path("properties").c_str(), 1);
    setenv("PELMAR_QMI_SOCKET", directory_.path("qmux").c_str(), 1);
    serve();
    property_set("persist.hydra.mem_trace", "true");
    for (const char* const name : {"qcrilNrd", "mtb", "modem_api_test"}) {
      const std::vector<std::string> role = {"chaos", std::to_string(seed_), std::to_string(clients_.size())};
      clients_.emplace_back(name, role);
    }
  }

  ~ChaosTest() override {
    for (ClientProcess& client : clients_) {
      client.finish();
      if (HasFailure()) continue;  // it may hang, and is killed
      EXPECT_EQ(client.end(), 0);
    }
  }

  void storm(Clock::duration duration) {
    tell_all("storm");
    for (const auto end = Clock::now() + duration; Clock::now() < end;) {
      run(random_.row(kFaults).script + (" ; wait " + std::to_string(random_.between(0, 100))));
    }
  }

  void calm() {
    run(random_.element(kCures));
    tell_all("pause");  // after the cure: what a process has then got back stays
    for (ClientProcess& client : clients_) ASSERT_EQ(reply_of(client), "paused");
    if (HasFailure()) return;
    const uint32_t first_event = next_event_;
    for (int i = 0; i < kEventsOfACalm; ++i) send_events();
    tell_all("verify " + std::to_string(first_event) + ' ' + std::to_string(next_event_ - 1));
    for (ClientProcess& client : clients_) {
      const std::string line = reply_of(client);
      std::cout << "process " << client.process() << ": " << line << std::endl;
      ASSERT_TRUE(line.starts_with("verified"));
    }
    for (const char* service : {"0", "1", "2"}) {
      EXPECT_EQ(modem_->value("status", std::string("/services/") + service + "/clients"), "[]");
    }
    EXPECT_EQ(modem_->value("status", "/statistics/reporters"), "0");
  }

  // One event of each kind, with the next number. A modem that is starting may refuse it.
  void send_events() {
    const std::string low_byte = std::to_string(next_event_ & 0xFF);
    const std::string number = std::to_string(next_event_++);
    modem_->respond("event 2 " + number + " 1 0");
    modem_->respond("event 3 " + number + " record 0:82:0102 secondary 1:98:ff trailer 1");
    modem_->respond("event 4 " + number + " 0aff 7 8");
    modem_->respond("event 5 " + low_byte);
  }

  void serve() {
    modem_ = std::make_unique<sim::test::SimProcess>(
        directory_, std::vector<std::string>{"--report-ms", "50", "--reset-ms", "100"});
    for (const Statistic& each : kStatistics) {
      for (const uint32_t sub : {0, 1}) {
        modem_->command("statistic " + std::to_string(sub) + ' ' + std::to_string(each.id) + ' ' + each.version + '=' +
                        std::to_string(stamp_of(sub, each.id)));
      }
    }
  }

  std::string hex_byte(uint32_t least) {
    char text[3];
    std::snprintf(text, sizeof(text), "%02x", random_.between(least, 255));
    return text;
  }

  // A word of a script with what it stands for.
  std::string drawn(const std::string& word, const char* service) {
    if (word == "SERVICE") return service;
    if (word == "TARGET") return random_.element(kTargets);
    if (word == "ERROR") return std::to_string(random_.element(kErrors));
    if (word == "RESPONSE") return "01130080e4ff02" + hex_byte(0) + "000000070002040000000000";  // perhaps awaited
    std::string garbage;  // begins no frame, else the next responses could be a part of it
    for (uint32_t left = word == "GARBAGE" ? random_.between(1, 200) : 0; left > 0; --left) garbage += hex_byte(2);
    uint32_t low = 0;
    uint32_t high = 0;
    if (std::sscanf(word.c_str(), "%u-%u", &low, &high) == 2) return std::to_string(random_.between(low, high));
    return garbage.empty() ? word : garbage;
  }

  void run(const std::string& script) {
    const char* const service = random_.element(kServices);
    std::string command;
    std::istringstream words(script + " ;");
    for (std::string word; words >> word;) {
      if (word == ";") {
        run_command(std::exchange(command, {}));
      } else {
        command += (command.empty() ? "" : " ") + drawn(word, service);
      }
    }
  }

  void run_command(const std::string& command) {
    int number = 0;
    if (std::sscanf(command.c_str(), "wait %d", &number) == 1) {
      std::this_thread::sleep_for(std::chrono::milliseconds(number));
    } else if (std::sscanf(command.c_str(), "kill %d", &number) == 1) {
      const int expected = number == SIGKILL ? -SIGKILL : number == SIGTERM ? 0 : kStatusOfSuddenDeath;
      EXPECT_EQ(modem_->end(number), expected) << command;
    } else if (command == "serve") {
      serve();
    } else if (command == "events") {
      send_events();
    } else {
      modem_->command(command);
    }
  }

  void tell_all(const std::string& line) {
    for (ClientProcess& client : clients_) client.send_line(line);
  }

  // The next line that is no problem.
  static std::string reply_of(ClientProcess& client) {
    std::string line = client.line(kReplyMs);
    for (; line.starts_with("problem: "); line = client.line(kReplyMs)) {
      ADD_FAILURE() << "process " << client.process() << ": " << line;
    }
    return line;
  }

  const uint64_t seed_ = number_from("CHAOS_SEED", std::random_device()());
  const std::chrono::seconds length_{number_from("CHAOS_SECONDS", kShortSeconds)};
  Random random_{seed_, kStreamOfFaults};
  uint32_t next_event_ = kFirstEvent;
  sim::test::ScratchDirectory directory_;
  std::unique_ptr<sim::test::SimProcess> modem_;
  std::list<ClientProcess> clients_;
};

TEST_F(ChaosTest, EveryCallEndsWellUnderFaults) {
  ::signal(SIGPIPE, SIG_IGN);  // a client process that died is reported as such
  const auto end = Clock::now() + length_;
  const std::chrono::seconds storm_length =
      std::clamp<std::chrono::seconds>(length_ / 15, kShortestStorm, kLongestStorm);
  while (Clock::now() < end && !HasFailure()) {
    storm(storm_length);
    calm();
  }
}

}  // namespace

}  // namespace pelmar::system_test::chaos
