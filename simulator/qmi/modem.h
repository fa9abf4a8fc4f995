// The modem behind the connections: its services, who holds which client id, and whether it runs.
//
// A service that goes down tells each of its clients with a revoke indication; a modem that restarts tells every
// connection with a sync indication, and so does one that is turned off. Either way the ids are void at once.
// Connections stay.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "io/event_loop.h"
#include "qmi/client_ids.h"
#include "qmi/connection.h"
#include "qmi/service.h"
#include "qmux.h"

namespace pelmar::sim {

class Modem {
 public:
  struct Slot {
    std::unique_ptr<Service> service;
    ClientIds clients;
    bool is_up = true;
  };

  enum class State { kReady, kStarting, kOff };

  explicit Modem(EventLoop& loop) : loop_(loop) {}

  void add(std::unique_ptr<Service> service);
  void attach(Connections& connections) { connections_ = &connections; }

  State state() const { return state_; }
  std::span<Slot> slots() { return slots_; }

  // Null for a service that the modem does not have.
  Slot* find(uint8_t service) { return slot_by_id_[service]; }
  Slot* find(std::string_view name);
  // Null for one that is down as well.
  Slot* find_running(uint8_t service);

  void take_down(Slot& slot);
  void bring_up(Slot& slot) { slot.is_up = true; }

  // All ids are void; until the time is over the modem has no services and is not ready. Services that were down come
  // up. A modem that is off stays off.
  void restart(std::chrono::milliseconds starting_time);

  // Without services and not ready until it is turned on; a modem that is on already is left alone.
  void turn_off();
  void turn_on(std::chrono::milliseconds starting_time);

  // Frees what the connection held.
  void disconnect(Connection& connection);

  bool release(Slot& slot, uint8_t client, const Connection& owner);

  // Sends to the clients that `wants` accepts, each by its id; returns how many.
  size_t indicate(Slot& slot, uint16_t message, std::span<const uint8_t> tlvs,
                  const std::function<bool(uint8_t client)>& wants);
  // Sends to one client, from the message's structure. False where nobody holds the id or the structure is unfit.
  bool indicate(Slot& slot, uint8_t client, uint16_t message, const void* structure, size_t size);
  // Sends one indication to all clients of every connection; returns to how many connections.
  size_t broadcast(uint8_t service, uint16_t message, std::span<const uint8_t> tlvs);

  uint64_t indications() const { return indications_; }

 private:
  void free_client(Slot& slot, uint8_t client);
  void void_all_clients();
  void start(std::chrono::milliseconds starting_time);

  EventLoop& loop_;
  Connections* connections_ = nullptr;
  std::vector<Slot> slots_;
  Slot* slot_by_id_[256] = {};
  State state_ = State::kReady;
  EventLoop::TimerId start_timer_{};
  std::array<uint8_t, qmi::kMaxFrameLength> frame_{};
  qmi::FrameWriter writer_{qmi::Direction::kFromModem, frame_};
  uint64_t indications_ = 0;
};

}  // namespace pelmar::sim
