#include "modem_link.h"

#include <utility>

#include "failure.h"
#include "qmi_client.h"
#include "result_codes.h"
#include "services.h"

namespace pelmar::cli {

namespace {

// A modem that refuses what it is asked is there, unless it does not know this client any more.
bool is_response(modem_api_result result, const std::optional<Exchange>& exchange) {
  if (result == MODEM_API_SUCCESS) return true;
  return exchange && exchange->code == QMI_NO_ERR && exchange->error != QMI_ERR_INVALID_CLIENT_ID_V01;
}

}  // namespace

ModemLink::ModemLink(std::function<void()> open, std::function<modem_api_result()> probe)
    : open_(std::move(open)), probe_(std::move(probe)) {
  open_();
}

bool ModemLink::is_up() {
  if (!problem_.empty()) {
    come_back();
    return problem_.empty();
  }
  const modem_api_result result = probe_();
  if (is_response(result, take_last_exchange())) return true;
  problem_ = result == MODEM_API_ERR_TIMEOUT ? describe_result(result).meaning : "the connection is lost";
  return false;
}

// Opening an absent service would take ten seconds.
void ModemLink::come_back() {
  if (!is_present(service_of(MODEM_API_CLIENT_VS))) {
    problem_ = "its vendor-specific service is down";
    return;
  }
  try {
    open_();
    problem_.clear();
  } catch (const Failure& failure) {
    problem_ = failure.reason();
  }
}

stats_para_data probe_request() {
  constexpr uint32_t kSystemModeStatistic = 0x2C;
  stats_para_data data{};
  data.para_num = 1;
  data.entries[0].id = kSystemModeStatistic;
  return data;
}

std::string away_text(const std::string& problem) {
  return "the modem is away: " + problem + "; waiting for it";
}

}  // namespace pelmar::cli
