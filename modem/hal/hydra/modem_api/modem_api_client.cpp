// The client table, and the functions that set the library up, open and free clients, and report the state of their
// connections.
#include <sched.h>
#include <unistd.h>

#include <mutex>
#include <new>

#include "modem_api_command.h"
#include "modem_api_table.h"
#include "nas_client.h"
#include "pelmar_log_site.h"
#include "sar_client.h"
#include "vs_client.h"

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

namespace {

// The functions of a client type's connection, and its names in the lines that refuse a second client of the type.
struct ClientType {
  void (*set_status_callback)(modem_api_operational_status_fn callback);
  bool (*init)(modem_api_event_cb event_cb);
  bool (*release)();
  int32_t subscription;  // its indications are registered after the opening; negative: none
  const char* pending_name;
  const char* open_name;
};

constexpr ClientType kClientTypes[MODEM_API_CLIENT_TYPES] = {
    {vs_client_set_operational_status_callback, vs_client_init, vs_client_release, -1, "vs", "vs"},
    {sar_client_set_operational_status_callback, sar_client_init, sar_client_release, -1, "sar", "sar"},
    // Compatibility: both NAS types are called "nas 0" while their service is not up.
    {nas_0_client_set_operational_status_callback, nas_0_client_init, nas_0_client_release, 0, "nas 0", "nas"},
    {nas_1_client_set_operational_status_callback, nas_1_client_init, nas_1_client_release, 1, "nas 0", "nas"},
};

constinit Lock g_init_lock;
int32_t g_init_count = 0;  // never above 1; guarded by the init lock

void clear_table() {
  for (ClientSlot& slot : g_client_table.slots) slot.abandon();
}

modem_api_result refuse_second_client(const Operation& operation, modem_api_client_type type,
                                      operational_status status) {
  if (status != OPERATIONAL_STATUS_UP) {
    PELMAR_LOG_DEBUG_IN(operation, "Another client init %s client with operational status %d",
                        kClientTypes[type].pending_name, static_cast<int>(status));
    return MODEM_API_ERR_SERVICE_PENDING;
  }
  PELMAR_LOG_DEBUG_IN(operation, "Already another client init %s client successfully", kClientTypes[type].open_name);
  return MODEM_API_ERR_ALREADY_INITIALIZED;
}

// Puts a new record into the first empty slot, unless the table has a client of its type.
modem_api_result add_record(const Operation& operation, TracedPtr<modem_api_client> record, int32_t* client_id) {
  const std::lock_guard lock(g_client_table.lock);
  for (ClientSlot& slot : g_client_table.slots) {
    const PinnedClient other(slot);
    if (!other || other->type != record->type) continue;
    record.reset();
    return refuse_second_client(operation, other->type, other->status.load());
  }
  for (int32_t id = 0; id < MODEM_API_MAX_CLIENTS; ++id) {
    ClientSlot& slot = g_client_table.slots[static_cast<size_t>(id)];
    if (!slot.is_empty()) continue;
    slot.put(std::move(record));
    *client_id = id;
    return MODEM_API_SUCCESS;
  }
  PELMAR_LOG_ERROR_IN(operation, "no more client can be added");
  return MODEM_API_ERR_NO_FREE_CLIENT;
}

// Returns the status callback if it must be called with this status, else null.
modem_api_status_cb update_status(const Operation& operation, ClientSlot& slot, int32_t client_id, uint32_t type,
                                  uint32_t status) {
  modem_api_status_cb callback;
  {
    PinnedClient client(slot);
    if (!client || client->type != type) return nullptr;
    client->status.store(status);
    callback = client->status_cb;
  }
  PELMAR_LOG_DEBUG_IN(operation, "client type %d, client id %d, operational_status %d", static_cast<int>(type),
                      client_id, static_cast<int>(status));
  return status == OPERATIONAL_STATUS_UP || status == OPERATIONAL_STATUS_DOWN ? callback : nullptr;
}

}  // namespace
}  // namespace pelmar

using namespace pelmar;

modem_api_result modem_api_init() {
  Operation operation(PELMAR_HERE);
  if (modem_api_check_white_list() == 0) return operation.fail(MODEM_API_ERR_NOT_INITIALIZED, "check fail, do nothing");
  {
    const std::lock_guard lock(g_init_lock);
    if (g_init_count == 0) {
      clear_table();
      g_init_count = 1;
    }
  }
  // Each call rebuilds the contexts of all connections, even if the table was set up already.
  vs_init();
  sar_init();
  nas_0_init();
  nas_1_init();
  return operation.exit(MODEM_API_SUCCESS);
}

