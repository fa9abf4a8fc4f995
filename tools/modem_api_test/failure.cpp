#include "failure.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>

#include "error_names.h"
#include "message_text.h"
#include "observer.h"
#include "output.h"
#include "qmi_client.h"

namespace pelmar::cli {

namespace {

using platform::Observation;

constexpr size_t kBytesInLine = 64;

thread_local std::optional<Exchange> last_exchange;
std::atomic<uint32_t> failures{0};

void show_message(const Observation& message) {
  constexpr const char* kKinds[] = {" request, ", " response, ", " indication, "};
  const auto service = static_cast<uint8_t>(message.service);
  const auto shown = message.tlvs.first(std::min(message.tlvs.size(), kBytesInLine));
  remark((message.kind == Observation::Kind::kRequest ? "-> " : "<- ") + qmi::service_text(service) + " " +
         qmi::message_text(service, message.message) + kKinds[static_cast<size_t>(message.kind)] +
         count_of(message.tlvs.size(), "byte") + (shown.empty() ? "" : ": ") + to_hex(shown, " ") +
         (shown.size() < message.tlvs.size() ? " ..." : ""));
}

void remember_end(const Observation& observation) {
  if (observation.kind != Observation::Kind::kEnd) return;
  last_exchange = {observation.code, observation.error};
  if (observation.code != QMI_NO_ERR || observation.error != 0) ++failures;
}

void show_and_remember(const Observation& observation) {
  remember_end(observation);
  if (observation.kind != Observation::Kind::kEnd) return show_message(observation);
  if (const std::string problem = describe(*last_exchange); !problem.empty()) remark("the exchange failed: " + problem);
}

constexpr const char* kSeeInfo = "'modem_api_test info' shows which services are up.";

#define CODE(code) code, #code

// The last row is for every other code.
constexpr ResultCode kResultCodes[] = {
    {CODE(MODEM_API_SUCCESS), "success", ""},
    {CODE(MODEM_API_ERR_GENERIC), "the library refused it, or the modem does not respond",
     "--verbose shows messages and errors."},
    {CODE(MODEM_API_RESP_END), "the exchange has ended", ""},
    {CODE(MODEM_API_ERR_NO_MEMORY), "there was no memory or no room for the response",
     "Free some memory and try again."},
    {CODE(MODEM_API_ERR_NOT_SUPPORTED), "this modem does not support it", "Check the modem's firmware."},
    {CODE(MODEM_API_ERR_INVALID_PARAM), "an argument is out of its range", "--help shows the ranges of the arguments."},
    {CODE(MODEM_API_ERR_NOT_INITIALIZED), "the library does not serve this process",
     "The program must run under its own name, modem_api_test: call it by that name, not through a link."},
    {CODE(MODEM_API_ERR_INVALID_CLIENT), "the service is not up", kSeeInfo},
    {CODE(MODEM_API_ERR_NOT_READY), "the modem is not ready", "It is starting: try again in a moment."},
    {CODE(MODEM_API_ERR_SERVICE_PENDING), "the service is not up yet", kSeeInfo},
    {CODE(MODEM_API_ERR_ABORTED), "the modem aborted it", "Try again."},
    {CODE(MODEM_API_ERR_TIMEOUT), "the modem did not respond in time", kCheckModem},
    {CODE(MODEM_API_ERR_TRANSPORT), "the connection to the modem is broken", kCheckModem},
    {CODE(MODEM_API_ERR_NO_EFFECT), "the setting has this value already", "Nothing needs to be done."},
    {CODE(MODEM_API_ERR_NO_FREE_CLIENT), "the client table is full", "End other users of the library in this process."},
    {CODE(MODEM_API_ERR_ALREADY_INITIALIZED), "this process has such a client already", "Use the client that is open."},
    {-1, "undocumented result", "the library returned a code that it does not document",
     "--verbose shows messages and errors."},
};

#undef CODE

static_assert(std::size(kResultCodes) == MODEM_API_ERR_ALREADY_INITIALIZED + 2, "a row for each code");

}  // namespace

void watch_exchanges(bool shows_messages) {
  pelmar_platform_observe_qmi(shows_messages ? show_and_remember : remember_end);
}

std::optional<Exchange> take_last_exchange() {
  return std::exchange(last_exchange, std::nullopt);
}

uint32_t failed_exchanges() {
  return failures;
}

std::string describe(const Exchange& exchange) {
  if (exchange.code == QMI_SERVICE_ERR) return "the service went away";
  if (exchange.code == QMI_TIMEOUT_ERR) return "no response came in time";
  if (exchange.code <= QMI_IDL_LIB_EXTENDED_ERR) {
    return "a message that cannot be encoded or decoded (codec error " + std::to_string(exchange.code) + ")";
  }
  if (exchange.code != QMI_NO_ERR) return "code " + std::to_string(exchange.code) + " of the QMI framework";
  if (exchange.error == 0) return "";
  const qmi::ErrorName* const row = qmi::find_error(exchange.error);
  return "QMI error " + std::to_string(exchange.error) + ", " + (row != nullptr ? row->meaning : "an unknown error");
}

const ResultCode& describe_result(int32_t code) {
  const auto* const last = std::prev(std::end(kResultCodes));
  return *std::find_if(std::begin(kResultCodes), last, [code](const ResultCode& row) { return row.code == code; });
}

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
  // Only the exchange has the cause that a general result leaves open.
  const bool is_general = code == MODEM_API_ERR_GENERIC;
  const std::string cause = exchange && (error != 0 || is_general) ? describe(*exchange) : "";
  std::string reason = row.meaning;
  if (!cause.empty()) reason = is_general ? cause : reason + ": " + cause;
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

Failure Failure::of_silence() {
  Failure failure("", "what failed is printed already");
  failure.is_silent_ = true;
  return failure;
}

bool Failure::is_loss() const {
  if (!exchange_) return code_ && *code_ != MODEM_API_ERR_INVALID_PARAM;
  if (exchange_->code != QMI_NO_ERR) return exchange_->code == QMI_SERVICE_ERR || exchange_->code == QMI_TIMEOUT_ERR;
  return exchange_->error == QMI_ERR_INVALID_CLIENT_ID_V01 || exchange_->error == QMI_ERR_DEVICE_NOT_READY_V01;
}

Json Failure::json() const {
  Json error = {{"type", "error"}};
  if (!step_.empty()) error["step"] = step_;
  error.update(causes());
  if (!advice_.empty()) error["advice"] = advice_;
  return error;
}

Json Failure::causes() const {
  Json error = {{"reason", reason_}};
  if (code_) error["result"] = {{"number", *code_}, {"name", describe_result(*code_).name}};
  if (exchange_ && exchange_->code != QMI_NO_ERR) error["framework_code"] = exchange_->code;
  if (exchange_ && exchange_->code == QMI_NO_ERR && exchange_->error != 0) {
    const qmi::ErrorName* const row = qmi::find_error(exchange_->error);
    error["qmi_error"] = {{"number", exchange_->error}, {"name", row != nullptr ? Json(row->name) : Json()}};
  }
  return error;
}

void check(modem_api_result result, const std::string& step, std::initializer_list<Advice> advices) {
  const auto exchange = take_last_exchange();  // cleared, so that a later failure does not report it
  if (result != MODEM_API_SUCCESS) throw Failure::of_result(step, result, advices, exchange);
  // By the phone's rules a loss leaves a zeroed response as it is, which the library takes for a success.
  if (exchange && exchange->code == QMI_SERVICE_ERR) throw Failure::of_exchange(step, *exchange);
}

void check_response(modem_api_result result, const std::string& step) {
  const auto exchange = take_last_exchange();
  if (result != MODEM_API_SUCCESS) throw Failure::of_result(step, result, {}, exchange);
  if (exchange && !describe(*exchange).empty()) throw Failure::of_exchange(step, *exchange);
}

}  // namespace pelmar::cli
