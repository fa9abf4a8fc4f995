// The services that the library has clients for, and the program's use of the library: set up when the first client is
// opened, clients freed however the program ends.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "failure.h"
#include "inspection.h"
#include "modem_api.h"
#include "own_modem.h"
#include "qmi_client.h"
#include "qmi_idl_lib.h"

namespace pelmar::cli {

struct ServiceRow {
  modem_api_client_type type;
  const char* name;   // for scripts
  const char* title;  // for people
  qmi_idl_service_object_type (*object)();
};

// Indexed by client type.
extern const ServiceRow kServices[MODEM_API_CLIENT_TYPES];

// Whether the framework lists the service now: opening an absent service would take ten seconds.
bool is_present(modem_api_client_type type);

inline constexpr Advice kNoIdLeft = {
    MODEM_API_ERR_GENERIC, "Other programs have all client ids of the service: end one of them, or reset the modem.",
    QMI_ERR_CLIENT_IDS_EXHAUSTED_V01};

class Session {
 public:
  // `modem` and `trace`: what --modem and --trace named, or empty. `waits`: for a modem that is not there yet.
  // `verbose`: messages, and the library's errors, go to standard error.
  Session(std::string modem, std::string trace, bool waits, bool verbose);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The modem, chosen (and started) at the first call. The trace is opened there and no earlier, so that a command with
  // wrong arguments leaves an earlier capture as it is. Throws where it cannot be opened.
  const Modem& modem();

  // Why messages are missing in the trace.
  std::optional<Failure> trace_failure() const;

  // Whether to wait for a modem that is not there yet.
  bool waits() const { return waits_; }

  // Fills the report with the modem's responses; with --wait it waits for the modem. Throws if the modem does not
  // respond; the report then has what was found.
  void inspect(platform::ModemReport& report);

  // With --wait, waits until `whom` listens on the socket. Throws where the process
  // that serves it cannot be used, and waiting does not change that.
  void wait_for_listener(const std::string& socket, const std::string& whom) const;

  // Opens a client whose events and notices go to the inbox, where it is not open already. Throws where the service
  // does not come up.
  int32_t open(modem_api_client_type type);

  // Opens hydra, where it is not open already. Hydra and the other clients exclude each other: each closes what is open
  // of the other. Throws where the service does not come up.
  void open_hydra();

  // Frees the clients that are open and sets the library up anew, so that they can be opened again.
  void restart();

  // Ends the program's own modem, which the next command may start again. False where none runs. Throws where another
  // modem is named, or it does not end.
  bool stop_own_modem();

  // Frees the clients that are open, and hydra's. Also called by the signal thread while a command waits; does nothing
  // the second time.
  void close();

 private:
  void prepare();
  void wait_for(modem_api_client_type service);
  std::string absence_advice();

  const std::string named_modem_;
  const std::string trace_;
  const bool waits_;
  std::optional<Modem> modem_;
  bool is_initialised_ = false;

  std::mutex mutex_;
  std::map<modem_api_client_type, int32_t> clients_;
  std::atomic<bool> is_hydra_open_{false};
};

}  // namespace pelmar::cli
