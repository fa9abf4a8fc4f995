#include "power/peripheral_manager.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace pelmar::sim {

namespace power = platform::power;

namespace {

// The output has space for the longest status and some events.
constexpr Stream::Bounds kBounds{power::kMaxFrameBytes, size_t{32} << 10};

// Readable when the process has ended. No descriptor where the kernel cannot watch processes. Debian 12 declares the C
// library's function for C only.
UniqueFd open_process(pid_t process) {
  UniqueFd fd(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
  if (!fd && errno != ENOSYS) throw std::system_error(errno, std::generic_category(), "pidfd_open");
  return fd;
}

}  // namespace

// One connection: a voter once it has registered.
//
// It ends when the peer closes it, breaks the protocol, or does not read its responses, and when the peer's process
// ends: a child may have inherited the connection, but the vote was its parent's.
class PeripheralManager::Session final : private Stream::Reader, private EventLoop::Watcher {
 public:
  // Throws std::system_error where the peer's process has ended already, or cannot be watched.
  Session(PeripheralManager& manager, UniqueFd fd, uint64_t number)
      : manager_(manager),
        number_(number),
        stream_(manager.loop_, manager.output_, std::move(fd), *this, kBounds),
        process_(stream_.process_at_other_end()) {
    if (process_ > 0) process_fd_ = open_process(process_);
    if (process_fd_) manager_.loop_.watch(process_fd_.get(), EPOLLIN, *this);
  }
  ~Session() override { unwatch_process(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  uint64_t number() const { return number_; }
  pid_t process() const { return process_; }  // 0 where it is not known
  void send(const power::Reply& reply) { stream_.send(power::to_frame(reply)); }

  std::string name;  // of a registered voter
  bool votes = false;
  bool must_acknowledge = false;

 private:
  size_t on_bytes(std::span<const uint8_t> bytes) override {
    size_t used = 0;
    while (stream_.is_open()) {
      power::Request request;
      size_t size = 0;
      const power::FrameState front = power::parse_frame(bytes.subspan(used), request, size);
      if (front == power::FrameState::kIncomplete) break;
      if (front == power::FrameState::kBroken) {
        stream_.close("no request");
        break;
      }
      used += size;
      manager_.on_request(*this, request);
    }
    return used;
  }

  void on_closed(std::string_view) override {
    unwatch_process();
    manager_.remove(*this);
  }

  // The process has ended.
  void on_ready(uint32_t) override { stream_.close("its process has ended"); }

  void unwatch_process() {
    if (process_fd_) manager_.loop_.unwatch(process_fd_.get(), *this);
    process_fd_.reset();
  }

  PeripheralManager& manager_;
  const uint64_t number_;
  Stream stream_;
  const pid_t process_;
  UniqueFd process_fd_;
};

PeripheralManager::PeripheralManager(EventLoop& loop, WaitingOutput& output, const Options& options,
                                     Switch switch_power)
    : loop_(loop),
      output_(output),
      device_(options.device),
      acknowledge_limit_(options.acknowledge_limit),
      switch_power_(std::move(switch_power)),
      listener_(
          loop, options.socket, [this](UniqueFd fd) { accept(std::move(fd)); }, options.admission) {}

PeripheralManager::~PeripheralManager() = default;

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

// --- requests ---

void PeripheralManager::accept(UniqueFd fd) {
  if (sessions_.size() == kMostConnections) return;
  const uint64_t number = ++last_number_;
  sessions_.emplace(number, std::make_unique<Session>(*this, std::move(fd), number));
}

void PeripheralManager::on_request(Session& session, const power::Request& request) {
  if (std::holds_alternative<power::QueryStatus>(request)) return send_status(session);
  if (const auto* const of = std::get_if<power::Acknowledge>(&request)) {
    if (of->event == state_) session.must_acknowledge = false;  // a late one for an earlier step has no effect
  } else {
    const int result = apply(session, request);
    session.send(power::VoterResponse{result, state_});
  }
  advance_later();
}

// Returns a PM_RET_ value. A voter that registers while the modem powers up or down is notified of the steps that
// follow. A repeated vote succeeds, and so does withdrawing a vote that was not given.
int PeripheralManager::apply(Session& session, const power::Request& request) {
  const auto* const names = std::get_if<power::Register>(&request);
  const bool is_registered = !session.name.empty();
  if (is_registered == (names != nullptr)) return PM_RET_FAILED;
  if (names != nullptr) {
    if (names->device != device_) return PM_RET_UNSUPPORTED;
    session.name = names->voter;
    return PM_RET_SUCCESS;
  }
  session.votes = std::holds_alternative<power::Vote>(request);
  if (std::holds_alternative<power::Unregister>(request)) {
    session.name.clear();
    session.must_acknowledge = false;
  }
  return PM_RET_SUCCESS;
}

void PeripheralManager::send_status(Session& session) const {
  const std::vector<power::VoterEntry> list = voters();
  static_assert(kMostConnections <= power::kMaxVoters);
  session.send(power::Status{state_, static_cast<uint8_t>(list.size())});
  for (const power::VoterEntry& entry : list) session.send(entry);
}

void PeripheralManager::remove(Session& session) {
  apply(session, power::Unregister{});
  loop_.post([this, number = session.number()] { sessions_.erase(number); });
  advance_later();
}

// --- the power ---

// Posted after every change of a session. advance() looks at the present state, so it may run more often than needed.
void PeripheralManager::advance_later() {
  loop_.post([this] { advance(); });
}

void PeripheralManager::advance() {
  const auto must_acknowledge = [](const auto& each) { return each.second->must_acknowledge; };
  if (is_switching_ || std::any_of(sessions_.begin(), sessions_.end(), must_acknowledge)) return;
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
  timer_ = loop_.after(acknowledge_limit_, [this] {
    for (const auto& [number, session] : sessions_) {
      if (std::exchange(session->must_acknowledge, false)) ++overdue_;
    }
    advance();
  });
  advance_later();
}

void PeripheralManager::switch_power(bool on) {
  is_switching_ = true;
  loop_.after(switch_power_(on), [this, on] {
    is_switching_ = false;
    notify_voters(on ? EVENT_PERIPH_IS_ONLINE : EVENT_PERIPH_IS_OFFLINE);
  });
}

}  // namespace pelmar::sim
