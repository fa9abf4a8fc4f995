// The whole simulated modem, with and without a peripheral manager, and a peer that sends any bytes.
//
//   input: see messages.h. The change applies to the peer's bytes. Choice 1: they go to the peripheral manager. A
//   client has allocated an id of every service before, which replaces the client id kClient in the first frame.
//
// The peer sends its bytes and closes its sending side. With any bytes, the modem drops the connection, frees its ids,
// withdraws its vote and leaves no file outside its storage.
#include <sys/socket.h>

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

  void test_client(Bytes stream) {
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

  void test_voter(const Bytes& stream) {
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
  // Runs the loop until the condition holds.
  template <typename Condition>
  void run_until(Condition condition) {
    for (int turn = 0; errno = 0, !condition(); ++turn) {
      require(turn < 1000);  // or the modem hangs
      simulation_.loop.after({}, [this] { simulation_.loop.stop(); });
      simulation_.run();
    }
  }

  static void send_all(const UniqueFd& peer, const Bytes& stream) {
    send(peer.get(), stream.data(), stream.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  // Returns the service's only client id; 0 if there is none.
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
    managed_modem.test_voter(input.change(voter_messages()));
  } else {
    modem.test_client(input.change(make_stream(input, true)));
  }
  return 0;
}
