// A client process of a chaos run: its clients and workers, and a check that the library holds nothing while no client
// is open.
//
// SAR and NAS clients reconnect by themselves; only one whose reconnection failed is opened again. The vendor-specific
// client does not reconnect: if all its commands fail, it is freed and opened again, but never while an asynchronous
// command is pending, because a release would drop it. The main thread opens and closes clients; all threads use their
// ids.
//
// An item belongs to one worker. A write or a delete that succeeded has taken effect; one that failed may have taken
// effect. So an item may have the content of any of these writes, or be absent.
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
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "chaos.h"
#include "hydra_mem.h"
#include "nas_client.h"
#include "pelmar_log.h"
#include "vs_client.h"

namespace pelmar::system_test::chaos {
namespace {

constexpr uint32_t kWorkers = 4;  // threads of a process
constexpr uint32_t kItems = 12;   // of a worker
constexpr std::chrono::seconds kTimeLimit{90};
// A command times out after 30 s. None may do so here: a restart of the service ends each call whose response is lost.
constexpr std::chrono::seconds kCallLimit{25};
constexpr std::chrono::seconds kOpenLimit{120};   // ten attempts, each of some exchanges that may get no response
constexpr std::chrono::microseconds kPause{500};  // between two operations of a worker

std::atomic<uint64_t> successes;  // of calls
// Traced blocks that nothing frees: two of each asynchronous send that was refused.
std::atomic<int64_t> leaked_blocks;

void problem(const std::string& text) {
  static std::atomic<int> left{20};
  if (left-- > 0) std::cout << "problem: " + text + "\n" << std::flush;
}

// Makes a call of the library and checks its result and its duration.
modem_api_result checked_call(const char* name, const std::function<modem_api_result()>& call,
                              Clock::duration limit = kCallLimit) {
  const auto start = Clock::now();
  const modem_api_result result = call();
  const std::chrono::duration<double> took = Clock::now() - start;
  if (result == MODEM_API_SUCCESS) ++successes;
  const bool is_listed = result >= MODEM_API_SUCCESS && result <= MODEM_API_ERR_ALREADY_INITIALIZED;
  if (!is_listed || result == MODEM_API_RESP_END) problem(std::string(name) + " returned " + std::to_string(result));
  if (took > limit) problem(std::string(name) + " took " + std::to_string(took.count()) + " s");
  return result;
}

// Waits until the condition holds. Reports a problem at the time limit.
void expect_soon(const char* what, const std::function<bool()>& condition) {
  for (const auto limit = Clock::now() + kTimeLimit; !condition(); std::this_thread::sleep_for(20 * kPause)) {
    if (Clock::now() > limit) return problem(what);
  }
}

// --- operations ---

std::array<std::atomic<int32_t>, MODEM_API_CLIENT_TYPES> ids{-1, -1, -1, -1};
std::array<std::atomic<uint32_t>, MODEM_API_CLIENT_TYPES> last_status;
std::atomic<int> pending_commands;

int32_t vs() {
  return ids[MODEM_API_CLIENT_VS];
}

struct Item {
  uint32_t number;
  std::set<uint32_t> possible = {0};  // numbers of writes; 0: absent
};

struct Worker {
  Random random;
  std::vector<Item> items;
  uint32_t writes = 0;

