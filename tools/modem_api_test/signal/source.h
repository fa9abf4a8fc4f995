// Where readings come from: hydra, opened again whenever the modem was away.
//
// The values themselves show nothing of why they are missing, so every reading first asks whether the modem responds.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "modem_link.h"
#include "session.h"
#include "signal/reading.h"

namespace pelmar::cli {

class SignalSource {
 public:
  // Opens hydra. Throws where the modem is not there, or does not read its statistics.
  explicit SignalSource(Session& session);

  // Nothing while the modem is away; problem() says why then.
  std::optional<Reading> read(std::span<const uint32_t> subs);

  const std::string& problem() const { return link_.problem(); }

 private:
  ModemLink link_;
};

}  // namespace pelmar::cli
