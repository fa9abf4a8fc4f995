// How client handles end: the service goes away, the handle is released, the process ends.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <vector>

#include "client_fixture.h"
#include "unique_fd.h"

namespace {

bool g_is_child = false;

}  // namespace

// What other threads of the parent had allocated looks like a leak in a child of fork().
extern "C" int __lsan_is_turned_off() {  // NOLINT(bugprone-reserved-identifier): the sanitizer's name
  return g_is_child ? 1 : 0;
}

namespace pelmar::platform {
namespace {

using Events = std::vector<std::string>;

// The thread sanitizer knows none in a child of a process with threads.
#if defined(__SANITIZE_THREAD__)
constexpr bool kChildHasThreads = false;
#elif defined(__has_feature)
constexpr bool kChildHasThreads = !__has_feature(thread_sanitizer);
#else
constexpr bool kChildHasThreads = true;
#endif

class ServiceGoes : public ClientTest, public testing::WithParamInterface<const char*> {
 protected:
  void go(uint8_t client, int connection = 0) {
    const std::string how = GetParam();
    if (how == "revoked") {
      modem_.revoke(connection, kNasId, client);
    } else if (how == "restarted") {
      modem_.announce_restart(connection);
    } else if (how == "garbled") {
      modem_.send_raw(connection, {0x55});
    } else {
      modem_.close_connection(connection);
    }
  }

