// A client process of a chaos run: its clients and workers, and what the library may hold of it while nothing is open.
//
// SAR and NAS clients come back by themselves; only one that gave up is opened again. The vendor-specific client, which
// is hydra's too, does not: one whose commands all fail is freed and opened again, though never while an asynchronous
// command is pending, which a release would swallow. The main thread opens, tends and closes clients; any thread uses
// their ids.
//
// An item belongs to one worker. A write or a delete that succeeded has happened; one that failed has happened or has
// not. So an item is one of its candidates, each the serial number of a content, or absent. A read shows which.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "chaos/chaos.h"
#include "hydra_mem.h"
#include "modem_hydra.h"
#include "nas_client.h"
#include "vs_client.h"

namespace pelmar::system_test::chaos {

namespace {

constexpr uint32_t kWorkers = 4;  // threads of a process
constexpr std::chrono::seconds kPatience{90};
// A command gives up after 30 s. Here none may: a restart of the service ends each call whose response is lost.
constexpr std::chrono::seconds kCallLimit{25};
constexpr std::chrono::seconds kOpenLimit{120};  // ten attempts, each of some exchanges that may get no response
constexpr int kTendIntervalMs = 20;
constexpr std::chrono::microseconds kPause{500};  // between two operations of a worker
constexpr int kProbesOfALostClient = 3;
constexpr uint32_t kItemsOfAnOwner = 12;
constexpr uint32_t kMostNumbersOfAnOwner = 100;

std::atomic<uint64_t> calls;
std::atomic<uint64_t> successes;
// Traced blocks that the library has handed over to nobody: two of each asynchronous send that was refused.
std::atomic<int64_t> abandoned_blocks;

void problem(const std::string& text) {
  static std::atomic<int> left{20};
  if (left-- > 0) std::cout << "problem: " + text + "\n" << std::flush;
}

// Makes a call of the library. Its result or its duration may be a problem.
modem_api_result noted(const char* name, const std::function<modem_api_result()>& call,
                       Clock::duration limit = kCallLimit) {
  const auto start = Clock::now();
  const modem_api_result result = call();
  const std::chrono::duration<double> took = Clock::now() - start;
  ++calls;
  if (result == MODEM_API_SUCCESS) ++successes;
  const bool is_listed = result >= MODEM_API_SUCCESS && result <= MODEM_API_ERR_ALREADY_INITIALIZED;
  if (!is_listed || result == MODEM_API_RESP_END) problem(std::string(name) + " returned " + std::to_string(result));
  if (took > limit) problem(std::string(name) + " took " + std::to_string(took.count()) + " s");
  return result;
}

// Waits for what the library may still be doing; a problem where it does not come in time.
void expect_soon(const char* what, const std::function<bool()>& condition) {
  for (const auto limit = Clock::now() + kPatience; !condition(); std::this_thread::sleep_for(20 * kPause)) {
    if (Clock::now() > limit) return problem(what);
  }
}

struct ClientKind {
  void (*prepare)();
  void (*set_status_callback)(modem_api_operational_status_fn callback);
  modem_api_result (*probe)(int32_t client);
};

constexpr ClientKind kKinds[MODEM_API_CLIENT_TYPES] = {
    {[] { vs_init(); }, [](modem_api_operational_status_fn) {},
     [](int32_t client) { return modem_api_common_command(client, nullptr, 0); }},
    {sar_init, sar_client_set_operational_status_callback,
     [](int32_t client) { return modem_api_set_sar_rf_state(client, 1); }},
    {nas_0_init, nas_0_client_set_operational_status_callback,
     [](int32_t client) { return modem_api_set_avoid_trm(client, 0, 0); }},
    {nas_1_init, nas_1_client_set_operational_status_callback,
     [](int32_t client) { return modem_api_set_avoid_trm(client, 1, 0); }},
};

std::array<std::atomic<int32_t>, MODEM_API_CLIENT_TYPES> ids{-1, -1, -1, -1};
std::array<std::atomic<uint32_t>, MODEM_API_CLIENT_TYPES> last_status;  // IDLE: none since the client was opened
std::atomic<int> pending_commands;
std::mutex event_lock;
std::map<uint32_t, std::vector<uint32_t>> event_numbers;  // of the test's events that came since the last settling

int32_t vs() {
  return ids[MODEM_API_CLIENT_VS];
}

// A client that comes back reports the way there in this order. An opened client may start anywhere in it.
void take_status(uint32_t type, uint32_t status) {
  modem_api_operational_status_cb(type, status);
  const uint32_t before = last_status[type].exchange(status);
  const bool is_next = before == OPERATIONAL_STATUS_RECONNECTING
                           ? status == OPERATIONAL_STATUS_UP || status == OPERATIONAL_STATUS_RECONNECT_FAILED
                           : status == before + 1;
  if (is_next || before == OPERATIONAL_STATUS_IDLE || status == OPERATIONAL_STATUS_IDLE) return;
  problem("client " + std::to_string(type) + " reports status " + std::to_string(status) + " after " +
          std::to_string(before));
}

void check_stamp(uint32_t version, uint32_t sub, uint32_t id) {
  if (!is_stamped_right(version, sub, id)) problem("another value came as statistic " + std::to_string(id));
}

void take_event(uint32_t event, const uint8_t* payload, uint32_t length) {
  uint32_t number = 0;
  std::memcpy(&number, payload, std::min<size_t>(length, sizeof(number)));
  if (event == MODEM_API_EVENT_VS_REPORT_A) {
    const auto& report = *reinterpret_cast<const modem_api_vs_report_a_event*>(payload);
    for (const modem_api_event_record& record : std::span(report.records).first(report.record_count)) {
      if (record.data_len != 0) check_stamp(record.data[0], record.sub, record.id);
    }
  }
  const bool is_byte = event == MODEM_API_EVENT_VS_REPORT_C;
  if (!is_byte && number < kFirstEvent) return;  // a report of the modem's own
  const std::lock_guard guard(event_lock);
  std::vector<uint32_t>& numbers = event_numbers[event];
  if (!is_byte && !numbers.empty() && number <= numbers.back()) {
    problem("event " + std::to_string(event) + " number " + std::to_string(number) + " after a later one");
  }
  numbers.push_back(number);
}

// An asynchronous pass-through command that is pending. Its response must be its own payload.
struct AsyncCommand {
  std::vector<uint8_t> payload;
  bool has_data = false;
};

void take_response(const uint8_t* data, uint32_t length, void* user_data, uint32_t result) {
  auto* const command = static_cast<AsyncCommand*>(user_data);
  if (result == MODEM_API_SUCCESS) {
    const bool is_own = std::equal(data, data + length, command->payload.begin(), command->payload.end());
    if (!is_own || command->has_data) problem("an asynchronous command got a response that is not its own");
    command->has_data = true;
    return hydra_free_adv(const_cast<uint8_t*>(data), __func__, __LINE__);
  }
  if (data != nullptr || command->has_data != (result == MODEM_API_RESP_END)) {
    problem("an asynchronous exchange ended with " + std::to_string(result) + " out of order");
  }
  --pending_commands;
  delete command;
}

// --- items ---

class OwnedItem {
 public:
  explicit OwnedItem(uint32_t number) : number_(number) {}

