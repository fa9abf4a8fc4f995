// Modem events and service notices, decoded for people and for scripts.
#pragma once

#include <string>

#include "inbox.h"
#include "json.h"

namespace pelmar::cli {

struct Description {
  Json document;
  std::string text;  // one line, and indented lines for what the event carries
};

// A payload shorter than its event's structure is shown as the bytes that it is.
Description describe(const Arrival& arrival);

}  // namespace pelmar::cli
