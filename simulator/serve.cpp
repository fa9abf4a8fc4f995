#include "serve.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "io/memory_reserve.h"

namespace pelmar::sim {

namespace {

// Ends the loop on SIGINT and SIGTERM.
class EndSignals final : public EventLoop::Watcher {
 public:
  explicit EndSignals(EventLoop& loop) : loop_(loop) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    fd_.reset(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!fd_) throw std::system_error(errno, std::generic_category(), "signalfd");
    loop_.watch(fd_.get(), EPOLLIN, *this);
  }

  void on_ready(uint32_t) override { loop_.stop(); }

 private:
  EventLoop& loop_;
  UniqueFd fd_;
};

}  // namespace

void serve(const SimulationOptions& options) {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);  // a write beyond the process's limit fails instead; the response has the error
  Simulation simulation(options);
  MemoryReserve reserve;
  simulation.loop.after_each_round([&](bool lacked_memory) {
    const bool is_restored = reserve.restore();
    return (lacked_memory || !is_restored) && simulation.drop_connection();
  });
  const EndSignals signals(simulation.loop);
  printf("modem_sim: ready on %s\n", options.socket.c_str());
  fflush(stdout);
  simulation.run();
}

}  // namespace pelmar::sim
