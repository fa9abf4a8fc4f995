// What a client process of a chaos run does, apart from running threads: two kinds of process, one interface.
//
// The main thread opens, tends, verifies and closes; workers run operations between the opening and the verification.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace pelmar::system_test::chaos {

class Party {
 public:
  virtual ~Party() = default;

  virtual void open() = 0;
  // Called over and over: opens again what was lost.
  virtual void tend() = 0;
  virtual void run_operation(size_t worker) = 0;
  // Without faults and workers: waits until everything works again, and checks what the modem holds.
  virtual void verify() = 0;
  virtual void close() = 0;

  // Traced blocks that the library has handed over to nobody, as it says it does.
  virtual size_t abandoned_blocks() const { return 0; }
};

// A process with a client of each type, and operations of all families.
std::unique_ptr<Party> make_clients_party(uint64_t seed, uint32_t process, size_t workers);
// A process that reads hydra's statistics.
std::unique_ptr<Party> make_hydra_party(uint64_t seed, uint32_t process, size_t workers);

// Processes of the first kind in a run, numbered from 0, and their workers; the other one comes last.
inline constexpr uint32_t kClientsProcesses = 3;
inline constexpr size_t kWorkers = 4;

}  // namespace pelmar::system_test::chaos
