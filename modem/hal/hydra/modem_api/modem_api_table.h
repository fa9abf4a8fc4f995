// The client table of this process: ten slots, each empty or with the record of an open client.
//
// Commands and service connections read records without a lock, while another thread may free one. A reader therefore
// pins the slot while it reads the record (a few instructions, never during a send or a callback). A thread that frees
// a record empties the slot first and waits until no reader has the slot pinned.
//
// Freeing a client releases its connection, which waits for callbacks, and callbacks may use the table. A thread
// therefore claims the record under the table lock, releases the connection without the lock, and takes it again to
// remove the record.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "modem_api.h"
#include "pelmar_thread.h"
#include "traced_ptr.h"

namespace pelmar {

// One open client. The library never reads `pid`: it is for readers of a memory dump, who also rely on the asserted
// offsets of the fields.
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

  // Returns the record, which the caller must then free; null for an empty slot, or if another thread frees the record.
  // REQUIRES: the table lock is held.
  modem_api_client* claim();
  // Frees a claimed record, unless the slot was emptied meanwhile: an abandoned record is never freed.
  // REQUIRES: the table lock is held.
  void remove(modem_api_client* claimed);
  // Empties the slot without freeing the record.
  void abandon() { record_.store(nullptr, std::memory_order_seq_cst); }

 private:
  friend class PinnedClient;

  std::atomic<modem_api_client*> record_{nullptr};
  std::atomic<uint32_t> pins_{0};
  const modem_api_client* claimed_ = nullptr;  // guarded by the table lock
};

// Pins a slot: its record stays valid as long as this object lives.
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
  modem_api_client* operator->() const { return record_; }
  const modem_api_client& operator*() const { return *record_; }

 private:
  ClientSlot& slot_;
  modem_api_client* record_;
};

struct ClientTable {
  std::array<ClientSlot, MODEM_API_MAX_CLIENTS> slots;
  Lock lock;  // the table lock: held to add and free clients, and to change their event flags

  // The slot of a client id, or null for an id out of range.
  ClientSlot* slot_of(int32_t client_id) {
    return client_id >= 0 && client_id < MODEM_API_MAX_CLIENTS ? &slots[static_cast<size_t>(client_id)] : nullptr;
  }
};

extern ClientTable g_client_table;

// Whether the id is that of a client of this type whose service is up. Every command checks this first.
bool is_ready(int32_t client_id, modem_api_client_type type);

}  // namespace pelmar
