// Counts the process's heap allocations with replacements for the C library's malloc() and similar functions.
#pragma once

#include <cstdint>

namespace pelmar::bench {

struct Allocations {
  uint64_t taken;
  uint64_t given_back;
};

Allocations allocations();

}  // namespace pelmar::bench
