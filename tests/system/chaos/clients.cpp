#include "chaos/clients.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "chaos/journal.h"
#include "hydra_mem.h"
#include "nas_client.h"
#include "vs_client.h"

namespace pelmar::system_test::chaos {

namespace {

// Ten attempts, each of some exchanges that a modem may leave unanswered.
constexpr std::chrono::seconds kOpenLimit{120};
constexpr std::chrono::seconds kPatience{90};
constexpr int kProbesOfALostClient = 3;

struct ClientKind {
  void (*prepare)();
  void (*set_status_callback)(modem_api_operational_status_fn callback);  // null: it does not come back by itself
  modem_api_result (*probe)(int32_t client);
};

constexpr ClientKind kKinds[MODEM_API_CLIENT_TYPES] = {
    {[] { vs_init(); }, nullptr, [](int32_t client) { return modem_api_common_command(client, nullptr, 0); }},
    {sar_init, sar_client_set_operational_status_callback,
     [](int32_t client) { return modem_api_set_sar_rf_state(client, 1); }},
    {nas_0_init, nas_0_client_set_operational_status_callback,
     [](int32_t client) { return modem_api_set_avoid_trm(client, 0, 0); }},
    {nas_1_init, nas_1_client_set_operational_status_callback,
     [](int32_t client) { return modem_api_set_avoid_trm(client, 1, 0); }},
};

// Clients that will not come back by themselves.
std::array<std::atomic<bool>, MODEM_API_CLIENT_TYPES> g_gave_up;

}  // namespace

// An asynchronous command on its way: what its answer must be. The callback destroys it.
struct Clients::DueAnswer {
  Clients& clients;
  std::vector<uint8_t> payload;
  bool has_data = false;
};

void Clients::open() {
  if (modem_api_init() != MODEM_API_SUCCESS) journal().problem("the library refuses this process");
  for (uint32_t type = 0; type < MODEM_API_CLIENT_TYPES; ++type) open_client(type);
}

void Clients::open_client(modem_api_client_type type) {
  int32_t id = -1;
  g_gave_up[type] = false;
  const auto result = noted(
      "init client", [&] { return modem_api_init_client(type, take_event, nullptr, &id); }, kOpenLimit);
  ids_[type] = result == MODEM_API_SUCCESS ? id : -1;
  if (result == MODEM_API_SUCCESS && kKinds[type].set_status_callback != nullptr) {
    kKinds[type].set_status_callback(take_status);
  }
  if (result != MODEM_API_SUCCESS) kKinds[type].prepare();  // for the next attempt
}

void Clients::take_status(uint32_t type, uint32_t status) {
  modem_api_operational_status_cb(type, status);
  if (status == OPERATIONAL_STATUS_RECONNECT_FAILED) g_gave_up[type] = true;
}

modem_api_result Clients::probe(modem_api_client_type type) const {
  return noted("probe", [&] { return kKinds[type].probe(id(type)); });
}

// A command that fails for a reason of its own says that the connection is there.
bool Clients::is_lost() const {
  for (int i = 0; i < kProbesOfALostClient; ++i) {
    const modem_api_result result = probe(MODEM_API_CLIENT_VS);
    if (result != MODEM_API_ERR_GENERIC && result != MODEM_API_ERR_INVALID_CLIENT) return false;
  }
  return true;
}

bool Clients::reopen_vs() {
  const std::unique_lock nobody_sends(sending_);
  if (due_answers_ != 0) return false;
  journal().add_reopening();
  if (vs() >= 0) modem_api_free_client(vs());
  ids_[MODEM_API_CLIENT_VS] = -1;
  vs_init();
  open_client(MODEM_API_CLIENT_VS);
  return true;
}

void Clients::tend() {
  if (vs() < 0 || is_lost()) reopen_vs();
  for (uint32_t type = MODEM_API_CLIENT_SAR; type < MODEM_API_CLIENT_TYPES; ++type) {
    if (id(type) >= 0 && !g_gave_up[type]) continue;
    journal().add_reopening();
    if (id(type) >= 0) modem_api_free_client(id(type));
    kKinds[type].prepare();
    open_client(type);
  }
}

void Clients::wait_until_all_work() {
  const auto limit = Clock::now() + kPatience;
  for (uint32_t type = 0; type < MODEM_API_CLIENT_TYPES; ++type) {
    while (probe(type) != MODEM_API_SUCCESS) {
      if (Clock::now() > limit) return journal().problem("client " + std::to_string(type) + " did not come back");
      tend();
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  while (due_answers_ != 0) {
    if (Clock::now() > limit) return journal().problem("asynchronous answers did not come");
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

void Clients::close() {
  for (auto& id : ids_) {
    if (id >= 0) modem_api_free_client(id);
    id = -1;
  }
  modem_api_release();
}

void Clients::send_async(const uint8_t* payload, int32_t length) {
  const std::shared_lock sending(sending_);
  auto* const due = new DueAnswer{*this, {payload, payload + length}};
  ++due_answers_;
  const modem_api_result result =
      noted("async command", [&] { return modem_api_common_command_async(vs(), payload, length, due, take_answer); });
  if (result == MODEM_API_SUCCESS) return;
  // What did not pass the library's own check has allocated nothing.
  if (result != MODEM_API_ERR_INVALID_CLIENT) ++refused_sends_;
  --due_answers_;
  delete due;
}

void Clients::take_answer(const uint8_t* data, uint32_t length, void* user_data, uint32_t result) {
  auto* const due = static_cast<DueAnswer*>(user_data);
  const bool brings_data = result == MODEM_API_SUCCESS;
  if (brings_data) {
    const bool is_own = std::equal(data, data + length, due->payload.begin(), due->payload.end());
    if (!is_own || due->has_data) journal().problem("an asynchronous command was given an answer that is not its own");
    due->has_data = true;
    hydra_free_adv(const_cast<uint8_t*>(data), __func__, __LINE__);
    return;
  }
  if (data != nullptr || due->has_data != (result == MODEM_API_RESP_END)) {
    journal().problem("an asynchronous exchange ended with " + std::to_string(result) + " out of order");
  }
  --due->clients.due_answers_;
  delete due;
}

void Clients::take_event(uint32_t event, const uint8_t* payload, uint32_t length) {
  static constexpr size_t kLengths[MODEM_API_EVENT_COUNT] = {
      0,
      0,
      sizeof(modem_api_vs_status_event),
      sizeof(modem_api_vs_report_a_event),
      sizeof(modem_api_vs_report_b_event),
      sizeof(modem_api_vs_report_c_event),
  };
  journal().add_event();
  if (event >= std::size(kLengths) || kLengths[event] == 0 || kLengths[event] != length) {
    return journal().problem("event " + std::to_string(event) + " with " + std::to_string(length) + " bytes");
  }
  if (event != MODEM_API_EVENT_VS_REPORT_A) return;
  const auto& report = *reinterpret_cast<const modem_api_vs_report_a_event*>(payload);
  if (report.record_count > MODEM_API_EVENT_RECORDS || report.secondary_count > MODEM_API_EVENT_SECONDARY_RECORDS) {
    return journal().problem("event 3 counts more records than it has");
  }
  for (const modem_api_event_record& record : std::span(report.records).first(report.record_count)) {
    if (record.data_len > MODEM_API_EVENT_DATA_BYTES) journal().problem("a record of event 3 is longer than its data");
  }
}

}  // namespace pelmar::system_test::chaos
