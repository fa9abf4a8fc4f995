// What the parts of a chaos run share.
//
// A run (chaos_test.cpp) starts processes with a client of each type. Lines on standard input lead a process
// (chaos_process.cpp):
//
//   storm    opens the clients and runs the workers until the next line comes
//   verify   ends the workers, waits until all works again, compares what was written with what the modem holds, and
//            closes everything; prints "verified; ..."
//
// Whatever should not have been is a line of its own, "problem: ...", at any time.
#pragma once

#include <chrono>
#include <cstdint>
#include <random>

namespace pelmar::system_test::chaos {

using Clock = std::chrono::steady_clock;

// One seed gives the same operations and faults in the same order, on every machine.
class Random : public std::mt19937_64 {
 public:
  // Each user draws from a stream of its own.
  Random(uint64_t seed, uint64_t stream) : std::mt19937_64(seed * 0x9E3779B97F4A7C15 + stream) {}

  uint32_t between(uint32_t low, uint32_t high) { return low + static_cast<uint32_t>((*this)() % (high - low + 1)); }
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

// The role of a client process. Arguments: the seed, and the number of the process.
int run_client(char** arguments);

}  // namespace pelmar::system_test::chaos
