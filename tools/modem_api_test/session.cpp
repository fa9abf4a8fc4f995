#include "session.h"

#include <utility>

#include "failure.h"
#include "inbox.h"
#include "modem_hydra.h"
#include "output.h"
#include "pelmar_log.h"
#include "services.h"

namespace pelmar::cli {

Session::Session(std::string modem, bool verbose) : named_modem_(std::move(modem)) {
  if (!verbose) pelmar_hal_close_print();
}

Session::~Session() {
  close();
  if (is_initialised_) modem_api_release();
}

const ModemChoice& Session::modem() {
  if (!modem_) modem_.emplace(named_modem_);
  return *modem_;
}

void Session::initialise() {
  if (is_initialised_) return;
  check(modem_api_init(), "setting up the library");
  is_initialised_ = true;
}

void Session::prepare() {
  const std::string problem = modem().problem();
  if (!problem.empty()) {
    remark("nobody serves " + modem().socket() + " (" + problem + "); trying for ten seconds");
  }
  initialise();
}

std::string Session::absence_advice() {
  return "No such service answered on " + modem().socket() +
         ". 'modem_api_test info' shows what is there; --modem SOCKET names another modem.";
}

int32_t Session::open(modem_api_client_type type) {
  prepare();
  int32_t client = -1;
  const modem_api_result result = modem_api_init_client(type, Inbox::receive_event, Inbox::receive_notice, &client);
  const std::string advice = absence_advice();
  check(result, std::string("connecting to ") + service_of(type).title, {{MODEM_API_ERR_GENERIC, advice.c_str()}});
  const std::lock_guard lock(mutex_);
  clients_.push_back(client);
  return client;
}

void Session::open_hydra() {
  if (!is_initialised_) prepare();
  {
    const std::lock_guard lock(mutex_);
    is_hydra_open_ = true;  // whatever becomes of it: closing does no harm
  }
  if (modem_hydra_api_init() != 0) return;
  throw Failure(std::string("connecting to ") + service_of(MODEM_API_CLIENT_VS).title, "the service is not up",
                absence_advice());
}

void Session::close() {
  std::vector<int32_t> clients;
  bool closes_hydra = false;
  {
    const std::lock_guard lock(mutex_);
    clients.swap(clients_);
    closes_hydra = std::exchange(is_hydra_open_, false);
  }
  if (closes_hydra) modem_hydra_api_deinit();
  for (const int32_t client : clients) modem_api_free_client(client);
}

}  // namespace pelmar::cli
