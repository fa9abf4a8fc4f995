// The peers of the end-to-end benchmarks, each in a process that ends when this process ends for any reason.
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
  // The child runs `run` and ends.
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

// modem_sim, on a socket in a temporary directory.
class SimulatedModem {
 public:
  // What modem_sim serves in addition to the socket.
  enum class Extra { kNone, kDevice, kQrtr };

  explicit SimulatedModem(Extra extra = Extra::kNone);

  std::string socket() const { return directory_.path + "/modem"; }
  std::string device() const { return directory_.path + "/device"; }

  // Sends a command. Ends the process if modem_sim refuses it.
  void command(const std::string& text) const;

 private:
  struct Directory {
    Directory();
    ~Directory();
    std::string path;
  };

  std::string control_socket() const { return directory_.path + "/control"; }
  void run(const LocalStream& output, Extra extra) const;

  const Directory directory_;
  const Child process_;
};

}  // namespace pelmar::bench
