#include "modem_link.h"

#include <utility>

#include "failure.h"
#include "qmi_client.h"
#include "services.h"

namespace pelmar::cli {

ModemLink::ModemLink(std::function<void()> open, std::function<modem_api_result()> probe, bool needs_value)
    : open_(std::move(open)), probe_(std::move(probe)), needs_value_(needs_value) {
  open_();
}

bool ModemLink::is_up() {
  if (!problem_.empty()) {
    come_back();
    return problem_.empty();
  }
  const modem_api_result result = probe_();
  const auto exchange = take_last_exchange();
  if (result == MODEM_API_SUCCESS) return true;
  const uint32_t refusal = exchange && exchange->code == QMI_NO_ERR ? exchange->error : 0;
  if (result == MODEM_API_ERR_TIMEOUT) {
    problem_ = kNoResponseText;
  } else if (refusal == 0 || refusal == QMI_ERR_INVALID_CLIENT_ID_V01) {
    problem_ = "the connection is lost";
  } else if (refusal == QMI_ERR_DEVICE_NOT_READY_V01 || needs_value_) {
    problem_ = describe(*exchange);
  }
  return problem_.empty();
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
    problem_ = failure.headline();
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