  modem_api_result write(Random& random) {
    last_serial_ += random.between(1, 1000);
    const std::vector<uint8_t> content = content_of(last_serial_);
    const auto length = static_cast<uint32_t>(content.size());
    return note(call(modem_api_write_nv, modem_api_write_efs_path, content.data(), length), last_serial_);
  }

  modem_api_result remove() { return note(call(modem_api_delete_nv, modem_api_delete_efs_path), kAbsent); }

  // Content that is not this item's, whole, is a problem for anyone who reads it.
  modem_api_result read(bool is_owner) {
    std::vector<uint8_t> bytes(MODEM_API_MAX_ITEM_BYTES);
    uint32_t length = MODEM_API_MAX_ITEM_BYTES;
    const modem_api_result result = call(modem_api_read_nv, modem_api_read_efs_path, bytes.data(), &length);
    if (result != MODEM_API_SUCCESS) return result;
    bytes.resize(std::min<size_t>(length, bytes.size()));
    uint32_t serial = 0;
    std::memcpy(&serial, bytes.data(), std::min(sizeof(serial), bytes.size()));
    if (bytes != content_of(serial)) {
      problem(text() + " holds " + std::to_string(length) + " bytes that are not its own");
    } else if (is_owner) {
      expect(serial);
    }
    return result;
  }

