// The simulated modem whole, without and with a peripheral manager, against a peer that sends any bytes.
//
//   input: see messages.h. The change is that of what the peer sends. Choice 1: to the peripheral manager. A client
//   holds an id of every service before; a first frame with client id kClient is sent with the service's own.
//
// The peer sends all it has and closes its sending side. Whatever it sent, the modem drops the connection, frees every
// id that it held, takes its vote back and leaves nothing beside its storage.
#include <sys/socket.h>
#include <unistd.h>

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

namespace {

class Modem {
 public:
  explicit Modem(bool has_manager) : simulation_(options(has_manager)) {}
  ~Modem() { std::filesystem::remove_all(directory_); }

  void meet_client(Bytes stream) {
    run_until([&] { return simulation_.modem.state() == pelmar::sim::Modem::State::kReady; });
    const UniqueFd client = pelmar::sim::connect_local(directory_ + "/socket");
    run_until([&] { return simulation_.connections.count() == 1; });
    for (const auto& slot : simulation_.modem.slots()) {
      const uint8_t service = slot.service->id();
      send_all(client, make_frame(pelmar::qmi::MessageKind::kRequest, 0, 1, 0x0022, {0x01, 1, 0, service}));
      run_until([&] { return client_of(service) != 0; });
    }
    if (stream.size() > 5 && stream[5] == kClient) stream[5] = client_of(stream[4]);
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
      require(turn < 1000);  // else the modem is stuck
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
    const auto* const slot = simulation_.modem.find(service);
    if (slot != nullptr) slot->clients.for_each([&](uint8_t id, const auto&) { client = id; });
    return client;
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
    managed_modem.meet_voter(input.change(voter_messages()));
  } else {
    modem.meet_client(input.change(make_stream(input, true)));
  }
  return 0;
}
