// The modem behind the connections: its services, their client ids, and whether it runs.
//
// A service that goes down sends a revoke indication to each of its clients. A modem that restarts or is turned off
// sends a sync indication to every connection. In both cases the client ids are void at once, and connections stay.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "ctl_messages.h"
#include "io/event_loop.h"
#include "qmi/connection.h"
#include "qmi/service.h"
#include "qmux.h"

namespace pelmar::sim {

// The client ids of one service and their owners: ten at a time, unique over all connections.
//
// An id that was released is given out again only after all the others, so that a late message for it does not reach a
// new owner.
class ClientIds {
 public:
  static constexpr size_t kLimit = 10;
  static constexpr uint8_t kHighest = 0xFE;  // 0xFF addresses all clients

  std::optional<uint8_t> allocate(Connection& owner) {
    if (count_ == kLimit) return std::nullopt;
    do {
      last_ = last_ == kHighest ? 1 : static_cast<uint8_t>(last_ + 1);
    } while (owners_[last_] != nullptr);
    owners_[last_] = &owner;
    ++count_;
    return last_;
  }

  void release(uint8_t id) {
    if (owners_[id] == nullptr) return;
    owners_[id] = nullptr;
    --count_;
  }

  // Null for an id that is not allocated.
  Connection* owner(uint8_t id) const { return owners_[id]; }
  size_t count() const { return count_; }

  // Calls f(id, owner); f may release ids.
  template <typename F>
  void for_each(F f) const {
    for (unsigned id = 1; id <= kHighest; ++id) {
      if (owners_[id] != nullptr) f(static_cast<uint8_t>(id), *owners_[id]);
    }
  }

 private:
  std::array<Connection*, 256> owners_{};
  size_t count_ = 0;
  uint8_t last_ = 0;
};

class Modem {
 public:
  struct Slot {
    Service* service;
    ClientIds clients;
    bool is_up = true;
  };

  enum class State { kReady, kStarting, kOff };

  // services: outlive the modem.
  Modem(EventLoop& loop, std::span<Service* const> services);

  void attach(Connections& connections) { connections_ = &connections; }

  // Sets the task that runs for each client id that becomes void.
  void when_client_gone(std::function<void(uint8_t service, uint8_t client)> task) { client_gone_ = std::move(task); }

  // Sets the task that runs whenever a service may have gone up or down; in a restart it runs once while all are down.
  void when_changed(EventLoop::Task task) { changed_ = std::move(task); }

  State state() const { return state_; }
  std::span<Slot> slots() { return slots_; }

  // Null for a service that the modem does not have.
  Slot* find(uint8_t service) { return slot_by_id_[service]; }
  Slot* find(std::string_view name);
  // Null for one that is down as well.
  Slot* find_running(uint8_t service);

  void take_down(Slot& slot);
  void bring_up(Slot& slot) {
    slot.is_up = true;
    changed_();
  }

  // Voids all client ids. Until the time is over the modem has no services and is not ready. Services that were down
  // come up. A modem that is off stays off.
  void restart(std::chrono::milliseconds starting_time);

  // A modem that is off has no services and is not ready. Turning on a modem that is on has no effect.
  void turn_off();
  void turn_on(std::chrono::milliseconds starting_time) {
    if (state_ == State::kOff) start(starting_time);
  }

  // Releases all client ids of the connection.
  void disconnect(Connection& connection);

  bool release(Slot& slot, uint8_t client, const Connection& owner);

  // Sends to each client that `is_recipient` accepts; returns their number.
  size_t indicate(Slot& slot, uint16_t message, std::span<const uint8_t> tlvs,
                  const std::function<bool(uint8_t client)>& is_recipient);
  // Encodes the structure and sends it to one client. False where the id is not allocated or the structure is unfit.
  bool indicate(Slot& slot, uint8_t client, uint16_t message, const void* structure, size_t size);
  // Sends one indication to each connection, for all its clients; returns the number of connections.
  size_t broadcast(uint8_t service, uint16_t message, std::span<const uint8_t> tlvs);

  uint64_t indications() const { return indications_; }

 private:
  void free_client(Slot& slot, uint8_t client);
  void void_all_clients();
  void start(std::chrono::milliseconds starting_time);
  void set_state(State state);

  EventLoop& loop_;
  Connections* connections_ = nullptr;
  std::vector<Slot> slots_;
  Slot* slot_by_id_[256] = {};
  State state_ = State::kReady;
  EventLoop::Task changed_ = [] {};
  std::function<void(uint8_t, uint8_t)> client_gone_ = [](uint8_t, uint8_t) {};
  EventLoop::TimerId start_timer_{};
  std::array<uint8_t, qmi::kMaxFrameLength> frame_{};
  qmi::FrameWriter writer_{qmi::Direction::kFromModem, frame_};
  uint64_t indications_ = 0;
};

}  // namespace pelmar::sim
