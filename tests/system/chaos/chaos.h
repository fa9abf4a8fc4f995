// What the parts of a chaos run share: seeded numbers, stamps, and what a client process does.
//
// A run (chaos_test.cpp) starts kClientsProcesses processes with a client of each type (clients.cpp) and one that reads
// hydra's statistics. Lines on standard input lead a process (chaos_process.cpp):
//
//   storm               opens the party and runs its workers until the next line comes
//   pause               ends the workers and waits until all works again; prints "paused"
//   verify FIRST LAST   checks that the test's events of these numbers came and what the modem holds, and closes
//                       everything; prints "verified; ..."
//
// Whatever should not have been is a line of its own, "problem: ...", at any time.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "modem_api.h"

namespace pelmar::system_test::chaos {

using Clock = std::chrono::steady_clock;

inline constexpr uint32_t kClientsProcesses = 3;
inline constexpr uint32_t kWorkers = 4;  // threads of a process
inline constexpr std::chrono::seconds kPatience{90};
// A command gives up after 30 s. Here none may: a restart of the service ends each call whose response is lost.
inline constexpr std::chrono::seconds kCallLimit{25};

// One seed gives the same operations and faults in the same order, on every machine.
class Random {
 public:
  // Each user draws from a stream of its own.
  Random(uint64_t seed, uint64_t stream) : state_(mixed(seed) ^ mixed(~stream)) {}

  uint64_t next() { return mixed(state_ += 0x9E3779B97F4A7C15); }
  uint32_t between(uint32_t low, uint32_t high) { return low + static_cast<uint32_t>(next() % (high - low + 1)); }
  template <typename Table>
  const auto& element(const Table& table) {
    return table[next() % std::size(table)];
  }
  // A row of a table, as often as its weight says.
  template <typename Table>
  const auto& row(const Table& table) {
    uint32_t all = 0;
    for (const auto& each : table) all += each.weight;
    uint32_t left = between(1, all);
    size_t at = 0;
    while (left > table[at].weight) left -= table[at++].weight;
    return table[at];
  }

 private:
  static uint64_t mixed(uint64_t bits) {
    bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9;
    bits = (bits ^ bits >> 27) * 0x94D049BB133111EB;
    return bits ^ bits >> 31;
  }

  uint64_t state_;
};

// The test numbers its events from here; the values of the modem's own reports are smaller.
inline constexpr uint32_t kFirstEvent = 1000;

// The test fixes the first byte of each statistics value, its version, to a stamp that names the value. A modem that
// has just started does not have it yet: its own versions are smaller than any stamp.
struct Statistic {
  uint32_t id;
  const char* version;
};
inline constexpr Statistic kStatistics[] = {
    {0x52, "version"}, {0x67, "version"}, {0x6c, "version"},      {0x62, "version"},
    {0x87, "version"}, {0x64, "version"}, {0x5a, "version_hook"}, {0x2c, "stack_max"},
};
inline uint8_t stamp_of(uint32_t sub, uint32_t id) {
  uint8_t row = 0;
  while (kStatistics[row].id != id) ++row;
  return static_cast<uint8_t>(100 + 2 * row + sub);
}
inline bool is_stamped_right(uint8_t version, uint32_t sub, uint32_t id) {
  return version < 100 || version == stamp_of(sub, id);
}

// Traced blocks that the library has handed over to nobody: two of each asynchronous send that was refused.
inline std::atomic<int64_t> abandoned_blocks;

void problem(const std::string& text);

// Makes a call of the library. Its result or its duration may be a problem.
modem_api_result noted(const char* name, const std::function<modem_api_result()>& call,
                       Clock::duration limit = kCallLimit);

// Waits for what the library may still be doing; a problem where it does not come in time.
void expect_soon(const char* what, const std::function<bool()>& condition);

// What a client process does. The main thread calls everything but run_operation(), which the workers call.
class Party {
 public:
  virtual ~Party() = default;
  virtual void open() = 0;
  virtual void tend() = 0;  // called over and over during a storm: opens again what was lost
  virtual void run_operation(uint32_t worker) = 0;
  virtual bool works() = 0;  // without workers and faults: whether everything works again, at last
  virtual void verify(uint32_t first_event, uint32_t last_event) = 0;
  virtual void close() = 0;
};

std::unique_ptr<Party> make_clients_party(uint64_t seed, uint32_t process);

// The role of a client process. Arguments: the seed, and the number of the process, of which the last is hydra's.
int run_client(char** arguments);

}  // namespace pelmar::system_test::chaos
