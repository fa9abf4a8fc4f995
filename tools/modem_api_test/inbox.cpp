#include "inbox.h"

#include <utility>

#include "hydra_mem.h"

namespace pelmar::cli {

constexpr size_t kMostWaiting = 4096;

std::atomic<Inbox*> Inbox::current_{nullptr};

Inbox::Inbox() {
  current_ = this;
}

// All clients are freed by now: no callback runs any more.
Inbox::~Inbox() {
  current_ = nullptr;
}

void Inbox::receive_event(uint32_t id, const uint8_t* payload, uint32_t length) {
  put({Arrival::Kind::kEvent, WallClock::now(), id, 0, {payload, payload + length}});
}

void Inbox::receive_notice(uint32_t notice, uint32_t client_type) {
  put({Arrival::Kind::kNotice, WallClock::now(), notice, client_type, {}});
}

void Inbox::receive_response(const uint8_t* data, uint32_t length, void* /*user_data*/, uint32_t result) {
  put({Arrival::Kind::kResponse, WallClock::now(), result, 0, {data, data + length}, take_last_exchange()});
  hydra_free_adv(const_cast<uint8_t*>(data), __func__, __LINE__);
}

void Inbox::receive_power_step(uint32_t event) {
  put({Arrival::Kind::kPowerStep, WallClock::now(), event, 0, {}});
}

void Inbox::put(Arrival arrival) {
  Inbox* const inbox = current_;
  if (inbox == nullptr) return;
  const std::lock_guard lock(inbox->mutex_);
  if (inbox->arrivals_.size() == kMostWaiting) {
    ++inbox->dropped_;
    return;
  }
  inbox->arrivals_.push_back(std::move(arrival));
  inbox->changed_.notify_all();
}

template <typename Condition>
void Inbox::wait(std::unique_lock<std::mutex>& lock, std::optional<Clock::time_point> deadline, Condition is_ready) {
  if (!deadline) return changed_.wait(lock, is_ready);
  changed_.wait_until(lock, *deadline, is_ready);
}

std::optional<Arrival> Inbox::next(std::optional<Clock::time_point> deadline) {
  std::unique_lock lock(mutex_);
  const auto is_ready = [this] { return is_interrupted_ || is_woken_ || !arrivals_.empty(); };
  wait(lock, deadline, is_ready);
  is_woken_ = false;
  if (is_interrupted_ || arrivals_.empty()) return std::nullopt;
  std::optional<Arrival> arrival(std::move(arrivals_.front()));
  arrivals_.pop_front();
  return arrival;
}

bool Inbox::pause_until(std::optional<Clock::time_point> deadline, const std::function<bool()>& is_over) {
  std::unique_lock lock(mutex_);
  const auto is_ready = [&] { return is_interrupted_ || (is_over && is_over()); };
  wait(lock, deadline, is_ready);
  return !is_interrupted_;
}

void Inbox::wake() {
  const std::lock_guard lock(mutex_);
  is_woken_ = true;
  changed_.notify_all();
}

void Inbox::interrupt() {
  const std::lock_guard lock(mutex_);
  is_interrupted_ = true;
  changed_.notify_all();
}

bool Inbox::is_interrupted() const {
  const std::lock_guard lock(mutex_);
  return is_interrupted_;
}

size_t Inbox::waiting() const {
  const std::lock_guard lock(mutex_);
  return arrivals_.size();
}

size_t Inbox::take_dropped() {
  const std::lock_guard lock(mutex_);
  return std::exchange(dropped_, 0);
}

}  // namespace pelmar::cli
