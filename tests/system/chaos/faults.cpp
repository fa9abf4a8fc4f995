#include "chaos/faults.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <span>
#include <thread>
#include <vector>

#include "chaos/statistic_stamp.h"

namespace pelmar::system_test::chaos {

namespace {

constexpr uint64_t kStreamOfFaults = 1'000'000;  // beyond those of the workers
constexpr const char* kServices[] = {"vs", "sar", "nas"};
constexpr int kStatusOfSuddenDeath = 70;

void sleep_ms(uint32_t ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

std::string random_service(Random& random) {
  return random.element(std::span(kServices));
}

std::string random_target(Random& random) {
  constexpr const char* kTargets[] = {"vs", "vs", "sar", "nas", "ctl", "any"};
  return random.element(std::span(kTargets));
}

std::string hex_of(const std::vector<uint8_t>& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : bytes) text.append({kDigits[byte >> 4], kDigits[byte & 0xF]});
  return text;
}

std::string number(Random& random, uint32_t low, uint32_t high) {
  return std::to_string(random.between(low, high));
}

// --- answers that are late, wrong, or come otherwise than expected ---

void delay(FaultyModem& modem) {
  Random& random = modem.random();
  const std::string ms = number(random, 1, 300);
  const std::string target = random_target(random);
  modem.tell("delay " + ms + ' ' + target + " any " + number(random, 1, 20));
}

// Not error 26, "no effect": to a client it is a success.
void error(FaultyModem& modem) {
  constexpr int kErrors[] = {1, 3, 4, 5, 7, 17, 19, 24, 41, 42, 48, 49, 50, 51, 52, 57, 58, 71, 77, 80, 94, 0xFFFF};
  Random& random = modem.random();
  const int error = random.element(std::span(kErrors));
  const std::string target = random_target(random);
  modem.tell("error " + std::to_string(error) + ' ' + target + " any " + number(random, 1, 5));
}

void repeat(FaultyModem& modem) {
  Random& random = modem.random();
  const std::string target = random_target(random);
  modem.tell("repeat " + target + " any " + number(random, 1, 20));
}

void reorder(FaultyModem& modem) {
  Random& random = modem.random();
  const std::string ms = number(random, 1, 100);
  const std::string target = random_target(random);
  modem.tell("reorder " + ms + ' ' + target + " any " + number(random, 1, 20));
}

// The frame stays in step and the message has a header; what is missing is the caller's answer.
void cut(FaultyModem& modem) {
  Random& random = modem.random();
  const std::string bytes = number(random, 7, 40);
  const std::string service = random_service(random);
  modem.tell("cut " + bytes + ' ' + service + " any " + number(random, 1, 3));
}

// --- answers that are lost ---

void lose(FaultyModem& modem, const std::string& fault) {
  Random& random = modem.random();
  const std::string service = random_service(random);
  const uint32_t until_restart = random.between(20, 400);
  const uint32_t down_ms = random.between(0, 50);
  modem.tell(fault + ' ' + service + " any 1");
  sleep_ms(until_restart);
  modem.restart_service(service, down_ms);
}

void silence(FaultyModem& modem) {
  lose(modem, "silence");
}

void cut_off_header(FaultyModem& modem) {
  lose(modem, "cut " + number(modem.random(), 0, 6));
}

// Bytes that begin no frame, else the next answers could be a part of it.
std::string random_garbage(Random& random) {
  std::vector<uint8_t> bytes(random.between(1, 200));
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random.between(2, 255));
  return hex_of(bytes);
}

void garbage(FaultyModem& modem) {
  lose(modem, "garbage " + random_garbage(modem.random()));
}

// --- bytes that nobody asked for ---

void inject_garbage(FaultyModem& modem) {
  modem.tell("inject " + random_garbage(modem.random()));
}

// Responses of the vendor-specific service for all clients, with a transaction that may be under way.
void inject_stray_response(FaultyModem& modem) {
  const auto low = static_cast<uint8_t>(modem.random().next());
  std::vector<uint8_t> frame = {0x01, 19, 0, 0x80, 0xE4, 0xFF, 0x02, low, 0, 0, 0, 7, 0, 0x02, 4, 0, 0, 0, 0, 0};
  modem.tell("inject " + hex_of(frame));
}

void send_events(FaultyModem& modem) {
  const std::string value = number(modem.random(), 0, 255);
  modem.try_to_tell("event 2 " + value + " 1 0");
  modem.try_to_tell("event 3 " + value + " record 0:82:0102 secondary 1:98:ff trailer 1");
  modem.try_to_tell("event 4 " + value + " 0aff 7 8");
  modem.try_to_tell("event 5 " + value);
  modem.try_to_tell("indication nas 0x0024 010100aa to each");
}

// --- connections, services and modems that go away ---

void close_connection(FaultyModem& modem) {
  modem.tell("die connection " + random_target(modem.random()) + " any 1");
}

void restart_service(FaultyModem& modem) {
  Random& random = modem.random();
  const std::string service = random_service(random);
  modem.restart_service(service, random.one_in(4) ? random.between(1, 1500) : 0);
}

void restart_modem(FaultyModem& modem) {
  Random& random = modem.random();
  modem.restart_modem(random.one_in(2) ? random.between(1, 500) : 0);
}

void kill_process(FaultyModem& modem) {
  const uint32_t away_ms = modem.random().between(0, 500);
  EXPECT_EQ(modem.end_process(SIGKILL), -SIGKILL);
  sleep_ms(away_ms);
  modem.start_again();
}

// In the middle of an answer.
void crash_process(FaultyModem& modem) {
  const uint32_t away_ms = modem.random().between(0, 500);
  modem.tell("clear");
  modem.tell("die modem any any 1");
  EXPECT_EQ(modem.end_process(0), kStatusOfSuddenDeath);
  sleep_ms(away_ms);
  modem.start_again();
}

void end_process(FaultyModem& modem) {
  const uint32_t away_ms = modem.random().between(0, 500);
  EXPECT_EQ(modem.end_process(SIGTERM), 0);
  sleep_ms(away_ms);
  modem.start_again();
}

struct Fault {
  uint32_t weight;
  void (*happen)(FaultyModem& modem);
};

constexpr Fault kFaults[] = {
    {30, delay},
    {30, error},
    {20, repeat},
    {20, reorder},
    {15, cut},
    {5, silence},
    {2, cut_off_header},
    {3, garbage},
    {5, inject_garbage},
    {10, inject_stray_response},
    {20, send_events},
    {10, close_connection},
    {20, restart_service},
    {5, restart_modem},
    {2, kill_process},
    {2, crash_process},
    {1, end_process},
};

}  // namespace

