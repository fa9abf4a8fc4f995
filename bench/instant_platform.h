// A platform for the library that returns at once: every connection succeeds, every request gets the response that was
// set, and no function sleeps or writes. The decoding of messages and the service objects are the real ones.
//
// libpelmar_modemapi.so uses it in a program that links it and exports its symbols. There is one connection at a time.
// Set a response before the library sends.
#pragma once

#include <cstddef>

namespace pelmar::instant_platform {

// Sets the response structure of every synchronous send; it is not copied.
void set_response(const void* structure, size_t length);

// Sets the function that gets the formatted lines for the system log; null: the lines are dropped without formatting.
void set_log(void (*write)(const char* line));

}  // namespace pelmar::instant_platform
