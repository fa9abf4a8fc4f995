// The program, run as its users do: from a shell, and with a modem of the test's.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "sim_process.h"

namespace pelmar::cli {

// Runs a script in which `client` is the program; its standard error goes to its own.
inline sim::test::Outcome shell(const std::string& script) {
  return sim::test::run_program({"/bin/sh", "-c", "client() { " MODEM_API_TEST " \"$@\"; }\n" + script});
}

// A simulated modem, which the program finds by its environment.
class ProgramWithModemTest : public testing::Test {
 protected:
  ProgramWithModemTest() {
    setenv("PELMAR_PROPERTY_DIR", directory_.path("properties").c_str(), 1);
    setenv("PELMAR_QMI_SOCKET", modem_.socket().c_str(), 1);
  }

  std::string path(const std::string& name) const { return directory_.path(name); }
  sim::test::SimProcess& modem() { return modem_; }

 private:
  sim::test::ScratchDirectory directory_;
  sim::test::SimProcess modem_{directory_};
};

}  // namespace pelmar::cli