  // With a modem that works: the item is one of its candidates.
  void verify() {
    const modem_api_result result = noted("verify item", [&] { return read(true); });
    if (result == MODEM_API_ERR_GENERIC) return expect(kAbsent);
    if (result != MODEM_API_SUCCESS) problem(text() + " cannot be read: " + std::to_string(result));
  }

 private:
  static constexpr uint32_t kAbsent = 0;

  std::string text() const { return "item " + std::to_string(number_); }

  // An operation on the item, which is an NV item or a file.
  modem_api_result call(auto nv, auto path, auto... data) const {
    if (number_ % 2 == 0) return nv(vs(), number_, number_ % 3, number_ % 7, data...);
    const std::string name = "/chaos/" + std::to_string(number_ / 100) + '/' + std::to_string(number_);
    return path(vs(), name.c_str(), number_ % 3, 0, data...);
  }

  // The serial, then bytes that follow from it and the number.
  std::vector<uint8_t> content_of(uint32_t serial) const {
    Random filler(serial, number_);
    std::vector<uint8_t> bytes(filler.between(sizeof(serial), MODEM_API_MAX_ITEM_BYTES));
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(filler()); });
    std::memcpy(bytes.data(), &serial, sizeof(serial));
    return bytes;
  }

  modem_api_result note(modem_api_result result, uint32_t outcome) {
    if (result == MODEM_API_ERR_INVALID_CLIENT) return result;  // nothing was sent
    if (result == MODEM_API_SUCCESS) candidates_.clear();
    candidates_.insert(outcome);
    return result;
  }

  void expect(uint32_t found) {
    if (!candidates_.contains(found)) problem(text() + " is none of its candidates, but " + std::to_string(found));
    candidates_ = {found};
  }

  const uint32_t number_;
  uint32_t last_serial_ = 0;
  std::set<uint32_t> candidates_ = {kAbsent};
};

// --- operations ---

struct Worker {
  Random random;
  std::vector<OwnedItem> items;
  uint32_t stats_client_id = 0;

  OwnedItem& item() { return items[random() % items.size()]; }
  uint16_t bit() { return static_cast<uint16_t>(random.between(0, 1)); }  // a subscription or a flag
  int32_t event() { return static_cast<int32_t>(random.between(MODEM_API_EVENT_VS_STATUS, MODEM_API_EVENT_COUNT)); }
  std::vector<uint8_t> payload() {
    std::vector<uint8_t> bytes(random.between(0, MODEM_API_MAX_PASS_THROUGH_BYTES));
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    return bytes;
  }
};

modem_api_result read_item_of_others(Worker& worker) {
  const uint32_t owner = worker.random.between(1, kProcesses * kWorkers);
  return OwnedItem(owner * kMostNumbersOfAnOwner + worker.random.between(0, kItemsOfAnOwner - 1)).read(false);
}

modem_api_result send_command(Worker& worker) {
  const auto payload = worker.payload();
  return modem_api_common_command(vs(), payload.data(), static_cast<int32_t>(payload.size()));
}

modem_api_result send_async(Worker& worker) {
  auto* const command = new AsyncCommand{worker.payload()};
  const auto length = static_cast<int32_t>(command->payload.size());
  ++pending_commands;
  const auto result = modem_api_common_command_async(vs(), command->payload.data(), length, command, take_response);
  if (result == MODEM_API_SUCCESS) return result;
  if (result != MODEM_API_ERR_INVALID_CLIENT) abandoned_blocks += 2;  // the client is checked before they are taken
  --pending_commands;
  delete command;
  return result;
}