  // The modem of this test knows no void ids: what the client must not give back, the test takes away.
  void TearDown() override { modem_.void_client_ids(); }
};

TEST_P(ServiceGoes, EverySendEndsAtOnce) {
  const qmi_client_type handle = connect();
  EXPECT_EQ(qmi_client_register_error_cb(handle, on_error, this), QMI_NO_ERR);
  nas::GetDrxResponse async_response{};
  uint8_t trm = 0;
  ASSERT_EQ(qmi_client_send_msg_async(handle, QMI_NAS_SET_AVOID_TRM_V01, &trm, 1, &async_responses_[0],
                                      sizeof async_responses_[0], on_response, this, nullptr),
            QMI_NO_ERR);
  modem_.receive();
  ASSERT_EQ(send_async(handle, async_response, this), QMI_NO_ERR);
  modem_.receive();
  auto first = sender(handle, 0);
  modem_.receive();
  auto second = sender(handle, 0);
  const ScriptedRequest request = modem_.receive();
  modem_.indicate(0, kNasId, request.client, 1, {});
  modem_.revoke(0, kNasId, static_cast<uint8_t>(request.client + 1));  // somebody else's
  go(request.client);
  EXPECT_EQ(first.get().first, QMI_SERVICE_ERR);
  EXPECT_EQ(second.get().first, QMI_SERVICE_ERR);
  EXPECT_EQ(events(4), (Events{"indication 1 (0)", "response 152 -2", "response 137 -2", "error -2"}));

  nas::GetDrxResponse response{};
  EXPECT_EQ(get_drx(handle, response), QMI_SERVICE_ERR);
  EXPECT_EQ(response.header.result, uint32_t{QMI_RESULT_FAILURE_V01}) << "a lost exchange must not look well";
  EXPECT_EQ(async_response.header.result, uint32_t{QMI_RESULT_FAILURE_V01});
  EXPECT_EQ(send_async(handle, async_response, this), QMI_SERVICE_ERR);
  EXPECT_EQ(qmi_client_register_error_cb(handle, on_error, this), QMI_SERVICE_ERR);
  EXPECT_EQ(events(5).back(), "error -2 on the caller's thread");
  EXPECT_FALSE(modem_.is_connected(0));
  EXPECT_EQ(events(5).size(), 5u) << "one call for each registration";
}

TEST_P(ServiceGoes, TheHandlesThreadNoticesToo) {
  const qmi_client_type handle = connect();
  EXPECT_EQ(qmi_client_register_error_cb(handle, on_error, this), QMI_NO_ERR);
  go(1);
  EXPECT_EQ(events(1), (Events{"error -2"}));
}

// An id may be void before its answer arrives: who kept it would be answered nothing but errors.
TEST_P(ServiceGoes, BeforeAClientIdArrives) {
  modem_.set(&ScriptedModem::Behaviour::before_next_id, std::function([this](int connection, uint8_t client) {
    modem_.void_client_ids();
    go(client, connection);
  }));
  const qmi_client_type handle = connect(60'000);
  EXPECT_EQ(modem_.client_ids(), (std::set<std::pair<uint8_t, uint8_t>>{{kNasId, 2}}));
  auto answer = sender(handle);
  const ScriptedRequest request = modem_.receive();
  EXPECT_EQ(request.client, 2);
  modem_.respond(request, ScriptedModem::drx_response(9));
  EXPECT_EQ(answer.get(), Outcome(0, 9));
}

INSTANTIATE_TEST_SUITE_P(How, ServiceGoes, testing::Values("revoked", "restarted", "closed", "garbled"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(ClientTest, ARestartWhileAnAbandonedIdIsGivenBackVoidsTheNewIdToo) {
  EXPECT_EQ(qmi_client_register_error_cb(connect(), on_error, this), QMI_NO_ERR);
  modem_.close_connection(0);
  events(1);
  modem_.set(&ScriptedModem::Behaviour::before_next_release, std::function([this](int connection) {
    modem_.void_client_ids();
    modem_.announce_restart(connection);
  }));
  connect(60'000);
  EXPECT_EQ(modem_.client_ids(), (std::set<std::pair<uint8_t, uint8_t>>{{kNasId, 3}}));
}

// Behind a proxy nothing else shows that a client id is void.
class ErrorOfAVoidId : public ClientTest {
 protected:
  // An asynchronous request and a synchronous one are under way, and the latter is refused as if the id were void. The
  // modem is asked for more then. Where the modem restarts, a second client connects after that.
  ScriptedRequest be_asked(bool restarts) {
    handle_ = connect();
    EXPECT_EQ(qmi_client_register_error_cb(handle_, on_error, this), QMI_NO_ERR);
    EXPECT_EQ(send_async(handle_, async_response_, this), QMI_NO_ERR);
    async_ = modem_.receive();
    sender_ = std::async(std::launch::async, [this] { return get_drx(handle_, response_); });
    const ScriptedRequest request = modem_.receive();
    if (restarts) {
      modem_.void_client_ids();
      connect();
    }
    modem_.respond(request, ScriptedModem::refusal(7));
    const ScriptedRequest question = modem_.receive();
    EXPECT_EQ(question.client, request.client);
    EXPECT_NE(question.id, kDrx);
    return question;
  }

  static void on_notice(qmi_client_type, qmi_idl_service_object_type, qmi_client_notify_event_type event, void* data) {
    static_cast<ErrorOfAVoidId*>(data)->note("notice " + std::to_string(event));
  }

  qmi_client_type handle_ = nullptr;
  ScriptedRequest async_;
  std::future<int> sender_;
  nas::GetDrxResponse response_{}, async_response_{};
};

TEST_F(ErrorOfAVoidId, EndsTheConnectionOnceItIsConfirmedAndNoneThatIsNewer) {
  const ScriptedRequest question = be_asked(true);
  qmi_client_type notifier = nullptr;
  ASSERT_EQ(qmi_client_notifier_init(kNas, nullptr, &notifier), QMI_NO_ERR);
  EXPECT_EQ(qmi_client_register_notify_cb(notifier, on_notice, this), QMI_NO_ERR);
  EXPECT_EQ(events(1), (Events{"notice 0"}));
  modem_.respond(question, ScriptedModem::refusal(7));
  EXPECT_EQ(sender_.get(), QMI_SERVICE_ERR);
  Events seen = events(5);
  std::sort(seen.begin(), seen.end());  // the handles' threads run side by side
  EXPECT_EQ(seen, (Events{"error -2", "notice 0", "notice 0", "notice 1", "response 137 -2"}));
  EXPECT_EQ(qmi_client_release(notifier), QMI_NO_ERR);
  EXPECT_FALSE(modem_.is_connected(0));
  EXPECT_EQ(modem_.client_ids().size(), 1u);
}

TEST_F(ErrorOfAVoidId, IsTheMessagesOwnWhereTheIdIsGood) {
  modem_.respond(be_asked(false), ScriptedModem::refusal(71));
  EXPECT_EQ(sender_.get(), QMI_NO_ERR);
  EXPECT_EQ(response_.header.error, uint32_t{QMI_ERR_INVALID_CLIENT_ID_V01});

  modem_.respond(async_, ScriptedModem::refusal(7));
  modem_.receive();  // the second question has no response
  EXPECT_EQ(events(1), (Events{"response 137 0"}));
  EXPECT_EQ(async_response_.header.error, uint32_t{QMI_ERR_INVALID_CLIENT_ID_V01});
}

TEST_F(ClientTest, ReleaseWaitsForARunningCallbackAndStartsNoOther) {
  const qmi_client_type handle = connect();
  auto reader = sender(handle, 0);
  modem_.receive();
  auto waiting = sender(handle, 0);
  modem_.receive();
  std::atomic<bool> is_over{false};
  set_on_indication([&](qmi_client_type) {
    waiting.wait();                                 // which a release ends first
    std::this_thread::sleep_for(milliseconds(50));  // time for a release that does not wait to be seen
    is_over = true;
  });
  nas::GetDrxResponse response{};
  ASSERT_EQ(send_async(handle, response, this), QMI_NO_ERR);
  const ScriptedRequest request = modem_.receive();
  modem_.indicate(0, kNasId, 0xFF, 1, {});
  modem_.indicate(0, kNasId, 0xFF, 2, {});
  modem_.respond(request, ScriptedModem::drx_response(1));
  events(1);
  EXPECT_EQ(qmi_client_release(handle), QMI_NO_ERR);
  EXPECT_TRUE(is_over);
  EXPECT_TRUE(modem_.comes_to_hold_no_ids());
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(events(1), (Events{"indication 1 (0)"}));
}

TEST_F(ClientTest, ACallbackMayReleaseItsOwnHandle) {
  const qmi_client_type handle = connect();
  set_on_indication([&](qmi_client_type self) {
    nas::GetDrxResponse response{};
    const int released = qmi_client_release(self);
    note("released " + std::to_string(released) + ", then " + std::to_string(get_drx(self, response)));
  });
  modem_.indicate(0, kNasId, 0xFF, 1, {});
  modem_.indicate(0, kNasId, 0xFF, 2, {});
  EXPECT_EQ(events(2), (Events{"indication 1 (0)", "released 0, then -18"}));
  EXPECT_FALSE(modem_.is_connected(0));
  EXPECT_EQ(qmi_client_release(handle), QMI_CLIENT_INVALID_CLNT);
  EXPECT_EQ(events(2).size(), 2u);
}

TEST_F(ClientTest, ReleaseWaitsForACallbackDuringARegistration) {
  const qmi_client_type handle = connect();
  modem_.close_connection(0);
  qmi_client_register_error_cb(handle, on_error, this);
  events(1);
  struct {
    std::promise<void> entered;
    std::promise<void> go_on;
  } callback;
  const auto wait = [](qmi_client_type, qmi_client_error_type, void* data) {
    auto& self = *static_cast<decltype(callback)*>(data);
    self.entered.set_value();
    self.go_on.get_future().wait();
  };
  auto registration = std::async(std::launch::async, [&] { qmi_client_register_error_cb(handle, wait, &callback); });
  callback.entered.get_future().wait();
  auto release = std::async(std::launch::async, [&] { qmi_client_release(handle); });
  EXPECT_EQ(release.wait_for(milliseconds(50)), std::future_status::timeout);
  callback.go_on.set_value();
  modem_.void_client_ids();
}

TEST_F(ClientTest, ReleaseEndsSendersThatWait) {
  const qmi_client_type handle = connect();
  auto first = sender(handle, 0), second = sender(handle, 0);
  modem_.receive();
  modem_.receive();
  modem_.set(&ScriptedModem::Behaviour::confirms_releases, false);  // a confirmation would wake the sender that reads
  EXPECT_EQ(qmi_client_release(handle), QMI_NO_ERR);
  EXPECT_FALSE(modem_.is_connected(0));
  modem_.close_connection(0);
  EXPECT_EQ(first.get().first, QMI_CLIENT_INVALID_CLNT);
  EXPECT_EQ(second.get().first, QMI_CLIENT_INVALID_CLNT);
}

TEST_F(ClientTest, AnIdWhoseReleaseTheModemDidNotConfirmIsNotReleasedAgain) {
  modem_.set(&ScriptedModem::Behaviour::confirms_releases, false);
  EXPECT_EQ(qmi_client_release(connect()), QMI_NO_ERR);
  modem_.set(&ScriptedModem::Behaviour::confirms_releases, true);
  modem_.take_client_id(kNasId, 1);
  connect();
  EXPECT_EQ(modem_.client_ids(), (std::set<std::pair<uint8_t, uint8_t>>{{kNasId, 1}, {kNasId, 2}}));
  modem_.void_client_ids();
}

// A child that was forked meanwhile holds the connection's descriptor, too.
TEST_F(ClientTest, ReleaseEndsTheConnectionWhoeverElseHoldsIt) {
  const qmi_client_type handle = connect();
  std::vector<UniqueFd> copies;
  for (int fd = 0; fd < 256; ++fd) {
    struct stat status {};
    if (::fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode)) copies.emplace_back(::dup(fd));
  }
  EXPECT_EQ(qmi_client_release(handle), QMI_NO_ERR);
  EXPECT_FALSE(modem_.is_connected(0));
}

TEST_F(ClientTest, AChildOfForkLeavesItsParentsHandlesAlone) {
  const qmi_client_type handle = connect();
  const pid_t child = ::fork();
  if (child == 0) {
    g_is_child = true;
    nas::GetDrxResponse response{};
    const bool refuses = send_async(handle, response, this) == QMI_CLIENT_INVALID_CLNT &&
                         get_drx(handle, response, 1) == QMI_CLIENT_INVALID_CLNT &&
                         qmi_client_register_error_cb(handle, on_error, this) == QMI_CLIENT_INVALID_CLNT &&
                         qmi_client_release(handle) == QMI_CLIENT_INVALID_CLNT;
    std::exit(refuses && (!kChildHasThreads || connect() != nullptr) ? 0 : 1);  // gives back what is its own
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(modem_.client_ids(), (std::set<std::pair<uint8_t, uint8_t>>{{kNasId, 1}}));
  auto sent = sender(handle);
  modem_.respond(modem_.receive(), ScriptedModem::drx_response(3));
  EXPECT_EQ(sent.get(), (Outcome{QMI_NO_ERR, 3}));
}

// Forks before the modem's threads are there; the child waits for the modem.
TEST(ProcessEnd, GivesClientIdsBack) {
  const std::string path = "/tmp/scripted-modem-" + std::to_string(::getpid());
  for (const bool is_killed : {false, true}) {
    int connected[2], ended[2];
    ASSERT_EQ(::pipe(connected) + ::pipe(ended), 0);
    const pid_t child = ::fork();
    char byte = 0;
    if (child == 0) {
      ::close(connected[0]);
      ::close(ended[1]);
      ::setenv("PELMAR_QMI_SOCKET", path.c_str(), 1);
      qmi_client_type handle = nullptr;
      const int error = qmi_client_init_instance(kNas, 0xFFFF, nullptr, nullptr, nullptr, 60'000, &handle);
      if (error != 0 || ::write(connected[1], "c", 1) != 1 || ::read(ended[0], &byte, 1) != 1) ::_exit(1);
      if (is_killed) ::raise(SIGKILL);
      std::exit(0);
    }
    // The child's ends are its alone: where one of the two processes fails, the other reads the end of its pipe.
    ::close(connected[1]);
    ::close(ended[0]);
    {
      ScriptedModem modem({kNasId});
      ASSERT_EQ(::read(connected[0], &byte, 1), 1);
      EXPECT_EQ(modem.client_ids().size(), 1u);
      modem.set(&ScriptedModem::Behaviour::client_id_limit, size_t{1});
      qmi_client_type handle = nullptr;
      const auto connect = [&] {
        return qmi_client_init_instance(kNas, 0xFFFF, nullptr, nullptr, nullptr, 4, &handle);
      };
      EXPECT_EQ(connect(), QMI_CLIENT_ALLOC_FAILURE) << "the child lives";
      ASSERT_EQ(::write(ended[1], "e", 1), 1);
      int status = -1;
      siginfo_t end{};
      ::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT);
      EXPECT_EQ(end.si_status, is_killed ? SIGKILL : 0);
      // A process that nobody has waited for is as dead as any.
      if (is_killed) {
        EXPECT_EQ(connect(), QMI_NO_ERR) << "the next client gives the id back";
      }
      qmi_client_release(handle);
      EXPECT_TRUE(modem.comes_to_hold_no_ids());
      ::waitpid(child, &status, 0);
    }
    ::close(connected[0]);
    ::close(ended[1]);
  }
}

}  // namespace
}  // namespace pelmar::platform
