// A simulated modem in a process of its own, with a directory of its own, for one test.
#pragma once

#include <sys/types.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace pelmar::sim::test {

// A directory that goes with the object.
class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  std::string path(const std::string& name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};

// Asks every 20 ms whether this holds. False where it does not come to hold within a minute.
bool comes_true(const std::function<bool()>& condition);

struct Outcome {
  int status;  // exit status, or minus the signal
  std::string output;
};

// Runs a program to its end; output is what it wrote to standard output and error.
Outcome run_program(const std::vector<std::string>& arguments);

class SimProcess {
 public:
  // Returns when the modem is ready; fails the test where it does not become so. No socket named: one in the directory.
  explicit SimProcess(const ScratchDirectory& directory, std::vector<std::string> options = {},
                      const std::string& socket = "");
  ~SimProcess();
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  const std::string& socket() const { return socket_; }
  pid_t process() const { return process_; }

  // Sends a line to the control socket. operator_command() expects success; refused_command() returns the error.
  nlohmann::json operator_command(const std::string& line) const;
  std::string refused_command(const std::string& line) const;
  // Where either will do.
  nlohmann::json try_command(const std::string& line) const;

  // Sends a signal (0: none) and waits for the end. Exit status, or minus the signal that killed it.
  int end(int signal);

 private:
  std::string socket_;
  std::string control_;
  pid_t process_ = -1;
};

}  // namespace pelmar::sim::test
