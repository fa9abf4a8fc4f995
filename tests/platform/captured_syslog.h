// The system log of the test program, which keeps its lines for the test.
#pragma once

#include <string>

namespace pelmar::platform {

std::string logged();

}  // namespace pelmar::platform
