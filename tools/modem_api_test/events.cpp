#include "events.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <span>

#include "modem_link.h"
#include "statistic_values.h"

namespace pelmar::cli {

namespace {

// --- events and service notices as text ---

constexpr uint32_t kNoTrailer = 0xFFFFFFFF;
constexpr size_t kIndent = 14;  // the width of a time and its blanks
constexpr size_t kBytesInText = 24;

struct Description {
  Json document;
  std::string text;  // one line, and indented lines for what the event carries
};

// Adds the records as a list, and each as a line.
void put_records(Description& out, const char* member, const char* kind,
                 std::span<const modem_api_event_record> records) {
  Json list = Json::array();
  for (const modem_api_event_record& record : records) {
    const auto bytes = counted(record.data, record.data_len);
    const auto shown = bytes.first(std::min(bytes.size(), kBytesInText));
    Json& object = list.emplace_back(Json{{"sub", record.sub}, {"id", record.id}});
    put_bytes(object, bytes);
    const std::string fields = put_statistic(object, record.id, bytes);
    out.text.append("\n").append(kIndent, ' ').append(kind).append(" sub ").append(std::to_string(record.sub));
    out.text += " id " + statistic_text(record.id) + ", " + count_of(bytes.size(), "byte");
    if (!bytes.empty()) out.text += ": " + to_hex(shown, " ");
    if (shown.size() < bytes.size()) out.text += " ...";
    if (!fields.empty()) out.text.append("\n").append(kIndent + 2, ' ').append(fields);
  }
  out.document[member] = std::move(list);
}

// Adds the fields that an event has besides its value.
void put(Description& out, const modem_api_vs_status_event& event) {
  out.document.update({{"flag1", event.flag1 != 0}, {"flag2", event.flag2 != 0}});
  out.text += ", flags " + std::to_string(event.flag1) + " " + std::to_string(event.flag2);
}

void put(Description& out, const modem_api_vs_report_a_event& event) {
  const bool has_trailer = event.trailer != kNoTrailer;
  if (has_trailer) out.text += ", trailer " + std::to_string(event.trailer);
  put_records(out, "records", "record", counted(event.records, event.record_count));
  put_records(out, "secondary", "secondary", counted(event.secondary, event.secondary_count));
  if (has_trailer) out.document["trailer"] = event.trailer;
}

void put(Description& out, const modem_api_vs_report_b_event& event) {
  const auto entries = counted(event.entries, event.entry_count);
  out.document.update({{"entries", entries}, {"first", event.first}, {"second", event.second}});
  out.text += ", first " + std::to_string(event.first) + ", second " + std::to_string(event.second) + ", entries";
  for (const uint32_t entry : entries) out.text += ' ' + std::to_string(entry);
  if (entries.empty()) out.text += " none";
}

void put(Description&, const modem_api_vs_report_c_event&) {}

// False where the payload is too short for the structure.
template <typename Payload>
bool put_payload(Description& out, std::span<const uint8_t> bytes) {
  if (bytes.size() < sizeof(Payload)) return false;
  Payload payload;
  std::memcpy(&payload, bytes.data(), sizeof payload);
  out.document["value"] = payload.value;
  out.text += "value " + std::to_string(payload.value);
  put(out, payload);
  return true;
}

constexpr struct {
  uint32_t id;
  const char* name;
  const char* title;
  bool (*put)(Description& out, std::span<const uint8_t> bytes);
} kEvents[] = {
    {MODEM_API_EVENT_VS_STATUS, "status", "status", put_payload<modem_api_vs_status_event>},
    {MODEM_API_EVENT_VS_REPORT_A, "report_a", "report A", put_payload<modem_api_vs_report_a_event>},
    {MODEM_API_EVENT_VS_REPORT_B, "report_b", "report B", put_payload<modem_api_vs_report_b_event>},
    {MODEM_API_EVENT_VS_REPORT_C, "report_c", "report C", put_payload<modem_api_vs_report_c_event>},
};

// A payload shorter than its event's structure is shown as the bytes that it is.
Description describe_event(const Arrival& event) {
  Description out;
  out.document = {{"type", "event"}, {"time", utc_text(event.time)}, {"event", event.number}};
  out.text = local_text(event.time) + "  event " + std::to_string(event.number) + ": ";
  for (const auto& row : kEvents) {
    if (row.id != event.number) continue;
    out.document["name"] = row.name;
    out.text += std::string(row.title) + ", ";
    if (row.put(out, event.payload)) return out;
  }
  put_bytes(out.document, event.payload);
  out.text += count_of(event.payload.size(), "byte") + "\n" + hex_dump(event.payload, kIndent);
  return out;
}

Description describe_notice(const Arrival& notice) {
  const bool is_up = notice.number == MODEM_API_NOTICE_SERVICE_UP;
  const ServiceRow& service = kServices[notice.client_type];
  return {{{"type", "notice"},
           {"time", utc_text(notice.time)},
           {"notice", is_up ? "service_up" : "service_down"},
           {"service", service.name}},
          local_text(notice.time) + "  " + service.title + " is " + (is_up ? "up" : "down")};
}

// --- following them ---

constexpr std::chrono::seconds kLookPeriod{1};

class EventFollower {
 public:
  EventFollower(const Context& context, const FollowLimits& limits, const FollowCalls& calls)
      : context_(context),
        limits_(limits),
        calls_(calls),
        link_([this] { open(); },
              [this] {
                stats_para_data data = probe_request();
                return modem_api_get_stats_parameter(client_, 0, 0, &data);
              },
              false),
        last_look_(Clock::now()),
        next_look_(last_look_ + kLookPeriod),
        thread_(context) {}

