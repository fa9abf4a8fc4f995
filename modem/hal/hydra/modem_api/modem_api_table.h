// The client table of this process: ten slots, each empty or holding the record of an open client.
//
// Records are read by commands and service connections without a lock, while another thread may be freeing one. A
// reader therefore pins the slot for as long as it looks at the record (a few instructions, never during a send or a
// callback), and a thread that frees a record empties the slot first and waits until no reader has it pinned.
//
// Freeing a client releases its connection, which waits for callbacks; these may use the table. A thread therefore
// claims the record under the table lock, releases the connection without it, and takes the lock again to remove the
// record.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "modem_api.h"
#include "pelmar_lock.h"
#include "traced_ptr.h"

namespace pelmar {

// One open client. The library itself never reads `pid`: it is there for readers of a memory dump, and for such a
// reader every field has its place, which is asserted.
struct modem_api_client {
  modem_api_client_type type;
  int32_t pid;  // of the opener
  std::atomic<operational_status> status;
  std::atomic<uint8_t> event_flags[MODEM_API_EVENT_COUNT];  // 1: the event is subscribed
  modem_api_event_cb event_cb;
  modem_api_status_cb status_cb;
};
static_assert(offsetof(modem_api_client, status) == 8 && offsetof(modem_api_client, event_flags) == 12);
static_assert(offsetof(modem_api_client, event_cb) == 24);

class ClientSlot {
 public:
  modem_api_client* get() const { return record_.load(std::memory_order_seq_cst); }
  bool is_empty() const { return get() == nullptr; }
  void put(TracedPtr<modem_api_client> record) { record_.store(record.release(), std::memory_order_seq_cst); }

  // The record, for the caller to free; null for an empty slot, or when a thread is freeing it. With the table lock.
  modem_api_client* claim();
  // Frees a claimed record, unless the slot was emptied meanwhile: an abandoned record stays. With the table lock.
  void remove(modem_api_client* claimed);
  // Empties the slot and leaves the record to itself.
  void abandon() { record_.store(nullptr, std::memory_order_seq_cst); }

 private:
  friend class PinnedClient;

  std::atomic<modem_api_client*> record_{nullptr};
  std::atomic<uint32_t> pins_{0};
  const modem_api_client* claimed_ = nullptr;  // guarded by the table lock
};

// A look at a slot's record, which stays valid as long as this lives.
class PinnedClient {
 public:
  explicit PinnedClient(ClientSlot& slot) : slot_(slot) {
    slot_.pins_.fetch_add(1, std::memory_order_seq_cst);
    record_ = slot_.get();
  }
  ~PinnedClient() { slot_.pins_.fetch_sub(1, std::memory_order_release); }
  PinnedClient(const PinnedClient&) = delete;
  PinnedClient& operator=(const PinnedClient&) = delete;

  explicit operator bool() const { return record_ != nullptr; }
  const modem_api_client* operator->() const { return record_; }
  modem_api_client* operator->() { return record_; }
  const modem_api_client& operator*() const { return *record_; }

 private:
  ClientSlot& slot_;
  modem_api_client* record_;
};

struct ClientTable {
  std::array<ClientSlot, MODEM_API_MAX_CLIENTS> slots;
  Lock lock;  // the table lock: adding and freeing clients, editing their event flags

  // The slot of a client id, or null for an id that names none.
  ClientSlot* slot_of(int32_t client_id) {
    return client_id >= 0 && client_id < MODEM_API_MAX_CLIENTS ? &slots[static_cast<size_t>(client_id)] : nullptr;
  }
};

extern ClientTable g_client_table;

// Whether an id names a client of a type whose service is up. Every command checks this first.
bool is_ready(int32_t client_id, modem_api_client_type type);

}  // namespace pelmar