modem_api_result get_drx(Worker&) {
  uint8_t valid = 0;
  uint32_t drx = 0;
  const auto result = modem_api_get_drx(ids[MODEM_API_CLIENT_NAS_0], &valid, &drx);
  if (valid != 0 && drx != 7) problem("the first subscription has a DRX of " + std::to_string(drx));
  return result;
}

modem_api_result register_statistics(Worker& worker) {
  modem_api_stats_registration records[MODEM_API_STATS_REGISTRATIONS]{};
  for (auto& record : records) record.id = worker.random.element(kStatistics).id;
  const uint32_t count = worker.random.between(1, MODEM_API_STATS_REGISTRATIONS);
  return modem_api_register_modem_stats_data(vs(), worker.stats_client_id, 1, worker.bit(), 0, 0, records, count);
}

modem_api_result get_statistics(Worker& worker) {
  const uint16_t sub = worker.bit();
  stats_para_data data{};
  data.para_num = worker.random.between(1, MODEM_API_STATS_ENTRIES);
  for (uint32_t i = 0; i < data.para_num; ++i) data.entries[i].id = worker.random.element(kStatistics).id;
  const stats_para_data requested = data;
  const auto result = modem_api_get_stats_parameter(vs(), sub, 1, &data);
  if (result != MODEM_API_SUCCESS) return result;
  if (data.para_num != requested.para_num) problem("statistics of another number");
  for (uint32_t i = 0; i < requested.para_num; ++i) {
    const stats_para_entry& entry = data.entries[i];
    const bool is_own = entry.id == requested.entries[i].id && entry.sub == sub && entry.value_len != 0;
    if (!is_own) problem("statistic " + std::to_string(entry.id) + " of another place");
    check_stamp(entry.value[0], sub, requested.entries[i].id);
  }
  return result;
}

template <typename Record>
bool read_hydra(uint8_t (*get)(uint32_t sub, Record* record), uint32_t sub, uint32_t id) {
  Record record{};
  const bool is_read = get(sub, &record) != 0;
  check_stamp(record.version, sub, id);
  return is_read;
}

constexpr bool (*kHydraCalls[])(uint32_t sub) = {
    [](uint32_t sub) { return read_hydra(modem_hydra_lte_srv_meas_info_get_for_pcc, sub, 0x52); },
    [](uint32_t sub) { return read_hydra(modem_hydra_lte_srv_meas_info_get_for_scc6, sub, 0x6c); },
    [](uint32_t sub) { return read_hydra(modem_hydra_nr5g_srv_meas_info_get_for_pcc, sub, 0x87); },
    [](uint32_t sub) { return read_hydra(modem_hydra_mcs_trm_asdiv_get, sub, 0x64); },
    [](uint32_t sub) { return modem_sys_mode_get(sub) != MODEM_SYS_MODE_UNKNOWN; },
    [](uint32_t) { return modem_tx_power_get_for_max_sub() != MODEM_TX_POWER_NONE; },
    [](uint32_t) { return modem_hydra_stats_start() != 0 && modem_hydra_stats_is_started() != 0; },
    [](uint32_t) { return modem_hydra_stats_id_alloc() != 0; },
    [](uint32_t) {
      modem_hydra_stats_id_free();
      return true;
    },
};

// Hydra is used by one thread at a time. A reading would open a closed one, which drops the process's clients.
modem_api_result call_hydra(Worker& worker) {
  static std::mutex lock;
  const std::lock_guard guard(lock);
  if (modem_hydra_api_is_inited() == 0) return MODEM_API_ERR_NOT_READY;
  return worker.random.element(kHydraCalls)(worker.bit()) ? MODEM_API_SUCCESS : MODEM_API_ERR_GENERIC;
}

struct Operation {
  uint32_t weight;
  const char* name;
  modem_api_result (*run)(Worker& worker);
};

