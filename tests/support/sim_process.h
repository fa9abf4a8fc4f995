// Child processes of a test: any program, and the simulated modem.
#pragma once

#include <sys/types.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "unique_fd.h"

namespace pelmar::sim::test {

// A temporary directory, which the destructor removes.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    char pattern[] = "/tmp/modem_sim_test.XXXXXX";
    path_ = mkdtemp(pattern);
  }
  ~ScratchDirectory() { std::filesystem::remove_all(path_); }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  std::string path(const std::string& name) const { return path_ + '/' + name; }

 private:
  std::string path_;
};

// The transport between clients and the simulated modem, as PELMAR_TEST_TRANSPORT names it: "device", "proxy" (the test
// starts its own qmi-proxy) or "qrtr". The default is "socket".
std::string transport();

// Checks the condition every 5 ms. Returns false if it does not hold within a minute.
bool wait_until(const std::function<bool()>& condition);

// A child process whose standard input and output are pipes of the test's.
class Process {
 public:
  // arguments[0] is the process's own name. Standard error is the test's, or goes to the output.
  Process(const std::string& program, const std::vector<std::string>& arguments, bool errors_to_output);
  ~Process();  // kills it

  std::string line();  // the next line of output, without its line feed; "" at the timeout or the end of the output
  std::string rest();  // the rest of the output
  void send_line(const std::string& line);  // to the standard input
  void finish() { input_.reset(); }         // ends the standard input
  int end(int signal = 0);  // sends the signal, if any, and waits; exit status, or minus the signal that killed it
  pid_t process() const { return process_; }

 private:
  pid_t process_ = -1;
  UniqueFd input_;
  UniqueFd output_;
};

struct Outcome {
  int status;  // exit status, or minus the signal
  std::string output;
};

// Runs a program without input to its end; output is what it wrote to standard output and error.
Outcome run_program(const std::vector<std::string>& arguments);

// A simulated modem that keeps its files in a directory of the test.
class SimProcess : public Process {
 public:
  // Returns when the modem is ready, and fails the test if it does not start. Without a name, the socket is in the
  // directory.
  explicit SimProcess(const ScratchDirectory& directory, const std::vector<std::string>& options = {},
                      const std::string& socket = "");
  ~SimProcess();

  const std::string& socket() const { return socket_; }
  const std::string& device() const { return device_; }  // with the transports "device" and "proxy"
  std::string address() const;                           // for PELMAR_MODEM

  // Sends a line to the control socket; returns the response, a line of JSON.
  std::string respond(const std::string& line) const;
  // The same with a command that must succeed, or must be refused.
  std::string command(const std::string& line) const;
  std::string refused_command(const std::string& line) const;
  // Sends a command that must succeed, and returns the member of the response at a JSON pointer such as
  // "/services/0/up".
  nlohmann::json value(const std::string& line, const std::string& place) const;

 private:
  std::string socket_;
  std::string device_;
  std::string control_;
};

}  // namespace pelmar::sim::test
