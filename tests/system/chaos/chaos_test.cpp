// Client processes that do all that a client may do, at a modem that does all that a modem should not.
//
// Rounds: a storm of faults under the clients' operations, then a calm in which each process checks what the modem
// holds, closes everything and reports. CHAOS_SECONDS names the length, CHAOS_SEED replays the operations and faults.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <list>
#include <random>
#include <string>
#include <thread>

#include "chaos/faults.h"
#include "chaos/journal.h"
#include "chaos/party.h"
#include "client_process.h"
#include "cutils/properties.h"

namespace pelmar::system_test::chaos {

namespace {

constexpr uint64_t kShortSeconds = 12;
constexpr std::chrono::seconds kShortestStorm{4};
constexpr std::chrono::seconds kLongestStorm{20};
constexpr int kPatienceMs = 300'000;  // more than a client process has for all that it waits for

// What a process may grow by after its first rounds, besides what it says that it lost.
constexpr size_t kRoundsOfWarmUp = 5;
constexpr int64_t kGrowthKb = 4096;
constexpr int64_t kAbandonedBlocksOfKb = 2;

uint64_t number_from(const char* variable, uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 10) : otherwise;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;  // which keeps freed memory
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif
#else
constexpr bool kIsSanitized = false;
#endif

class ChaosTest : public testing::Test {
 protected:
  ChaosTest() {
    std::cout << "CHAOS_SEED=" << seed_ << " CHAOS_SECONDS=" << length_.count() << std::endl;
    setenv("PELMAR_PROPERTY_DIR", modem_.path("properties").c_str(), 1);
    setenv("PELMAR_QMI_SOCKET", modem_.socket().c_str(), 1);
    property_set("persist.hydra.mem_trace", "true");
    const char* const names[kClientsProcesses + 1] = {"qcrilNrd", "mtb", "modem_api_test", "mtb"};
    for (size_t i = 0; i < std::size(names); ++i) {
      const std::vector<std::string> role = {"chaos", std::to_string(seed_), std::to_string(i)};
      clients_.emplace_back(names[i], role);
    }
  }

  ~ChaosTest() override {
    for (ClientProcess& client : clients_) {
      client.finish();
      EXPECT_EQ(client.end(), 0);
    }
  }

  void storm(Clock::duration duration) {
    for (ClientProcess& client : clients_) client.tell("storm");
    for (const auto end = Clock::now() + duration; Clock::now() < end;) modem_.suffer();
  }

  void calm() {
    for (ClientProcess& client : clients_) client.tell("pause");
    modem_.heal();
    for (ClientProcess& client : clients_) ASSERT_EQ(client.line(kPatienceMs), "paused");
    for (ClientProcess& client : clients_) client.tell("verify");
    size_t number = 0;
    for (ClientProcess& client : clients_) {
      const std::string line = client.line(kPatienceMs);
      ASSERT_NE(line, "") << "process " << number << " does not report";
      take_report(number++, nlohmann::json::parse(line));
    }
    expect_no_client_at_the_modem();
  }

  void take_report(size_t number, const nlohmann::json& report) {
    calls_ += report.at("calls").get<uint64_t>();
    for (const auto& problem : report.at("problems")) {
      ADD_FAILURE() << "process " << number << ": " << problem.get<std::string>();
    }
    auto& resident = resident_[number];
    resident.push_back(report.at("resident_kb").get<int64_t>() -
                       report.at("abandoned_blocks").get<int64_t>() / kAbandonedBlocksOfKb);
    std::cout << "  process " << number << ": " << report.dump() << std::endl;
  }

  void expect_no_client_at_the_modem() {
    const nlohmann::json status = modem_.tell("status");
    for (const auto& service : status.at("services")) {
      EXPECT_TRUE(service.at("clients").empty()) << service << " while nobody has a client";
    }
    EXPECT_EQ(status.at("statistics").at("reporters"), 0);
  }

  void expect_flat_memory() {
    for (size_t number = 0; number < std::size(resident_); ++number) {
      const auto& sizes = resident_[number];
      if (kIsSanitized || sizes.size() < 2 * kRoundsOfWarmUp) continue;
      const int64_t warm = *std::max_element(sizes.begin(), sizes.begin() + kRoundsOfWarmUp);
      EXPECT_LE(sizes.back(), warm + kGrowthKb) << "kB of process " << number;
    }
  }

  void print_counts() const {
    const FaultyModem::Counts& counts = modem_.counts();
    std::cout << calls_ << " calls, " << counts.faults << " faults, " << counts.service_restarts
              << " restarts of a service, " << counts.modem_restarts << " of the modem, " << counts.new_processes
              << " of its process" << std::endl;
  }

  const uint64_t seed_ = number_from("CHAOS_SEED", std::random_device()());
  const std::chrono::seconds length_{number_from("CHAOS_SECONDS", kShortSeconds)};
  FaultyModem modem_{seed_};
  std::list<ClientProcess> clients_;
  uint64_t calls_ = 0;
  std::vector<int64_t> resident_[kClientsProcesses + 1];
};

TEST_F(ChaosTest, EveryCallEndsWellUnderFaults) {
  const auto end = Clock::now() + length_;
  const std::chrono::seconds storm_length =
      std::clamp<std::chrono::seconds>(length_ / static_cast<int>(3 * kRoundsOfWarmUp), kShortestStorm, kLongestStorm);
  while (Clock::now() < end && !HasFailure()) {
    storm(storm_length);
    calm();
    print_counts();
  }
  expect_flat_memory();
}

}  // namespace

}  // namespace pelmar::system_test::chaos
