// Client processes of a system test: this executable again, under a name and in a role of its own.
#pragma once

#include <string>
#include <vector>

#include "sim_process.h"

namespace pelmar::system_test {

class ClientProcess : public sim::test::Process {
 public:
  // `name` is what the library sees as the process's name. A role ends when its standard input does.
  ClientProcess(const std::string& name, const std::vector<std::string>& role_and_arguments)
      : Process("/proc/self/exe", with_name(name, role_and_arguments), false) {}

 private:
  static std::vector<std::string> with_name(const std::string& name, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"/system/" + name, "--role"});
    return arguments;
  }
};

}  // namespace pelmar::system_test
