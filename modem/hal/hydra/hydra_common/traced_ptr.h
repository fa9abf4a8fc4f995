// Owners of blocks from the traced allocator. Call release() only to store a record in the client table or to
// pass a block out of the library.
#pragma once

#include <memory>

#include "hydra_mem.h"

namespace pelmar {

struct TracedDelete {
  void operator()(void* block) const { hydra_free_adv(block, __func__, __LINE__); }
};

// T is trivially destructible, so that freeing the block is enough.
template <typename T>
using TracedPtr = std::unique_ptr<T, TracedDelete>;

}  // namespace pelmar
