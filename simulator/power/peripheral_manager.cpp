#include "power/peripheral_manager.h"

#include <algorithm>
#include <utility>

namespace pelmar::sim {

namespace power = platform::power;

PeripheralManager::PeripheralManager(EventLoop& loop, WaitingOutput& output, const Options& options,
                                     Switch switch_power)
    : loop_(loop),
      output_(output),
      device_(options.device),
      acknowledge_limit_(options.acknowledge_limit),
      switch_power_(std::move(switch_power)),
      listener_(
          loop, options.socket, [this](UniqueFd fd) { accept(std::move(fd)); }, options.admission) {}

size_t PeripheralManager::votes() const {
  return static_cast<size_t>(
      std::count_if(sessions_.begin(), sessions_.end(), [](const auto& each) { return each.second->votes; }));
}

std::vector<power::VoterEntry> PeripheralManager::voters() const {
  std::vector<power::VoterEntry> list;
  for (const auto& [number, session] : sessions_) {
    if (session->name.empty()) continue;
    list.push_back({static_cast<uint32_t>(session->process()), session->votes, session->name});
  }
  return list;
}

// --- what voters ask ---

void PeripheralManager::accept(UniqueFd fd) {
  if (sessions_.size() == kMostConnections) return;
  const uint64_t number = ++last_number_;
  VoterSession::Owner& self = *this;
  sessions_.emplace(number, std::make_unique<VoterSession>(loop_, output_, std::move(fd), number, self));
}

void PeripheralManager::on_request(VoterSession& session, const power::Request& request) {
  if (std::holds_alternative<power::AskStatus>(request)) return tell_count(session);
  if (const auto* const of = std::get_if<power::Acknowledge>(&request)) {
    if (of->event == state_) session.must_acknowledge = false;  // a late one for an earlier step counts for nothing
    return advance_later();
  }
  int result = PM_RET_FAILED;
  if (const auto* const names = std::get_if<power::Register>(&request)) result = enrol(session, *names);
  if (std::holds_alternative<power::Vote>(request)) result = set_vote(session, true);
  if (std::holds_alternative<power::Withdraw>(request)) result = set_vote(session, false);
  if (std::holds_alternative<power::Unregister>(request)) result = strike_off(session);
  session.send(power::Answer{result, state_});
  advance_later();
}

// A voter that registers while the modem powers up or down is notified of the steps that follow.
int PeripheralManager::enrol(VoterSession& session, const power::Register& names) {
  if (!session.name.empty()) return PM_RET_FAILED;
  if (names.device != device_) return PM_RET_UNSUPPORTED;
  session.name = names.voter;
  return PM_RET_SUCCESS;
}

// A repeated vote succeeds, and so does taking back none.
int PeripheralManager::set_vote(VoterSession& session, bool votes) {
  if (session.name.empty()) return PM_RET_FAILED;
  session.votes = votes;
  return PM_RET_SUCCESS;
}

int PeripheralManager::strike_off(VoterSession& session) {
  if (session.name.empty()) return PM_RET_FAILED;
  session.name.clear();
  session.votes = session.must_acknowledge = false;
  return PM_RET_SUCCESS;
}

void PeripheralManager::tell_count(VoterSession& session) const {
  const std::vector<power::VoterEntry> list = voters();
  static_assert(kMostConnections <= power::kMaxVoters);
  session.send(power::Status{state_, static_cast<uint8_t>(list.size())});
  for (const power::VoterEntry& entry : list) session.send(entry);
}

void PeripheralManager::on_gone(VoterSession& session) {
  strike_off(session);
  loop_.post([this, number = session.number()] { sessions_.erase(number); });
  advance_later();
}

// --- the power ---

// Whatever may have changed something posts this; it looks at what is, so it may come more often than needed.
void PeripheralManager::advance_later() {
  loop_.post([this] { advance(); });
}

bool PeripheralManager::is_waiting() const {
  return is_switching_ || std::any_of(sessions_.begin(), sessions_.end(),
                                      [](const auto& each) { return each.second->must_acknowledge; });
}

void PeripheralManager::advance() {
  if (is_waiting()) return;
  if (std::exchange(awaits_acknowledgements_, false)) {
    loop_.cancel(timer_);
    if (state_ == EVENT_PERIPH_GOING_ONLINE) return switch_power(true);
    if (state_ == EVENT_PERIPH_GOING_OFFLINE) return switch_power(false);
  }
  const bool is_on = state_ == EVENT_PERIPH_IS_ONLINE;
  const bool is_wanted = votes() > 0;
  if (is_on != is_wanted) notify_voters(is_wanted ? EVENT_PERIPH_GOING_ONLINE : EVENT_PERIPH_GOING_OFFLINE);
}

void PeripheralManager::notify_voters(pm_event event) {
  state_ = event;
  awaits_acknowledgements_ = true;
  for (const auto& [number, session] : sessions_) {
    if (session->name.empty()) continue;
    session->must_acknowledge = true;
    session->send(power::Event{event});
  }
  timer_ = loop_.after(acknowledge_limit_, [this] { give_up_waiting(); });
  advance_later();
}

void PeripheralManager::give_up_waiting() {
  for (const auto& [number, session] : sessions_) {
    if (std::exchange(session->must_acknowledge, false)) ++overdue_;
  }
  advance();
}

void PeripheralManager::switch_power(bool on) {
  is_switching_ = true;
  loop_.after(switch_power_(on), [this, on] {
    is_switching_ = false;
    notify_voters(on ? EVENT_PERIPH_IS_ONLINE : EVENT_PERIPH_IS_OFFLINE);
  });
}

}  // namespace pelmar::sim
