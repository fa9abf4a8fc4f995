// trace: the messages of a capture by name, and a summary of the requests and responses of each message. It reads only
// the file, without a modem. Memory is bounded, however long the capture is: by limits on open requests and on rows of
// the summary, and by percentiles of limited precision.
#include <fcntl.h>
#include <poll.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <ctime>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <unordered_map>

#include "catalogue.h"
#include "command_line.h"
#include "error_names.h"
#include "message_text.h"

namespace pelmar::cli {

namespace {

constexpr size_t kMostBuffered = 65536;

bool is_after(const Moment& moment, int64_t time_ns) {
  return moment.ns > (moment.is_of_day ? qmi::local_time(time_ns).ns : time_ns);
}

// The services, messages or errors that a filter accepts, as numbers.
using Keys = std::vector<uint32_t>;

using Named = std::pair<std::string, uint32_t>;

constexpr uint32_t kAnyError = UINT32_MAX;
constexpr uint32_t kAnyService = 0x100;

constexpr uint32_t message_key(uint32_t service, uint16_t message) {
  return service << 16 | message;
}

bool is_in(const Keys& keys, uint32_t key) {
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

struct TraceValues {
  std::string file;
  bool has_fields = false;
  bool is_summary = false;
  Keys services;
  Keys messages;
  Keys errors;
  std::optional<uint8_t> client;
  std::optional<Moment> from;
  std::optional<Moment> to;

  bool accepts(const qmi::TracedMessage& traced) const {
    const qmi::Frame& frame = traced.captured.frame;
    if (!services.empty() && !is_in(services, frame.service)) return false;
    if (client && *client != frame.client) return false;
    if (!accepts_time(traced.captured.time_ns)) return false;
    if (!messages.empty() && !(traced.message && (is_in(messages, message_key(frame.service, traced.message->id)) ||
                                                  is_in(messages, message_key(kAnyService, traced.message->id))))) {
      return false;
    }
    if (errors.empty()) return true;
    return traced.error && (is_in(errors, *traced.error) || (*traced.error != 0 && is_in(errors, kAnyError)));
  }

 private:
  bool accepts_time(int64_t time_ns) const {
    const bool has_begun = !from || !is_after(*from, time_ns);
    const bool has_not_ended = !to || is_after(*to, time_ns);
    const bool is_over_midnight = from && to && from->is_of_day && to->is_of_day && to->ns < from->ns;
    return is_over_midnight ? has_begun || has_not_ended : has_begun && has_not_ended;
  }
};

// --- options ---

Parse parse_moment_into(std::optional<Moment>& target) {
  return [&target](const std::string& word) -> std::string {
    target = parse_moment(word);
    return target ? "" : "'" + word + "' is no time such as 08:15, 08:15:30.125 or 2024-05-17T06:15:30.125Z";
  };
}

void add_filters(CommandLine& line, const Command& command, TraceValues& values) {
  std::vector<Named> services, messages, errors = {{"error", kAnyError}};
  for (const qmi::ServiceRows& service : qmi::catalogue()) {
    services.push_back({service.name, service.id});
    for (const auto& [id, name] : service.names) messages.push_back({name, message_key(service.id, id)});
  }
  for (const qmi::ErrorName& error : qmi::kErrorNames) errors.push_back({error.name, error.number});
  // Adds an option that accepts names, whatever their case, and numbers; `first` is added to a number.
  const auto add = [&](const char* option, const char* type, Keys& keys, const std::vector<Named>& names, uint32_t most,
                       uint32_t first, const std::string& help) {
    std::vector<std::string> words(names.size());
    std::transform(names.begin(), names.end(), words.begin(), [](const Named& each) { return each.first; });
    line.set_completion(type, std::move(words));
    const auto parse = [&keys, names, most, first, what = option + 2](const std::string& word) -> std::string {
      std::istringstream parts(word + ",");  // so that the last part is read also where it is empty
      for (std::string part; std::getline(parts, part, ',');) {
        const size_t before = keys.size();
        for (const auto& [name, key] : names) {
          if (strcasecmp(name.c_str(), part.c_str()) == 0) keys.push_back(key);
        }
        if (const auto given = parse_number(part, 0, most)) keys.push_back(first + static_cast<uint32_t>(*given));
        if (keys.size() == before) return "'" + part + "' is no " + what + ": give a number, or a name as in a line";
      }
      return "";
    };
    command.add_parsed(option, help + ", by name or number, with commas between", parse, {.type = type});
  };
  std::string known;
  for (const Named& service : services) known += (known.empty() ? "" : ", ") + service.first;
  add("--service", "SERVICE", values.services, services, UINT8_MAX, 0, "only these services (" + known + ")");
  add("--message", "MESSAGE", values.messages, messages, UINT16_MAX, message_key(kAnyService, 0),
      "only these messages (a run without it shows their names, as does the shell's completion)");
  add("--result", "RESULT", values.errors, errors, UINT16_MAX, 0,
      "only responses with these results (error: any but success; each with its request before it)");
  command.add_number("--client", values.client, "only this client id");
  command.add_parsed("--from", "only from this time on: of any day (local) as lines show it, or as in JSON (UTC)",
                     parse_moment_into(values.from), {.type = "TIME"});
  command.add_parsed("--to", "only before this time; --from 23:00 --to 01:00 goes over midnight",
                     parse_moment_into(values.to), {.type = "TIME"});
}

// --- the summary ---

constexpr size_t kMostOpen = 65536;
constexpr size_t kMostRows = 1000;
constexpr size_t kMostKept = 640;  // bytes of a request; those that the library sends are shorter

// Durations are counted by their highest six bits.
constexpr unsigned kPrecisionBits = 5;

size_t bucket_of(uint64_t duration) {
  const auto width = static_cast<unsigned>(std::bit_width(duration));
  const unsigned shift = width > kPrecisionBits + 1 ? width - kPrecisionBits - 1 : 0;
  return (size_t{shift} << kPrecisionBits) + static_cast<size_t>(duration >> shift);
}

int64_t highest_in(size_t bucket) {
  const size_t shift = std::max<size_t>(bucket >> kPrecisionBits, 1) - 1;
  const uint64_t first = bucket - (shift << kPrecisionBits);
  return static_cast<int64_t>(((first + 1) << shift) - 1);
}

uint32_t row_key(uint8_t service, const qmi::Message& message) {
  return uint32_t{service} << 17 | uint32_t{message.id} << 1 | (message.kind == qmi::MessageKind::kIndication ? 1 : 0);
}

Json numbered(unsigned number, const char* name) {
  return {{"number", number}, {"name", name != nullptr ? Json(name) : Json()}};
}

// How long each of many exchanges took. A percentile is at most 3 % above the exact value.
class Durations {
 public:
  void add(int64_t nanoseconds) {
    const int64_t duration = std::max<int64_t>(nanoseconds, 0);  // the clock may have been set
    const size_t bucket = bucket_of(static_cast<uint64_t>(duration));
    if (bucket >= counts_.size()) counts_.resize(bucket + 1);
    ++counts_[bucket];
    ++total_;
    slowest_ = std::max(slowest_, duration);
  }

  bool empty() const { return total_ == 0; }

  // In seconds, where there is any. That of 100 percent is exact.
  double percentile(unsigned percent) const {
    const uint64_t wanted = (total_ * percent + 99) / 100;
    size_t bucket = 0;
    for (uint64_t seen = counts_[0]; seen < wanted; seen += counts_[bucket]) ++bucket;
    return static_cast<double>(std::min(highest_in(bucket), slowest_)) / 1e9;
  }

 private:
  std::vector<uint64_t> counts_;
  uint64_t total_ = 0;
  int64_t slowest_ = 0;
};

class Exchanges {
 public:
  struct Request {
    int64_t time;
    uint32_t row;
    bool counts;
    Bytes message;  // the first bytes, where they are kept
    bool is_cut;    // there are more
  };

  // Opens an exchange with a request; returns the request of a response. `counts`: the message is part of the summary.
  // `most_kept`: the bytes of a request that are kept.
  std::optional<Request> pair(const qmi::TracedMessage& traced, bool counts, size_t most_kept) {
    const qmi::CapturedMessage& captured = traced.captured;
    const qmi::Message& message = *traced.message;
    if (message.kind == qmi::MessageKind::kIndication) return std::nullopt;
    const uint64_t key = uint64_t{captured.link} << 32 | uint32_t{captured.frame.service} << 24 |
                         uint32_t{captured.frame.client} << 16 | message.transaction;
    const uint32_t row = row_key(captured.frame.service, message);
    if (message.kind == qmi::MessageKind::kRequest) {
      const auto kept = captured.frame.message.first(std::min(captured.frame.message.size(), most_kept));
      const bool is_cut = captured.is_cut || kept.size() < captured.frame.message.size();
      if (open_.size() == kMostOpen) end();
      const auto [open, is_new] = open_.try_emplace(key);
      if (!is_new) give_up(open->second);
      open->second = {captured.time_ns, row, counts, {kept.begin(), kept.end()}, is_cut};
      return std::nullopt;
    }
    const auto open = open_.find(key);
    if (open == open_.end() || open->second.row != row) return std::nullopt;
    std::optional<Request> request = std::move(open->second);
    open_.erase(open);
    return request;
  }

  // A message that is part of the summary.
  void count(const qmi::TracedMessage& traced) {
    if (traced.message->kind == qmi::MessageKind::kRequest) return;  // counted with its response
    Row& counted = row(row_key(traced.captured.frame.service, *traced.message));
    ++counted.count;
    if (traced.error.value_or(0) != 0) ++counted.errors;
    if (traced.duration) counted.durations.add(*traced.duration);
  }

  // Counts every open request as one without response. Also called when too many are open.
  void end() {
    for (const auto& [key, request] : open_) give_up(request);
    open_.clear();
  }

  // The number of messages without a row of their own, after the limit of rows.
  uint64_t others() const { return others_.count; }

  // A list with an object for each message.
  Json json() const {
    Json list = Json::array();
    for (const auto& [key, row] : rows_) {
      const bool is_indication = (key & 1) != 0;
      const auto service = static_cast<uint8_t>(key >> 17);
      const auto message = static_cast<uint16_t>(key >> 1);
      Json& object = list.emplace_back();
      object["service"] = numbered(service, qmi::service_name(service));
      object["message"] = numbered(message, qmi::message_name(service, message));
      object["is_indication"] = is_indication;
      object["count"] = row.count;
      if (!is_indication) object.update({{"errors", row.errors}, {"without_response", row.without_response}});
      if (row.durations.empty()) continue;
      object["median_seconds"] = row.durations.percentile(50);
      object["percentile_99_seconds"] = row.durations.percentile(99);
      object["slowest_seconds"] = row.durations.percentile(100);
    }
    return list;
  }

 private:
  struct Row {
    uint64_t count = 0;
    uint64_t errors = 0;
    uint64_t without_response = 0;
    Durations durations;
  };

  Row& row(uint32_t key) { return rows_.size() < kMostRows || rows_.contains(key) ? rows_[key] : others_; }

  void give_up(const Request& request) {
    if (!request.counts) return;
    Row& counted = row(request.row);
    ++counted.count;
    ++counted.without_response;
  }

  std::unordered_map<uint64_t, Request> open_;  // by link, service, client and transaction
  std::map<uint32_t, Row> rows_;                // by service, message, and whether it is an indication
  Row others_;
};

// The list as a table.
std::string summary_text(const Json& messages) {
  const auto title_of = [](const Json& row) {
    const uint8_t service = row["service"]["number"];
    return qmi::service_text(service) + ' ' + qmi::message_text(service, row["message"]["number"]) +
           (row["is_indication"].get<bool>() ? " indication" : "");
  };
  constexpr size_t kTitleWidth = 36;
  constexpr size_t kWidth = 13;
  constexpr struct {
    const char* member;
    const char* title;
  } kColumns[] = {{"count", "count"},
                  {"errors", "errors"},
                  {"without_response", "no response"},
                  {"median_seconds", "median ms"},
                  {"percentile_99_seconds", "99 % ms"},
                  {"slowest_seconds", "slowest ms"}};
  std::string text = left_aligned("message", kTitleWidth);
  for (const auto& column : kColumns) text += right_aligned(column.title, kWidth);
  for (const Json& row : messages) {
    text += '\n' + left_aligned(title_of(row), kTitleWidth);
    for (const auto& column : kColumns) {
      const Json value = row.value(column.member, Json());
      char number[32] = "";
      if (value.is_number_float()) snprintf(number, sizeof number, "%.3f", value.get<double>() * 1e3);
      text += right_aligned(value.is_number_integer() ? value.dump() : number, kWidth);
    }
    text.erase(text.find_last_not_of(' ') + 1);
  }
  return text;
}

// --- the command ---

class Trace {
 public:
  Trace(const Context& context, const TraceValues& values) : context_(context), values_(values) {}

  void run() {
    const bool is_input = values_.file.empty() || values_.file == "-";
    const std::string step = "reading the capture" + (is_input ? "" : " '" + values_.file + "'");
    const UniqueFd file(is_input ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                                 : open(values_.file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) throw Failure::of_system(step);
    if (S_ISDIR(status.st_mode)) throw Failure(step, "it is a directory");
    const bool is_file = S_ISREG(status.st_mode);
    // Ctrl-C also ends the program that writes the pipe; what it wrote is read before this one ends.
    std::optional<Signals::Follower> follower;
    if (!is_file) follower.emplace(context_.signals);
    qmi::CaptureReader reader(file.get());
    qmi::CapturedMessage captured;
    qmi::CaptureReader::Status end{};
    while ((end = reader.next(captured)) == qmi::CaptureReader::Status::kMessage) {
      take(captured, reader.link(captured.link));
      pollfd readable = {file.get(), POLLIN, 0};
      const bool must_wait = !is_file && poll(&readable, 1, 0) == 0;
      if (must_wait || text_.size() >= kMostBuffered) flush();
    }
    conclude(step, reader, end);
  }

 private:
  void take(const qmi::CapturedMessage& captured, const qmi::CaptureLink& link) {
    qmi::TracedMessage traced = {captured, link, read_message(captured.frame), std::nullopt, std::nullopt};
    ++read_;
    if (traced.message && traced.message->kind == qmi::MessageKind::kResponse) {
      const auto result = qmi::find_tlv(traced.message->tlvs, qmi::kResultTlv);
      if (result && result->size() >= qmi::kResultLength) traced.error = qmi::load_u16(result->data() + 2);
    }
    const bool is_accepted = values_.accepts(traced);
    const bool keeps_requests = !values_.errors.empty() && !values_.is_summary;
    std::optional<Exchanges::Request> request;
    if (traced.message) request = exchanges_.pair(traced, is_accepted, keeps_requests ? kMostKept : 0);
    if (request) traced.duration = std::max<int64_t>(captured.time_ns - request->time, 0);
    if (!is_accepted) return;
    ++accepted_;
    if (traced.message) exchanges_.count(traced);
    if (values_.is_summary) return;
    if (request && keeps_requests) {
      qmi::CapturedMessage earlier = captured;
      earlier.time_ns = request->time;
      earlier.direction = qmi::Direction::kToModem;
      earlier.frame.message = request->message;
      earlier.is_cut = request->is_cut;
      show({earlier, link, read_message(earlier.frame), std::nullopt, std::nullopt});
    }
    show(traced);
  }

  void show(const qmi::TracedMessage& traced) {
    if (context_.output.is_json()) return qmi::append_json(text_, traced, values_.has_fields);
    const int64_t day = qmi::local_time(traced.captured.time_ns).day;
    if (day != day_.value_or(day)) append_date(day);
    day_ = day;
    qmi::append_line(text_, traced, values_.has_fields);
  }

  void append_date(int64_t day) {
    const time_t midnight = day * 86400;
    tm date{};
    char line[64];
    text_.append(line, strftime(line, sizeof line, "--- %Y-%m-%d ---\n", gmtime_r(&midnight, &date)));
  }

  void flush() {
    context_.output.write(text_);
    text_.clear();
  }

  void conclude(const std::string& step, const qmi::CaptureReader& reader, qmi::CaptureReader::Status end) {
    using Status = qmi::CaptureReader::Status;
    flush();
    if (end == Status::kNoCapture) throw Failure(step, "it is no capture (pcapng)", "--trace FILE writes one.");
    if (read_ == 0 && reader.skipped() > 0) {
      throw Failure(step, "none of its " + count_of(reader.skipped(), "packet") + " is a QMI message");
    }
    exchanges_.end();
    if (values_.is_summary || context_.output.is_json()) {
      Json summary = {{"type", "summary"},
                      {"messages", read_},
                      {"selected", accepted_},
                      {"skipped_packets", reader.skipped()},
                      {"is_cut", end == Status::kCut},
                      {"by_message", exchanges_.json()}};
      std::string text = summary_text(summary["by_message"]);
      if (exchanges_.others() > 0) {
        summary["other_messages"] = exchanges_.others();
        text += "\nother messages: " + std::to_string(exchanges_.others());
      }
      context_.output.print(summary, text);
    }
    if (reader.skipped() > 0) remark("skipped " + count_of(reader.skipped(), "packet") + " without a QMI message");
    if (end == Status::kCut) remark("the capture ends within a message; all before it was read");
    if (end == Status::kBroken) {
      throw Failure(step, "it is damaged at byte " + std::to_string(reader.position()),
                    "All before it was read: " + count_of(read_, "message") + ".");
    }
  }

  const Context& context_;
  const TraceValues& values_;
  std::string text_;
  Exchanges exchanges_;
  uint64_t read_ = 0;
  uint64_t accepted_ = 0;
  std::optional<int64_t> day_;  // of the line before
};

void trace(const Context& context, const TraceValues& values) {
  Trace(context, values).run();
}

}  // namespace

void add_trace_command(CommandLine& line) {
  auto [command, values] = line.add("trace", "print the messages of a capture by name", trace);
  command.add_text("file", values.file, "the capture (-, or without it: standard input)", {.type = "FILE"});
  command.add_flag("--fields", values.has_fields, "each TLV by name and value, hexadecimal where unknown");
  command.add_flag("--summary", values.is_summary,
                   "only the summary: for each message the count, errors, requests without response, and the time to "
                   "the response in ms");
  add_filters(line, command, values);
  command.add_notes(
      "A capture is a pcapng file as --trace FILE, PELMAR_TRACE=FILE and 'modem_sim serve --trace FILE' write it. A "
      "line has the local time, the process, -> to the modem or <- from it, the service, the client id, the message "
      "and #transaction; of a response also its result and the milliseconds since the request. A line with the date "
      "comes where the day changes. No modem is used.");
  command.add_notes(
      "The exit status is 0 also for a capture that ends within a message, as that of a killed program. It is 1, after "
      "what can be read, for a damaged one.");
  command.add_examples({"field.pcapng --result error --fields", "field.pcapng --service VS,NAS --summary"});
}

}  // namespace pelmar::cli
