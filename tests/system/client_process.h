// Client processes of a system test: this executable again, under a name and in a role of its own.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace pelmar::system_test {

// Runs the role that the arguments name ("--role NAME ARGUMENTS..."). Returns its exit status, or -1 where they name
// none.
int run_role(int argc, char** argv);

// What the library writes to the system log of this process goes to a file of this name, when it is set.
inline constexpr const char* kSystemLogVariable = "SYSTEM_TEST_LOG";

class ClientProcess {
 public:
  // `name` is what the library sees as the process's name.
  ClientProcess(const std::string& name, const std::vector<std::string>& role_and_arguments);
  ~ClientProcess();
  ClientProcess(const ClientProcess&) = delete;
  ClientProcess& operator=(const ClientProcess&) = delete;

  // The next line of the process's standard output, without its end; "" when it says nothing for long or ended.
  std::string line(int patience_ms = 90'000);
  std::string rest();  // all that follows, up to the process's end

  void tell(const std::string& line);  // to its standard input
  void finish();                       // closes its standard input, which tells a waiting role to end
  int end(int signal = 0);  // sends the signal, if any, and waits; exit status, or minus the signal that killed it
  pid_t process() const { return process_; }

 private:
  pid_t process_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string buffered_;
};

}  // namespace pelmar::system_test