constexpr Operation kOperations[] = {
    {1000, "write item", [](Worker& worker) { return worker.item().write(worker.random); }},
    {1000, "read item", [](Worker& worker) { return worker.item().read(true); }},
    {400, "delete item", [](Worker& worker) { return worker.item().remove(); }},
    {600, "read item of others", read_item_of_others},
    {50, "efs sync", [](Worker&) { return modem_api_efs_sync(vs(), 0, 1, 2); }},
    {300, "command", send_command},
    {500, "async command", send_async},
    {100, "add event", [](Worker& worker) { return modem_api_add_modem_event(vs(), worker.event()); }},
    {80, "remove event", [](Worker& worker) { return modem_api_remove_modem_event(vs(), worker.event()); }},
    {100, "set event report", [](Worker&) { return modem_api_set_vs_event_report(vs()); }},
    {200, "sar state", [](Worker&) { return modem_api_set_sar_rf_state(ids[MODEM_API_CLIENT_SAR], 3); }},
    {200, "get drx", get_drx},
    {100, "nr mode", [](Worker&) { return modem_api_set_nr_disable_mode(ids[MODEM_API_CLIENT_NAS_1], 1, 0); }},
    {30, "notify shutdown", [](Worker&) { return modem_api_notify_shutdown(vs()); }},
    {1, "reset modem", [](Worker&) { return modem_api_reset_modem(vs()); }},
    {100, "switch reporting",
     [](Worker& worker) {
       const auto report = static_cast<uint8_t>(worker.bit());
       return modem_api_set_modem_stats_report_status(vs(), report, &worker.stats_client_id);
     }},
    {100, "register statistics", register_statistics},
    {300, "get statistics", get_statistics},
    {300, "hydra", call_hydra},
};

// --- clients ---

modem_api_result probe(uint32_t type) {
  return noted("probe", [&] { return kKinds[type].probe(ids[type]); });
}

// A command that fails for a reason of its own shows that the connection is there.
bool is_lost(uint32_t type) {
  if (type != MODEM_API_CLIENT_VS) return ids[type] < 0 || last_status[type] == OPERATIONAL_STATUS_RECONNECT_FAILED;
  for (int i = 0; i < kProbesOfALostClient; ++i) {
    const modem_api_result result = probe(type);
    if (result != MODEM_API_ERR_GENERIC && result != MODEM_API_ERR_INVALID_CLIENT) return false;
  }
  return true;
}

void open_client(uint32_t type) {
  int32_t id = -1;
  last_status[type] = OPERATIONAL_STATUS_IDLE;
  const auto init = [&] { return modem_api_init_client(type, take_event, nullptr, &id); };
  noted("init client", init, kOpenLimit);
  if (id < 0) return kKinds[type].prepare();  // for the next attempt
  ids[type] = id;
  kKinds[type].set_status_callback(take_status);
}

std::vector<Worker> workers;
std::shared_mutex sending;  // shared by asynchronous senders; exclusive: nobody sends

// Hydra first, as it drops all other clients. Its client, the first in the table, is the vendor-specific one.
void open_all() {
  noted(
      "init hydra", [] { return modem_hydra_api_init_ex(take_event, nullptr) ? 0 : MODEM_API_ERR_GENERIC; },
      kOpenLimit);
  if (modem_hydra_api_is_inited() != 0) ids[MODEM_API_CLIENT_VS] = 0;
  for (uint32_t type = 0; type < MODEM_API_CLIENT_TYPES; ++type) {
    if (ids[type] < 0) open_client(type);
  }
}

// Opens again what was lost.
void tend() {
  for (uint32_t type = 0; type < MODEM_API_CLIENT_TYPES; ++type) {
    if (!is_lost(type)) continue;
    const std::unique_lock nobody_sends(sending);
    if (type == MODEM_API_CLIENT_VS && pending_commands != 0) continue;
    if (ids[type] >= 0) modem_api_free_client(ids[type].exchange(-1));
    kKinds[type].prepare();
    open_client(type);
  }
}

void close_all() {
  for (auto& id : ids) modem_api_free_client(id.exchange(-1));
  modem_hydra_api_deinit();
}

