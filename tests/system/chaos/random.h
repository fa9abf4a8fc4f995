// Seeded numbers: one seed gives the same operations and faults in the same order, on every machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <span>

namespace pelmar::system_test::chaos {

class Random {
 public:
  // Each party of a run draws from a stream of its own.
  Random(uint64_t seed, uint64_t stream) : state_(mixed(seed) ^ mixed(~stream)) {}

  uint64_t next() { return mixed(state_ += 0x9E3779B97F4A7C15); }
  uint32_t between(uint32_t low, uint32_t high) { return low + static_cast<uint32_t>(next() % (high - low + 1)); }
  bool one_in(uint32_t count) { return between(1, count) == 1; }

  template <class Element, size_t kCount>
  const Element& element(std::span<const Element, kCount> elements) {
    return elements[next() % elements.size()];
  }

  // A row of a table, as often as its weight says.
  template <class Row, size_t kCount>
  const Row& row(std::span<const Row, kCount> rows) {
    const uint32_t all = std::accumulate(rows.begin(), rows.end(), uint32_t{0},
                                         [](uint32_t sum, const Row& each) { return sum + each.weight; });
    uint32_t left = between(1, all);
    size_t at = 0;
    while (left > rows[at].weight) left -= rows[at++].weight;
    return rows[at];
  }

 private:
  static uint64_t mixed(uint64_t bits) {
    bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9;
    bits = (bits ^ bits >> 27) * 0x94D049BB133111EB;
    return bits ^ bits >> 31;
  }

  uint64_t state_;
};

}  // namespace pelmar::system_test::chaos
