// The four clients of a process, kept open while their services come and go.
//
// SAR and NAS clients come back by themselves; only one that gave up is opened again. The vendor-specific client does
// not: one whose commands all fail is freed and opened again, though never while an asynchronous answer is due, which a
// release would swallow. One thread opens, tends and closes; any thread may ask for ids.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <shared_mutex>

#include "modem_api.h"

namespace pelmar::system_test::chaos {

class Clients {
 public:
  void open();
  void tend();
  // Opens again until a command of each client succeeds; a problem where that does not come about.
  void wait_until_all_work();
  void close();

  int32_t id(modem_api_client_type type) const { return ids_[type].load(); }
  int32_t vs() const { return id(MODEM_API_CLIENT_VS); }

  // Sends a pass-through command whose answer must be its own payload. An answer may be due from then on.
  void send_async(const uint8_t* payload, int32_t length);
  // Two blocks of each asynchronous send that was refused.
  size_t abandoned_blocks() const { return 2 * refused_sends_.load(); }

 private:
  struct DueAnswer;

  static void take_answer(const uint8_t* data, uint32_t length, void* due, uint32_t result);
  static void take_event(uint32_t event, const uint8_t* payload, uint32_t length);
  static void take_status(uint32_t type, uint32_t status);

  modem_api_result probe(modem_api_client_type type) const;
  void open_client(modem_api_client_type type);
  bool reopen_vs();
  bool is_lost() const;

  std::array<std::atomic<int32_t>, MODEM_API_CLIENT_TYPES> ids_{-1, -1, -1, -1};
  std::shared_mutex sending_;  // shared by asynchronous senders; alone: nobody sends
  std::atomic<int> due_answers_{0};
  std::atomic<size_t> refused_sends_{0};
};

}  // namespace pelmar::system_test::chaos
