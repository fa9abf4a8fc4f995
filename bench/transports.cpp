// modem_api_read_nv over a character device or QRTR, compared with a bare exchange of the same bytes between two
// processes over the same kind of socket.
// usage: bench_transports device|qrtr [BENCHMARK OPTIONS...]
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/qrtr.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "modem_api.h"
#include "peers.h"
#include "pelmar_log.h"

namespace pelmar::bench {
namespace {

constexpr uint32_t kItem = 10;
constexpr uint32_t kItemBytes = 128;

// The message header and TLVs: item, qualifier and index; result and the item's data with its count.
constexpr size_t kRequestBytes = 7 + (3 + 4) + (3 + 1) + (3 + 2);
constexpr size_t kResponseBytes = 7 + (3 + 4) + (3 + 2 + kItemBytes);
constexpr size_t kFrameHeaderBytes = 6;  // of QMUX

// A blocking exchange with a process of its own.
class BareExchange {
 public:
  static BareExchange over_device();
  static BareExchange over_qrtr();
  ~BareExchange() {
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
    close(descriptor_);
  }

  bool run() const {
    const std::vector<uint8_t> request(request_bytes_);
    std::vector<uint8_t> response(response_bytes_);
    if (!send(descriptor_, to_, request)) return false;
    for (size_t received = 0; received < response.size();) {
      const ssize_t count = read(descriptor_, response.data() + received, response.size() - received);
      if (count <= 0) return false;
      received += static_cast<size_t>(count);
    }
    return true;
  }

 private:
  BareExchange(int descriptor, sockaddr_qrtr to, size_t header, pid_t process)
      : descriptor_(descriptor),
        to_(to),
        request_bytes_(header + kRequestBytes),
        response_bytes_(header + kResponseBytes),
        process_(process) {}

  static bool send(int descriptor, const sockaddr_qrtr& to, const std::vector<uint8_t>& bytes) {
    const auto* const address = reinterpret_cast<const sockaddr*>(&to);
    const ssize_t sent = to.sq_family == AF_QIPCRTR
                             ? sendto(descriptor, bytes.data(), bytes.size(), 0, address, sizeof to)
                             : write(descriptor, bytes.data(), bytes.size());
    return sent == static_cast<ssize_t>(bytes.size());
  }

  // In the child: a response for each request, to its sender.
  [[noreturn]] static void serve(int descriptor, size_t header) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    std::vector<uint8_t> request(header + kRequestBytes);
    const std::vector<uint8_t> response(header + kResponseBytes);
    for (;;) {
      sockaddr_qrtr from{};
      socklen_t length = sizeof from;
      size_t received = 0;
      while (received < request.size()) {
        uint8_t* const at = request.data() + received;
        const size_t rest = request.size() - received;
        const ssize_t count = header == 0
                                  ? recvfrom(descriptor, at, rest, 0, reinterpret_cast<sockaddr*>(&from), &length)
                                  : read(descriptor, at, rest);
        if (count <= 0) _exit(1);
        received += static_cast<size_t>(count);
      }
      if (!send(descriptor, from, response)) _exit(1);
    }
  }

  const int descriptor_;
  const sockaddr_qrtr to_;
  const size_t request_bytes_;
  const size_t response_bytes_;
  const pid_t process_;
};

BareExchange BareExchange::over_device() {
  const int modem = posix_openpt(O_RDWR | O_NOCTTY);
  grantpt(modem);
  unlockpt(modem);
  const int device = open(ptsname(modem), O_RDWR | O_NOCTTY);
  termios settings{};
  tcgetattr(device, &settings);
  cfmakeraw(&settings);
  tcsetattr(device, TCSANOW, &settings);
  const pid_t process = fork();
  if (process == 0) serve(modem, kFrameHeaderBytes);
  close(modem);
  return {device, {}, kFrameHeaderBytes, process};
}

BareExchange BareExchange::over_qrtr() {
  const int service = socket(AF_QIPCRTR, SOCK_DGRAM, 0);
  sockaddr_qrtr address{};
  socklen_t length = sizeof address;
  getsockname(service, reinterpret_cast<sockaddr*>(&address), &length);
  address.sq_port = 0;  // any
  bind(service, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  getsockname(service, reinterpret_cast<sockaddr*>(&address), &length);
  const pid_t process = fork();
  if (process == 0) serve(service, 0);
  close(service);
  return {socket(AF_QIPCRTR, SOCK_DGRAM, 0), address, 0, process};
}

bool read_item(int32_t client) {
  uint8_t data[MODEM_API_MAX_ITEM_BYTES];
  uint32_t length = sizeof data;
  return modem_api_read_nv(client, kItem, 0, 0, data, &length) == MODEM_API_SUCCESS && length == kItemBytes;
}

int32_t open_client(const std::string& modem, const std::string& directory) {
  setenv("PELMAR_MODEM", modem.c_str(), 1);
  setenv("XDG_STATE_HOME", directory.c_str(), 1);
  pelmar_hal_get_logcat_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_close_print();
  int32_t client = -1;
  const uint8_t data[kItemBytes] = {1, 2, 3};
  const bool is_ready = modem_api_init() == MODEM_API_SUCCESS &&
                        modem_api_init_client(MODEM_API_CLIENT_VS, nullptr, nullptr, &client) == MODEM_API_SUCCESS &&
                        modem_api_write_nv(client, kItem, 0, 0, data, kItemBytes) == MODEM_API_SUCCESS;
  return is_ready ? client : -1;
}

}  // namespace
}  // namespace pelmar::bench

// The library serves processes of certain names only, so the process executes itself again as "mtb".
int main(int argc, char** argv) {
  using namespace pelmar::bench;
  const std::string transport = argc > 1 ? argv[1] : "";
  if (transport != "device" && transport != "qrtr") {
    std::fprintf(stderr, "usage: bench_transports device|qrtr [BENCHMARK OPTIONS...]\n");
    return 2;
  }
  char name[] = "/bench/mtb";
  if (std::strcmp(argv[0], name) != 0) {
    argv[0] = name;
    execv("/proc/self/exe", argv);
    return 1;
  }
  const bool is_device = transport == "device";
  const BareExchange bare = is_device ? BareExchange::over_device() : BareExchange::over_qrtr();
  const SimulatedModem modem(is_device ? SimulatedModem::Extra::kDevice : SimulatedModem::Extra::kQrtr);
  const int32_t client = open_client(is_device ? modem.device() : "qrtr", modem.device() + "-state");
  if (client < 0) {
    std::fprintf(stderr, "bench_transports: no client over %s\n", transport.c_str());
    return 1;
  }
  const auto add = [](const std::string& title, auto exchange) {
    benchmark::RegisterBenchmark(title.c_str(), [=](benchmark::State& state) {
      for (auto _ : state) {
        if (!exchange()) return state.SkipWithError("an exchange failed");
      }
    })->UseRealTime();
  };
  add("read_nv_over_" + transport, [=] { return read_item(client); });
  add("bare_over_" + transport, [&bare] { return bare.run(); });
  --argc;
  argv[1] = argv[0];
  char** arguments = argv + 1;
  benchmark::Initialize(&argc, arguments);
  benchmark::RunSpecifiedBenchmarks();
  modem_api_free_client(client);
  return 0;
}
