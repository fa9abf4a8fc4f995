#include "failure.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "json.h"
#include "qmi_client.h"
#include "result_codes.h"

namespace pelmar::cli {

Failure::Failure(std::string step, std::string reason, std::string advice)
    : step_(std::move(step)), reason_(std::move(reason)), advice_(std::move(advice)) {
  text_ = step_.empty() ? reason_ : step_ + " failed: " + reason_;
  if (!advice_.empty()) text_ += "\n  " + advice_;
}

Failure Failure::of_result(std::string step, modem_api_result code, std::initializer_list<Advice> advices,
                           std::optional<Exchange> exchange) {
  const ResultCode& row = describe_result(code);
  const uint32_t error = exchange && exchange->code == QMI_NO_ERR ? exchange->error : 0;
  const auto better = std::find_if(advices.begin(), advices.end(), [code, error](const Advice& advice) {
    return advice.code == code && (advice.qmi_error == 0 || advice.qmi_error == error);
  });
  std::string reason = row.meaning;
  if (exchange && (error != 0 || code == MODEM_API_ERR_GENERIC)) {
    // Only the exchange has the cause that the result leaves open.
    if (const std::string cause = describe(*exchange); !cause.empty()) {
      reason = code == MODEM_API_ERR_GENERIC ? cause : reason + ": " + cause;
    }
  }
  Failure failure(std::move(step), reason + " (" + row.name + ", " + std::to_string(code) + ")",
                  better != advices.end() ? better->text : row.advice);
  failure.code_ = code;
  failure.exchange_ = exchange;
  return failure;
}

Failure Failure::of_exchange(std::string step, const Exchange& exchange) {
  const qmi_response_type_v01 response = {QMI_RESULT_FAILURE_V01, exchange.error};
  const modem_api_result code = modem_api_map_qmi_error_to_modem_api(exchange.code, &response);
  return of_result(std::move(step), code == MODEM_API_SUCCESS ? MODEM_API_ERR_GENERIC : code, {}, exchange);
}

Failure Failure::of_system(std::string step, std::string advice) {
  return {std::move(step), strerror(errno), std::move(advice)};
}

Failure Failure::of_usage(std::string reason, std::string advice) {
  Failure failure("", std::move(reason), std::move(advice));
  failure.status_ = kExitUsage;
  return failure;
}

Failure Failure::of_closed_output() {
  Failure failure("writing the output", "nobody reads it");
  failure.is_silent_ = true;
  return failure;
}

Json Failure::json() const {
  Json error;
  if (!step_.empty()) error["step"] = step_;
  error["reason"] = reason_;
  if (code_) {
    error["code"] = *code_;
    error["name"] = describe_result(*code_).name;
  }
  if (exchange_ && exchange_->code != QMI_NO_ERR) error["framework_code"] = exchange_->code;
  if (exchange_ && exchange_->code == QMI_NO_ERR && exchange_->error != 0) {
    error["qmi_error"] = exchange_->error;
    error["qmi_error_name"] = qmi_error_name(exchange_->error);
  }
  if (!advice_.empty()) error["advice"] = advice_;
  return {{"error", std::move(error)}};
}

void check(modem_api_result result, const std::string& step, std::initializer_list<Advice> advices) {
  if (result != MODEM_API_SUCCESS) throw Failure::of_result(step, result, advices);
  take_last_exchange();  // what fails next has a cause of its own
}

void check_response(modem_api_result result, const std::string& step) {
  const auto exchange = take_last_exchange();
  if (result != MODEM_API_SUCCESS) throw Failure::of_result(step, result, {}, exchange);
  if (exchange && !describe(*exchange).empty()) throw Failure::of_exchange(step, *exchange);
}

}  // namespace pelmar::cli
