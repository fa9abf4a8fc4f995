// What the Linux platform shows of the exchanges beneath the library: the library's results leave out the modem's own
// error, and some of its functions leave out that no response came.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace pelmar::cli {

// How an exchange with the modem ended.
struct Exchange {
  int32_t code;    // of the QMI framework: QMI_NO_ERR when a response came
  uint32_t error;  // the response's QMI error; 0 for a success
};

// Call it once, before the library connects. `shows_messages`: each message goes to standard error as a line.
void watch_exchanges(bool shows_messages);

// The last exchange that ended on the calling thread, once: nothing where none ended since the last call.
std::optional<Exchange> take_last_exchange();

// "no entry".
const char* qmi_error_name(uint32_t error);

// Why an exchange failed: "QMI error 50, no entry", "the service went away", ...; empty for a success.
std::string describe(const Exchange& exchange);

}  // namespace pelmar::cli