  void run() {
    thread_.run([this] { follow_to_the_end(); });
  }

 private:
  bool is_complete() const { return limits_.count > 0 && seen_ == limits_.count; }

  void open() {
    context_.session.restart();
    client_ = context_.session.open(MODEM_API_CLIENT_VS);
    for (int32_t event = MODEM_API_EVENT_VS_REPORT_A; event < MODEM_API_EVENT_COUNT; ++event) {
      check(modem_api_add_modem_event(client_, event), "subscribing to event " + std::to_string(event));
    }
    check(modem_api_set_vs_event_report(client_), "registering for events");
    calls_.on_open(client_);
  }

  void follow_to_the_end() {
    take_waiting();  // what came while the services were opened
    print({{"notice", "following"}, {"text", calls_.start()}}, calls_.start());
    follow_until(deadline_after(limits_.seconds));
    const std::string problem = this->problem();
    if (problem.empty() && calls_.on_end && !thread_.is_busy()) thread_.start(calls_.on_end);
    if (is_complete() || context_.inbox.is_interrupted()) return;
    if (!problem.empty()) {
      throw Failure("waiting for events",
                    "the modem is away: " + problem + "; " + count_of(seen_, "event") + " came before");
    }
    if (limits_.count == 0) return;
    throw Failure("waiting for events",
                  "only " + std::to_string(seen_) + " of " + std::to_string(limits_.count) + " came in " +
                      std::to_string(limits_.seconds) + " seconds",
                  "Wait longer with --for SECONDS.");
  }

  void follow_until(std::optional<Clock::time_point> deadline) {
    while (!is_complete()) {
      if (const auto arrival = context_.inbox.next(deadline ? std::min(*deadline, next_look_) : next_look_)) {
        take(*arrival);
      }
      if (context_.inbox.is_interrupted()) return;
      const bool is_over = deadline && Clock::now() >= *deadline;
      if (is_over) take_waiting();
      if (const size_t dropped = context_.inbox.take_dropped()) {
        const std::string text = std::to_string(dropped) + " events were dropped: the output is too slow";
        print({{"notice", "dropped"}, {"text", text}}, text);
      }
      if (is_over) return;
      look();
    }
  }

  void take(const Arrival& arrival) {
    const bool is_event = arrival.kind == Arrival::Kind::kEvent;
    seen_ += is_event ? 1 : 0;
    // An event shows that the modem is up.
    if (is_event && problem_.empty() && !calls_.on_look) next_look_ = Clock::now() + kLookPeriod;
    const Description description = is_event ? describe_event(arrival) : describe_notice(arrival);
    context_.output.print(description.document, description.text);
  }

