// How client handles end: the service goes away, the handle is released, the process ends.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>

#include "client_fixture.h"

namespace {

bool g_is_child = false;

}  // namespace

// What other threads of the parent had allocated looks like a leak in a child of fork().
extern "C" int __lsan_is_turned_off() {  // NOLINT(bugprone-reserved-identifier): the sanitizer's name
  return g_is_child ? 1 : 0;
}

namespace pelmar::platform {
namespace {

using ClientIds = ScriptedModem::ClientIds;

// The thread sanitizer knows none in a child of a process with threads.
#if defined(__SANITIZE_THREAD__)
constexpr bool kChildHasThreads = false;
#elif defined(__has_feature)
constexpr bool kChildHasThreads = !__has_feature(thread_sanitizer);
#else
constexpr bool kChildHasThreads = true;
#endif

// What a modem sends where no frame begins. A frame that is longer than its message takes the next one's first byte.
const std::map<std::string, Bytes> kBrokenFrames = {
    {"garbled", {0x55}},
    {"too_short", {0x01, 4, 0, 0x80, 3, 1}},
    {"to_the_modem", {0x01, 5, 0, 0x00, 3, 1}},
    {"too_long", {0x01, 6, 0, 0x80, 3, 1, 0x01, 5, 0, 0x80, 3, 1}},
};

class ServiceGoes : public ClientTest, public testing::WithParamInterface<const char*> {
 protected:
  void go(uint8_t client, int connection = 0) {
    const std::string how = GetParam();
    if (how == "revoked") {
      modem_.revoke(connection, kNasId, client);
    } else if (how == "restarted") {
      modem_.announce_restart(connection);
    } else if (how == "closed") {
      modem_.close_connection(connection);
    } else {
      modem_.send_raw(connection, kBrokenFrames.at(how));
    }
  }