void run_operation(Worker& worker) {
  const Operation& operation = worker.random.row(kOperations);
  std::shared_lock sends(sending, std::defer_lock);
  if (operation.run == send_async) sends.lock();
  noted(operation.name, [&] { return operation.run(worker); });
}

// Runs the workers until there is a line to read.
void run_storm() {
  std::atomic<bool> is_storm{true};
  std::atomic<uint32_t> working{kWorkers};
  std::vector<std::thread> threads;
  for (Worker& worker : workers) {
    threads.emplace_back([&] {
      for (; is_storm; std::this_thread::sleep_for(kPause)) run_operation(worker);
      --working;
    });
  }
  pollfd input{STDIN_FILENO, POLLIN, 0};
  while (poll(&input, 1, kTendIntervalMs) == 0) tend();
  is_storm = false;
  for (; working != 0; std::this_thread::sleep_for(kPause)) tend();
  for (std::thread& thread : threads) thread.join();
}

// Whether all works again; then the events that count begin.
bool is_settled() {
  const auto is_up = [](uint32_t type) { return probe(type) == MODEM_API_SUCCESS; };
  if (!is_up(0) || !is_up(1) || !is_up(2) || !is_up(3) || pending_commands != 0) {
    tend();
    return false;
  }
  for (const int32_t event : {3, 4, 5}) modem_api_add_modem_event(vs(), event);
  modem_api_set_vs_event_report(vs());
  const std::lock_guard guard(event_lock);
  event_numbers.clear();
  return true;
}

void verify(uint32_t first_event, uint32_t last_event) {
  for (const uint32_t event : {2, 3, 4, 5}) {
    std::vector<uint32_t> expected;
    for (uint32_t i = first_event; i <= last_event; ++i) expected.push_back(event == 5 ? i & 0xFF : i);
    expect_soon("other events came than the modem sent", [&] {
      const std::lock_guard guard(event_lock);
      return event_numbers[event] == expected;
    });
  }
  for (Worker& worker : workers) {
    for (OwnedItem& item : worker.items) item.verify();
  }
}

// What the library holds: threads, open files, and traced blocks.
std::array<int64_t, 3> count_held() {
  const auto count_entries = [](const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
  };
  static std::string text(8 << 20, '\0');
  hydra_mem_trace_dump(text.data(), static_cast<int32_t>(text.size()));
  int64_t blocks = -abandoned_blocks;
  for (size_t at = text.find("<Trace"); at != text.npos; at = text.find("<Trace", at + 1)) ++blocks;
  return {count_entries("/proc/self/task"), count_entries("/proc/self/fd"), blocks};
}

}  // namespace

int run_client(char** arguments) {
  const uint64_t seed = std::strtoull(arguments[0], nullptr, 10);
  const auto process = static_cast<uint32_t>(std::atoi(arguments[1]));
  for (uint32_t owner = process * kWorkers + 1; owner <= (process + 1) * kWorkers; ++owner) {
    Worker& worker = workers.emplace_back(Worker{Random(seed, owner), {}});
    for (uint32_t i = 0; i < kItemsOfAnOwner; ++i) worker.items.emplace_back(owner * kMostNumbersOfAnOwner + i);
  }
  std::thread([] {}).join();  // with the first thread the thread sanitizer starts one of its own
  const auto held = count_held();

  std::setvbuf(stdin, nullptr, _IONBF, 0);  // poll() sees every line that was not read
  uint32_t first_event = 0;
  uint32_t last_event = 0;
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "storm") {
      open_all();
      run_storm();
    } else if (line == "pause") {
      expect_soon("what was lost did not come back", is_settled);
      std::cout << "paused" << std::endl;
    } else if (std::sscanf(line.c_str(), "verify %u %u", &first_event, &last_event) == 2) {
      verify(first_event, last_event);
      close_all();
      expect_soon("more threads, open files or traced blocks than at first", [&] { return count_held() == held; });
      if (successes == 0) problem("no call succeeded");
      std::cout << "verified; " << successes.exchange(0) << " of " << calls.exchange(0) << " calls succeeded"
                << std::endl;
    }
  }
  return 0;
}

}  // namespace pelmar::system_test::chaos
