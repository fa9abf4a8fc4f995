// A process with a client of each type: threads that run the operations of a table, each with items of its own.
#include <array>
#include <vector>

#include "chaos/clients.h"
#include "chaos/journal.h"
#include "chaos/owned_items.h"
#include "chaos/party.h"
#include "chaos/random.h"
#include "chaos/statistic_stamp.h"

namespace pelmar::system_test::chaos {

namespace {

// One thread of the process.
struct Worker {
  Clients& clients;
  Random random;
  std::vector<OwnedItem> items;
  uint32_t feature;
  uint32_t stats_client_id = 0;

  int32_t vs() const { return clients.vs(); }
  int32_t nas(int32_t sub) const { return clients.id(sub == 0 ? MODEM_API_CLIENT_NAS_0 : MODEM_API_CLIENT_NAS_1); }
  OwnedItem& item() { return items[random.between(0, static_cast<uint32_t>(items.size()) - 1)]; }
  int32_t sub() { return static_cast<int32_t>(random.between(0, 1)); }
  uint8_t flag() { return static_cast<uint8_t>(random.between(0, 1)); }
};

// --- items ---

void write_item(Worker& worker) {
  worker.item().write(worker.vs(), worker.random);
}

void read_item(Worker& worker) {
  worker.item().read(worker.vs(), worker.random);
}

void delete_item(Worker& worker) {
  worker.item().remove(worker.vs());
}

void read_item_of_others(Worker& worker) {
  read_foreign_item(worker.vs(), kClientsProcesses * kWorkers, worker.random);
}

void sync_efs(Worker& worker) {
  noted("efs sync", [&] { return modem_api_efs_sync(worker.vs(), 0, 1, 2); });
}

// --- commands and events ---

std::vector<uint8_t> random_payload(Random& random) {
  std::vector<uint8_t> payload(random.between(0, MODEM_API_MAX_PASS_THROUGH_BYTES));
  for (uint8_t& byte : payload) byte = static_cast<uint8_t>(random.next());
  return payload;
}

void pass_through(Worker& worker) {
  const auto payload = random_payload(worker.random);
  noted("command",
        [&] { return modem_api_common_command(worker.vs(), payload.data(), static_cast<int32_t>(payload.size())); });
}

void pass_through_async(Worker& worker) {
  const auto payload = random_payload(worker.random);
  worker.clients.send_async(payload.data(), static_cast<int32_t>(payload.size()));
}

// A command of one service to the client of another must be refused.
void send_to_the_wrong_client(Worker& worker) {
  const int32_t sar = worker.clients.id(MODEM_API_CLIENT_SAR);
  const auto result = noted("wrong client", [&] { return modem_api_common_command(sar, nullptr, 0); });
  if (sar >= 0 && result != MODEM_API_ERR_INVALID_CLIENT) journal().problem("a SAR client took another's command");
}

int32_t random_event(Random& random) {
  return static_cast<int32_t>(random.between(MODEM_API_EVENT_VS_STATUS, MODEM_API_EVENT_COUNT));
}

void add_event(Worker& worker) {
  const int32_t event = random_event(worker.random);
  noted("add event", [&] { return modem_api_add_modem_event(worker.vs(), event); });
}

void remove_event(Worker& worker) {
  const int32_t event = random_event(worker.random);
  noted("remove event", [&] { return modem_api_remove_modem_event(worker.vs(), event); });
}

void set_event_report(Worker& worker) {
  noted("set event report", [&] { return modem_api_set_vs_event_report(worker.vs()); });
}

void register_networking_indications(Worker& worker) {
  const int32_t sub = worker.sub();
  noted("networking indications", [&] { return modem_api_util_enable_networking_indications(worker.nas(sub), sub); });
}

// --- radio ---

void set_sar_state(Worker& worker) {
  const uint32_t state = worker.random.between(0, 8);
  noted("sar state", [&] { return modem_api_set_sar_rf_state(worker.clients.id(MODEM_API_CLIENT_SAR), state); });
}

void get_drx(Worker& worker) {
  constexpr uint32_t kOfFirstSubscription = 7;
  uint8_t valid = 0;
  uint32_t drx = 0;
  const auto result = noted("get drx", [&] { return modem_api_get_drx(worker.nas(0), &valid, &drx); });
  if (result == MODEM_API_SUCCESS && drx != (valid != 0 ? kOfFirstSubscription : 0)) {
    journal().problem("a DRX of " + std::to_string(drx));
  }
}

void get_cell_info(Worker& worker) {
  constexpr uint16_t kMaxCell = 503;
  const int32_t sub = worker.sub();
  std::array<uint16_t, 8> intra{};
  std::array<uint16_t, 3> earfcns{};
  std::array<uint16_t, 24> inter{};
  uint8_t has_advance = 0;
  uint8_t has_nr = 0;
  uint32_t advance = 0;
  uint32_t nr = 0;
  noted("get cell info", [&] {
    return modem_api_get_cell_info(worker.nas(sub), sub, intra.data(), earfcns.data(), inter.data(), &has_advance,
                                   &advance, &has_nr, &nr);
  });
  for (const uint16_t cell : intra) {
    if (cell > kMaxCell) journal().problem("a cell of number " + std::to_string(cell));
  }
}

void lock_cells(Worker& worker) {
  std::array<uint32_t, MODEM_API_MAX_LOCKED_CELLS> cells{};
  const uint32_t count = worker.random.between(0, cells.size());
  const int32_t sub = worker.sub();
  noted("lock cells", [&] {
    return modem_api_set_lte_cell_lock(worker.nas(sub), static_cast<uint32_t>(sub), count, cells.data(), cells.data());
  });
}

void avoid_trm(Worker& worker) {
  const int32_t sub = worker.sub();
  const uint8_t value = worker.flag();
  noted("avoid trm", [&] { return modem_api_set_avoid_trm(worker.nas(sub), sub, value); });
}

void disable_nr(Worker& worker) {
  const int32_t sub = worker.sub();
  const auto mode = static_cast<int32_t>(worker.random.between(0, 3));
  noted("disable nr", [&] { return modem_api_set_nr_disable_mode(worker.nas(sub), sub, mode); });
}

void notify_shutdown(Worker& worker) {
  noted("notify shutdown", [&] { return modem_api_notify_shutdown(worker.vs()); });
}

void reset_modem(Worker& worker) {
  noted("reset modem", [&] { return modem_api_reset_modem(worker.vs()); });
}

// --- statistics ---

uint32_t random_statistic(Random& random) {
  return random.element(sim::statistic_rows()).id;
}

void get_feature(Worker& worker) {
  uint8_t enabled = 2;
  uint8_t effective = 2;
  const auto result = noted("get feature", [&] {
    return modem_api_get_hydra_feature_status(worker.vs(), worker.feature, &enabled, &effective);
  });
  const uint8_t most = result == MODEM_API_SUCCESS ? 1 : 2;
  if (enabled > most || effective != enabled) journal().problem("a feature that is neither on nor off");
}

void set_feature(Worker& worker) {
  const uint8_t on = worker.flag();
  noted("set feature", [&] { return modem_api_set_hydra_feature_status(worker.vs(), worker.feature, on, on, on); });
}

void switch_reporting(Worker& worker) {
  const uint8_t on = worker.flag();
  noted("switch reporting",
        [&] { return modem_api_set_modem_stats_report_status(worker.vs(), on, &worker.stats_client_id); });
}

void register_statistics(Worker& worker) {
  std::array<modem_api_stats_registration, MODEM_API_STATS_REGISTRATIONS> records{};
  const uint32_t count = worker.random.between(1, records.size());
  for (auto& record : records) record.id = random_statistic(worker.random);
  const auto sub = static_cast<uint16_t>(worker.sub());
  noted("register statistics", [&] {
    return modem_api_register_modem_stats_data(worker.vs(), worker.stats_client_id, 1, sub, 0, 0, records.data(),
                                               count);
  });
}

void deregister_statistics(Worker& worker) {
  const uint32_t id = random_statistic(worker.random);
  noted("deregister statistics",
        [&] { return modem_api_deregister_modem_stats_data(worker.vs(), worker.stats_client_id, 0, 0, 0, 0, &id, 1); });
}

void get_statistics(Worker& worker) {
  const auto sub = static_cast<uint16_t>(worker.sub());
  const auto slot = static_cast<uint16_t>(worker.random.next());
  const uint32_t count = worker.random.between(1, MODEM_API_STATS_ENTRIES);
  std::array<uint32_t, MODEM_API_STATS_ENTRIES> ids{};
  stats_para_data data{};
  data.para_num = count;
  for (uint32_t i = 0; i < count; ++i) data.entries[i].id = ids[i] = random_statistic(worker.random);
  const auto result =
      noted("get statistics", [&] { return modem_api_get_stats_parameter(worker.vs(), sub, slot, &data); });
  if (result != MODEM_API_SUCCESS) return;
  if (data.para_num != count) return journal().problem("statistics of another number");
  for (uint32_t i = 0; i < count; ++i) {
    const stats_para_entry& entry = data.entries[i];
    const bool is_own = entry.id == ids[i] && entry.sub == sub;
    if (!is_own || (entry.value_len > 0 && !is_stamped_right(entry.value[0], sub, ids[i]))) {
      journal().problem("asked for statistic " + std::to_string(ids[i]) + " and was given " + std::to_string(entry.id));
    }
  }
}

void clear_statistics(Worker& worker) {
  const uint32_t id = random_statistic(worker.random);
  const auto sub = static_cast<uint16_t>(worker.sub());
  noted("clear statistics", [&] { return modem_api_clear_stats_parameter(worker.vs(), sub, 0, 1, &id); });
}

struct Operation {
  uint32_t weight;
  void (*run)(Worker& worker);
};

constexpr Operation kOperations[] = {
    {1000, write_item},
    {1000, read_item},
    {400, delete_item},
    {600, read_item_of_others},
    {50, sync_efs},
    {300, pass_through},
    {500, pass_through_async},
    {50, send_to_the_wrong_client},
    {100, add_event},
    {80, remove_event},
    {100, set_event_report},
    {50, register_networking_indications},
    {200, set_sar_state},
    {200, get_drx},
    {200, get_cell_info},
    {50, lock_cells},
    {100, avoid_trm},
    {100, disable_nr},
    {30, notify_shutdown},
    {1, reset_modem},
    {100, get_feature},
    {100, set_feature},
    {100, switch_reporting},
    {100, register_statistics},
    {100, deregister_statistics},
    {300, get_statistics},
    {50, clear_statistics},
};

class ClientsParty final : public Party {
 public:
  ClientsParty(uint64_t seed, uint32_t process, size_t workers) {
    for (uint32_t i = 0; i < workers; ++i) {
      const uint32_t number = process * kWorkers + i;
      workers_.push_back({clients_, Random(seed, number), own_items(number), number + 10});
    }
  }

  void open() override { clients_.open(); }
  void tend() override { clients_.tend(); }
  void run_operation(size_t worker) override {
    workers_[worker].random.row(std::span(kOperations)).run(workers_[worker]);
  }
  void verify() override {
    clients_.wait_until_all_work();
    for (Worker& worker : workers_) {
      for (OwnedItem& item : worker.items) item.verify(clients_.vs());
    }
  }
  void close() override { clients_.close(); }
  size_t abandoned_blocks() const override { return clients_.abandoned_blocks(); }

 private:
  Clients clients_;
  std::vector<Worker> workers_;
};

}  // namespace

std::unique_ptr<Party> make_clients_party(uint64_t seed, uint32_t process, size_t workers) {
  return std::make_unique<ClientsParty>(seed, process, workers);
}

}  // namespace pelmar::system_test::chaos
