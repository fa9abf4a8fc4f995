// A connection to the vendor-specific service that is opened again whenever the modem was away.
//
// The library reports no loss of that service, so that its user asks from time to time whether the modem still
// responds.
#pragma once

#include <functional>
#include <string>

#include "modem_api.h"

namespace pelmar::cli {

class ModemLink {
 public:
  // `open` opens the connection, also where it is open already, and throws where it cannot; it is called at once.
  // `probe` reads something from the modem over that connection. A modem that refuses it is there, unless it does not
  // know this client any more, is not ready, or a value is needed.
  ModemLink(std::function<void()> open, std::function<modem_api_result()> probe, bool needs_value);

  // Whether the modem responds; opens the connection again where the last call found it lost.
  bool is_up();

  // Why the modem is away; empty where it responded last.
  const std::string& problem() const { return problem_; }

 private:
  void come_back();

  const std::function<void()> open_;
  const std::function<modem_api_result()> probe_;
  const bool needs_value_;
  std::string problem_;
};

// What a probe may ask for: a value that every modem with statistics has.
stats_para_data probe_request();

std::string away_text(const std::string& problem);
inline constexpr const char* kNoResponseText = "it does not respond";
inline constexpr const char* kBackText = "the modem is back";

}  // namespace pelmar::cli
