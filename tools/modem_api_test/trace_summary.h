// Requests of a trace with their responses, and what they come to by message. Memory is bounded, however long the trace
// is: so is the number of open requests, of messages with a row, and the precision of the percentiles.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "message_text.h"
#include "text.h"

namespace pelmar::cli {

// How long each of many exchanges took. A percentile is at most 3 % above the exact value.
class Durations {
 public:
  void add(int64_t nanoseconds);
  bool empty() const { return total_ == 0; }
  int64_t slowest() const { return slowest_; }
  int64_t percentile(unsigned percent) const;

 private:
  std::vector<uint32_t> counts_;
  uint64_t total_ = 0;
  int64_t slowest_ = 0;
};

class Exchanges {
 public:
  // Opens an exchange with a request; returns the nanoseconds from the request to a response. `counts`: the message is
  // part of the summary.
  std::optional<int64_t> pair(const qmi::TracedMessage& traced, bool counts);

  // A message that is part of the summary.
  void count(const qmi::TracedMessage& traced);

  // The requests that are open have no response. Also where they become too many.
  void end();

  // A list with an object for each message.
  Json json() const;

  // How often messages came that have no row because they are too many.
  uint64_t others() const { return others_.count; }

 private:
  struct Request {
    int64_t time;
    uint32_t row;
    bool counts;
  };

  struct Row {
    uint64_t count = 0;
    uint64_t errors = 0;
    uint64_t without_response = 0;
    Durations durations;
  };

  Row& row(uint32_t key);
  void give_up(const Request& request);

  std::unordered_map<uint64_t, Request> open_;  // by link, service, client and transaction
  std::map<uint32_t, Row> rows_;                // by service, message, and whether it is an indication
  Row others_;
};

// The list as a table.
std::string summary_text(const Json& messages);

}  // namespace pelmar::cli
