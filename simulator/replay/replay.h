// A capture that is played: live clients of the modem get what recorded clients got.
//
// With its first request a live client is assigned a recorded client of its service: of those that are not assigned yet
// the first with the same first request, or else the first. When all are assigned, the assignment starts again. A
// request gets the next response that the capture has for the same bytes, or else for the same message, of the recorded
// client or else of any client of the service; after the last one, that one is repeated. A recorded request without
// response gets none. An indication is sent at its recorded time after the client's first request and after as many
// requests as in the capture; if the client sends fewer, a second late. The same holds for a restart of the modem and
// the end of a service. Allocations of a service's client ids fail in the recorded order, which is repeated.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "io/event_loop.h"
#include "qmi/modem.h"
#include "qmi/service.h"
#include "replay/recorded_traffic.h"

namespace pelmar::sim {

class Replay {
 public:
  // speed: how many times faster than recorded. Throws std::runtime_error where the capture cannot be played.
  Replay(EventLoop& loop, const std::string& path, double speed);
  ~Replay();

  // The given services, and those that only the capture has.
  std::vector<Service*> with_recorded_services(std::vector<Service*> services);

  // restart_modem: called where the modem restarted in the capture. Call once, before respond().
  void attach(Modem& modem, EventLoop::Task restart_modem);

  struct Response {
    bool is_missing;  // the request had no response
    EventLoop::Clock::duration delay;
    std::span<const uint8_t> tlvs;
  };

  // frame: the request of an allocated client, at least its header. Nothing where the capture does not have the
  // message, which is reported on standard error.
  std::optional<Response> respond(const qmi::Frame& frame);

  // The error of the next allocation of a client id of the service: as recorded, or else `present`, that of the modem.
  QmiError allocation_error(uint8_t service, QmiError present);

 private:
  struct EmptyObject;
  class RecordedService;  // lets the modem allocate client ids of a service that only the capture has

  using ClientKey = std::pair<uint8_t, uint8_t>;  // service and client id

  // A live client.
  struct Player {
    uint32_t recorded;
    EventLoop::Clock::time_point start;
    uint32_t requests = 0;
    size_t next_indication = 0;
    EventLoop::TimerId timer{};
    bool waits_for_reader = false;  // the next indication, until the client has read the ones before
    // The last exchange that was taken, of the client's own ones or of all, by the first number of their list.
    std::map<std::pair<const uint32_t*, bool>, uint32_t> taken{};
  };

  uint32_t assign(uint8_t service, RecordedTraffic::Bytes request);
  const RecordedTraffic::Exchange* take(Player& player, RecordedTraffic::Numbers numbers, bool only_own) const;
  void send_due(ClientKey key);
  void report_missing(uint8_t service, uint16_t message);
  EventLoop::Clock::duration scaled(RecordedTraffic::Time time) const;

  EventLoop& loop_;
  const RecordedTraffic traffic_;
  const double speed_;
  std::vector<std::unique_ptr<RecordedService>> services_;
  Modem* modem_ = nullptr;
  EventLoop::Task restart_modem_;
  std::vector<bool> is_played_;                // by recorded client
  std::map<uint8_t, size_t> next_allocation_;  // by service
  std::map<ClientKey, Player> players_;
  std::set<std::pair<uint8_t, uint16_t>> reported_;  // services and messages
};

}  // namespace pelmar::sim
