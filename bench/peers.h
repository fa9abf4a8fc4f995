// The other processes that the end-to-end benchmarks talk to. Each ends with this process, however that ends.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "local_stream.h"

namespace pelmar::bench {

// A child process with a stream to it. Start it before the first thread.
class Child {
 public:
  // `run` is the child's whole life.
  explicit Child(const std::function<void(const LocalStream& stream)>& run);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  const LocalStream& stream() const { return stream_; }

 private:
  struct Started {
    pid_t process;
    LocalStream stream;
  };

  explicit Child(Started started) : process_(started.process), stream_(std::move(started.stream)) {}
  static Started start(const std::function<void(const LocalStream& stream)>& run);

  const pid_t process_;
  const LocalStream stream_;
};

// modem_sim on a socket in a directory of its own.
class SimulatedModem {
 public:
  SimulatedModem();

  std::string socket() const { return directory_.path + "/modem"; }

  // Has it carry out a command. Ends the process where it refuses.
  void command(const std::string& text) const;

 private:
  struct Directory {
    Directory();
    ~Directory();
    std::string path;
  };

  std::string control_socket() const { return directory_.path + "/control"; }
  void run(const LocalStream& output) const;

  const Directory directory_;
  const Child process_;
};

}  // namespace pelmar::bench
