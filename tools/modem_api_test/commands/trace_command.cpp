// trace: the messages of a capture by name, and what they come to. It works on the file alone, without a modem.
#include <fcntl.h>
#include <poll.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "catalogue.h"
#include "command_line.h"
#include "error_names.h"
#include "trace_summary.h"

namespace pelmar::cli {

namespace {

constexpr size_t kMostBuffered = 65536;

bool is_after(const Moment& moment, int64_t time_ns) {
  return moment.ns > (moment.is_of_day ? qmi::local_time(time_ns).ns : time_ns);
}

// What the names and numbers of a filter stand for.
using Keys = std::vector<uint32_t>;

struct Named {
  std::string name;
  uint32_t key;
};

constexpr uint32_t kAnyError = UINT32_MAX;
constexpr uint32_t kAnyService = 0x100;

constexpr uint32_t message_key(uint32_t service, uint16_t message) {
  return service << 16 | message;
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

  bool accepts(const qmi::TracedMessage& traced) const;
  bool accepts_time(int64_t time_ns) const;
};

bool is_in(const Keys& keys, uint32_t key) {
  return std::find(keys.begin(), keys.end(), key) != keys.end();
}

bool TraceValues::accepts(const qmi::TracedMessage& traced) const {
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

bool TraceValues::accepts_time(int64_t time_ns) const {
  const bool has_begun = !from || !is_after(*from, time_ns);
  const bool has_not_ended = !to || is_after(*to, time_ns);
  const bool is_over_midnight = from && to && from->is_of_day && to->is_of_day && to->ns < from->ns;
  return is_over_midnight ? has_begun || has_not_ended : has_begun && has_not_ended;
}

// --- options ---

// Takes names, in capitals or not, and numbers, which `number` is added to; commas separate them.
Take take_keys(Keys& keys, std::vector<Named> names, uint32_t most, uint32_t number, const char* what) {
  return [&keys, names = std::move(names), most, number, what](const std::string& word) -> std::string {
    std::istringstream parts(word + ",");  // so that the last part is read also where it is empty
    for (std::string part; std::getline(parts, part, ',');) {
      const size_t before = keys.size();
      for (const Named& each : names) {
        if (strcasecmp(each.name.c_str(), part.c_str()) == 0) keys.push_back(each.key);
      }
      if (const auto given = parse_number(part, 0, most)) keys.push_back(number + static_cast<uint32_t>(*given));
      if (keys.size() == before) return "'" + part + "' is no " + what + ": give a name or a number";
    }
    return "";
  };
}

Take take_moment(std::optional<Moment>& target) {
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
  const auto add = [&](const char* option, const char* type, Keys& keys, const std::vector<Named>& names, uint32_t most,
                       uint32_t number, const char* what, const std::string& help) {
    std::vector<std::string> words(names.size());
    std::transform(names.begin(), names.end(), words.begin(), [](const Named& each) { return each.name; });
    line.set_completion(type, std::move(words));
    command.add_parsed(option, help + ", by name or number, with commas between",
                       take_keys(keys, names, most, number, what), {.type = type});
  };
  add("--service", "SERVICE", values.services, services, UINT8_MAX, 0, "service", "only these services");
  add("--message", "MESSAGE", values.messages, messages, UINT16_MAX, message_key(kAnyService, 0), "message",
      "only these messages");
  add("--result", "RESULT", values.errors, errors, UINT16_MAX, 0, "result",
      "only responses with these results (error: any but success)");
  command.add_number("--client", values.client, "only this client id");
  command.add_parsed("--from", "only from this time on: of any day (local) as lines show it, or as in JSON (UTC)",
                     take_moment(values.from), {.type = "TIME"});
  command.add_parsed("--to", "only before this time; --from 23:00 --to 01:00 goes over midnight",
                     take_moment(values.to), {.type = "TIME"});
}

// --- the command ---

class Trace {
 public:
  Trace(const Context& context, const TraceValues& values)
      : output_(context.output), signals_(context.signals), values_(values) {}

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
    if (!is_file) follower.emplace(signals_);
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
    if (traced.message) traced.duration = exchanges_.pair(traced, is_accepted);
    if (!is_accepted) return;
    ++accepted_;
    if (traced.message) exchanges_.count(traced);
    if (values_.is_summary) return;
    if (output_.is_json()) return qmi::append_json(text_, traced, values_.has_fields);
    const int64_t day = qmi::local_time(captured.time_ns).day;
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
    output_.write(text_);
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
    if (values_.is_summary || output_.is_json()) {
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
      output_.print(summary, text);
    }
    if (reader.skipped() > 0) remark("skipped " + count_of(reader.skipped(), "packet") + " without a QMI message");
    if (end == Status::kCut) remark("the capture ends within a message; all before it was read");
    if (end == Status::kBroken) {
      throw Failure(step, "it is damaged at byte " + std::to_string(reader.position()),
                    "All before it was read: " + count_of(read_, "message") + ".");
    }
  }

  Output& output_;
  Signals& signals_;
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
