#include "event_follower.h"

#include <algorithm>

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

modem_api_result probe(int32_t client) {
  stats_para_data data = probe_request();
  return modem_api_get_stats_parameter(client, 0, 0, &data);
}

}  // namespace

void FollowLimits::add_to(CLI::App& command) {
  add_number(command, "--count", count, "end after that many events");
  add_number(command, "--for", seconds, "end after that many seconds")->type_name("SECONDS");
}

EventFollower::EventFollower(const Context& context, const FollowLimits& limits,
                             std::function<void(int32_t client)> prepare)
    : context_(context),
      limits_(limits),
      link_([this, prepare = std::move(prepare)] { open(prepare); }, [this] { return probe(client_); }),
      next_look_(Clock::now() + kLookPeriod) {}

void EventFollower::open(const std::function<void(int32_t client)>& prepare) {
  context_.session.restart();
  client_ = context_.session.open(MODEM_API_CLIENT_VS);
  subscribe_to_events(client_);
  prepare(client_);
}

void EventFollower::look(const std::function<std::string()>& start) {
  const bool was_up = link_.problem().empty();
  const bool is_up = link_.is_up();
  next_look_ = Clock::now() + kLookPeriod;
  if (was_up && !is_up) {
    next_look_ = Clock::now();
    print({{"notice", "modem_away"}, {"reason", link_.problem()}}, away_text(link_.problem()));
  }
  if (!was_up && is_up) print({{"notice", "modem_back"}, {"text", start()}}, std::string(kBackText) + ": " + start());
}

void EventFollower::follow_until(std::optional<Clock::time_point> deadline, const std::function<std::string()>& start) {
  while (!is_complete()) {
    const auto arrival = context_.inbox.next(deadline ? std::min(*deadline, next_look_) : next_look_);
    if (arrival) {
      seen_ += arrival->kind == Arrival::Kind::kEvent ? 1 : 0;
      const Description description = describe(*arrival);
      context_.output.print(description.document, description.text);
    } else if (context_.inbox.is_interrupted() || (deadline && Clock::now() >= *deadline)) {
      return;
    }
    if (const size_t dropped = context_.inbox.take_dropped()) {
      const std::string text = std::to_string(dropped) + " events were dropped: the output is too slow";
      print({{"notice", "dropped"}, {"text", text}}, text);
    }
    if (Clock::now() >= next_look_) look(start);
  }
}

void EventFollower::print(Json document, const std::string& text) const {
  const auto now = WallClock::now();
  Json dated = {{"time", utc_text(now)}};
  dated.update(document);
  context_.output.print(dated, local_text(now) + "  " + text);
}

void EventFollower::follow(const std::function<std::string()>& start) {
  const Signals::Follower ends_by_itself(context_.signals);
  follow_until(Clock::now(), start);  // that the services came up
  print({{"notice", "following"}, {"text", start()}}, start());
  std::optional<Clock::time_point> deadline;
  if (limits_.seconds > 0) deadline = Clock::now() + std::chrono::seconds(limits_.seconds);
  follow_until(deadline, start);
  if (is_complete() || context_.inbox.is_interrupted()) return;
  const std::string seen = std::to_string(seen_) + (seen_ == 1 ? " event" : " events") + " came";
  if (!link_.problem().empty()) {
    throw Failure("waiting for events", "the modem is away: " + link_.problem() + "; " + seen + " before");
  }
  if (limits_.count == 0) return;
  throw Failure("waiting for events",
                "only " + std::to_string(seen_) + " of " + std::to_string(limits_.count) + " came in " +
                    std::to_string(limits_.seconds) + " seconds",
                "Wait longer with --for SECONDS.");
}

}  // namespace pelmar::cli