// Compatibility: this neither frees records nor releases connections.
modem_api_result modem_api_release() {
  Operation operation(PELMAR_HERE);
  {
    const std::lock_guard lock(g_init_lock);
    if (g_init_count >= 1) {
      clear_table();
      --g_init_count;
    }
  }
  return operation.exit(MODEM_API_SUCCESS);
}

modem_api_result modem_api_init_client(modem_api_client_type type, modem_api_event_cb event_cb,
                                       modem_api_status_cb status_cb, int32_t* client_id) {
  Operation operation(PELMAR_HERE);
  if (modem_api_check_white_list() == 0) return operation.fail(MODEM_API_ERR_NOT_INITIALIZED, "check fail, do nothing");
  void* const block = hydra_malloc_adv(sizeof(modem_api_client), __func__, __LINE__);
  if (block == nullptr) return operation.fail(MODEM_API_ERR_NO_MEMORY, "could not allocate memory");
  TracedPtr<modem_api_client> record(new (block) modem_api_client{});
  if (type >= MODEM_API_CLIENT_TYPES) {
    PELMAR_LOG_ERROR("modem api client type %d not supported", static_cast<int>(type));
    record.reset();
    return operation.exit(MODEM_API_ERR_NOT_SUPPORTED);
  }
  record->type = type;
  record->pid = getpid();
  record->event_cb = event_cb;
  record->status_cb = status_cb;
  int32_t id = 0;
  const modem_api_client* const own = record.get();
  const modem_api_result added = add_record(operation, std::move(record), &id);
  if (added != MODEM_API_SUCCESS) return operation.exit(added);

  const ClientType& row = kClientTypes[type];
  row.set_status_callback(modem_api_operational_status_cb);
  if (!row.init(event_cb)) {
    {
      const std::lock_guard lock(g_client_table.lock);
      ClientSlot& slot = g_client_table.slots[static_cast<size_t>(id)];
      // The slot may belong to another client now: modem_api_release() may empty the table at any time.
      modem_api_client* const failed = slot.get() == own ? slot.claim() : nullptr;
      if (failed != nullptr) slot.remove(failed);
    }
    return operation.exit(MODEM_API_ERR_GENERIC);
  }
  *client_id = id;
  PELMAR_LOG_DEBUG("new client: type %d, id %d", static_cast<int>(type), id);
  if (row.subscription >= 0) modem_api_util_enable_networking_indications(id, row.subscription);
  return operation.exit(MODEM_API_SUCCESS);
}

modem_api_result modem_api_free_client(int32_t client_id) {
  Operation operation(PELMAR_HERE);
  PELMAR_LOG_DEBUG("client_id %d", client_id);
  ClientSlot* const slot = g_client_table.slot_of(client_id);
  if (slot == nullptr) {
    PELMAR_LOG_ERROR("invalid client_id %d", client_id);
    return operation.exit(MODEM_API_ERR_INVALID_CLIENT);
  }
  modem_api_client* record;
  {
    const std::lock_guard lock(g_client_table.lock);
    record = slot->claim();
  }
  if (record == nullptr) return operation.fail(MODEM_API_SUCCESS, "client already freed");
  // We do not hold the table lock: the release waits for callbacks, which may need it.
  if (record->type < MODEM_API_CLIENT_TYPES) kClientTypes[record->type].release();
  {
    const std::lock_guard lock(g_client_table.lock);
    slot->remove(record);
  }
  return operation.exit(MODEM_API_SUCCESS);
}

void modem_api_operational_status_cb(uint32_t client_type, uint32_t status) {
  Operation operation(PELMAR_HERE);
  const uint32_t notice = status == OPERATIONAL_STATUS_UP ? MODEM_API_NOTICE_SERVICE_UP : MODEM_API_NOTICE_SERVICE_DOWN;
  for (int32_t id = 0; id < MODEM_API_MAX_CLIENTS; ++id) {
    ClientSlot& slot = g_client_table.slots[static_cast<size_t>(id)];
    const modem_api_status_cb callback = update_status(operation, slot, id, client_type, status);
    // The callback may free its client, so we do not use the record any more.
    if (callback != nullptr) callback(notice, client_type);
  }
}
