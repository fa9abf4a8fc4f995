#include "modem_api_table.h"

#include <sched.h>

namespace pelmar {

constinit ClientTable g_client_table;

modem_api_client* ClientSlot::claim() {
  modem_api_client* const record = get();
  if (record == claimed_) return nullptr;
  claimed_ = record;
  return record;
}

void ClientSlot::remove(modem_api_client* claimed) {
  if (claimed_ == claimed) claimed_ = nullptr;
  modem_api_client* expected = claimed;
  if (!record_.compare_exchange_strong(expected, nullptr, std::memory_order_seq_cst)) return;
  while (pins_.load(std::memory_order_seq_cst) != 0) sched_yield();
  TracedDelete()(claimed);
}

bool is_ready(int32_t client_id, modem_api_client_type type) {
  ClientSlot* const slot = g_client_table.slot_of(client_id);
  if (slot == nullptr) return false;
  const PinnedClient client(*slot);
  return client && client->type == type && client->status.load(std::memory_order_acquire) == OPERATIONAL_STATUS_UP;
}

}  // namespace pelmar
