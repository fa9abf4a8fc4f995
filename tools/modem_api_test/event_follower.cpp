#include "event_follower.h"

#include <algorithm>
#include <utility>

#include "event_text.h"
#include "failure.h"
#include "json.h"
#include "options.h"
#include "time_text.h"

namespace pelmar::cli {

namespace {

constexpr std::chrono::seconds kLookPeriod{1};

void subscribe_to_events(int32_t client) {
  for (int32_t event = MODEM_API_EVENT_VS_REPORT_A; event < MODEM_API_EVENT_COUNT; ++event) {
    check(modem_api_add_modem_event(client, event), "subscribing to event " + std::to_string(event));
  }
  check(modem_api_set_vs_event_report(client), "asking the modem to report events");
}

}  // namespace

void FollowLimits::add_to(CLI::App& command) {
  add_number(command, "--count", count, "end after that many events");
  add_number(command, "--for", seconds, "end after that many seconds")->type_name("SECONDS");
}

EventFollower::EventFollower(const Context& context, const FollowLimits& limits, Calls calls)
    : context_(context),
      limits_(limits),
      calls_(std::move(calls)),
      link_([this] { open(); }, [this] { return probe(); }, false),
      last_look_(Clock::now()),
      next_look_(last_look_ + kLookPeriod),
      thread_(context) {}

void EventFollower::open() {
  context_.session.restart();
  client_ = context_.session.open(MODEM_API_CLIENT_VS);
  subscribe_to_events(client_);
  calls_.prepare(client_);
}

modem_api_result EventFollower::probe() const {
  stats_para_data data = probe_request();
  return modem_api_get_stats_parameter(client_, 0, 0, &data);
}

// Prints what the last look at the modem found, and starts the next one when it is time.
void EventFollower::look(const std::function<std::string()>& start) {
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
    print({{"notice", "modem_back"}, {"text", start()}}, std::string(kBackText) + ": " + start());
  }
  if (now < next_look_) return;
  last_look_ = now;
  next_look_ = now + kLookPeriod;
  thread_.start([this] {
    if (link_.is_up() && calls_.tend) calls_.tend();
  });
}

// A look that takes long shows a modem that does not respond, before it ends.
std::string EventFollower::problem() const {
  if (!thread_.is_busy()) return link_.problem();
  if (!problem_.empty() || Clock::now() - last_look_ < kLookPeriod) return problem_;
  return kNoResponseText;
}

void EventFollower::follow_until(std::optional<Clock::time_point> deadline, const std::function<std::string()>& start) {
  while (!is_complete()) {
    const auto arrival = context_.inbox.next(deadline ? std::min(*deadline, next_look_) : next_look_);
    if (arrival) {
      const bool is_event = arrival->kind == Arrival::Kind::kEvent;
      seen_ += is_event ? 1 : 0;
      // An event shows that the modem is there.
      if (is_event && problem_.empty() && !calls_.tend) next_look_ = Clock::now() + kLookPeriod;
      const Description description = describe(*arrival);
      context_.output.print(description.document, description.text);
    } else if (context_.inbox.is_interrupted() || (deadline && Clock::now() >= *deadline)) {
      return;
    }
    if (const size_t dropped = context_.inbox.take_dropped()) {
      const std::string text = std::to_string(dropped) + " events were dropped: the output is too slow";
      print({{"notice", "dropped"}, {"text", text}}, text);
    }
    look(start);
  }
}

void EventFollower::print(Json document, const std::string& text) const {
  const auto now = WallClock::now();
  Json dated = {{"time", utc_text(now)}};
  dated.update(document);
  context_.output.print(dated, local_text(now) + "  " + text);
}

void EventFollower::follow(const std::function<std::string()>& start) {
  thread_.run([&] { follow_to_the_end(start); });
}

void EventFollower::follow_to_the_end(const std::function<std::string()>& start) {
  follow_until(Clock::now(), start);  // that the services came up
  print({{"notice", "following"}, {"text", start()}}, start());
  std::optional<Clock::time_point> deadline;
  if (limits_.seconds > 0) deadline = Clock::now() + std::chrono::seconds(limits_.seconds);
  follow_until(deadline, start);
  const std::string problem = this->problem();
  if (problem.empty() && calls_.leave && !thread_.is_busy()) thread_.start(calls_.leave);
  if (is_complete() || context_.inbox.is_interrupted()) return;
  const std::string seen = std::to_string(seen_) + (seen_ == 1 ? " event" : " events") + " came";
  if (!problem.empty()) {
    throw Failure("waiting for events", "the modem is away: " + problem + "; " + seen + " before");
  }
  if (limits_.count == 0) return;
  throw Failure("waiting for events",
                "only " + std::to_string(seen_) + " of " + std::to_string(limits_.count) + " came in " +
                    std::to_string(limits_.seconds) + " seconds",
                "Wait longer with --for SECONDS.");
}

}  // namespace pelmar::cli
