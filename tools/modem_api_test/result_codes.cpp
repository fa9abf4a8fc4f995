#include "result_codes.h"

#include <iterator>

#include "modem_api.h"

namespace pelmar::cli {

namespace {

constexpr const char* kAskInfo = "'modem_api_test info' shows which services are up.";

// By code: a row stands at its code.
constexpr ResultCode kResultCodes[] = {
    {MODEM_API_SUCCESS, "MODEM_API_SUCCESS", "success", ""},
    {MODEM_API_ERR_GENERIC, "MODEM_API_ERR_GENERIC", "the library refused it, or the modem is not there",
     "--verbose shows messages and errors."},
    {MODEM_API_RESP_END, "MODEM_API_RESP_END", "the exchange has ended", ""},
    {MODEM_API_ERR_NO_MEMORY, "MODEM_API_ERR_NO_MEMORY", "there was no memory or no room for the response",
     "Free some memory and try again."},
    {MODEM_API_ERR_NOT_SUPPORTED, "MODEM_API_ERR_NOT_SUPPORTED", "this modem does not support it",
     "Check the modem's firmware."},
    {MODEM_API_ERR_INVALID_PARAM, "MODEM_API_ERR_INVALID_PARAM", "an argument is out of its range",
     "--help shows the ranges of the arguments."},
    {MODEM_API_ERR_NOT_INITIALIZED, "MODEM_API_ERR_NOT_INITIALIZED", "the library does not serve this process",
     "The program must run under its own name, modem_api_test: call it by that name, not through a link."},
    {MODEM_API_ERR_INVALID_CLIENT, "MODEM_API_ERR_INVALID_CLIENT", "the service is not up", kAskInfo},
    {MODEM_API_ERR_NOT_READY, "MODEM_API_ERR_NOT_READY", "the modem is not ready",
     "It is starting: try again in a moment."},
    {MODEM_API_ERR_SERVICE_PENDING, "MODEM_API_ERR_SERVICE_PENDING", "the service is not up yet", kAskInfo},
    {MODEM_API_ERR_ABORTED, "MODEM_API_ERR_ABORTED", "the modem aborted it", "Try again."},
    {MODEM_API_ERR_TIMEOUT, "MODEM_API_ERR_TIMEOUT", "the modem did not respond in time",
     "Check that the modem is alive, then try again."},
    {MODEM_API_ERR_TRANSPORT, "MODEM_API_ERR_TRANSPORT", "the connection to the modem is broken",
     "Check that the modem is alive, then try again."},
    {MODEM_API_ERR_NO_EFFECT, "MODEM_API_ERR_NO_EFFECT", "it is so already", "Nothing needs to be done."},
    {MODEM_API_ERR_NO_FREE_CLIENT, "MODEM_API_ERR_NO_FREE_CLIENT", "the client table is full",
     "End other users of the library in this process."},
    {MODEM_API_ERR_ALREADY_INITIALIZED, "MODEM_API_ERR_ALREADY_INITIALIZED", "this process has such a client already",
     "Use the client that is open."},
};

constexpr ResultCode kUndocumented = {-1, "undocumented result",
                                      "the library returned a code that it does not document",
                                      "--verbose shows messages and errors."};

constexpr bool rows_stand_at_their_codes() {
  for (int32_t code = 0; code < static_cast<int32_t>(std::size(kResultCodes)); ++code) {
    if (kResultCodes[code].code != code) return false;
  }
  return true;
}
static_assert(rows_stand_at_their_codes());

}  // namespace

const ResultCode& describe_result(int32_t code) {
  const bool is_known = code >= 0 && code < static_cast<int32_t>(std::size(kResultCodes));
  return is_known ? kResultCodes[code] : kUndocumented;
}

}  // namespace pelmar::cli
