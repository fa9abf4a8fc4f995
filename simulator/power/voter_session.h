// One connection to the peripheral manager: a voter, or somebody who asks.
//
// It ends when the peer closes it, breaks the protocol, or does not read its responses, and when the peer's process
// ends: a child may have inherited the connection, but the vote was its parent's.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "io/event_loop.h"
#include "io/stream.h"
#include "manager_protocol.h"

namespace pelmar::sim {

class VoterSession final : private Stream::Reader {
 public:
  class Owner {
   public:
    virtual void on_request(VoterSession& session, const platform::power::Request& request) = 0;
    // The last call for this session, which the owner destroys in a posted task.
    virtual void on_gone(VoterSession& session) = 0;

   protected:
    ~Owner() = default;
  };

  // Throws std::system_error where the peer's process has ended already, or cannot be watched.
  VoterSession(EventLoop& loop, WaitingOutput& output, UniqueFd fd, uint64_t number, Owner& owner);
  ~VoterSession();
  VoterSession(const VoterSession&) = delete;
  VoterSession& operator=(const VoterSession&) = delete;

  uint64_t number() const { return number_; }
  pid_t process() const { return process_; }  // 0 where it is not known
  bool is_open() const { return stream_.is_open(); }
  void send(const platform::power::Reply& reply) { stream_.send(platform::power::to_frame(reply)); }

  // The owner's notes.
  std::string name;  // of a registered voter
  bool votes = false;
  bool must_acknowledge = false;

 private:
  // Closes the session when the peer's process ends.
  class ProcessWatch final : public EventLoop::Watcher {
   public:
    explicit ProcessWatch(VoterSession& session) : session_(session) {}
    void on_ready(uint32_t events) override;

   private:
    VoterSession& session_;
  };

  size_t on_bytes(std::span<const uint8_t> bytes) override;
  void on_closed(std::string_view reason) override;
  void unwatch_process();

  EventLoop& loop_;
  Owner& owner_;
  const uint64_t number_;
  Stream stream_;
  const pid_t process_;
  ProcessWatch watch_{*this};
  UniqueFd process_fd_;
};

}  // namespace pelmar::sim
