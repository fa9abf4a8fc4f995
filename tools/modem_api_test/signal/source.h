// Where readings come from: hydra, opened again whenever the modem was away.
//
// The connection to the vendor-specific service does not come back by itself, so every reading first asks whether the
// modem still answers; the values themselves tell nothing about why they are missing.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "session.h"
#include "signal/reading.h"

namespace pelmar::cli {

class SignalSource {
 public:
  // Opens hydra. Throws where the modem is not there, or does not read its statistics.
  explicit SignalSource(Session& session);

  // Nothing while the modem is away; problem() says why then.
  std::optional<Reading> read(std::span<const uint32_t> subs);

  const std::string& problem() const { return problem_; }

 private:
  void come_back();

  Session& session_;
  std::string problem_;  // empty: the modem answered last
};

}  // namespace pelmar::cli
