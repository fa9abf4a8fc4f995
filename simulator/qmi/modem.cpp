#include "qmi/modem.h"

#include <algorithm>

#include "qmi_codec.h"

namespace pelmar::sim {

Modem::Modem(EventLoop& loop, std::span<Service* const> services) : loop_(loop) {
  for (Service* const service : services) slots_.push_back({service, {}, true});
  for (Slot& slot : slots_) slot_by_id_[slot.service->id()] = &slot;
}

Modem::Slot* Modem::find(std::string_view name) {
  const auto slot =
      std::find_if(slots_.begin(), slots_.end(), [&](Slot& each) { return each.service->name() == name; });
  return slot == slots_.end() ? nullptr : &*slot;
}

Modem::Slot* Modem::find_running(uint8_t service) {
  Slot* slot = find(service);
  return state_ == State::kReady && slot != nullptr && slot->is_up ? slot : nullptr;
}

void Modem::take_down(Slot& slot) {
  slot.is_up = false;
  slot.clients.for_each([&](uint8_t client, Connection& owner) {
    free_client(slot, client);
    const uint8_t revoked[] = {slot.service->id(), client};
    writer_.start(qmi::kControlService, 0, qmi::MessageKind::kIndication, 0, ctl::kRevokeClientId);
    writer_.add_tlv(0x01, revoked);
    owner.send(writer_.finish());
  });
  slot.service->restarted();
  changed_();
}

void Modem::restart(std::chrono::milliseconds starting_time) {
  if (state_ == State::kOff) return;
  void_all_clients();
  start(starting_time);
  broadcast(qmi::kControlService, ctl::kSync, {});
}

void Modem::turn_off() {
  void_all_clients();
  loop_.cancel(start_timer_);
  set_state(State::kOff);
  broadcast(qmi::kControlService, ctl::kSync, {});
}

void Modem::start(std::chrono::milliseconds starting_time) {
  loop_.cancel(start_timer_);
  set_state(State::kStarting);
  if (starting_time.count() > 0) {
    start_timer_ = loop_.after(starting_time, [this] { set_state(State::kReady); });
  } else {
    set_state(State::kReady);
  }
}

void Modem::set_state(State state) {
  state_ = state;
  changed_();
}

void Modem::void_all_clients() {
  for (Slot& slot : slots_) {
    slot.clients.for_each([&](uint8_t client, Connection&) { free_client(slot, client); });
    slot.service->restarted();
    slot.is_up = true;
  }
}

void Modem::disconnect(Connection& connection) {
  for (Slot& slot : slots_) {
    slot.clients.for_each([&](uint8_t client, Connection& owner) {
      if (&owner == &connection) free_client(slot, client);
    });
  }
}

bool Modem::release(Slot& slot, uint8_t client, const Connection& owner) {
  if (slot.clients.owner(client) != &owner) return false;
  free_client(slot, client);
  return true;
}

void Modem::free_client(Slot& slot, uint8_t client) {
  slot.clients.release(client);
  slot.service->client_gone(client);
  client_gone_(slot.service->id(), client);
}

size_t Modem::indicate(Slot& slot, uint16_t message, std::span<const uint8_t> tlvs,
                       const std::function<bool(uint8_t client)>& is_recipient) {
  size_t sent = 0;
  slot.clients.for_each([&](uint8_t client, Connection& owner) {
    if (!is_recipient(client)) return;
    writer_.start(slot.service->id(), client, qmi::MessageKind::kIndication, 0, message);
    writer_.add_tlvs(tlvs);
    owner.send(writer_.finish());
    ++sent;
  });
  indications_ += sent;
  return sent;
}

bool Modem::indicate(Slot& slot, uint8_t client, uint16_t message, const void* structure, size_t size) {
  Connection* const owner = slot.clients.owner(client);
  if (owner == nullptr) return false;
  writer_.start(slot.service->id(), client, qmi::MessageKind::kIndication, 0, message);
  const auto space = writer_.room();
  size_t length = 0;
  const int32_t result = qmi::encode(slot.service->object(), QMI_IDL_INDICATION, message, structure, size, space.data(),
                                     space.size(), &length);
  if (result != QMI_IDL_LIB_NO_ERR) return false;
  writer_.grow(length);
  owner->send(writer_.finish());
  ++indications_;
  return true;
}

size_t Modem::broadcast(uint8_t service, uint16_t message, std::span<const uint8_t> tlvs) {
  if (connections_ == nullptr) return 0;
  const uint8_t client = service == qmi::kControlService ? 0 : qmi::kAllClients;
  writer_.start(service, client, qmi::MessageKind::kIndication, 0, message);
  writer_.add_tlvs(tlvs);
  const auto frame = writer_.finish();
  connections_->for_each([&](Connection& connection) { connection.send(frame); });
  indications_ += connections_->count();
  return connections_->count();
}

}  // namespace pelmar::sim
