// How soon a service that does not stay is announced again.
//
// A client that connects whenever its service is announced would connect thousands of times a second to a service that
// goes away right after each connection. So notifiers hold back the news of such a service, ever longer up to a second,
// until a connection to it lasts. One for each service of the process.
//
// There is no lock, which a child of fork() could find taken. Of losses at the same moment each may count.
#pragma once

#include <atomic>
#include <cstdint>

#include "deadline.h"

namespace pelmar::platform {

class ServicePace {
 public:
  using Duration = Deadline::Clock::duration;

  static ServicePace& of(uint32_t service);

  // A connection ended, as the service went away or as its client wanted, after that time.
  void lost(Duration lifetime);
  void released(Duration lifetime);

  // How long the service is still not to be announced; 0 for most.
  Deadline::Milliseconds remaining() const;

 private:
  std::atomic<Duration> pause_{Duration(0)};
  std::atomic<Duration> held_until_{Duration(0)};  // on the clock
};

}  // namespace pelmar::platform