  // The modem of this test frees no void ids: what the client must not give back, the test takes away.
  void TearDown() override { modem_.client_ids.set({}); }
};

TEST_P(ServiceGoes, EverySendEndsAtOnce) {
  const qmi_client_type handle = connect_with_error_callback();
  nas::SetAvoidTrmRequest trm{};
  nas::PlainResponse trm_response{};
  ASSERT_EQ(qmi_client_send_msg_async(handle, QMI_NAS_SET_AVOID_TRM_V01, &trm, sizeof trm, &trm_response,
                                      sizeof trm_response, on_response, this, nullptr),
            QMI_NO_ERR);
  modem_.receive();
  const uint8_t client = begin_async(handle).client;
  Exchange exchanges[] = {begin(handle, 0), begin(handle, 0)};
  modem_.indicate(0, kNasId, client, 1);
  modem_.revoke(0, kNasId, static_cast<uint8_t>(client + 1));  // somebody else's
  go(client);
  for (Exchange& exchange : exchanges) EXPECT_EQ(exchange.outcome.get().first, QMI_SERVICE_ERR);
  EXPECT_EQ(events(4), (Events{"indication 1 (0)", "response 152 -2", "response 137 -2", "error -2"}));

  nas::GetDrxResponse response{};
  EXPECT_EQ(get_drx(handle, response), QMI_SERVICE_ERR);
  for (const auto& header : {response.header, async_response_.header}) {
    EXPECT_EQ(header.result, uint32_t{QMI_RESULT_FAILURE_V01}) << "a lost exchange must not look well";
  }
  EXPECT_EQ(send_async(handle), QMI_SERVICE_ERR);
  EXPECT_EQ(qmi_client_register_error_cb(handle, on_error, this), QMI_SERVICE_ERR);
  EXPECT_EQ(events(5).back(), "error -2 on the caller's thread");
  EXPECT_TRUE(modem_.comes_to_be_closed(0));
  EXPECT_EQ(events(5).size(), 5u) << "one call for each registration";
}

// An id may be void before its response arrives: who kept it would get nothing but errors.
TEST_P(ServiceGoes, BeforeAClientIdArrivesAndWhileNobodySends) {
  modem_.on_control.set([this](int connection, uint16_t id, Bytes& tlvs) {
    if (id != ScriptedModem::kAllocate) return true;
    modem_.on_control.set(nullptr);
    modem_.client_ids.set({});
    go(tlvs.back(), connection);
    return true;
  });
  const qmi_client_type handle = connect(60'000);
  EXPECT_EQ(modem_.client_ids.get(), (ClientIds{{kNasId, 2}}));
  Exchange exchange = begin(handle);
  EXPECT_EQ(exchange.request.client, 2);
  EXPECT_EQ(finish(exchange, 9), Outcome(0, 9));

  EXPECT_EQ(qmi_client_register_error_cb(handle, on_error, this), QMI_NO_ERR);
  go(2, exchange.request.connection);
  EXPECT_EQ(events(1), (Events{"error -2"}));
}

INSTANTIATE_TEST_SUITE_P(How, ServiceGoes,
                         testing::Values("revoked", "restarted", "closed", "garbled", "too_short", "to_the_modem",
                                         "too_long"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(ClientTest, ARestartWhileAnAbandonedIdIsGivenBackVoidsTheNewIdToo) {
  connect_with_error_callback();
  modem_.close_connection(0);
  events(1);
  modem_.on_control.set([this](int connection, uint16_t id, Bytes&) {
    if (id != ScriptedModem::kRelease) return true;
    modem_.on_control.set(nullptr);
    modem_.client_ids.set({});
    modem_.announce_restart(connection);
    return true;
  });
  connect(60'000);
  EXPECT_EQ(modem_.client_ids.get(), (ClientIds{{kNasId, 3}}));
}

// Behind a proxy nothing else shows that a client id is void.
class ErrorOfAVoidId : public ClientTest {
 protected:
  // An asynchronous request and a synchronous one are under way, and the latter is refused as if the id were void. The
  // modem is asked for more then. Where the modem restarts, a second client connects after that.
  ScriptedRequest be_asked(bool restarts) {
    const qmi_client_type handle = connect_with_error_callback();
    async_ = begin_async(handle);
    sender_ = std::async(std::launch::async, [=, this] { return get_drx(handle, response_); });
    const ScriptedRequest request = modem_.receive();
    if (restarts) {
      modem_.client_ids.set({});
      connect();
    }
    modem_.respond(request, refusal(7));
    const ScriptedRequest question = modem_.receive();
    EXPECT_EQ(question.client, request.client);
    EXPECT_NE(question.id, kDrx);
    return question;
  }

  ScriptedRequest async_;
  std::future<int> sender_;
  nas::GetDrxResponse response_{};
};

TEST_F(ErrorOfAVoidId, EndsTheConnectionOnceItIsConfirmedAndNoneThatIsNewer) {
  const ScriptedRequest question = be_asked(true);
  create_notifier();
  EXPECT_EQ(events(1), (Events{"event 0"}));
  modem_.respond(question, refusal(7));
  EXPECT_EQ(sender_.get(), QMI_SERVICE_ERR);
  Events seen = events(5);
  std::sort(seen.begin(), seen.end());  // the handles' threads run side by side
  EXPECT_EQ(seen, (Events{"error -2", "event 0", "event 0", "event 1", "response 137 -2"}));
  EXPECT_TRUE(modem_.comes_to_be_closed(0));
  EXPECT_EQ(modem_.client_ids.get().size(), 1u);
}

TEST_F(ErrorOfAVoidId, IsTheMessagesOwnWhereTheIdIsGood) {
  modem_.respond(be_asked(false), refusal(71));
  EXPECT_EQ(sender_.get(), QMI_NO_ERR);
  modem_.respond(async_, refusal(7));
  modem_.receive();  // the second question has no response
  EXPECT_EQ(events(1), (Events{"response 137 0"}));
  for (const auto& header : {response_.header, async_response_.header}) {
    EXPECT_EQ(header.error, uint32_t{QMI_ERR_INVALID_CLIENT_ID_V01});
  }
}

TEST_F(ClientTest, ReleaseWaitsForARunningCallbackAndStartsNoOther) {
  const qmi_client_type handle = connect();
  Exchange reader = begin(handle, 0), waiting = begin(handle, 0);
  std::atomic<bool> is_over{false};
  on_callback_.set([&](qmi_client_type) {
    waiting.outcome.wait();                         // which a release ends first
    std::this_thread::sleep_for(milliseconds(50));  // time for a release that does not wait to be seen
    is_over = true;
  });
  const ScriptedRequest async = begin_async(handle);
  modem_.indicate(0, kNasId, 0xFF, 1);
  modem_.indicate(0, kNasId, 0xFF, 2);
  modem_.respond(async, drx_response(1));
  events(1);
  EXPECT_EQ(qmi_client_release(handle), QMI_NO_ERR);
  EXPECT_TRUE(is_over);
  EXPECT_TRUE(modem_.comes_to_hold_no_ids());
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(events(1), (Events{"indication 1 (0)"}));
}

TEST_F(ClientTest, ACallbackMayReleaseItsOwnHandle) {
  const qmi_client_type handle = connect();
  on_callback_.set([&](qmi_client_type self) {
    nas::GetDrxResponse response{};
    const int released = qmi_client_release(self);
    note("released " + std::to_string(released) + ", then " + std::to_string(get_drx(self, response)));
  });
  modem_.indicate(0, kNasId, 0xFF, 1);
  modem_.indicate(0, kNasId, 0xFF, 2);
  EXPECT_EQ(events(2), (Events{"indication 1 (0)", "released 0, then -18"}));
  EXPECT_TRUE(modem_.comes_to_be_closed(0));
  EXPECT_EQ(qmi_client_release(handle), QMI_CLIENT_INVALID_CLNT);
  EXPECT_EQ(events(2).size(), 2u);
}

TEST_F(ClientTest, ReleaseWaitsForACallbackDuringARegistration) {
  const qmi_client_type handle = connect_with_error_callback();
  modem_.close_connection(0);
  events(1);
  struct {
    std::promise<void> entered, go_on;
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
  modem_.client_ids.set({});
}

TEST_F(ClientTest, ReleaseEndsSendersThatWaitAndSendsAnUnconfirmedReleaseOnce) {
  const qmi_client_type handle = connect();
  Exchange exchanges[] = {begin(handle, 0), begin(handle, 0)};
  // A confirmation would wake the sender that reads.
  modem_.on_control.set([](int, uint16_t id, Bytes&) { return id != ScriptedModem::kRelease; });
  EXPECT_EQ(qmi_client_release(handle), QMI_NO_ERR);
  EXPECT_TRUE(modem_.comes_to_be_closed(0));
  for (Exchange& exchange : exchanges) EXPECT_EQ(exchange.outcome.get().first, QMI_CLIENT_INVALID_CLNT);
  EXPECT_EQ(qmi_client_release(connect()), QMI_NO_ERR) << "with nobody who waits";
  modem_.on_control.set(nullptr);
  modem_.client_ids.set({{kNasId, 1}, {kNasId, 2}});  // another program's
  connect();
  EXPECT_EQ(modem_.client_ids.get(), (ClientIds{{kNasId, 1}, {kNasId, 2}, {kNasId, 3}}));
  modem_.client_ids.set({});
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
  EXPECT_TRUE(modem_.comes_to_be_closed(0));
}

TEST_F(ClientTest, AChildOfForkLeavesItsParentsHandlesAlone) {
  const qmi_client_type handle = connect();
  const pid_t child = ::fork();
  if (child == 0) {
    g_is_child = true;
    nas::GetDrxResponse response{};
    const bool refuses = send_async(handle) == QMI_CLIENT_INVALID_CLNT &&
                         get_drx(handle, response, 1) == QMI_CLIENT_INVALID_CLNT &&
                         qmi_client_register_error_cb(handle, on_error, this) == QMI_CLIENT_INVALID_CLNT &&
                         qmi_client_release(handle) == QMI_CLIENT_INVALID_CLNT;
    std::exit(refuses && (!kChildHasThreads || connect() != nullptr) ? 0 : 1);  // gives back what is its own
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(modem_.client_ids.get(), (ClientIds{{kNasId, 1}}));
  Exchange exchange = begin(handle);
  EXPECT_EQ(finish(exchange, 3), Outcome(0, 3));
}

// Forks before the modem's threads are there; the child waits for the modem.
TEST(ProcessEnd, GivesClientIdsBack) {
  const std::string path = "/tmp/scripted-modem-" + std::to_string(::getpid());
  for (const bool is_killed : {false, true}) {
    int connected[2], ended[2];
    ASSERT_EQ(::pipe(connected) + ::pipe(ended), 0);
    const pid_t child = ::fork();
    // Each process keeps its own ends alone: where one of the two fails, the other reads the end of its pipe.
    const bool is_child = child == 0;
    const UniqueFd from(is_child ? ended[0] : connected[0]), to(is_child ? connected[1] : ended[1]);
    ::close(is_child ? connected[0] : connected[1]);
    ::close(is_child ? ended[1] : ended[0]);
    char byte = 0;
    qmi_client_type handle = nullptr;
    const auto connect = [&](uint32_t timeout) {
      return qmi_client_init_instance(kNas, QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr, nullptr, timeout, &handle);
    };
    if (is_child) {
      ::setenv("PELMAR_QMI_SOCKET", path.c_str(), 1);
      const int error = connect(60'000);
      if (error != 0 || ::write(to.get(), "c", 1) != 1 || ::read(from.get(), &byte, 1) != 1) ::_exit(1);
      if (is_killed) ::raise(SIGKILL);
      std::exit(0);
    }
    ScriptedModem modem({kNasId});
    ASSERT_EQ(::read(from.get(), &byte, 1), 1);
    EXPECT_EQ(modem.client_ids.get().size(), 1u);
    modem.client_id_limit = 1;
    EXPECT_EQ(connect(4), QMI_CLIENT_ALLOC_FAILURE) << "the child lives";
    ASSERT_EQ(::write(to.get(), "e", 1), 1);
    siginfo_t end{};
    ::waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOWAIT);
    EXPECT_EQ(end.si_status, is_killed ? SIGKILL : 0);
    // A process that nobody has waited for is as dead as any.
    if (is_killed) {
      EXPECT_EQ(connect(4), QMI_NO_ERR) << "the next client gives the id back";
    }
    qmi_client_release(handle);
    EXPECT_TRUE(modem.comes_to_hold_no_ids());
    ::waitpid(child, nullptr, 0);
  }
}

}  // namespace
}  // namespace pelmar::platform
