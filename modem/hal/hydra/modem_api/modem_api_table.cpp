#include "modem_api_table.h"

#include <sched.h>

namespace pelmar {

constinit ClientTable g_client_table;

TracedPtr<modem_api_client> ClientSlot::take() {
  modem_api_client* record = record_.exchange(nullptr, std::memory_order_seq_cst);
  while (pins_.load(std::memory_order_seq_cst) != 0) sched_yield();
  return TracedPtr<modem_api_client>(record);
}

bool is_ready(int32_t client_id, modem_api_client_type type) {
  ClientSlot* const slot = g_client_table.slot_of(client_id);
  if (slot == nullptr) return false;
  const PinnedClient client(*slot);
  return client && client->type == type && client->status.load(std::memory_order_acquire) == OPERATIONAL_STATUS_UP;
}

}  // namespace pelmar
