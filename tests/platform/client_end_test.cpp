// The end of handles and the reports of notifiers: the service goes away and comes back, the handle is released, the
// process ends.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <latch>
#include <thread>

#include "client_fixture.h"
#include "notifier.h"

namespace {

bool g_is_child = false;

}  // namespace

// Turns leak checks off in a child of fork(): blocks of the parent's other threads would be reported.
extern "C" int __lsan_is_turned_off() {  // NOLINT(bugprone-reserved-identifier): the sanitizer's name
  return g_is_child ? 1 : 0;
}

// By default clang's thread sanitizer ends a child of fork() that starts a thread.
extern "C" const char* __tsan_default_options() {  // NOLINT(bugprone-reserved-identifier): the sanitizer's name
  return "die_after_fork=0";
}

namespace pelmar::platform {
namespace {

using ClientIds = ScriptedModem::ClientIds;

// --- the service goes away ---

TEST_P(BothRules, EverySendEndsWhenTheServiceIsLost) {
  // The last frame is longer than its message and takes the next one's first byte.
  const std::function<void(int connection, uint8_t client)> losses[] = {
      [this](int to, uint8_t client) { modem_.revoke(to, kNasId, client); },
      [this](int to, uint8_t) { modem_.announce_restart(to); },
      [this](int to, uint8_t) { modem_.close(to); },
      [this](int to, uint8_t) {
        modem_.send(to, {0x01, 6, 0, 0x80, 3, 1, 0x01, 5, 0, 0x80, 3, 1});
      },
  };
  for (const auto& lose : losses) {
    SCOPED_TRACE(&lose - losses);
    events_.set({});
    const qmi_client_type handle = connect_with_error_callback();
    const auto [connection, service, client, transaction, id, tlvs] = begin_async(handle);
    Exchange exchanges[] = {begin(handle, 0), begin(handle, 0)};
    modem_.indicate(connection, kNasId, client, 1);
    modem_.revoke(connection, kNasId, static_cast<uint8_t>(client + 1));  // another client's
    std::future<Outcome> late;
    on_callback_.set([&](qmi_client_type) {
      if (events(0).size() == 1) return;  // the indication
      on_callback_.set(nullptr);
      late = std::async(std::launch::async, get_drx, handle, 10'000);
      EXPECT_TRUE(!GetParam() || late.wait_for(milliseconds(20)) == std::future_status::timeout);
    });
    // A recv() waits for 100 ms; the next one finds the end of the stream.
    if (&lose == &losses[2]) std::this_thread::sleep_for(milliseconds(150));
    lose(connection, client);
    for (Exchange& exchange : exchanges) EXPECT_EQ(exchange.outcome.get(), lost());
    const std::string content = by_rules("1003", "nothing");
    EXPECT_EQ(events(3), (Events{"indication 1 (0)", "response 137 -2 " + content, "error -2"}));

    EXPECT_EQ(late.get(), lost()) << "by the phone's rules after the callback that reports the loss";
    nas::PlainResponse plain{};
    EXPECT_EQ(qmi_client_send_msg_sync(handle, QMI_NAS_SET_AVOID_TRM_V01, nullptr, 0, &plain, sizeof plain, 0),
              QMI_SERVICE_ERR);
    EXPECT_EQ(plain.header.error, by_rules<int>(QMI_ERR_INTERNAL_V01, QMI_ERR_NONE_V01));
    EXPECT_EQ(send_async(handle), QMI_SERVICE_ERR);
    EXPECT_EQ(qmi_client_register_error_cb(handle, on_error, this), QMI_SERVICE_ERR);
    EXPECT_EQ(events(0).size(), 4u) << "a registration after the loss calls back before it returns";
    EXPECT_TRUE(modem_.wait_for_close(connection));
    if (&lose != &losses[3]) {
      EXPECT_EQ(record_.held(Deadline::none()).empty(), &lose != &losses[2])
          << "an id that could not be released stays";
      EXPECT_TRUE(modem_.client_ids.get().contains({kNasId, client})) << "it may be another client's id by now";
    }
  }
  modem_.client_ids.set({});  // the scripted modem keeps ids until the test clears them
}

// Behind a proxy only an error of a response shows that a client id is void. An asynchronous and a synchronous request
// are pending. The response to the synchronous one has the error of a void id, so the framework sends a probe.
class ErrorOfAVoidId : public BothRules {
 protected:
  ScriptedRequest receive_probe() {
    modem_.respond(exchange_.request, refusal(7));
    const ScriptedRequest probe = modem_.receive();
    EXPECT_EQ(probe.client, async_.client);
    EXPECT_NE(probe.id, kDrx);
    return probe;
  }

  const qmi_client_type handle_ = connect_with_error_callback();
  const ScriptedRequest async_ = begin_async(handle_);
  Exchange exchange_ = begin(handle_);
};

TEST_P(ErrorOfAVoidId, EndsTheConnectionOnceConfirmedButNoNewerOne) {
  modem_.client_ids.set({{kNasId, 1}});  // the modem has restarted, and the id is another program's
  connect();
  const ScriptedRequest probe = receive_probe();
  create_notifier();
  EXPECT_EQ(events(0), (Events{"event 0"}));
  modem_.respond(probe, refusal(7));
  EXPECT_EQ(exchange_.outcome.get(), lost());
  Events seen = events(5);
  std::sort(seen.begin(), seen.end());  // the handles' threads run concurrently
  EXPECT_EQ(seen, (Events{"error -2", "event 0", "event 0", "event 1",
                          "response 137 -2 " + std::string(by_rules("1003", "nothing"))}));
  EXPECT_TRUE(modem_.wait_for_close(0));
  connect();  // releases what others left
  EXPECT_EQ(modem_.client_ids.get(), (ClientIds{{kNasId, 1}, {kNasId, 2}, {kNasId, 3}}));
  modem_.client_ids.set({});
}

TEST_P(ErrorOfAVoidId, BelongsToTheMessageIfTheIdIsValid) {
  modem_.respond(receive_probe(), refusal(71));
  EXPECT_EQ(exchange_.outcome.get(), Outcome(0, 1007));
  modem_.respond(async_, refusal(7));
  modem_.receive();  // the second probe has no response
  EXPECT_EQ(events(1), (Events{"response 137 0 1007"}));
}

// --- notifiers ---

TEST_F(ClientTest, ANotifierReportsAtRegistrationAndEveryChange) {
  const qmi_client_type notifier = create_notifier();
  EXPECT_EQ(events(0), (Events{"event 0"})) << "before the registration returns";
  EXPECT_EQ(qmi_client_register_notify_cb(notifier, on_event, this), QMI_NO_ERR);
  modem_.services.set({});
  events(3);
  modem_.services.set({kNasId});
  events(4);
  modem_.announce_restart(0);
  events(6);
  modem_.send(0, join({frame(0, 0, {2, 0, 0x24, 0, 0, 0}), frame(0, 0, {2, 0, 0x24, 0, 4, 0, 0x01, 1, 0, kNasId})}));
  modem_.revoke(0, kNasId, 9);
  EXPECT_EQ(events(8),
            (Events{"event 0", "event 0", "event 1", "event 0", "event 1", "event 0", "event 1", "event 0"}));
  modem_.close(0);
  EXPECT_EQ(events(10).size(), 10u);
  connect();
  modem_.revoke(2, kNasId, modem_.client_ids.get().begin()->second);
  modem_.client_ids.set({});
  EXPECT_EQ(events(12).size(), 12u) << "the handle's link alone has the revocation";
  for (int count = 0; count < 40; ++count) {
    modem_.announce_restart(1);
    std::this_thread::sleep_for(milliseconds(5));
  }
  EXPECT_LT(events(0).size(), 12u + 40) << "its looks become rarer";
}

TEST_F(ClientTest, ANotifierReportsNoAbsentServiceAndMayBeReleasedByItsCallback) {
  modem_.services.set({});
  create_notifier();
  EXPECT_EQ(events(0), Events{});
  on_callback_.set([this](qmi_client_type self) { note("released " + std::to_string(qmi_client_release(self))); });
  modem_.services.set({kNasId});
  EXPECT_EQ(events(2), (Events{"event 0", "released 0"}));
}

// The delay is 10 ms after the first loss and grows with each further one.
TEST_F(ClientTest, ANotifierDelaysReportsOfAServiceThatIsLostAgain) {
  for (const int connection : {0, 2, 4, 6}) {
    events_.set({});
    const qmi_client_type lost = connect_with_error_callback();
    for (int count = 0; count < 9; ++count) send_without_request(lost);  // the handle's thread stops reading meanwhile
    modem_.revoke(connection, kNasId, modem_.client_ids.get().begin()->second);
    modem_.client_ids.set({});
    events(1);
    const qmi_client_type handle = create_notifier();
    EXPECT_EQ(events(2), (Events{"error -2", "event 0"}));
    const std::clock_t before = std::clock();
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 25) << "a notifier at rest waits";
    qmi_client_release(handle);
  }

  const qmi_client_type lasting = connect();
  std::this_thread::sleep_for(milliseconds(100));  // a connection of this duration resets the delay
  qmi_client_release(lasting);
  create_notifier();
  EXPECT_EQ(events(0).size(), 3u) << "without a delay again";
}

TEST(ServiceBackoff, DoublesWithEachLossAndEndsWithAConnectionThatLasts) {
  ServiceBackoff backoff;
  for (const int most : {10, 20, 40}) {
    const auto start = Clock::now();
    backoff.lost(milliseconds(99));
    EXPECT_LE(backoff.remaining().count(), most);
    std::this_thread::sleep_for(backoff.remaining());
    EXPECT_GE(Clock::now() - start, milliseconds(most));
  }
  backoff.lost(milliseconds(99));
  backoff.released(milliseconds(100));
  EXPECT_EQ(backoff.remaining().count(), 0);
  backoff.lost(milliseconds(0));
  EXPECT_LE(backoff.remaining().count(), 10);
}

// --- the handle is released ---

// By the phone's rules a release calls the callbacks of pending transactions itself.
TEST_P(BothRules, ReleaseWaitsForTheRunningCallbackAndNoneFollowsOnTheHandlesThread) {
  const qmi_client_type handle = connect();
  Exchange reader = begin(handle, 0), waiting = begin(handle, 0);
  const auto releasing = std::this_thread::get_id();
  on_callback_.set([&](qmi_client_type) {
    waiting.outcome.wait();                         // the release ends this send first
    std::this_thread::sleep_for(milliseconds(50));  // enough for a release that does not wait to return
    note(std::this_thread::get_id() == releasing ? "over, on the releasing thread" : "over");
  });
  const ScriptedRequest async = begin_async(handle);
  modem_.indicate(0, kNasId, 0xFF, 1);
  modem_.indicate(0, kNasId, 0xFF, 2);
  modem_.respond(async, drx_response(1));
  events(1);
  EXPECT_EQ(qmi_client_release(handle), QMI_NO_ERR);
  Events expected = {"indication 1 (0)", "over"};
  if (GetParam()) expected.insert(expected.end(), {"response 137 -1 nothing", "over, on the releasing thread"});
  EXPECT_EQ(events(0), expected);
  EXPECT_TRUE(wait_for_no_ids());
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(events(0), expected);
}

TEST_F(ClientTest, ACallbackMayReleaseItsOwnHandle) {
  const qmi_client_type handle = connect();
  on_callback_.set([&](qmi_client_type self) {
    const int released = qmi_client_release(self);
    note("released " + std::to_string(released) + ", then " + std::to_string(get_drx(self).first));
  });
  modem_.indicate(0, kNasId, 0xFF, 1);
  modem_.indicate(0, kNasId, 0xFF, 2);
  EXPECT_EQ(events(2), (Events{"indication 1 (0)", "released 0, then -18"}));
  EXPECT_TRUE(modem_.wait_for_close(0));
  EXPECT_EQ(qmi_client_release(handle), QMI_CLIENT_INVALID_CLNT);
  EXPECT_EQ(events(2).size(), 2u);
}

TEST_P(BothRules, ReleaseWaitsForACallbackDuringARegistration) {
  const qmi_client_type handle = connect_with_error_callback();
  modem_.close(0);
  events(1);
  std::latch go_on(1);
  on_callback_.set([&](qmi_client_type) { go_on.wait(); });
  auto registration = std::async(std::launch::async, qmi_client_register_error_cb, handle, on_error, this);
  events(2);
  auto release = std::async(std::launch::async, qmi_client_release, handle);
  EXPECT_EQ(release.wait_for(milliseconds(50)), std::future_status::timeout);
  go_on.count_down();
  release.wait();
  modem_.client_ids.set({});
}

TEST_P(BothRules, ReleaseEndsWaitingSendersAndIsSentOnceWithoutConfirmation) {
  const qmi_client_type handle = connect();
  Exchange exchanges[] = {begin(handle, 0), begin(handle, 0)};
  // A confirmation would wake the sender that reads.
  modem_.on_control.set([](int, uint16_t id, Bytes&) { return id != ScriptedModem::kRelease; });
  EXPECT_EQ(qmi_client_release(handle), QMI_NO_ERR);
  EXPECT_TRUE(modem_.wait_for_close(0));
  for (Exchange& exchange : exchanges) {
    EXPECT_EQ(exchange.outcome.get().first, by_rules(QMI_CLIENT_INVALID_CLNT, QMI_INTERNAL_ERR));
  }
  modem_.on_control.set(nullptr);
  modem_.client_ids.set({{kNasId, 1}});  // another program's
  connect();
  EXPECT_EQ(modem_.client_ids.get(), (ClientIds{{kNasId, 1}, {kNasId, 2}}));
  modem_.client_ids.set({});
}

// --- the process ends ---

// A child of fork() does not use its parent's handles. Its own client id is released: by the child if it exits, or by
// the next client if it was killed, even before its parent waits for it.
TEST_F(ClientTest, AProcessReleasesItsClientIdsAtItsEndAndNoneOfItsParent) {
#if defined(__SANITIZE_THREAD__) && !defined(__clang__)
  GTEST_SKIP() << "g++'s thread sanitizer supports no threads in a child of fork()";
#endif
  const auto count_events = [] {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::count_if(std::filesystem::begin(files), std::filesystem::end(files), [](const auto& file) {
      return std::filesystem::read_symlink(file).string().starts_with("anon_inode:[event");
    });
  };
  const auto inherited = count_events();
  const qmi_client_type handle = connect();
  modem_.client_id_limit = 2;
  for (const bool is_killed : {false, true}) {
    const pid_t child = ::fork();
    if (child == 0) {
      g_is_child = true;
      if (count_events() > inherited) std::_Exit(2);
      const bool refuses =
          get_drx(handle, 1).first == QMI_CLIENT_INVALID_CLNT && qmi_client_release(handle) == QMI_CLIENT_INVALID_CLNT;
      const bool is_connected = connect() != nullptr;
      if (is_killed) ::raise(SIGKILL);
      std::exit(refuses && is_connected ? 0 : 1);
    }
    siginfo_t end{};
    ::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT);
    EXPECT_EQ(end.si_status, is_killed ? SIGKILL : 0);
    EXPECT_EQ(modem_.client_ids.get().size(), is_killed ? 2u : 1u);
    qmi_client_release(connect());
    EXPECT_EQ(record_.held(Deadline::none()).size(), 1u) << "the record has the parent's id alone";
    ::waitpid(child, nullptr, 0);
    EXPECT_TRUE(modem_.client_ids.wait_until([](const ClientIds& ids) { return ids == ClientIds{{kNasId, 1}}; }));
  }
  Exchange exchange = begin(handle);
  EXPECT_EQ(finish(exchange, 3), Outcome(0, 3));
}

INSTANTIATE_TEST_SUITE_P(Rules, ErrorOfAVoidId, testing::Bool(), name_of_rules);

}  // namespace
}  // namespace pelmar::platform
