// Client processes that use all operations, with a modem that has every kind of fault.
//
// In each round faults are set while the clients run. Then each process compares the modem's items, closes its clients
// and prints a report. CHAOS_SECONDS sets the duration, CHAOS_SEED repeats the operations and faults of a run.

#include <iostream>
#include <list>
#include <regex>
#include <sstream>
#include <thread>

#include "chaos.h"
#include "cutils/properties.h"
#include "modem_test.h"

namespace pelmar::system_test::chaos {

namespace {

constexpr uint64_t kStreamOfFaults = 1'000'000;  // greater than those of the workers
constexpr uint64_t kShortSeconds = 5;
constexpr std::chrono::seconds kFaultTime{3};

// Commands to the modem, or "wait MS" and "serve SIGNAL" (ends the modem with the signal and starts a new one).
// LOW-HIGH stands for a random number, SERVICE for the same random service in the whole row. After a lost response the
// service restarts, which ends the call that waits. Garbage does not begin like a frame, or the next responses could
// become part of it. No error is 26, "no effect", which is a success for a client.
struct Fault {
  uint32_t weight;
  const char* script;
};
constexpr Fault kFaults[] = {
    {30, "delay 1-300 SERVICE any 1-20"},
    {10, "delay 1-300 any any 1-20"},
    {15, "error 1-25 SERVICE any 1-5"},
    {15, "error 41-94 SERVICE any 1-5"},
    {5, "error 41-52 ctl any 1-5"},
    {20, "repeat SERVICE any 1-20"},
    {20, "reorder 1-100 SERVICE any 1-20"},
    {15, "cut 7-40 SERVICE any 1-3"},  // cuts after the message header, so that the frame stays valid
    {2, "cut 0-6 SERVICE any 1 ; wait 20-400 ; service SERVICE down ; wait 0-50 ; service SERVICE up"},
    {5, "silence SERVICE any 1 ; wait 20-400 ; service SERVICE down ; wait 0-50 ; service SERVICE up"},
    {3, "garbage 55aa01bb SERVICE any 1 ; wait 20-400 ; service SERVICE down ; service SERVICE up"},
    {5, "inject 55aa01bb"},
    {10, "inject 01130080e4ff0205000000070002040000000000"},  // a response that a request may wait for
    {20, "event 3 7 record 0:82:0102 ; event 4 7 0aff 7 8 ; event 5 7"},
    {10, "die connection any any 1"},
    {20, "service SERVICE down ; wait 0-800 ; service SERVICE up"},
    {5, "restart 0-500"},
    {3, "crash ; wait 0-300 ; start"},
    {2, "serve 9"},
    {1, "serve 15"},
};

// Ends all faults and every call that still waits for a response.
constexpr const char* kEndFaults =
    "clear ; service vs down ; service vs up ; service sar down ; service sar up ; service nas down ; service nas up";

constexpr const char* kServices[] = {"vs", "vs", "sar", "nas"};

uint64_t number_from(const char* variable, uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 10) : otherwise;
}

const std::vector<std::string> kModemOptions = {"--report-ms", "50", "--reset-ms", "100"};

class ChaosTest : public ModemTest {
 protected:
  ChaosTest() : ModemTest(kModemOptions) {
    std::cout << "CHAOS_SEED=" << seed_ << " CHAOS_SECONDS=" << length_.count() << std::endl;
    property_set("persist.hydra.mem_trace", "true");
    for (const char* const name : {"qcrilNrd", "mtb", "modem_api_test"}) {
      clients_.emplace_back(
          CHAOS_CLIENT, std::vector{std::string(name), std::to_string(seed_), std::to_string(clients_.size())}, false);
    }
  }

  ~ChaosTest() override {
    for (sim::test::Process& client : clients_) {
      client.finish();
      if (HasFailure()) continue;  // it may hang; the destructor kills it
      EXPECT_EQ(client.end(), 0);
    }
  }

  void run_faults() {
    for (sim::test::Process& client : clients_) client.send_line("work");
    for (const auto end = Clock::now() + kFaultTime; Clock::now() < end;) {
      run(random_.row(kFaults).script + (" ; wait " + std::to_string(random_.between(0, 100))));
    }
  }

  // The next line of each process that reports no problem is its report.
  void verify_clients() {
    run(kEndFaults);
    for (sim::test::Process& client : clients_) client.send_line("verify");
    for (sim::test::Process& client : clients_) {
      std::string line = client.line();
      for (; line.starts_with("problem: "); line = client.line()) {
        ADD_FAILURE() << "process " << client.process() << ": " << line;
      }
      std::cout << "process " << client.process() << ": " << line << std::endl;
      ASSERT_TRUE(line.starts_with("verified"));
    }
    const auto status = modem().value("status", "");
    for (const auto& service : status["services"]) EXPECT_TRUE(service["clients"].empty()) << service;
    EXPECT_EQ(status["statistics"]["reporters"], 0);
  }

  // Runs each command of a script, with random numbers and a random service.
  void run(const std::string& script) {
    static const std::regex pattern("SERVICE|([0-9]+)-([0-9]+)|;");
    const std::string service = kServices[random_() % std::size(kServices)];
    std::string command;
    auto rest = script.cbegin();
    for (std::smatch match; std::regex_search(rest, script.cend(), match, pattern); rest = match[0].second) {
      command.append(rest, match[0].first);
      if (match[0] == ";") run_command(std::exchange(command, {}));
      if (match[0] == "SERVICE") command += service;
      if (match[1].matched) command += std::to_string(random_.between(std::stoul(match[1]), std::stoul(match[2])));
    }
    run_command(command.append(rest, script.cend()));
  }

  void run_command(const std::string& command) {
    std::istringstream words(command);
    std::string verb;
    int number = 0;
    words >> verb >> number;
    if (verb == "wait") {
      std::this_thread::sleep_for(std::chrono::milliseconds(number));
    } else if (verb == "serve") {
      EXPECT_EQ(modem().end(number), number == SIGKILL ? -SIGKILL : 0);
      serve(kModemOptions);
    } else if (verb == "event") {
      modem().respond(command);  // a modem that starts may refuse it
    } else {
      ctl(command);
    }
  }

  const uint64_t seed_ = number_from("CHAOS_SEED", std::random_device()());
  const std::chrono::seconds length_{number_from("CHAOS_SECONDS", kShortSeconds)};
  Random random_{seed_, kStreamOfFaults};
  std::list<sim::test::Process> clients_;
};

TEST_F(ChaosTest, EveryCallEndsUnderFaults) {
  ::signal(SIGPIPE, SIG_IGN);  // a client process that ended is reported as a failure
  for (const auto end = Clock::now() + length_; Clock::now() < end && !HasFailure();) {
    run_faults();
    verify_clients();
  }
}

}  // namespace

}  // namespace pelmar::system_test::chaos
