// Reports which modem this process uses and which services the modem has, without a connection to a service. The
// phone's interface has no such function.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pelmar::platform {

// A service that a modem lists. Over QRTR, `major` is the version that the service published, and `minor` is 0.
struct ListedService {
  uint32_t number;
  uint32_t instance;             // QRTR; 0 over QMUX
  std::optional<uint32_t> node;  // QRTR; none over QMUX
  uint32_t major;
  uint32_t minor;
};

// A client id of the modem that a process of this user allocated.
struct HeldClientId {
  uint32_t service;
  uint32_t client;
  int32_t process;  // 0: it has ended, and the id is released when a program opens the service again
};

struct ModemReport {
  std::string address;    // as PELMAR_MODEM has it, or the default
  std::string transport;  // the transport of the address, such as "QRTR"
  std::string problem;    // why the modem does not respond; empty: it responds
  std::string remedy;     // with a problem: a sentence and a blank, or empty
  bool may_come = false;  // with a problem: the modem is absent and may appear later
  std::vector<ListedService> services;
};

}  // namespace pelmar::platform

// Requests the list of services from the modem that PELMAR_MODEM names; waits for the response at most 2 s.
extern "C" void pelmar_platform_inspect_modem(pelmar::platform::ModemReport* report);

// The client ids of that modem that this user's processes hold, oldest first; none over QRTR, which has no client ids.
extern "C" void pelmar_platform_list_client_ids(std::vector<pelmar::platform::HeldClientId>* ids);
