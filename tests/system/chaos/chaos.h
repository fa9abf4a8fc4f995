// What the parts of a chaos run share: seeded numbers, and stamps.
//
// A run (chaos_test.cpp) starts processes with a client of each type. Lines on standard input lead a process
// (chaos_process.cpp):
//
//   storm               opens the clients and runs the workers until the next line comes
//   pause               ends the workers and waits until all works again; prints "paused"
//   verify FIRST LAST   checks that the test's events of these numbers came and what the modem holds, and closes
//                       everything; prints "verified; ..."
//
// Whatever should not have been is a line of its own, "problem: ...", at any time.
#pragma once

#include <chrono>
#include <cstdint>
#include <random>

namespace pelmar::system_test::chaos {

using Clock = std::chrono::steady_clock;

inline constexpr uint32_t kProcesses = 3;

// One seed gives the same operations and faults in the same order, on every machine.
class Random : public std::mt19937_64 {
 public:
  // Each user draws from a stream of its own.
  Random(uint64_t seed, uint64_t stream) : std::mt19937_64(seed * 0x9E3779B97F4A7C15 + stream) {}

  uint32_t between(uint32_t low, uint32_t high) { return low + static_cast<uint32_t>((*this)() % (high - low + 1)); }
  template <typename Table>
  const auto& element(const Table& table) {
    return table[(*this)() % std::size(table)];
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
inline bool is_stamped_right(uint32_t version, uint32_t sub, uint32_t id) {
  return version < 100 || version == stamp_of(sub, id);
}

// The role of a client process. Arguments: the seed, and the number of the process.
int run_client(char** arguments);

}  // namespace pelmar::system_test::chaos
