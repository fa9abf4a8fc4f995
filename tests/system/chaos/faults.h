// What goes wrong at the modem during a chaos run: a table of faults, drawn from a seeded stream.
//
// Whatever a fault does is drawn before it is done, so that the sequence depends on the seed alone. An answer that is
// lost is followed by a restart of its service, which ends the call that waits for it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "chaos/random.h"
#include "sim_process.h"

namespace pelmar::system_test::chaos {

// The simulated modem of a run, which its faults may end and start again.
class FaultyModem {
 public:
  explicit FaultyModem(uint64_t seed);

  const std::string& socket() const { return modem_->socket(); }
  std::string path(const std::string& name) const { return directory_.path(name); }
  nlohmann::json tell(const std::string& command) { return modem_->operator_command(command); }

  // Which a modem that is starting may refuse.
  void try_to_tell(const std::string& command) { modem_->try_command(command); }

  // One fault of the table.
  void suffer();
  // Ends all faults and every call that still waits for an answer.
  void heal();

  struct Counts {
    uint64_t faults = 0;
    uint64_t service_restarts = 0;
    uint64_t modem_restarts = 0;  // of the modem in its process
    uint64_t new_processes = 0;
  };
  const Counts& counts() const { return counts_; }

  // --- for the faults of the table ---

  Random& random() { return random_; }
  void restart_service(const std::string& service, uint32_t down_ms);
  void restart_modem(uint32_t starting_ms);
  void start_again();
  // Ends the process. Returns its exit status, or minus the signal.
  int end_process(int signal) { return modem_->end(signal); }

 private:
  void start();

  sim::test::ScratchDirectory directory_;
  Random random_;
  Counts counts_;
  std::unique_ptr<sim::test::SimProcess> modem_;
};

}  // namespace pelmar::system_test::chaos
