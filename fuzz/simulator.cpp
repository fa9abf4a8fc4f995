// The whole simulated modem, and a client that sends any bytes.
//
//   input: see messages.h. The change applies to the client's bytes. It has allocated an id of every service before,
//   which replaces the client id kClient in the first frame.
//
// The client sends its bytes and closes its sending side. With any bytes, the modem drops the connection, frees its ids
// and leaves no file outside its storage.
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>

#include "io/local_socket.h"
#include "messages.h"
#include "simulation.h"

using namespace pelmar::fuzz;
using pelmar::UniqueFd;
using pelmar::sim::Simulation;

namespace {

class Modem {
 public:
  Modem() : simulation_(options()) {}
  ~Modem() { std::filesystem::remove_all(directory_); }

  void test(Bytes stream) {
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

 private:
  // Runs the loop until the condition holds.
  template <typename Condition>
  void run_until(Condition condition) {
    for (int turn = 0; !condition(); ++turn) {
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

  pelmar::sim::SimulationOptions options() {
    char name[] = "/tmp/pelmar-fuzz-XXXXXX";
    require(mkdtemp(name) != nullptr);
    directory_ = name;
    pelmar::sim::SimulationOptions options;
    options.socket = directory_ + "/socket";
    options.storage = directory_ + "/storage";
    options.control = directory_ + "/control";
    options.max_entries = 8;
    options.reset_time = std::chrono::milliseconds(0);
    return options;
  }

  std::string directory_;
  Simulation simulation_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Modem modem;
  const Input input(data, size);
  modem.test(input.change(make_stream(input, true)));
  return 0;
}
