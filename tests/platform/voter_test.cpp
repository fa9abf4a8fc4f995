// Voters with a peripheral manager that the test controls.
#include <poll.h>

#include <latch>
#include <thread>

#include "manager_link.h"
#include "manager_protocol.h"
#include "pm-service.h"
#include "scripted_modem.h"

namespace pelmar::platform::power {
namespace {

using namespace std::chrono_literals;

class VoterTest : public testing::Test {
 protected:
  VoterTest() { ::setenv("PELMAR_PM_SOCKET", name_.c_str(), 1); }
  ~VoterTest() override { EXPECT_FALSE(limit_.has_passed()) << "a call waited although its response was there"; }

  // --- the manager: one connection, step by step ---

  void accept() {
    connection_.reset();
    connection_.reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  // Returns nothing if the connection ends.
  Bytes receive(size_t length) {
    Bytes bytes(length);
    const ssize_t count = ::recv(connection_.get(), bytes.data(), length, MSG_WAITALL);
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
  }
  bool is_ended() { return receive(1).empty(); }
  // Returns the next request; QueryStatus, which no voter sends, if none arrives.
  Request next() {
    Request request = QueryStatus{};
    size_t size = 0;
    if (const Bytes length = receive(1); !length.empty())
      parse_frame(join({length, receive(length[0])}), request, size);
    return request;
  }
  void send(const Bytes& bytes) {
    EXPECT_EQ(::send(connection_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  // Sends a message, or closes the connection if the message is empty.
  void send_or_end(const Bytes& message) {
    send(message);
    if (message.empty()) connection_.reset();
  }
  void respond(const Request& expected, int result = 0) {
    EXPECT_EQ(next(), expected);
    send(to_frame(VoterResponse{result, EVENT_PERIPH_IS_OFFLINE}));
  }

  // --- the voter ---

  // Returns the result of a registration with this response. If the response is empty, the manager closes the
  // connection.
  int register_with(const Bytes& response) {
    auto registration = std::async(std::launch::async, [this] {
      return pm_client_register(on_event, this, "modem", "tester", &state_, &handle_);
    });
    accept();
    EXPECT_EQ(next(), Request(Register{"modem", "tester"}));
    send({response.begin(), response.begin() + static_cast<ptrdiff_t>(response.size() / 2)});
    std::this_thread::sleep_for(5ms);  // enough for the voter to read the first half alone
    send_or_end({response.begin() + static_cast<ptrdiff_t>(response.size() / 2), response.end()});
    return registration.get();
  }
  void register_voter() {
    ASSERT_EQ(register_with(to_frame(VoterResponse{0, EVENT_PERIPH_GOING_ONLINE})), PM_RET_SUCCESS);
    ASSERT_NE(handle_, nullptr);
  }

  // Returns the result of an operation to which the manager responds.
  int run(int (*operation)(void*), const Request& request, int result = 0) {
    auto call = std::async(std::launch::async, operation, handle_);
    respond(request, result);
    return call.get();
  }

  static void on_event(void* data, pm_event event) {
    auto& self = *static_cast<VoterTest*>(data);
    if (self.callback_) self.callback_(event);
    self.events_.change([=](std::vector<int>& events) { events.push_back(event); });
  }

  std::vector<int> events(size_t count) {
    events_.wait_until([=](const std::vector<int>& events) { return events.size() >= count; });
    return events_.get();
  }

  const std::string name_ = "@pelmar-pm-test-" + std::to_string(::getpid());
  const Deadline limit_ = Deadline::after(kResponseTimeout);
  const UniqueFd listener_ = listen_on(name_, 4);
  UniqueFd connection_;
  void* handle_ = nullptr;
  pm_event state_ = EVENT_PERIPH_IS_ONLINE;
  std::function<void(pm_event)> callback_;  // on the callback's thread

 private:
  SharedValue<std::vector<int>> events_;
};

TEST_F(VoterTest, VotesWithdrawsAndUnregisters) {
  register_voter();
  EXPECT_EQ(state_, EVENT_PERIPH_GOING_ONLINE);
  EXPECT_EQ(to_frame(Register{"m", "v"}), (Bytes{6, 0x01, 1, 1, 'm', 1, 'v'})) << "the version is sent";
  EXPECT_EQ(run(pm_client_connect, Vote{}), PM_RET_SUCCESS);
  EXPECT_EQ(run(pm_client_connect, Vote{}, PM_RET_UNSUPPORTED), PM_RET_UNSUPPORTED);
  EXPECT_EQ(run(pm_client_disconnect, Withdraw{}), PM_RET_SUCCESS);
  EXPECT_EQ(pm_client_event_acknowledge(handle_, static_cast<pm_event>(4)), PM_RET_FAILED);
  EXPECT_EQ(pm_client_event_acknowledge(handle_, EVENT_PERIPH_GOING_OFFLINE), PM_RET_SUCCESS);
  EXPECT_EQ(next(), Request(Acknowledge{EVENT_PERIPH_GOING_OFFLINE}));
  EXPECT_EQ(run(pm_client_unregister, Unregister{}), PM_RET_SUCCESS);
  EXPECT_TRUE(is_ended());
  EXPECT_EQ(pm_client_unregister(handle_), PM_RET_FAILED);
  EXPECT_EQ(pm_client_connect(handle_), PM_RET_FAILED);
}

// Responses have no numbers, so a thread's request waits for the response to that of another thread.
TEST_F(VoterTest, ThreadsVoteOneByOne) {
  register_voter();
  const auto vote = [this] {
    for (int round = 0; round < 50; ++round) EXPECT_EQ(pm_client_connect(handle_), PM_RET_SUCCESS);
  };
  std::future<void> threads[] = {std::async(std::launch::async, vote), std::async(std::launch::async, vote)};
  for (int round = 0; round < 100; ++round) {
    EXPECT_EQ(next(), Request(Vote{}));
    uint8_t early;
    EXPECT_EQ(::recv(connection_.get(), &early, 1, MSG_PEEK | MSG_DONTWAIT), -1) << "a request before the response";
    send(to_frame(VoterResponse{0, EVENT_PERIPH_IS_OFFLINE}));
  }
  for (auto& thread : threads) thread.wait();
  EXPECT_EQ(run(pm_client_unregister, Unregister{}), PM_RET_SUCCESS);
}

TEST_F(VoterTest, IsNotRegisteredWithoutTheManagersResponse) {
  const Bytes broken_messages[] = {{}, {1, 0x77}, {3, 0x81, 0, 4}, {2, 0x81, 0}, {2, 0x82, 9}, {2, 0x83, 3}};
  for (const Bytes& message : broken_messages) EXPECT_EQ(register_with(message), PM_RET_FAILED) << message.size();
  EXPECT_EQ(register_with(to_frame(VoterResponse{PM_RET_UNSUPPORTED, EVENT_PERIPH_IS_OFFLINE})), PM_RET_UNSUPPORTED);

  const std::string too_long(64, 'm');
  for (const char* const device : std::initializer_list<const char*>{nullptr, "", too_long.c_str(), "a\nb"}) {
    EXPECT_EQ(pm_client_register(on_event, this, device, "tester", &state_, &handle_), PM_RET_FAILED);
  }
  EXPECT_EQ(pm_client_register(nullptr, this, "modem", "tester", &state_, &handle_), PM_RET_FAILED);
  EXPECT_EQ(pm_client_register(on_event, this, "modem", nullptr, &state_, &handle_), PM_RET_FAILED);
  EXPECT_EQ(pm_client_register(on_event, this, "modem", "tester", &state_, nullptr), PM_RET_FAILED);
  pollfd connected = {listener_.get(), POLLIN, 0};
  EXPECT_EQ(::poll(&connected, 1, 0), 0) << "no such request reaches the manager";
  ::setenv("PELMAR_PM_SOCKET", "@nobody-manages-here", 1);
  EXPECT_EQ(pm_client_register(on_event, this, "modem", "tester", &state_, &handle_), PM_RET_FAILED);
  EXPECT_EQ(handle_, nullptr);
  EXPECT_EQ(pm_client_connect(handle_), PM_RET_FAILED);
}

TEST_F(VoterTest, ACallbackMayUseItsHandleAndUnregisterIt) {
  std::vector<int> results;
  callback_ = [&](pm_event) {
    results = {pm_client_event_acknowledge(handle_, EVENT_PERIPH_IS_ONLINE), pm_client_connect(handle_),
               pm_client_disconnect(handle_), pm_client_unregister(handle_), pm_client_connect(handle_)};
  };
  register_voter();
  send(join({to_frame(Event{EVENT_PERIPH_GOING_ONLINE}), to_frame(Event{EVENT_PERIPH_IS_ONLINE})}));
  EXPECT_EQ(next(), Request(Acknowledge{EVENT_PERIPH_IS_ONLINE}));
  respond(Vote{});
  respond(Withdraw{}, PM_RET_FAILED);
  respond(Unregister{});
  EXPECT_TRUE(is_ended());
  EXPECT_EQ(events(1), (std::vector<int>{2})) << "no event after the unregistration";
  EXPECT_EQ(results, (std::vector<int>{0, 0, -1, 0, -1}));
}

// An event without acknowledgement delays no request, and the unregistration waits for a running callback.
TEST_F(VoterTest, ASlowCallbackDelaysOnlyTheUnregistration) {
  std::latch entered(1), go_on(1);
  std::atomic<bool> is_over{false};
  callback_ = [&](pm_event) {
    entered.count_down();
    go_on.wait();
    std::this_thread::sleep_for(50ms);  // enough for an unregistration that does not wait to return
    is_over = true;
  };
  register_voter();
  send(join({to_frame(Event{EVENT_PERIPH_GOING_OFFLINE}), to_frame(Event{EVENT_PERIPH_IS_OFFLINE})}));
  entered.wait();
  EXPECT_EQ(run(pm_client_connect, Vote{}), PM_RET_SUCCESS);
  auto end = std::async(std::launch::async, [&] { return pm_client_unregister(handle_) == 0 && is_over; });
  respond(Unregister{});
  go_on.count_down();
  EXPECT_TRUE(end.get());
  EXPECT_EQ(events(1), (std::vector<int>{0})) << "the second callback was not started";
}

TEST_F(VoterTest, CallsFailOnceTheManagerIsLost) {
  for (const Bytes& message : {Bytes{}, Bytes{1, 0x77}, to_frame(Status{EVENT_PERIPH_IS_ONLINE, 0})}) {
    register_voter();
    auto vote = std::async(std::launch::async, pm_client_connect, handle_);
    EXPECT_EQ(next(), Request(Vote{}));
    send_or_end(message);
    EXPECT_EQ(vote.get(), PM_RET_FAILED);
    EXPECT_EQ(pm_client_connect(handle_), PM_RET_FAILED);
    EXPECT_EQ(pm_client_event_acknowledge(handle_, EVENT_PERIPH_IS_ONLINE), PM_RET_FAILED);
    EXPECT_EQ(pm_client_unregister(handle_), PM_RET_SUCCESS);
  }
}

TEST_F(VoterTest, AManagerThatSendsTooMuchIsLost) {
  std::latch go_on(2);
  callback_ = [&](pm_event) { go_on.wait(); };
  Bytes events;  // one for the callback, and one more than may wait
  for (int i = 0; i < 258; ++i) events = join({events, to_frame(Event{EVENT_PERIPH_IS_ONLINE})});
  for (const Bytes& message : {to_frame(VoterResponse{0, EVENT_PERIPH_IS_OFFLINE}), events}) {
    register_voter();
    send(message);
    EXPECT_TRUE(is_ended());
    go_on.count_down();
    EXPECT_EQ(pm_client_unregister(handle_), PM_RET_SUCCESS);
  }
}

}  // namespace
}  // namespace pelmar::platform::power
