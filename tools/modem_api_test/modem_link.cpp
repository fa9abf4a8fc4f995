#include "modem_link.h"

#include "qmi_client.h"

namespace pelmar::cli {

// For the last call at the end; shorter than the time that a command has to end when its time is up.
constexpr std::chrono::milliseconds kLastCallTimeout{300};

ModemLink::ModemLink(std::function<void()> open, std::function<modem_api_result()> probe, bool needs_value)
    : open_(std::move(open)), probe_(std::move(probe)), needs_value_(needs_value) {
  open_();
}

bool ModemLink::is_up() {
  if (!problem_.empty()) {
    try {
      // Opening an absent service would take ten seconds.
      const bool is_absent = !is_present(MODEM_API_CLIENT_VS);
      if (!is_absent) open_();
      problem_ = is_absent ? "its vendor-specific service is down" : "";
    } catch (const Failure& failure) {
      problem_ = failure.headline();
    }
    return problem_.empty();
  }
  const modem_api_result result = probe_();
  const auto exchange = take_last_exchange();
  const bool is_lost = exchange && exchange->code == QMI_SERVICE_ERR;
  if (result == MODEM_API_SUCCESS && !is_lost) return true;
  const uint32_t refusal = exchange && exchange->code == QMI_NO_ERR ? exchange->error : 0;
  if (result == MODEM_API_ERR_TIMEOUT) {
    problem_ = kNoResponseText;
  } else if (refusal == 0 || refusal == QMI_ERR_INVALID_CLIENT_ID_V01) {
    problem_ = "the connection is lost";
  } else if (refusal == QMI_ERR_DEVICE_NOT_READY_V01 || needs_value_) {
    problem_ = describe(*exchange);
  }
  return problem_.empty();
}

stats_para_data probe_request() {
  constexpr uint32_t kSystemModeStatistic = 0x2C;
  stats_para_data data{};
  data.para_num = 1;
  data.entries[0].id = kSystemModeStatistic;
  return data;
}

std::string away_text(const std::string& problem) {
  return "the modem is away: " + problem + "; waiting for it";
}

// --- the thread ---

ModemThread::~ModemThread() {
  if (thread_.joinable()) thread_.join();
}

void ModemThread::start(std::function<void()> call) {
  if (thread_.joinable()) thread_.join();
  is_busy_ = true;
  thread_ = std::thread([this, call = std::move(call)] {
    call();
    {
      const std::lock_guard lock(mutex_);
      is_busy_ = false;
      ended_.notify_all();
    }
    context_.inbox.wake();
  });
}

bool ModemThread::wait(std::optional<Clock::time_point> deadline) const {
  context_.inbox.pause_until(deadline, [this] { return !is_busy_; });
  return !is_busy_;
}

void ModemThread::run(const std::function<void()>& command) {
  const Signals::Follower ends_by_itself(context_.signals);
  std::optional<Failure> failure;
  try {
    command();
  } catch (const Failure& caught) {
    failure = caught;
  }
  std::unique_lock lock(mutex_);
  if (!ended_.wait_for(lock, kLastCallTimeout, [this] { return !is_busy_; })) context_.signals.end(failure);
  if (failure) throw *failure;
}

}  // namespace pelmar::cli
