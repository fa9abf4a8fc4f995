// Nothing is thrown at the callers of the phone's functions, who may know no exceptions.
#pragma once

#include <exception>
#include <type_traits>

namespace pelmar::platform {

// What the operation answers, or the failure where it throws.
template <typename Operation>
std::invoke_result_t<Operation> guarded(std::invoke_result_t<Operation> failure, Operation operation) {
  try {
    return operation();
  } catch (const std::exception&) {
    return failure;
  }
}

}  // namespace pelmar::platform
