#include "exchange.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <utility>

#include "bytes.h"
#include "observer.h"
#include "output.h"

namespace pelmar::cli {

namespace {

using platform::Observation;

constexpr size_t kBytesInLine = 64;

thread_local std::optional<Exchange> last_exchange;

struct ErrorName {
  uint32_t error;
  const char* name;
};

// Of the QMI protocol, by number.
constexpr ErrorName kErrorNames[] = {
    {1, "malformed message"},
    {2, "no memory"},
    {3, "internal"},
    {4, "aborted"},
    {5, "client ids exhausted"},
    {6, "transaction cannot be aborted"},
    {7, "invalid client id"},
    {9, "invalid handle"},
    {10, "invalid profile"},
    {13, "no network found"},
    {16, "not provisioned"},
    {17, "missing argument"},
    {19, "argument too long"},
    {22, "invalid transaction id"},
    {23, "device in use"},
    {24, "operation not supported by the network"},
    {25, "operation not supported by the device"},
    {26, "no effect"},
    {37, "SIM not initialised"},
    {41, "invalid id"},
    {42, "requested number not supported"},
    {43, "interface not found"},
    {45, "invalid data format"},
    {46, "general error"},
    {47, "unknown error"},
    {48, "invalid argument"},
    {49, "invalid index"},
    {50, "no entry"},
    {51, "storage full"},
    {52, "device not ready"},
    {53, "network not ready"},
    {57, "invalid message id"},
    {58, "encoding"},
    {59, "authentication lock"},
    {60, "invalid transition"},
    {69, "insufficient resources"},
    {70, "disabled"},
    {71, "invalid command"},
    {74, "information not available"},
    {77, "bundling not supported"},
    {78, "operation partially failed"},
    {80, "SIM file not found"},
    {82, "access denied"},
    {83, "restricted by the hardware"},
    {90, "incompatible state"},
    {93, "no radio"},
    {94, "not supported"},
    {95, "no subscription"},
    {97, "aborted by the network"},
    {98, "message blocked"},
    {102, "no SIM"},
    {115, "no permission"},
    {116, "too soon"},
    {118, "operation in progress"},
};

void show_message(const Observation& message) {
  const bool is_request = message.kind == Observation::Kind::kRequest;
  const bool is_response = message.kind == Observation::Kind::kResponse;
  char title[96];
  snprintf(title, sizeof title, "%s service 0x%02x %s 0x%04x, ", is_request ? "->" : "<-", message.service,
           is_request    ? "request"
           : is_response ? "response"
                         : "indication",
           message.message);
  const auto shown = message.tlvs.first(std::min(message.tlvs.size(), kBytesInLine));
  remark(title + byte_count(message.tlvs.size()) + (shown.empty() ? "" : ": ") + to_hex(shown, " ") +
         (shown.size() < message.tlvs.size() ? " ..." : ""));
}

void remember_end(const Observation& observation) {
  if (observation.kind == Observation::Kind::kEnd) last_exchange = {observation.code, observation.error};
}

void show_and_remember(const Observation& observation) {
  remember_end(observation);
  if (observation.kind != Observation::Kind::kEnd) return show_message(observation);
  if (const std::string problem = describe(*last_exchange); !problem.empty()) remark("the exchange failed: " + problem);
}

}  // namespace

void watch_exchanges(bool shows_messages) {
  pelmar_platform_observe_qmi(shows_messages ? show_and_remember : remember_end);
}

std::optional<Exchange> take_last_exchange() {
  return std::exchange(last_exchange, std::nullopt);
}

const char* qmi_error_name(uint32_t error) {
  const auto row = std::find_if(std::begin(kErrorNames), std::end(kErrorNames),
                                [error](const auto& each) { return each.error == error; });
  return row != std::end(kErrorNames) ? row->name : "an unknown error";
}

std::string describe(const Exchange& exchange) {
  if (exchange.code == QMI_SERVICE_ERR) return "the service went away";
  if (exchange.code == QMI_TIMEOUT_ERR) return "no response came in time";
  if (exchange.code <= QMI_IDL_LIB_EXTENDED_ERR) {
    return "a message that cannot be coded (codec error " + std::to_string(exchange.code) + ")";
  }
  if (exchange.code != QMI_NO_ERR) return "code " + std::to_string(exchange.code) + " of the QMI framework";
  if (exchange.error == 0) return "";
  return "QMI error " + std::to_string(exchange.error) + ", " + qmi_error_name(exchange.error);
}

}  // namespace pelmar::cli
