// The program's own standard output: a document for people, or one line of JSON for scripts.
//
// The library's shell log goes to standard output too. So that the program's output stays clean, it keeps the real
// standard output to itself and points descriptor 1 at standard error.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "bytes.h"
#include "failure.h"
#include "json_fwd.h"
#include "unique_fd.h"

namespace pelmar::cli {

class Output {
 public:
  // Takes standard output over; once in a process, before any other thread writes.
  explicit Output(bool json);
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  bool is_json() const { return is_json_; }
  int descriptor() const { return fd_.get(); }

  // Writes the one or the other; the text's last line end is added where it is missing, and its control characters but
  // line ends and tabs are escaped. Throws when it cannot.
  void print(const Json& document, std::string_view text);

  // The bytes as they are.
  void write(std::span<const uint8_t> bytes);

  // Tells a failure on standard error, and as JSON here too.
  void report(const Failure& failure);

 private:
  void write_text(std::string_view text);

  const UniqueFd fd_;
  const bool is_json_;
};

// From now on what finds no reader within a moment is a failure; before, it is waited for.
void stop_waiting_for_readers();

// A remark for the person at the terminal, on standard error.
void remark(const std::string& text);

}  // namespace pelmar::cli