FaultyModem::FaultyModem(uint64_t seed) : random_(seed, kStreamOfFaults) {
  start();
}

void FaultyModem::start() {
  modem_ = std::make_unique<sim::test::SimProcess>(directory_,
                                                   std::vector<std::string>{"--report-ms", "50", "--reset-ms", "100"});
  for (const sim::StatisticRow& row : sim::statistic_rows()) {
    for (uint16_t sub = 0; sub < kStampedSubscriptions; ++sub) {
      tell("statistic " + std::to_string(sub) + ' ' + std::to_string(row.id) + ' ' + std::string(row.fields[0].name) +
           '=' + std::to_string(statistic_stamp(sub, row.id)));
    }
  }
}

void FaultyModem::start_again() {
  ++counts_.new_processes;
  start();
}

void FaultyModem::suffer() {
  const uint32_t quiet_ms = random_.between(0, 100);
  ++counts_.faults;
  random_.row(std::span(kFaults)).happen(*this);
  sleep_ms(quiet_ms);
}

void FaultyModem::heal() {
  tell("clear");
  for (const char* service : kServices) restart_service(service, 0);
}

void FaultyModem::restart_service(const std::string& service, uint32_t down_ms) {
  ++counts_.service_restarts;
  tell("service " + service + " down");
  sleep_ms(down_ms);
  tell("service " + service + " up");
}

void FaultyModem::restart_modem(uint32_t starting_ms) {
  ++counts_.modem_restarts;
  tell("restart " + std::to_string(starting_ms));
}

}  // namespace pelmar::system_test::chaos
