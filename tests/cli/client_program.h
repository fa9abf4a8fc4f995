// The program, run as its users do: from a shell, and with a modem of the test's, which it finds by its environment.
#pragma once

#include <string>

#include "modem_test.h"

namespace pelmar::cli {

using ProgramWithModemTest = system_test::ModemTest;

// Runs a script in which `client` is the program; its standard error goes to its own.
inline sim::test::Outcome shell(const std::string& script) {
  return sim::test::run_program({"/bin/sh", "-c", "client() { " MODEM_API_TEST " \"$@\"; }\n" + script});
}

}  // namespace pelmar::cli
