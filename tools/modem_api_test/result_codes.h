// The library's result codes in words, for people who have to act on one.
#pragma once

#include <cstdint>

namespace pelmar::cli {

struct ResultCode {
  int32_t code;
  const char* name;     // as modem_api.h spells it
  const char* meaning;  // continues "reading NV item 10 failed: "
  const char* advice;   // what to do, where the command knows nothing better
};

// Never null: a code that the library does not document has a row of its own.
const ResultCode& describe_result(int32_t code);

}  // namespace pelmar::cli