  // Takes what has arrived by now, but not what arrives meanwhile: events may come without a pause.
  void take_waiting() {
    for (size_t left = context_.inbox.waiting(); left > 0 && !is_complete(); --left) {
      if (const auto arrival = context_.inbox.next(Clock::now())) take(*arrival);
    }
  }

  // Prints what the last look at the modem found, and starts the next one when it is time.
  void look() {
    const auto now = Clock::now();
    if (thread_.is_busy()) {
      next_look_ = std::max(next_look_, now + kLookPeriod);
      return;
    }
    const std::string before = std::exchange(problem_, link_.problem());
    if (before.empty() && !problem_.empty()) {
      next_look_ = now;
      print({{"notice", "modem_away"}, {"reason", problem_}}, away_text(problem_));
    }
    if (!before.empty() && problem_.empty()) {
      const std::string text = calls_.start();
      print({{"notice", "modem_back"}, {"text", text}}, std::string(kBackText) + ": " + text);
    }
    if (now < next_look_) return;
    last_look_ = now;
    next_look_ = now + kLookPeriod;
    thread_.start([this] {
      if (link_.is_up() && calls_.on_look) calls_.on_look();
    });
  }

  // A look that takes long shows a modem that does not respond, before it ends.
  std::string problem() const {
    if (!thread_.is_busy()) return link_.problem();
    if (!problem_.empty() || Clock::now() - last_look_ < kLookPeriod) return problem_;
    return kNoResponseText;
  }

  void print(const Json& document, const std::string& text) const {
    const auto now = WallClock::now();
    Json dated = {{"type", "notice"}, {"time", utc_text(now)}};
    dated.update(document);
    context_.output.print(dated, local_text(now) + "  " + text);
  }

  const Context& context_;
  const FollowLimits& limits_;
  const FollowCalls& calls_;
  int32_t client_ = -1;
  ModemLink link_;
  std::string problem_;  // as it was printed last
  Clock::time_point last_look_;
  Clock::time_point next_look_;
  uint32_t seen_ = 0;
  ModemThread thread_;
};

// --- events: the command ---

struct EventValues {
  FollowLimits limits;
  bool with_services = false;
};

void show_events(const Context& context, const EventValues& values) {
  // Events do not need the other services: each is opened as soon as it is there.
  std::vector<modem_api_client_type> absent;
  const auto open_services = [&] {
    std::erase_if(absent, [&](modem_api_client_type type) {
      if (!is_present(type)) return false;
      try {
        context.session.open(type);
        return true;
      } catch (const Failure&) {
        return false;
      }
    });
  };
  FollowCalls calls;
  calls.on_open = [&](int32_t) {
    if (values.with_services) absent = {MODEM_API_CLIENT_SAR, MODEM_API_CLIENT_NAS_0, MODEM_API_CLIENT_NAS_1};
    open_services();
  };
  if (values.with_services) calls.on_look = open_services;
  calls.start = [&] {
    std::string text = "following the modem's events; Ctrl-C ends";
    for (const auto type : absent) text += std::string("; ") + kServices[type].title + " is down";
    return text;
  };
  follow_events(context, values.limits, calls);
}

}  // namespace

void FollowLimits::add_to(const Command& command, const std::string& what) {
  command.add_number("--count", count, "end after that many " + what, {.otherwise = "no limit"});
  command.add_duration(seconds);
}

void follow_events(const Context& context, const FollowLimits& limits, const FollowCalls& calls) {
  context.require_end(limits.seconds, limits.count);
  EventFollower(context, limits, calls).run();
}

void add_events_command(CommandLine& line) {
  auto [command, values] = line.add("events", "follow the modem's events as they arrive", show_events);
  values.limits.add_to(command);
  command.add_flag("--services", values.with_services, "also follow the SAR and NAS services going down and up");
  command.add_examples({"", "--count 1 --for 60 --json"});
}

}  // namespace pelmar::cli
