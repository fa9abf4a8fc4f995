// The program, run as its users do: from a shell.
#pragma once

#include <string>

#include "sim_process.h"

namespace pelmar::cli {

// Runs a script in which `client` is the program; its standard error goes to its own.
inline sim::test::Outcome shell(const std::string& script) {
  return sim::test::run_program({"/bin/sh", "-c", "client() { " MODEM_API_TEST " \"$@\"; }\n" + script});
}

}  // namespace pelmar::cli
