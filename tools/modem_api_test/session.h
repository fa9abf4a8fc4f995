// The program's use of the library: set up when the first client is opened, clients freed at the end whatever the end
// is.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "modem_api.h"
#include "modem_choice.h"

namespace pelmar::cli {

class Session {
 public:
  // `modem`: the socket that --modem named, or empty. `verbose`: the library's log lines go to its shell sink.
  Session(std::string modem, bool verbose);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The modem, chosen (and started) at the first call.
  const ModemChoice& modem();

  // Opens a client whose events and notices go to the inbox. Throws where the service does not come up.
  int32_t open(modem_api_client_type type);

  // Opens hydra, again where it is open already. It drops the other clients of the process: a command uses the one or
  // the others. Throws where the service does not come up.
  void open_hydra();

  // Frees the clients that are open, and hydra's. Also called by the signal thread while a command waits; does nothing
  // the second time.
  void close();

 private:
  void initialise();
  void prepare();
  std::string absence_advice();

  const std::string named_modem_;
  std::optional<ModemChoice> modem_;
  bool is_initialised_ = false;

  std::mutex mutex_;
  std::vector<int32_t> clients_;
  bool is_hydra_open_ = false;
};

}  // namespace pelmar::cli
