// Why a command ended without success: the step that failed, the reason, and what to do about it. Thrown by whoever
// notices; main() turns it into a message and the exit status.
#pragma once

#include <exception>
#include <initializer_list>
#include <optional>
#include <string>

#include "exchange.h"
#include "json_fwd.h"
#include "modem_api.h"

namespace pelmar::cli {

enum ExitStatus { kExitSuccess = 0, kExitFailure = 1, kExitUsage = 2 };

// What a command advises for a result code, in place of the general advice; with a QMI error, where it was that one.
struct Advice {
  modem_api_result code;
  const char* text;
  uint32_t qmi_error = 0;  // 0: whatever it was
};

class Failure : public std::exception {
 public:
  // `step` as in "reading the file 'a'", `reason` as in "no such file", `advice` a sentence or empty.
  Failure(std::string step, std::string reason, std::string advice = "");

  // `exchange`: what the library asked of the modem meanwhile. The first advice that fits is given.
  static Failure of_result(std::string step, modem_api_result code, std::initializer_list<Advice> advices = {},
                           std::optional<Exchange> exchange = take_last_exchange());

  // A failed exchange of which the library returns nothing.
  static Failure of_exchange(std::string step, const Exchange& exchange);

  // The last failed system call: `reason` is errno's.
  static Failure of_system(std::string step, std::string advice = "");

  // The command line is wrong.
  static Failure of_usage(std::string reason, std::string advice = "");

  // Whoever read the output has gone: there is nobody to tell.
  static Failure of_closed_output();

  const char* what() const noexcept override { return text_.c_str(); }
  int exit_status() const { return status_; }
  const std::string& reason() const { return reason_; }
  std::string headline() const { return text_.substr(0, text_.find('\n')); }  // without the advice
  bool is_silent() const { return is_silent_; }
  Json json() const;

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
