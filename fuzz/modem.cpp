// The simulated modem whole, against a client that sends any bytes.
//
//   input: u8 flags, the client's bytes. Flag 1: the client holds an id of every service before it sends them; frames
//   with client id kClient are then sent with the service's own.
//
// The client sends all it has and closes its sending side. Whatever it sent, the modem drops the connection, frees
// every id that it held, and leaves nothing beside its storage.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>

#include "frames.h"
#include "io/local_socket.h"
#include "simulation.h"

using namespace pelmar::fuzz;
using pelmar::UniqueFd;
using pelmar::sim::Simulation;

namespace {

constexpr int kMostTurns = 1000;  // of the loop, until a modem counts as stuck

class Modem {
 public:
  Modem() : simulation_(options()) {}
  ~Modem() { std::filesystem::remove_all(directory_); }

  // Lets the loop turn until the condition holds.
  template <typename Condition>
  void run_until(Condition condition) {
    for (int turn = 0; !condition(); ++turn) {
      require(turn < kMostTurns);
      simulation_.loop.after({}, [this] { simulation_.loop.stop(); });
      simulation_.run();
    }
  }

  UniqueFd connect() {
    run_until([&] { return simulation_.modem.state() == pelmar::sim::Modem::State::kReady; });
    UniqueFd client = pelmar::sim::connect_local(socket());
    run_until([&] { return simulation_.connections.count() == 1; });
    return client;
  }

  void wait_for_end_of_connection() {
    run_until([&] { return simulation_.connections.count() == 0; });
    for (const auto& slot : simulation_.modem.slots()) require(slot.clients.count() == 0);
    const std::filesystem::directory_iterator entries(directory_);
    require(std::distance(begin(entries), end(entries)) == 3);  // the two sockets and the storage
  }

  // The service's only client id; 0 where it has none.
  uint8_t client_of(uint8_t service) {
    uint8_t client = 0;
    if (const auto* const slot = simulation_.modem.find(service)) {
      slot->clients.for_each([&](uint8_t id, const auto&) { client = id; });
    }
    return client;
  }

  void hold_ids(int client) {
    for (const auto& slot : simulation_.modem.slots()) {
      const uint8_t service = slot.service->id();
      const Bytes request = control_frame(ControlKind::kRequest, 1, 0x0022, 0x01, {service});
      send(client, request.data(), request.size(), MSG_NOSIGNAL);
      run_until([&] { return client_of(service) != 0; });
    }
  }

 private:
  std::string socket() const { return directory_ + "/socket"; }

  pelmar::sim::SimulationOptions options() {
    char name[] = "/tmp/pelmar-fuzz-XXXXXX";
    require(mkdtemp(name) != nullptr);
    directory_ = name;
    pelmar::sim::SimulationOptions options;
    options.socket = socket();
    options.storage = directory_ + "/storage";
    options.control = directory_ + "/control";
    options.max_entries = 8;
    options.reset_time = std::chrono::milliseconds(0);
    return options;
  }

  std::string directory_;
  Simulation simulation_;
};

Modem& modem() {
  static Modem instance;
  return instance;
}

// Puts the clients' real ids into the frames at the front of the stream.
void put_ids(Bytes& stream) {
  for (size_t at = 0; stream.size() - at >= 6;) {
    if (stream[at + 5] == kClient) stream[at + 5] = modem().client_of(stream[at + 4]);
    at += std::min<size_t>(stream.size() - at, 1 + static_cast<size_t>(stream[at + 1] | stream[at + 2] << 8));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const UniqueFd client = modem().connect();
  Bytes stream(data + 1, data + size);
  if (data[0] & 1) {
    modem().hold_ids(client.get());
    put_ids(stream);
  }
  send(client.get(), stream.data(), stream.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  shutdown(client.get(), SHUT_WR);
  modem().wait_for_end_of_connection();
  return 0;
}
