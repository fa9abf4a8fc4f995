// A platform under the library that answers at once: every connection succeeds, every request gets the response that
// was set, nothing sleeps and nothing is written. Message decoding and the service objects are the real ones.
//
// A program that links it and exports its symbols stands under libpelmar_modemapi.so at load time. One connection at a
// time; set responses before the library sends.
#pragma once

#include <cstddef>

namespace pelmar::instant_platform {

// The structure that every synchronous send is answered with, from its beginning; not copied.
void set_response(const void* structure, size_t length);

// Where lines for the system log go, formatted and terminated; null: nowhere, unformatted.
void set_log(void (*write)(const char* line));

}  // namespace pelmar::instant_platform
