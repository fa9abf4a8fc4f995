// Why a command ended without success: the step that failed, the reason, and what to do about it. Thrown by
// commands; main() prints the message and returns the exit status.
//
// The library's results leave out the modem's own error, and some of its functions leave out that no response came. So
// the Linux platform's exchanges beneath the library are observed.
#pragma once

#include <cstdint>
#include <exception>
#include <initializer_list>
#include <optional>
#include <string>

#include "modem_api.h"
#include "text.h"

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

// How many exchanges of the process failed: with a QMI error, or without a response.
uint32_t failed_exchanges();

// Why an exchange failed: "QMI error 50, no entry", "the service went away", ...; empty for a success.
std::string describe(const Exchange& exchange);

// A result code of the library in words.
struct ResultCode {
  int32_t code;
  const char* name;     // as modem_api.h spells it
  const char* meaning;  // continues "reading NV item 10 failed: "
  const char* advice;   // what to do, where the command has no better advice
};

// A code that the library does not document has a row of its own.
const ResultCode& describe_result(int32_t code);

inline constexpr const char* kCheckModem = "Check with 'modem_api_test info' that the modem responds, then try again.";

enum ExitStatus { kExitSuccess = 0, kExitFailure = 1, kExitUsage = 2 };

// A command's advice for a result code, in place of the general one; with a QMI error only if it was that one.
struct Advice {
  modem_api_result code;
  const char* text;
  uint32_t qmi_error = 0;  // 0: whatever it was
};

class Failure : public std::exception {
 public:
  // `step` as in "reading the file 'a'", `reason` as in "no such file", `advice` a sentence or empty.
  Failure(std::string step, std::string reason, std::string advice = "");

  // `exchange`: the library's last one with the modem. The first advice that fits is given.
  static Failure of_result(std::string step, modem_api_result code, std::initializer_list<Advice> advices = {},
                           std::optional<Exchange> exchange = take_last_exchange());

  // A failed exchange that the library's result does not show.
  static Failure of_exchange(std::string step, const Exchange& exchange);

  // The last failed system call: `reason` is errno's.
  static Failure of_system(std::string step, std::string advice = "");

  // The command line is wrong.
  static Failure of_usage(std::string reason, std::string advice = "");

  // The reader of the output has gone, or what failed is printed already: nothing is reported.
  static Failure of_silence();

  const char* what() const noexcept override { return text_.c_str(); }
  int exit_status() const { return status_; }
  const std::string& reason() const { return reason_; }
  const std::string& advice() const { return advice_; }
  uint32_t qmi_error() const { return exchange_ ? exchange_->error : 0; }     // 0: there is none
  std::string headline() const { return text_.substr(0, text_.find('\n')); }  // without the advice
  bool is_silent() const { return is_silent_; }
  bool is_loss() const;  // of the connection to the modem, which has to be opened again
  Json json() const;
  Json causes() const;  // the reason and the codes alone

 private:
  std::string step_;
  std::string reason_;
  std::string advice_;
  std::optional<modem_api_result> code_;
  std::optional<Exchange> exchange_;
  int status_ = kExitFailure;
  bool is_silent_ = false;
  std::string text_;
};

// Throws unless the result is a success.
void check(modem_api_result result, const std::string& step, std::initializer_list<Advice> advices = {});

// The same for functions that return a success also where the modem refused or did not respond.
void check_response(modem_api_result result, const std::string& step);

}  // namespace pelmar::cli
