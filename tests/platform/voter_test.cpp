// Voters against a peripheral manager that the test plays.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "manager_link.h"
#include "manager_protocol.h"
#include "pm-service.h"

namespace pelmar::platform::power {
namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

constexpr int kPatienceMs = 60'000;

// One connection, spoken to step by step.
class ScriptedManager {
 public:
  ScriptedManager() : name_("@pelmar-pm-test-" + std::to_string(::getpid())) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name_.copy(address.sun_path, sizeof address.sun_path - 1);
    address.sun_path[0] = '\0';
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name_.size());
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) + ::listen(listener_, 4), 0);
    ::setenv("PELMAR_PM_SOCKET", name_.c_str(), 1);
  }
  ~ScriptedManager() {
    close_connection();
    ::close(listener_);
  }

  void accept() {
    close_connection();
    received_.clear();
    connection_ = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  }
  void close_connection() {
    if (connection_ >= 0) ::close(std::exchange(connection_, -1));
  }

  // The next request; AskStatus, which no voter sends, where none comes.
  Request next() {
    Request request = AskStatus{};
    size_t size = 0;
    while (take_front(received_, request, size) != Front::kComplete) {
      uint8_t bytes[256];
      pollfd readable = {connection_, POLLIN, 0};
      if (::poll(&readable, 1, kPatienceMs) != 1) return AskStatus{};
      const ssize_t count = ::recv(connection_, bytes, sizeof bytes, 0);
      if (count <= 0) return AskStatus{};
      received_.insert(received_.end(), bytes, bytes + count);
    }
    received_.erase(received_.begin(), received_.begin() + static_cast<std::ptrdiff_t>(size));
    return request;
  }
  bool expect(const Request& request) { return next() == request; }

  void send(const Bytes& bytes) {
    EXPECT_EQ(::send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  void send(const Reply& reply) { send(to_frame(reply)); }
  void answer(const Request& request, int result = 0) {
    EXPECT_TRUE(expect(request));
    send(Answer{result, EVENT_PERIPH_IS_OFFLINE});
  }
  bool is_left() {
    Bytes rest(1);
    pollfd readable = {connection_, POLLIN, 0};
    return ::poll(&readable, 1, kPatienceMs) == 1 && ::recv(connection_, rest.data(), 1, 0) <= 0;
  }

 private:
  const std::string name_;
  int listener_ = -1;
  int connection_ = -1;
  Bytes received_;
};

class VoterTest : public testing::Test {
 protected:
  // The result of a registration that the manager answers with these bytes.
  int register_with(const Bytes& answer) {
    auto registration = std::async(std::launch::async, [this] {
      return pm_client_register(on_event, this, "modem", "tester", &state_, &handle_);
    });
    manager_.accept();
    EXPECT_TRUE(manager_.expect(Register{"modem", "tester"}));
    manager_.send(answer);
    if (answer.empty()) manager_.close_connection();
    return registration.get();
  }
  void enrol() {
    ASSERT_EQ(register_with(to_frame(Answer{0, EVENT_PERIPH_IS_OFFLINE})), PM_RET_SUCCESS);
    ASSERT_NE(handle_, nullptr);
  }

  // An operation of the client, played through with a manager that answers it.
  int answered(int (*operation)(void*), const Request& request, int result = 0) {
    auto call = std::async(std::launch::async, operation, handle_);
    manager_.answer(request, result);
    return call.get();
  }

  static void on_event(void* data, pm_event event) {
    auto& self = *static_cast<VoterTest*>(data);
    if (self.act_) self.act_(event);
    const std::lock_guard lock(self.mutex_);
    self.events_.push_back(event);
    self.changed_.notify_all();
  }

  std::vector<int> events(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 60s, [&] { return events_.size() >= count; });
    return events_;
  }

  ScriptedManager manager_;
  void* handle_ = nullptr;
  pm_event state_ = EVENT_PERIPH_IS_ONLINE;
  std::function<void(pm_event)> act_;  // on the callback's thread

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<int> events_;
};