  Item& item() { return items[random() % items.size()]; }
  int32_t event() { return static_cast<int32_t>(random.between(MODEM_API_EVENT_VS_STATUS, MODEM_API_EVENT_COUNT)); }
};

// The number of the write, then bytes that are computed from it and the item.
std::vector<uint8_t> content_of(const Item& item, uint32_t write) {
  std::vector<uint8_t> bytes(sizeof(write) + write % 200, static_cast<uint8_t>(item.number + write));
  std::memcpy(bytes.data(), &write, sizeof(write));
  return bytes;
}

modem_api_result note_change(Item& item, modem_api_result result, uint32_t write) {
  if (result == MODEM_API_SUCCESS) item.possible.clear();
  item.possible.insert(write);
  return result;
}

modem_api_result write_item(Worker& worker) {
  Item& item = worker.item();
  const auto bytes = content_of(item, ++worker.writes);
  const auto length = static_cast<uint32_t>(bytes.size());
  return note_change(item, modem_api_write_nv(vs(), item.number, 0, 0, bytes.data(), length), worker.writes);
}

modem_api_result delete_item(Worker& worker) {
  Item& item = worker.item();
  return note_change(item, modem_api_delete_nv(vs(), item.number, 0, 0), 0);
}

modem_api_result read_item(const Item& item) {
  std::vector<uint8_t> bytes(MODEM_API_MAX_ITEM_BYTES);
  uint32_t length = MODEM_API_MAX_ITEM_BYTES;
  const auto result = modem_api_read_nv(vs(), item.number, 0, 0, bytes.data(), &length);
  if (result != MODEM_API_SUCCESS) return result;
  bytes.resize(std::min<size_t>(length, bytes.size()));
  uint32_t write = 0;
  std::memcpy(&write, bytes.data(), std::min(sizeof(write), bytes.size()));
  if (!item.possible.contains(write) || bytes != content_of(item, write)) {
    problem("item " + std::to_string(item.number) + " holds " + std::to_string(length) + " other bytes");
  }
  return result;
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

std::shared_mutex sending;  // locked shared by asynchronous senders, and exclusively to prevent sends

modem_api_result send_async(Worker& worker) {
  const std::shared_lock sends(sending);
  const uint32_t length = worker.random.between(0, MODEM_API_MAX_PASS_THROUGH_BYTES);
  auto* const command = new AsyncCommand{std::vector<uint8_t>(length, static_cast<uint8_t>(worker.random()))};
  ++pending_commands;
  const auto result = modem_api_common_command_async(vs(), command->payload.data(), static_cast<int32_t>(length),
                                                     command, take_response);
  if (result == MODEM_API_SUCCESS) return result;
  if (result != MODEM_API_ERR_INVALID_CLIENT) leaked_blocks += 2;  // the client is checked before they are allocated
  --pending_commands;
  delete command;
  return result;
}

struct Operation {
  uint32_t weight;
  const char* name;
  modem_api_result (*run)(Worker& worker);
};

constexpr Operation kOperations[] = {
    {1000, "write item", write_item},
    {1000, "read item", [](Worker& worker) { return read_item(worker.item()); }},
    {400, "delete item", delete_item},
    {500, "async command", send_async},
    {100, "add event", [](Worker& worker) { return modem_api_add_modem_event(vs(), worker.event()); }},
    {80, "remove event", [](Worker& worker) { return modem_api_remove_modem_event(vs(), worker.event()); }},
    {100, "set event report", [](Worker&) { return modem_api_set_vs_event_report(vs()); }},
    {200, "sar state", [](Worker&) { return modem_api_set_sar_rf_state(ids[MODEM_API_CLIENT_SAR], 3); }},
    {200, "avoid trm", [](Worker&) { return modem_api_set_avoid_trm(ids[MODEM_API_CLIENT_NAS_0], 0, 1); }},
    {200, "nr mode", [](Worker&) { return modem_api_set_nr_disable_mode(ids[MODEM_API_CLIENT_NAS_1], 1, 0); }},
    {1, "reset modem", [](Worker&) { return modem_api_reset_modem(vs()); }},
};

// --- clients ---

// Prepares an attempt to open a client.
constexpr void (*kPrepare[MODEM_API_CLIENT_TYPES])() = {[] { vs_init(); }, sar_init, nas_0_init, nas_1_init};

void take_event(uint32_t, const uint8_t*, uint32_t) {}

void take_status(uint32_t type, uint32_t status) {
  modem_api_operational_status_cb(type, status);
  last_status[type] = status;
}

modem_api_result probe(uint32_t type) {
  const int32_t id = ids[type];
  return checked_call("probe", [=] {
    if (type == MODEM_API_CLIENT_VS) return modem_api_common_command(id, nullptr, 0);
    if (type == MODEM_API_CLIENT_SAR) return modem_api_set_sar_rf_state(id, 1);
    return modem_api_set_avoid_trm(id, type == MODEM_API_CLIENT_NAS_0 ? 0 : 1, 0);
  });
}

// A command that fails for another reason than a lost connection shows that the connection exists.
bool is_lost(uint32_t type) {
  if (type != MODEM_API_CLIENT_VS) return ids[type] < 0 || last_status[type] == OPERATIONAL_STATUS_RECONNECT_FAILED;
  for (int i = 0; i < 3; ++i) {
    const modem_api_result result = probe(type);
    if (result != MODEM_API_ERR_GENERIC && result != MODEM_API_ERR_INVALID_CLIENT) return false;
  }
  return true;
}

void open_client(uint32_t type) {
  int32_t id = -1;
  last_status[type] = OPERATIONAL_STATUS_IDLE;
  const auto init = [&] { return modem_api_init_client(type, take_event, nullptr, &id); };
  checked_call("init client", init, kOpenLimit);
  ids[type] = id;
  if (type == MODEM_API_CLIENT_SAR) sar_client_set_operational_status_callback(take_status);
  if (type == MODEM_API_CLIENT_NAS_0) nas_0_client_set_operational_status_callback(take_status);
  if (type == MODEM_API_CLIENT_NAS_1) nas_1_client_set_operational_status_callback(take_status);
}

// Opens the clients that were lost.
void reopen_lost_clients() {
  for (uint32_t type = 0; type < MODEM_API_CLIENT_TYPES; ++type) {
    if (!is_lost(type)) continue;
    const std::unique_lock no_sends(sending);
    if (type == MODEM_API_CLIENT_VS && pending_commands != 0) continue;
    if (ids[type] >= 0) modem_api_free_client(ids[type].exchange(-1));
    kPrepare[type]();
    open_client(type);
  }
}

// Opens the clients and runs the workers until there is a line to read.
void run_workers(std::vector<Worker>& workers) {
  modem_api_init();
  std::atomic<bool> is_running{true};
  std::atomic<size_t> working{workers.size()};
  std::vector<std::thread> threads;
  for (Worker& worker : workers) {
    threads.emplace_back([&] {
      for (; is_running; std::this_thread::sleep_for(kPause)) {
        const Operation& operation = worker.random.row(kOperations);
        checked_call(operation.name, [&] { return operation.run(worker); });
      }
      --working;
    });
  }
  pollfd input{STDIN_FILENO, POLLIN, 0};
  while (poll(&input, 1, 20) == 0) reopen_lost_clients();
  is_running = false;
  for (; working != 0; std::this_thread::sleep_for(kPause)) reopen_lost_clients();
  for (std::thread& thread : threads) thread.join();
}

// Waits until all clients work, compares all items, and frees the clients.
void verify(std::vector<Worker>& workers) {
  expect_soon("the clients do not work again", [] {
    reopen_lost_clients();
    bool is_good = pending_commands == 0;
    for (uint32_t type = 0; is_good && type < MODEM_API_CLIENT_TYPES; ++type) is_good = probe(type) == 0;
    return is_good;
  });
  for (const Worker& worker : workers) {
    for (const Item& item : worker.items) {
      const auto result = checked_call("verify item", [&] { return read_item(item); });
      if (result == MODEM_API_SUCCESS || (result == MODEM_API_ERR_GENERIC && item.possible.contains(0))) continue;
      problem("item " + std::to_string(item.number) + " is lost: " + std::to_string(result));
    }
  }
  for (auto& id : ids) modem_api_free_client(id.exchange(-1));
}

// Counts the threads, the open files, and the traced blocks.
std::array<int64_t, 3> count_held() {
  const auto count_entries = [](const char* directory) {
    return std::distance(std::filesystem::directory_iterator(directory), std::filesystem::directory_iterator());
  };
  static std::string text(8 << 20, '\0');
  hydra_mem_trace_dump(text.data(), static_cast<int32_t>(text.size()));
  int64_t blocks = -leaked_blocks;
  for (size_t at = text.find("<Trace"); at != text.npos; at = text.find("<Trace", at + 1)) ++blocks;
  return {count_entries("/proc/self/task"), count_entries("/proc/self/fd"), blocks};
}

}  // namespace
}  // namespace pelmar::system_test::chaos

// Arguments: the seed, and the number of the process.
int main(int, char** arguments) {
  using namespace pelmar::system_test::chaos;
  pelmar_hal_close_print();
  const uint64_t seed = std::strtoull(arguments[1], nullptr, 10);
  const auto process = static_cast<uint32_t>(std::atoi(arguments[2]));
  std::vector<Worker> workers;
  for (uint32_t owner = process * kWorkers; owner < (process + 1) * kWorkers; ++owner) {
    Worker& worker = workers.emplace_back(Worker{Random(seed, owner), {}});
    for (uint32_t i = 0; i < kItems; ++i) worker.items.push_back({owner * kItems + i});
  }
  std::thread([] {}).join();  // at the first thread the thread sanitizer starts its own
  const auto held = count_held();

  std::setvbuf(stdin, nullptr, _IONBF, 0);  // with a buffer poll() would miss lines
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "work") {
      run_workers(workers);
      continue;
    }
    verify(workers);
    expect_soon("more threads, open files or traced blocks than at the start", [&] { return count_held() == held; });
    std::cout << "verified; " << successes.exchange(0) << " calls succeeded" << std::endl;
  }
  return 0;
}
