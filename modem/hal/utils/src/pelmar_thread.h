// Detached threads of the library itself. pelmar_create_pthread() is the exported way, which logs.
#pragma once

#include <cstdint>

namespace pelmar {

// Starts a detached thread. Returns 0, or the error number of the thread library.
int32_t start_detached(void* (*routine)(void*), void* argument);

}  // namespace pelmar
