// What the functions of the phone's interfaces need: the mark of an exported name, and a guard against exceptions.
#pragma once

#include <exception>
#include <type_traits>

// Other libraries and programs resolve the marked functions and tables by name; exports.map lists the same names. The
// rest of the platform is hidden.
#define PELMAR_PLATFORM_EXPORT [[gnu::visibility("default")]]

namespace pelmar::platform {

// Returns the result of the operation, or `failure` if it throws: the callers may be built without exceptions.
template <typename Operation>
std::invoke_result_t<Operation> guarded(std::invoke_result_t<Operation> failure, Operation operation) {
  try {
    return operation();
  } catch (const std::exception&) {
    return failure;
  }
}

}  // namespace pelmar::platform
