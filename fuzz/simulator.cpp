// The simulated modem whole, without and with a peripheral manager, against a peer that sends any bytes.
//
//   input: see messages.h. The change is that of what the peer sends. Choice 1: to the peripheral manager. Choice 2:
//   the client holds an id of every service before it sends; frames with client id kClient are then sent with the
//   service's own.
//
// The peer sends all it has and closes its sending side. Whatever it sent, the modem drops the connection, frees every
// id that it held, takes its vote back and leaves nothing beside its storage. What a reader makes of the front of a
// stream stays, however much of the stream follows, and lies inside what was read; what the manager's protocol reads it
// writes as the same bytes.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "io/local_socket.h"
#include "manager_protocol.h"
#include "messages.h"
#include "simulation.h"

using namespace pelmar::fuzz;
using namespace pelmar::platform::power;
using pelmar::UniqueFd;
using pelmar::sim::Simulation;
namespace qmi = pelmar::qmi;

namespace {

// --- the readers: each returns the size of a stream's front, kIncomplete or kBroken ---

constexpr int kIncomplete = 0;
constexpr int kBroken = -1;

using Stream = std::span<const uint8_t>;

bool is_inside(Stream part, Stream whole) {
  return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

int read_frame(Stream stream) {
  const qmi::Front front = qmi::read_front(stream, qmi::Direction::kToModem);
  if (front.state == qmi::Front::State::kIncomplete) return kIncomplete;
  if (front.state != qmi::Front::State::kComplete) return kBroken;
  require(is_inside(front.frame.message, stream.first(front.length)));
  if (const auto request = qmi::read_message(front.frame)) {
    require(is_inside(request->tlvs, front.frame.message));
    for (unsigned type = 0; type <= UINT8_MAX; ++type) {
      const auto value = qmi::find_tlv(request->tlvs, static_cast<uint8_t>(type));
      require(!value || is_inside(*value, request->tlvs));
    }
  }
  return static_cast<int>(front.length);
}

template <typename Message>
int read_manager_message(Stream stream) {
  Message message;
  size_t size = 0;
  const FrameState front = parse_frame(stream, message, size);
  if (front != FrameState::kComplete) return front == FrameState::kIncomplete ? kIncomplete : kBroken;
  require(size <= stream.size() && to_frame(message) == Bytes(stream.begin(), stream.begin() + static_cast<int>(size)));
  return static_cast<int>(size);
}

void check(Stream rest, int (*read)(Stream)) {
  int front = 0;
  do {
    front = read(rest);
    const size_t size = front > 0 ? static_cast<size_t>(front) : rest.size();
    for (size_t length = 0; length < std::min(size, kMaxFrameBytes); ++length) {
      const int early = read(rest.first(length));
      require(early == kIncomplete || (early == kBroken && front == kBroken));
    }
    rest = rest.subspan(size);
  } while (front > 0);
}

// --- the modem ---

constexpr int kMostTurns = 1000;  // of the loop, until a modem counts as stuck

class Modem {
 public:
  explicit Modem(bool has_manager) : simulation_(options(has_manager)) {}
  ~Modem() { std::filesystem::remove_all(directory_); }

  void meet_client(Bytes stream, bool holds_ids) {
    run_until([&] { return simulation_.modem.state() == pelmar::sim::Modem::State::kReady; });
    const UniqueFd client = pelmar::sim::connect_local(directory_ + "/socket");
    run_until([&] { return simulation_.connections.count() == 1; });
    if (holds_ids) {
      for (const auto& slot : simulation_.modem.slots()) {
        const uint8_t service = slot.service->id();
        send_all(client, make_frame(qmi::MessageKind::kRequest, 0, 1, 0x0022, {0x01, 1, 0, service}));
        run_until([&] { return client_of(service) != 0; });
      }
      put_ids(stream);
    }
    send_all(client, stream);
    shutdown(client.get(), SHUT_WR);
    run_until([&] { return simulation_.connections.count() == 0; });
    for (const auto& slot : simulation_.modem.slots()) require(slot.clients.count() == 0);
    const std::filesystem::directory_iterator entries(directory_);
    require(std::distance(begin(entries), end(entries)) == 3);  // the two sockets and the storage
  }

  void meet_voter(const Bytes& stream) {
    const UniqueFd voter = pelmar::sim::connect_local(directory_ + "/manager");
    send_all(voter, stream);
    shutdown(voter.get(), SHUT_WR);
    char drain[4096];
    run_until([&] { return recv(voter.get(), drain, sizeof drain, MSG_DONTWAIT) == 0 || errno == ECONNRESET; });
    const auto& manager = *simulation_.manager;
    run_until([&] { return manager.voters().empty() && manager.state() == EVENT_PERIPH_IS_OFFLINE; });
    require(manager.votes() == 0);
  }

 private:
  // Lets the loop turn until the condition holds.
  template <typename Condition>
  void run_until(Condition condition) {
    for (int turn = 0; errno = 0, !condition(); ++turn) {
      require(turn < kMostTurns);
      simulation_.loop.after({}, [this] { simulation_.loop.stop(); });
      simulation_.run();
    }
  }

  static void send_all(const UniqueFd& peer, const Bytes& stream) {
    send(peer.get(), stream.data(), stream.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  // The service's only client id; 0 where it has none.
  uint8_t client_of(uint8_t service) {
    uint8_t client = 0;
    if (const auto* const slot = simulation_.modem.find(service)) {
      slot->clients.for_each([&](uint8_t id, const auto&) { client = id; });
    }
    return client;
  }

  // Puts the clients' real ids into the frames at the front of the stream.
  void put_ids(Bytes& stream) {
    for (size_t at = 0; stream.size() - at >= 6;) {
      if (stream[at + 5] == kClient) stream[at + 5] = client_of(stream[at + 4]);
      at += std::min<size_t>(stream.size() - at, 1 + static_cast<size_t>(stream[at + 1] | stream[at + 2] << 8));
    }
  }

  pelmar::sim::SimulationOptions options(bool has_manager) {
    char name[] = "/tmp/pelmar-fuzz-XXXXXX";
    require(mkdtemp(name) != nullptr);
    directory_ = name;
    pelmar::sim::SimulationOptions options;
    options.socket = directory_ + "/socket";
    options.storage = directory_ + "/storage";
    options.control = directory_ + "/control";
    if (has_manager) options.pm_socket = directory_ + "/manager";
    options.pm_acknowledge_limit = std::chrono::hours(1);
    options.max_entries = 8;
    options.reset_time = std::chrono::milliseconds(0);
    return options;
  }

  std::string directory_;
  Simulation simulation_;
};

Bytes voter_messages() {
  return join({to_frame(Register{"modem", "voter"}), to_frame(Vote{}), to_frame(Acknowledge{EVENT_PERIPH_GOING_ONLINE}),
               to_frame(Acknowledge{EVENT_PERIPH_IS_ONLINE}), to_frame(QueryStatus{}), to_frame(Withdraw{}),
               to_frame(Unregister{})});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Modem modem(false), managed_modem(true);
  const Input input(data, size);
  if (input.choice & 1) {
    const Bytes stream = input.change(voter_messages());
    check(stream, read_manager_message<Request>);
    check(stream, read_manager_message<Reply>);
    managed_modem.meet_voter(stream);
  } else {
    const Bytes stream = input.change(make_stream(input, true));
    check(stream, read_frame);
    modem.meet_client(stream, input.choice & 2);
  }
  return 0;
}
