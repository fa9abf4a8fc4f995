// Why a command ended without success: the step that failed, the reason, and what to do about it. Thrown by whoever
// notices; main() turns it into a message and the exit status.
#pragma once

#include <exception>
#include <initializer_list>
#include <optional>
#include <string>

#include "json_fwd.h"
#include "modem_api.h"

namespace pelmar::cli {

enum ExitStatus { kExitSuccess = 0, kExitFailure = 1, kExitUsage = 2 };

// What a command advises for a result code, in place of the general advice.
struct Advice {
  modem_api_result code;
  const char* text;
};

class Failure : public std::exception {
 public:
  // `step` as in "reading the file 'a'", `reason` as in "no such file", `advice` a sentence or empty.
  Failure(std::string step, std::string reason, std::string advice = "");

  static Failure of_result(std::string step, modem_api_result code, std::initializer_list<Advice> advices = {});

  // The last failed system call: `reason` is errno's.
  static Failure of_system(std::string step, std::string advice = "");

  // The command line is wrong.
  static Failure of_usage(std::string reason, std::string advice = "");

  // Whoever read the output has gone: there is nobody to tell.
  static Failure of_closed_output();

  const char* what() const noexcept override { return text_.c_str(); }
  int exit_status() const { return status_; }
  const std::string& reason() const { return reason_; }
  bool is_silent() const { return is_silent_; }
  Json json() const;

 private:
  std::string step_;
  std::string reason_;
  std::string advice_;
  std::optional<modem_api_result> code_;
  int status_ = kExitFailure;
  bool is_silent_ = false;
  std::string text_;
};

// Throws unless the result is a success.
void check(modem_api_result result, const std::string& step, std::initializer_list<Advice> advices = {});

}  // namespace pelmar::cli
