#include "allocation_count.h"

#include <atomic>
#include <cstddef>

namespace {

std::atomic<uint64_t> g_taken{0};
std::atomic<uint64_t> g_given_back{0};

void* count(void* block) {
  if (block != nullptr) g_taken.fetch_add(1, std::memory_order_relaxed);
  return block;
}

}  // namespace

namespace pelmar::bench {

Allocations allocations() {
  return {g_taken.load(std::memory_order_relaxed), g_given_back.load(std::memory_order_relaxed)};
}

}  // namespace pelmar::bench

// Other names of the C library's own allocator.
extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

#pragma GCC visibility push(default)

void* malloc(size_t size) {
  return count(__libc_malloc(size));
}

void* calloc(size_t number, size_t size) {
  return count(__libc_calloc(number, size));
}

void* realloc(void* block, size_t size) {
  if (block != nullptr) g_given_back.fetch_add(1, std::memory_order_relaxed);
  return count(__libc_realloc(block, size));
}

void* memalign(size_t alignment, size_t size) {
  return count(__libc_memalign(alignment, size));
}

void* aligned_alloc(size_t alignment, size_t size) {
  return count(__libc_memalign(alignment, size));
}

void free(void* block) {
  if (block != nullptr) g_given_back.fetch_add(1, std::memory_order_relaxed);
  __libc_free(block);
}

#pragma GCC visibility pop

}  // extern "C"
