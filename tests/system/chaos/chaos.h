// The interface between the parts of a chaos run.
//
// A run (chaos_test.cpp) starts programs with a client of each type. A program (chaos_client.cpp) reads commands from
// standard input, one a line:
//
//   work     opens the clients and runs the workers until the next line arrives
//   verify   waits until every client works again, compares the modem's items with what was written, and frees
//            the clients; prints "verified; ..."
//
// It prints each failure at once, as a line "problem: ...".
#pragma once

#include <chrono>
#include <cstdint>
#include <random>

namespace pelmar::system_test::chaos {

using Clock = std::chrono::steady_clock;

// One seed gives the same operations and faults in the same order, on every machine.
class Random : public std::mt19937_64 {
 public:
  // Each user has its own stream of numbers.
  Random(uint64_t seed, uint64_t stream) : std::mt19937_64(seed * 0x9E3779B97F4A7C15 + stream) {}

  uint32_t between(uint32_t low, uint32_t high) { return low + static_cast<uint32_t>((*this)() % (high - low + 1)); }
  // Returns a random row of a table; the probability is proportional to its weight.
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

}  // namespace pelmar::system_test::chaos
