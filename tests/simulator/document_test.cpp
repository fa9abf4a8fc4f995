// The simulated modem's document and its commands belong together.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "console/commands.h"

namespace pelmar::sim::test {

namespace {

TEST(Document, HasEveryCommand) {
  std::ifstream file(SIMULATOR_DOCUMENT);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  for (const CommandGroup& group : command_groups()) {
    for (const Command& command : group.commands) {
      const std::string name = '`' + std::string(command.name);
      EXPECT_TRUE(text.find(name + '`') != text.npos || text.find(name + ' ') != text.npos) << command.name;
    }
  }
}

}  // namespace

}  // namespace pelmar::sim::test
