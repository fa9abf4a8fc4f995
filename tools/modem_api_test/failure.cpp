#include "failure.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "json.h"
#include "result_codes.h"

namespace pelmar::cli {

Failure::Failure(std::string step, std::string reason, std::string advice)
    : step_(std::move(step)), reason_(std::move(reason)), advice_(std::move(advice)) {
  text_ = step_.empty() ? reason_ : step_ + " failed: " + reason_;
  if (!advice_.empty()) text_ += "\n  " + advice_;
}

Failure Failure::of_result(std::string step, modem_api_result code, std::initializer_list<Advice> advices) {
  const ResultCode& row = describe_result(code);
  std::string advice = row.advice;
  for (const Advice& better : advices) {
    if (better.code == code) advice = better.text;
  }
  const std::string reason = std::string(row.meaning) + " (" + row.name + ", " + std::to_string(code) + ")";
  Failure failure(std::move(step), reason, std::move(advice));
  failure.code_ = code;
  return failure;
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
  if (!advice_.empty()) error["advice"] = advice_;
  return {{"error", std::move(error)}};
}

void check(modem_api_result result, const std::string& step, std::initializer_list<Advice> advices) {
  if (result != MODEM_API_SUCCESS) throw Failure::of_result(step, result, advices);
}

}  // namespace pelmar::cli
