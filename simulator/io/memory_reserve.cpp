#include "io/memory_reserve.h"

#include <cstdlib>
#include <new>

namespace pelmar::sim {

namespace {

// Less than a connection's input buffer has, so that the end of one connection restores it.
constexpr size_t kBytes = size_t{60} << 10;

void* reserve = nullptr;

void free_reserve() {
  if (reserve == nullptr) throw std::bad_alloc();
  free(reserve);
  reserve = nullptr;
}

}  // namespace

MemoryReserve::MemoryReserve() {
  restore();
  std::set_new_handler(free_reserve);
}

MemoryReserve::~MemoryReserve() {
  std::set_new_handler(nullptr);
  free(reserve);
  reserve = nullptr;
}

bool MemoryReserve::restore() {
  if (reserve == nullptr) reserve = malloc(kBytes);
  return reserve != nullptr;
}

}  // namespace pelmar::sim
