// A connection of a client, and the set of all of them.
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
#include <utility>
#include <vector>

#include "capture.h"
#include "io/local_socket.h"
#include "io/stream.h"

namespace pelmar::sim {

class Connections;
class Exchange;

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  // Bytes that may wait for a client that does not read.
  static constexpr size_t kMaxWaitingBytes = 1 << 20;

  virtual ~Connection() = default;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  uint64_t number() const { return number_; }
  pid_t process() const { return process_; }  // of the client; 0 where it is not known

  // Sends a QMUX frame to the client, or the bytes of a fault.
  void send(std::span<const uint8_t> bytes);
  virtual void close(std::string_view reason) = 0;

  // False while the client's end is not there, although the connection stays open.
  virtual bool has_peer() const { return true; }

  // True while no output waits for the client to read it.
  virtual bool is_drained() const = 0;
  // Calls each task once, when that becomes true again.
  void when_drained(EventLoop::Task task) { when_drained_.push_back(std::move(task)); }

 protected:
  Connection(Connections& connections, uint64_t number, pid_t process)
      : connections_(connections), number_(number), process_(process) {}

  virtual void transmit(std::span<const uint8_t> bytes) = 0;
  // The modem's address as the client names it.
  virtual std::string address() const = 0;
  // The client's number in a trace; nothing for a frame that transmit() drops.
  virtual std::optional<uint8_t> traced_client(const qmi::Frame& frame) const { return frame.client; }

  void received(const qmi::Frame& frame);
  void drained();
  void closed(std::string_view reason);

  Connections& connections_;

 private:
  void trace(qmi::Direction direction, const qmi::Frame& frame);

  const uint64_t number_;
  const pid_t process_;
  std::optional<uint32_t> trace_link_;
  std::vector<EventLoop::Task> when_drained_;
};

// A client of the Unix socket, which sends and receives QMUX. It is dropped if it does not read.
class QmuxConnection final : public Connection, private Stream::Reader {
 public:
  QmuxConnection(Connections& connections, uint64_t number, UniqueFd fd);

  void close(std::string_view reason) override { stream_.close(reason); }
  bool is_drained() const override { return stream_.is_drained(); }

 private:
  void transmit(std::span<const uint8_t> bytes) override { stream_.send(bytes); }
  std::string address() const override;
  size_t on_bytes(std::span<const uint8_t> bytes) override;
  void on_drained() override { drained(); }
  void on_closed(std::string_view reason) override { closed(reason); }

  Stream stream_;
};

class Connections final {
 public:
  // idle_limit: after that long without a client at the other end of any connection, the loop stops.
  Connections(EventLoop& loop, WaitingOutput& output, const std::string& socket, Admission admission,
              Exchange& exchange, std::optional<EventLoop::Clock::duration> idle_limit);

  // The writer gets all messages from now on; null: none does.
  void trace_to(qmi::CaptureWriter* writer) { trace_ = writer; }

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

  // Makes a connection, which serves its client until it closes.
  template <typename T, typename... Arguments>
  std::shared_ptr<T> add(Arguments&&... arguments) {
    const uint64_t number = last_number_ + 1;
    auto connection = std::make_shared<T>(*this, number, std::forward<Arguments>(arguments)...);
    open_.emplace(number, connection);
    last_number_ = number;
    peers_changed();
    return connection;
  }

  // A client has come to the other end of a connection, or left it.
  void peers_changed();

 private:
  friend class Connection;
  friend class QmuxConnection;

  void remove(Connection& connection);

  EventLoop& loop_;
  WaitingOutput& output_;
  const std::string socket_;
  Exchange& exchange_;
  const std::optional<EventLoop::Clock::duration> idle_limit_;
  qmi::CaptureWriter* trace_ = nullptr;
  std::map<uint64_t, std::shared_ptr<Connection>> open_;
  uint64_t last_number_ = 0;
  EventLoop::TimerId idle_timer_{};
  LocalListener listener_;
};

}  // namespace pelmar::sim