TEST_F(VoterTest, VotesTakesBackAndEnds) {
  enrol();
  EXPECT_EQ(state_, EVENT_PERIPH_IS_OFFLINE);
  EXPECT_EQ(answered(pm_client_connect, Vote{}), PM_RET_SUCCESS);
  EXPECT_EQ(answered(pm_client_connect, Vote{}, PM_RET_UNSUPPORTED), PM_RET_UNSUPPORTED);
  EXPECT_EQ(answered(pm_client_disconnect, Withdraw{}), PM_RET_SUCCESS);
  EXPECT_EQ(pm_client_event_acknowledge(handle_, EVENT_PERIPH_GOING_ONLINE), PM_RET_SUCCESS);
  EXPECT_TRUE(manager_.expect(Acknowledge{EVENT_PERIPH_GOING_ONLINE}));
  EXPECT_EQ(answered(pm_client_unregister, Unregister{}), PM_RET_SUCCESS);
  EXPECT_TRUE(manager_.is_left());
  EXPECT_EQ(pm_client_unregister(handle_), PM_RET_FAILED);
  EXPECT_EQ(pm_client_connect(handle_), PM_RET_FAILED);
}

TEST_F(VoterTest, IsNotRegisteredWithoutTheManagersWord) {
  const struct {
    const char* how;
    Bytes answer;
    int result;
  } cases[] = {
      {"refused", to_frame(Answer{PM_RET_UNSUPPORTED, EVENT_PERIPH_IS_OFFLINE}), PM_RET_UNSUPPORTED},
      {"gone", {}, PM_RET_FAILED},
      {"no answer", to_frame(Event{EVENT_PERIPH_IS_ONLINE}), PM_RET_FAILED},
      {"empty frame", {0}, PM_RET_FAILED},
      {"unknown kind", {1, 0x77}, PM_RET_FAILED},
      {"state 4", {3, 0x81, 0, 4}, PM_RET_FAILED},
      {"too long", {4, 0x81, 0, 1, 0}, PM_RET_FAILED},
      {"too short", {2, 0x81, 0}, PM_RET_FAILED},
  };
  for (const auto& each : cases) EXPECT_EQ(register_with(each.answer), each.result) << each.how;

  void** const place = &handle_;
  EXPECT_EQ(pm_client_register(nullptr, this, "modem", "tester", &state_, place), PM_RET_FAILED);
  EXPECT_EQ(pm_client_register(on_event, this, nullptr, "tester", &state_, place), PM_RET_FAILED);
  EXPECT_EQ(pm_client_register(on_event, this, "modem", "tester", &state_, nullptr), PM_RET_FAILED);
  for (const std::string& name : {std::string(), std::string(64, 'm'), std::string("a\nb")}) {
    EXPECT_EQ(pm_client_register(on_event, this, name.c_str(), "tester", &state_, place), PM_RET_FAILED) << name;
  }
  ::setenv("PELMAR_PM_SOCKET", "@nobody-manages-here", 1);
  EXPECT_EQ(pm_client_register(on_event, this, "modem", "tester", &state_, place), PM_RET_FAILED);
  EXPECT_EQ(handle_, nullptr);
  EXPECT_EQ(pm_client_connect(handle_), PM_RET_FAILED);
}

