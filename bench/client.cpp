// The client as users run it: the processor time of the live view, the time and memory to print a capture, and a trace
// beside the fastest stream of events.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "capture.h"
#include "peers.h"
#include "qmi_tlv.h"
#include "vs_messages.h"

namespace pelmar::bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCapturedExchanges = 500'000;
constexpr int kStreamedEvents = 40'000;
constexpr const char* kStreamIntervalUs = "50";  // 20,000 a second

double seconds_of(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

// A run of the client, on a terminal or without a reader of its output.
class Client {
 public:
  enum class Output { kTerminal, kNone };

  Client(std::vector<std::string> arguments, const SimulatedModem& modem, Output output) {
    winsize size = {24, 80, 0, 0};
    process_ = output == Output::kTerminal ? forkpty(&terminal_, nullptr, nullptr, &size) : fork();
    if (process_ != 0) return;
    if (output == Output::kNone) dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    setenv("PELMAR_MODEM", modem.socket().c_str(), 1);
    setenv("XDG_STATE_HOME", (modem.socket() + "-state").c_str(), 1);
    setenv("TERM", "xterm", 1);
    arguments.insert(arguments.begin(), "modem_api_test");
    std::vector<char*> words;
    for (std::string& argument : arguments) words.push_back(argument.data());
    words.push_back(nullptr);
    execv(PELMAR_CLIENT, words.data());
    std::perror(PELMAR_CLIENT);
    _exit(127);
  }

  // Waits for the end, and returns whether the client succeeded.
  bool finish() {
    char bytes[65536];
    while (terminal_ >= 0 && read(terminal_, bytes, sizeof bytes) > 0) continue;
    if (terminal_ >= 0) close(terminal_);
    int status = 0;
    return process_ > 0 && wait4(process_, &status, 0, &usage_) == process_ && status == 0;
  }

  double busy_seconds() const { return seconds_of(usage_.ru_utime) + seconds_of(usage_.ru_stime); }
  double most_megabytes() const { return static_cast<double>(usage_.ru_maxrss) / 1024; }

 private:
  pid_t process_;
  int terminal_ = -1;
  rusage usage_{};
};

void signal_watch(benchmark::State& state) {
  const SimulatedModem modem;
  for (auto _ : state) {
    const auto start = Clock::now();
    Client client({"signal", "--watch", "--rate", "10", "--for", "20"}, modem, Client::Output::kTerminal);
    if (!client.finish()) return state.SkipWithError("the client failed");
    const std::chrono::duration<double> passed = Clock::now() - start;
    state.counters["core_percent"] = 100 * client.busy_seconds() / passed.count();
  }
}
BENCHMARK(signal_watch)->Iterations(1)->Unit(benchmark::kSecond);

// Writes a capture of requests, each with its response.
bool write_exchanges(const std::string& name) {
  std::string problem;
  const int file = qmi::open_capture(name, problem);
  bool is_whole = file >= 0;
  qmi::CaptureWriter writer(file, "bench", [&](int) { is_whole = false; });
  const uint32_t link = writer.add_link({"@modem", "bench[1]"}, qmi::CaptureWriter::Sharing::kShared);
  std::vector<uint8_t> request(qmi::kMessageHeaderLength), response(qmi::kMessageHeaderLength);
  request.insert(request.end(), {1, 4, 0, 10, 0, 0, 0});
  response.insert(response.end(), {qmi::kResultTlv, 4, 0, 0, 0, 0, 0});
  const auto write = [&](qmi::Direction direction, qmi::MessageKind kind, std::vector<uint8_t>& message, int number) {
    qmi::store_message_header(message.data(), kind, static_cast<uint16_t>(number), vs::kReadNv,
                              message.size() - qmi::kMessageHeaderLength);
    writer.write(link, direction, vs::kServiceId, 1, message);
  };
  for (int i = 0; i < kCapturedExchanges; ++i) {
    write(qmi::Direction::kToModem, qmi::MessageKind::kRequest, request, i);
    write(qmi::Direction::kFromModem, qmi::MessageKind::kResponse, response, i);
  }
  close(file);
  return is_whole;
}

void trace_lines(benchmark::State& state) {
  const SimulatedModem modem;
  const std::string capture = modem.socket() + "-capture";
  if (!write_exchanges(capture)) return state.SkipWithError("the capture was not written");
  for (auto _ : state) {
    Client client({"trace", capture}, modem, Client::Output::kNone);
    if (!client.finish()) return state.SkipWithError("the client failed");
    state.counters["busy_seconds"] = client.busy_seconds();
    state.counters["most_megabytes"] = client.most_megabytes();
  }
}
BENCHMARK(trace_lines)->Iterations(1)->Unit(benchmark::kSecond);

// Returns the number of the largest events in a capture.
int count_events(const std::string& name) {
  const int file = open(name.c_str(), O_RDONLY | O_CLOEXEC);
  qmi::CaptureReader reader(file);
  qmi::CapturedMessage captured;
  int count = 0;
  while (reader.next(captured) == qmi::CaptureReader::Status::kMessage) {
    const auto message = qmi::read_message(captured.frame);
    count += captured.frame.service == vs::kServiceId && message && message->kind == qmi::MessageKind::kIndication &&
             message->id == vs::kReportAIndication;
  }
  close(file);
  return count;
}

void traced_stream(benchmark::State& state) {
  const SimulatedModem modem;
  const std::string capture = modem.socket() + "-capture";
  for (auto _ : state) {
    Client client({"--trace", capture, "events", "--for", "6"}, modem, Client::Output::kNone);
    sleep(1);  // the client registers the events
    modem.command("stream " + std::to_string(kStreamedEvents) + " every " + kStreamIntervalUs);
    if (!client.finish()) return state.SkipWithError("the client failed");
    state.counters["lost"] = kStreamedEvents - count_events(capture);
  }
}
BENCHMARK(traced_stream)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace pelmar::bench

BENCHMARK_MAIN();
