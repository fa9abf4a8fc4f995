// Counts the process's heap allocations, by standing in front of the C library's malloc and its kin.
#pragma once

#include <cstdint>

namespace pelmar::bench {

struct Allocations {
  uint64_t taken;
  uint64_t given_back;
};

Allocations allocations();

}  // namespace pelmar::bench
