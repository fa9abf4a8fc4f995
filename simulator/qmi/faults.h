// What the operator has asked the modem to do wrong, as rows: which responses, how often, and what happens to them.
//
// The rows are asked once for every request; the first that fits decides.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace pelmar::sim {

enum class FaultKind {
  kDelay,      // respond late
  kError,      // refuse with an error number, without doing anything
  kSilence,    // do it without a response
  kCut,        // send only the first bytes of the message; the frame around it stays in step
  kGarbage,    // send bytes that are no message instead
  kRepeat,     // respond twice
  kReorder,    // respond after the next response of the connection
  kCloseHalf,  // send half of the frame and close the connection
  kDieHalf,    // send half of the frame and end the process at once
};

struct Fault {
  explicit Fault(FaultKind what) : kind(what) {}

  FaultKind kind;
  std::chrono::milliseconds delay{};  // kReorder: after which the response waits for no other any more
  uint16_t error = 0;
  size_t cut_to = 0;
  std::vector<uint8_t> garbage;
};

struct FaultRow {
  explicit FaultRow(Fault what) : fault(std::move(what)) {}

  Fault fault;
  std::optional<uint8_t> service;
  std::optional<uint16_t> message;
  std::optional<uint64_t> times_left;  // nothing: until cleared
};

class Faults {
 public:
  void add(FaultRow row) { rows_.push_back(std::move(row)); }
  void clear() { rows_.clear(); }
  const std::vector<FaultRow>& rows() const { return rows_; }

  // The fault of the response to this message, counted down.
  std::optional<Fault> take(uint8_t service, uint16_t message) {
    for (auto row = rows_.begin(); row != rows_.end(); ++row) {
      if (row->service.value_or(service) != service || row->message.value_or(message) != message) continue;
      if (!row->times_left || --*row->times_left != 0) return row->fault;
      Fault last = std::move(row->fault);
      rows_.erase(row);
      return last;
    }
    return std::nullopt;
  }

 private:
  std::vector<FaultRow> rows_;
};

}  // namespace pelmar::sim
