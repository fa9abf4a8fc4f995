// A test with a simulated modem of its own.
#pragma once

#include "qmux_client.h"
#include "sim_process.h"

namespace pelmar::sim::test {

class SimulatorTest : public testing::Test {
 protected:
  explicit SimulatorTest(const std::vector<std::string>& options = {}) : modem_(directory_, options) {}

  std::string path(const std::string& name) const { return directory_.path(name); }
  nlohmann::json status(const std::string& place) const { return modem_.value("status", place); }
  bool comes_to(const std::string& place, const nlohmann::json& value) const {
    return comes_true([&] { return status(place) == value; });
  }

  ScratchDirectory directory_;
  SimProcess modem_;
  const std::string& socket_ = modem_.socket();
};

}  // namespace pelmar::sim::test