TEST_F(VoterTest, HandsEventsOnInOrderHoweverTheyAreCut) {
  enrol();
  Bytes stream;
  for (const int event : {2, 3, 0, 1}) {
    const Bytes frame = to_frame(Event{static_cast<pm_event>(event)});
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  manager_.send(Bytes(stream.begin(), stream.begin() + 4));
  EXPECT_EQ(events(1), (std::vector<int>{2}));
  manager_.send(Bytes(stream.begin() + 4, stream.end()));
  EXPECT_EQ(events(4), (std::vector<int>{2, 3, 0, 1}));
  answered(pm_client_unregister, Unregister{});
}

TEST_F(VoterTest, ACallbackMayUseItsHandleAndEndIt) {
  std::vector<int> results;
  act_ = [&](pm_event) {
    results = {pm_client_event_acknowledge(handle_, EVENT_PERIPH_GOING_ONLINE), pm_client_connect(handle_),
               pm_client_disconnect(handle_), pm_client_unregister(handle_), pm_client_connect(handle_)};
  };
  enrol();
  manager_.send(Event{EVENT_PERIPH_GOING_ONLINE});
  manager_.send(Event{EVENT_PERIPH_IS_ONLINE});
  EXPECT_TRUE(manager_.expect(Acknowledge{EVENT_PERIPH_GOING_ONLINE}));
  manager_.answer(Vote{});
  manager_.answer(Withdraw{}, PM_RET_FAILED);
  manager_.answer(Unregister{});
  EXPECT_TRUE(manager_.is_left());
  EXPECT_EQ(events(1), (std::vector<int>{2})) << "none after the end";
  EXPECT_EQ(results, (std::vector<int>{0, 0, -1, 0, -1}));
}

// An event that nobody acknowledges for long holds up no question, and late acknowledgements still go out.
TEST_F(VoterTest, ASlowCallbackHoldsUpNothingButItself) {
  std::promise<void> entered;
  std::promise<void> go_on;
  std::atomic<bool> is_over{false};
  act_ = [&, waited = go_on.get_future().share()](pm_event event) {
    entered.set_value();
    waited.wait();
    pm_client_event_acknowledge(handle_, event);
    std::this_thread::sleep_for(50ms);  // time for an end that does not wait to be seen
    is_over = true;
  };
  enrol();
  manager_.send(Event{EVENT_PERIPH_GOING_OFFLINE});
  entered.get_future().wait();
  EXPECT_EQ(answered(pm_client_connect, Vote{}), PM_RET_SUCCESS);
  manager_.send(Event{EVENT_PERIPH_IS_OFFLINE});
  EXPECT_EQ(answered(pm_client_disconnect, Withdraw{}), PM_RET_SUCCESS);
  auto end = std::async(std::launch::async, [&] {
    pm_client_unregister(handle_);
    return is_over.load();
  });
  manager_.answer(Unregister{});
  go_on.set_value();
  EXPECT_TRUE(end.get()) << "the end waits for a callback that runs";
  EXPECT_EQ(events(1), (std::vector<int>{0})) << "the second was not begun";
}

TEST_F(VoterTest, ALostManagerEndsWhatWaitsAndAllThatFollows) {
  const struct {
    const char* how;
    Bytes last_words;
  } cases[] = {
      {"gone", {}},
      {"broken frame", {0}},
      {"status to a voter", to_frame(Status{EVENT_PERIPH_IS_ONLINE, 1})},
      {"event 9", {2, 0x82, 9}},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.how);
    enrol();
    auto vote = std::async(std::launch::async, pm_client_connect, handle_);
    EXPECT_TRUE(manager_.expect(Vote{}));
    manager_.send(each.last_words);
    if (each.last_words.empty()) {
      manager_.close_connection();
    } else {
      EXPECT_TRUE(manager_.is_left());
    }
    EXPECT_EQ(vote.get(), PM_RET_FAILED);
    EXPECT_EQ(pm_client_connect(handle_), PM_RET_FAILED);
    EXPECT_EQ(pm_client_event_acknowledge(handle_, EVENT_PERIPH_IS_ONLINE), PM_RET_FAILED);
    EXPECT_EQ(pm_client_unregister(handle_), PM_RET_SUCCESS);
  }
}

TEST_F(VoterTest, AnAnswerToNoQuestionOrAFloodOfEventsIsNoManagers) {
  enrol();
  manager_.send(Answer{0, EVENT_PERIPH_IS_ONLINE});
  EXPECT_TRUE(manager_.is_left());
  EXPECT_EQ(pm_client_unregister(handle_), PM_RET_SUCCESS);

  std::promise<void> go_on;
  act_ = [waited = go_on.get_future().share()](pm_event) { waited.wait(); };
  enrol();
  Bytes flood;
  for (int i = 0; i < 400; ++i) flood.insert(flood.end(), {2, 0x82, 3});
  manager_.send(flood);
  EXPECT_TRUE(manager_.is_left());
  go_on.set_value();
  EXPECT_EQ(pm_client_unregister(handle_), PM_RET_SUCCESS);
}

TEST_F(VoterTest, AManagerTellsItsCountToWhoeverAsks) {
  auto asked = std::async(std::launch::async, [] { return ask_for_count(manager_socket()); });
  manager_.accept();
  EXPECT_TRUE(manager_.expect(AskStatus{}));
  manager_.send(Status{EVENT_PERIPH_GOING_ONLINE, 2});
  manager_.send(VoterEntry{0x01020304, true, "one"});
  manager_.send(VoterEntry{5, false, std::string(63, 'x')});
  const auto count = asked.get();
  ASSERT_TRUE(count);
  EXPECT_EQ(count->state, EVENT_PERIPH_GOING_ONLINE);
  EXPECT_EQ(count->voters, (std::vector<VoterEntry>{{0x01020304, true, "one"}, {5, false, std::string(63, 'x')}}));
}

}  // namespace
}  // namespace pelmar::platform::power
