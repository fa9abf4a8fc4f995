// The peripheral manager's socket, read at both ends.
//
//   input: the bytes of a peer
//
// Whatever they are: a frame is judged the same however much of the stream has arrived, and a message that was read is
// written as the same bytes. The manager drops the peer at the stream's end, its vote with it, and switches the power
// by turns. A process's end reads exactly the messages that the bytes begin with.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "io/event_loop.h"
#include "io/local_socket.h"
#include "manager_link.h"
#include "messages.h"
#include "power/peripheral_manager.h"

using namespace pelmar::fuzz;
using namespace pelmar::platform;
using namespace pelmar::platform::power;
using pelmar::UniqueFd;
using pelmar::sim::EventLoop;
using pelmar::sim::LocalListener;
using pelmar::sim::PeripheralManager;
using pelmar::sim::WaitingOutput;

namespace {

constexpr int kMostTurns = 1000;  // of the loop, until the manager counts as stuck

template <typename Message>
std::vector<Message> read_stream(std::span<const uint8_t> rest) {
  std::vector<Message> messages;
  for (;;) {
    Message message;
    size_t size = 0;
    const Front front = take_front(rest, message, size);
    const size_t frame = front == Front::kComplete ? size : std::min(rest.size(), kMaxFrameBytes);
    for (size_t length = 0; length < frame; ++length) {
      Message part;
      size_t part_size = 0;
      const Front early = take_front(rest.first(length), part, part_size);
      require(early == Front::kIncomplete || (early == Front::kBroken && front == Front::kBroken));
    }
    if (front != Front::kComplete) return messages;
    require(size >= 2 && size <= std::min(rest.size(), kMaxFrameBytes));
    const std::vector<uint8_t> written = to_frame(message);
    require(std::equal(written.begin(), written.end(), rest.begin(), rest.begin() + static_cast<ptrdiff_t>(size)));
    messages.push_back(std::move(message));
    rest = rest.subspan(size);
  }
}

std::string socket_name(const char* role) {
  return "@pelmar-fuzz-" + std::to_string(getpid()) + '-' + role;
}

void send_all(int fd, std::span<const uint8_t> bytes) {
  send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  shutdown(fd, SHUT_WR);
}

class ManagerEnd {
 public:
  void meet(std::span<const uint8_t> bytes) {
    const UniqueFd peer = pelmar::sim::connect_local(name_);
    send_all(peer.get(), bytes);
    char drain[4096];
    run_until([&] { return recv(peer.get(), drain, sizeof drain, MSG_DONTWAIT) == 0 || errno == ECONNRESET; });
    run_until([&] { return manager_.voters().empty() && manager_.state() == EVENT_PERIPH_IS_OFFLINE; });
    require(manager_.votes() == 0 && !is_on_);
  }

 private:
  template <typename Condition>
  void run_until(Condition condition) {
    for (int turn = 0; errno = 0, !condition(); ++turn) {
      require(turn < kMostTurns);
      loop_.after({}, [this] { loop_.stop(); });
      loop_.run();
    }
  }

  std::chrono::milliseconds switch_power(bool on) {
    require(on != is_on_);
    is_on_ = on;
    return {};
  }

  const std::string name_ = socket_name("manager");
  WaitingOutput output_;
  EventLoop loop_;
  bool is_on_ = false;
  PeripheralManager manager_{loop_,
                             output_,
                             {name_, pelmar::sim::Admission::kThisUserAndRoot, "modem", std::chrono::hours(1)},
                             [this](bool on) { return switch_power(on); }};
};

class VoterEnd {
 public:
  void meet(std::span<const uint8_t> bytes, const std::vector<Reply>& expected) {
    ManagerLink link;
    require(link.open(name_, Deadline::after(Deadline::Milliseconds(5000))));
    loop_.run();  // until the listener has accepted
    send_all(manager_.get(), bytes);
    Reply reply;
    for (const Reply& each : expected) {
      require(link.receive(reply, Deadline::after(Deadline::Milliseconds(5000))) && reply == each);
    }
    require(!link.receive(reply, Deadline::after(Deadline::Milliseconds(5000))));
    manager_.reset();
  }

 private:
  const std::string name_ = socket_name("voter");
  EventLoop loop_;
  UniqueFd manager_;
  LocalListener listener_{loop_, name_, [this](UniqueFd fd) {
                            manager_ = std::move(fd);
                            loop_.stop();
                          }};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static ManagerEnd manager;
  static VoterEnd voter;
  const Bytes stream(data, data + size);
  read_stream<Request>(stream);
  manager.meet(stream);
  voter.meet(stream, read_stream<Reply>(stream));
  return 0;
}
