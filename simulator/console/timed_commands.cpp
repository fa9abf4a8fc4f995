#include "console/timed_commands.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "console/commands.h"
#include "printable_text.h"
#include "simulation.h"

namespace pelmar::sim {

void TimedCommands::scenario_changed() {
  done_ = round_start_ = 0;
  next_ = 0;
  clock_changed();
}

void TimedCommands::clock_changed() {
  simulation_.loop.post([this] { run_due(); });
}

void TimedCommands::run_due() {
  simulation_.loop.cancel(timer_);
  const Scenario* const scenario = simulation_.statistics.playing();
  if (scenario == nullptr || scenario->commands().empty()) return;
  const auto& commands = scenario->commands();
  const double repeat = scenario->repeat();
  const double now = simulation_.statistics.seconds_played();

  const bool went_back = now < done_;
  const bool missed_rounds = repeat > 0 && now - round_start_ >= 2 * repeat;
  if (went_back || missed_rounds) {
    round_start_ = repeat > 0 ? std::floor(now / repeat) * repeat : 0;
    next_ = 0;
  }
  const auto due = [&] { return round_start_ + commands[next_].seconds; };
  const auto advance = [&] {
    if (++next_ == commands.size() && repeat > 0) {
      round_start_ += repeat;
      next_ = 0;
    }
  };
  while (went_back && next_ < commands.size() && due() <= now) advance();
  done_ = now;
  while (next_ < commands.size() && due() <= now) {
    const Scenario::Command& command = commands[next_];
    advance();
    const Json response = run_command(simulation_, command.line);
    if (response.at("ok").get<bool>()) continue;
    const std::string problem = command.place + ": " + response.at("error").get<std::string>();
    fprintf(stderr, "modem_sim: %s\n", printable_text(problem).c_str());
  }
  if (next_ == commands.size() || simulation_.clock.is_held()) return;
  const std::chrono::duration<double> wait(std::max(due() - now, 0.001));
  timer_ = simulation_.loop.after(std::chrono::duration_cast<EventLoop::Clock::duration>(wait), [this] { run_due(); });
}

}  // namespace pelmar::sim
