#include "session.h"

#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <utility>

#include "environment.h"
#include "failure.h"
#include "inbox.h"
#include "message_trace.h"
#include "modem_hydra.h"
#include "network_access_service_v01.h"
#include "output.h"
#include "pelmar_log.h"
#include "qmi_client.h"
#include "specific_absorption_rate_v01.h"
#include "unix_socket.h"
#include "vs_client.h"

namespace pelmar::cli {

namespace {

constexpr std::chrono::milliseconds kWaitPeriod{100};

qmi_idl_service_object_type vs_object() {
  return &vs_qmi_idl_service_object_v01;
}

qmi_idl_service_object_type sar_object() {
  return sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS);
}

qmi_idl_service_object_type nas_object() {
  return nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS);
}

// Waits until `find_problem` returns none. The first problem is shown.
void wait_while(const std::function<std::string()>& find_problem) {
  bool is_first = true;
  for (std::string problem; !(problem = find_problem()).empty(); is_first = false) {
    if (is_first) remark(problem + "; waiting for it");
    std::this_thread::sleep_for(kWaitPeriod);
  }
}

}  // namespace

// --- services ---

const ServiceRow kServices[] = {
    {MODEM_API_CLIENT_VS, "vs", "the vendor-specific service", vs_object},
    {MODEM_API_CLIENT_SAR, "sar", "the SAR service", sar_object},
    {MODEM_API_CLIENT_NAS_0, "nas_0", "the NAS service of subscription 0", nas_object},
    {MODEM_API_CLIENT_NAS_1, "nas_1", "the NAS service of subscription 1", nas_object},
};
static_assert(std::size(kServices) == MODEM_API_CLIENT_NAS_1 + 1, "a row for each type of client");

bool is_present(modem_api_client_type type) {
  qmi_client_type notifier = nullptr;
  qmi_client_os_params parameters{};
  if (qmi_client_notifier_init(kServices[type].object(), &parameters, &notifier) != QMI_NO_ERR) return false;
  bool is_there = false;
  const auto on_presence = [](qmi_client_type, qmi_idl_service_object_type, qmi_client_notify_event_type event,
                              void* data) {
    if (event == QMI_CLIENT_SERVICE_COUNT_INC) *static_cast<bool*>(data) = true;
  };
  qmi_client_register_notify_cb(notifier, on_presence, &is_there);
  qmi_client_release(notifier);
  return is_there;
}

// --- session ---

Session::Session(std::string modem, std::string trace, bool waits, bool verbose)
    : named_modem_(std::move(modem)), trace_(std::move(trace)), waits_(waits) {
  pelmar_hal_close_print();
  if (verbose) pelmar_hal_add_shell_print_mask(PELMAR_LOG_LEVEL_ERROR);
  watch_exchanges(verbose);
}

Session::~Session() {
  restart();
}

void Session::restart() {
  close();
  if (std::exchange(is_initialised_, false)) modem_api_release();
}

const Modem& Session::modem() {
  if (modem_) return *modem_;
  if (const auto failure = trace_failure()) throw *failure;
  modem_ = choose_modem(named_modem_);
  return *modem_;
}

std::optional<Failure> Session::trace_failure() const {
  const std::string problem = trace_.empty() ? "" : pelmar_platform_trace_problem();
  if (problem.empty()) return std::nullopt;
  return Failure("writing the trace '" + trace_ + "'", problem);
}

bool Session::stop_own_modem() {
  if (!named_modem_.empty()) throw Failure::of_usage("it ends the client's own modem, not that of --modem");
  restart();
  if (modem_ && !modem_->storage.empty()) {
    modem_.reset();
    unsetenv(kModemVariable);
  }
  return cli::stop_own_modem();
}

void Session::prepare() {
  platform::ModemReport report;
  inspect(report);
  if (is_initialised_) return;
  check(modem_api_init(), "setting up the library");
  is_initialised_ = true;
}

void Session::inspect(platform::ModemReport& report) {
  modem();
  wait_while([&]() -> std::string {
    pelmar_platform_inspect_modem(&report);
    if (report.problem.empty()) return "";
    std::string problem = report.address + ": " + report.problem;
    if (report.may_come && waits_) return problem;
    throw Failure("connecting to the modem", problem,
                  report.may_come ? "Start the modem, name another with --modem, or wait for it with --wait."
                                  : report.remedy + "Name another modem with --modem.");
  });
}

void Session::wait_for_listener(const std::string& socket, const std::string& whom) const {
  wait_while([&]() -> std::string {
    const std::string obstacle = find_obstacle(socket);
    if (!obstacle.empty()) throw Failure("connecting to " + whom + " at " + socket, obstacle);
    const std::string problem = waits_ ? connect_unix(socket).problem : "";
    return problem.empty() ? "" : "no process listens on " + socket + " (" + problem + ")";
  });
}

void Session::wait_for(modem_api_client_type service) {
  while (waits_ && !is_present(service)) std::this_thread::sleep_for(kWaitPeriod);
}

std::string Session::absence_advice() {
  return "No such service responded on " + modem().address +
         ". 'modem_api_test info' shows what is there; --modem names another modem.";
}

int32_t Session::open(modem_api_client_type type) {
  std::unique_lock lock(mutex_);
  if (const auto opened = clients_.find(type); opened != clients_.end()) return opened->second;
  lock.unlock();
  if (is_hydra_open_) restart();
  prepare();
  wait_for(type);
  int32_t client = -1;
  const modem_api_result result = modem_api_init_client(type, Inbox::receive_event, Inbox::receive_notice, &client);
  const std::string advice = absence_advice();
  check(result, std::string("connecting to ") + kServices[type].title,
        {kNoIdLeft, {MODEM_API_ERR_GENERIC, advice.c_str()}});
  lock.lock();
  clients_[type] = client;
  return client;
}

void Session::open_hydra() {
  if (is_hydra_open_) return;
  std::unique_lock lock(mutex_);
  const bool excludes = !clients_.empty();
  lock.unlock();
  if (excludes) restart();
  if (!is_initialised_) prepare();
  wait_for(MODEM_API_CLIENT_VS);
  is_hydra_open_ = true;  // set before the call: closing hydra is harmless where opening failed
  if (modem_hydra_api_init() != 0) return;
  is_hydra_open_ = false;
  const std::string step = std::string("connecting to ") + kServices[MODEM_API_CLIENT_VS].title;
  check_response(MODEM_API_SUCCESS, step);
  throw Failure(step, "the service is not up", absence_advice());
}

void Session::close() {
  std::unique_lock lock(mutex_);
  const auto clients = std::exchange(clients_, {});
  lock.unlock();
  if (is_hydra_open_.exchange(false)) modem_hydra_api_deinit();
  for (const auto& [type, client] : clients) modem_api_free_client(client);
}

}  // namespace pelmar::cli
