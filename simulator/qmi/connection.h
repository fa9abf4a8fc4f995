// A connection of a QMUX client, and the set of them that one socket serves.
//
// A connection is in its set until it closes, and is destroyed in a later round of the loop. Code that keeps one for
// later holds a weak pointer.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "io/local_socket.h"
#include "io/stream.h"
#include "qmux.h"

namespace pelmar::sim {

class Connections;
class Exchange;

class Connection final : public std::enable_shared_from_this<Connection>, private Stream::Reader {
 public:
  // Bytes that may wait for a client that does not read, before it is dropped.
  static constexpr size_t kMaxWaitingBytes = 1 << 20;

  Connection(Connections& connections, UniqueFd fd, uint64_t number);

  uint64_t number() const { return number_; }
  pid_t process() const { return process_; }  // of the client; 0 where it is not known

  void send(std::span<const uint8_t> bytes) { stream_.send(bytes); }
  void close(std::string_view reason) { stream_.close(reason); }

  // True while no output waits for the client to read it.
  bool is_drained() const { return stream_.is_drained(); }
  // Calls once, when that becomes true again.
  void when_drained(EventLoop::Task task) { when_drained_ = std::move(task); }

 private:
  size_t on_bytes(std::span<const uint8_t> bytes) override;
  void on_drained() override;
  void on_closed(std::string_view reason) override;

  Connections& connections_;
  const uint64_t number_;
  Stream stream_;
  const pid_t process_;
  EventLoop::Task when_drained_;
};

class Connections final {
 public:
  // idle_limit: after that long without a client, the loop stops.
  Connections(EventLoop& loop, WaitingOutput& output, const std::string& socket, Admission admission,
              Exchange& exchange, std::optional<EventLoop::Clock::duration> idle_limit);

  size_t count() const { return open_.size(); }
  uint64_t accepted() const { return last_number_; }
  // Closes the youngest connection. False where there is none.
  bool drop_youngest(std::string_view reason);

  // Calls f(connection) for each one that is open when its turn comes. f may close any of them, as every send may.
  template <typename F>
  void for_each(F f) {
    for (auto place = open_.begin(); place != open_.end();) {
      const std::shared_ptr<Connection> connection = place->second;
      f(*connection);
      place = open_.upper_bound(connection->number());
    }
  }

 private:
  friend class Connection;

  void accept(UniqueFd fd);
  void remove(Connection& connection);
  void wait_for_clients();

  EventLoop& loop_;
  WaitingOutput& output_;
  Exchange& exchange_;
  const std::optional<EventLoop::Clock::duration> idle_limit_;
  std::map<uint64_t, std::shared_ptr<Connection>> open_;
  uint64_t last_number_ = 0;
  EventLoop::TimerId idle_timer_{};
  LocalListener listener_;
};

}  // namespace pelmar::sim
