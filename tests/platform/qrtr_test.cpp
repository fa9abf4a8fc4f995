// The client framework over QRTR: its services are sockets of the test. The same tests run over a model of the kernel's
// QRTR (qrtr_model.cpp) and, in the virtual machine of scripts/qrtr_vm.sh, over the kernel's.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/qrtr.h>
#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "capture.h"
#include "client_fixture.h"
#include "inspection.h"
#include "notifier.h"
#include "qrtr_transport.h"
#include "unique_fd.h"

namespace pelmar::platform {
namespace {

struct Datagram {
  QrtrAddress from;
  Bytes bytes;

  bool is_control() const { return from.port == QRTR_PORT_CTRL; }
};

// The response to a request, with this DRX.
Bytes drx_response(const Datagram& request, uint8_t drx) {
  return message(0x02, u16_at(request.bytes, 1), QMI_NAS_GET_DRX_V01, platform::drx_response(drx));
}

// A socket of the test. The kernel gives it an address when it first sends.
class Peer {
 public:
  Peer() { EXPECT_TRUE(socket_.open()); }

  void publish(uint32_t instance = 0, uint32_t version = 1, uint32_t receiver = QRTR_PORT_CTRL,
               uint32_t service = NAS_SERVICE_ID_V01) {
    qrtr_ctrl_pkt packet{};
    packet.cmd = QRTR_TYPE_NEW_SERVER;
    packet.server.service = service;
    packet.server.instance = instance << 8 | version;
    packet.server.node = address().node;
    const auto* const bytes = reinterpret_cast<const uint8_t*>(&packet);
    EXPECT_EQ(send({address().node, receiver}, Bytes(bytes, bytes + sizeof packet)), 0);
  }

  QrtrAddress address() const { return socket_.own_address(); }

  // Returns 0, or errno's value.
  int send(const QrtrAddress& to, const Bytes& bytes) {
    return socket_.send(to, bytes.data(), bytes.size()) == SendStatus::kSent ? 0 : errno;
  }

  // Returns an empty datagram at the timeout.
  Datagram receive(int timeout_ms = 60'000) {
    pollfd readable = {socket_.descriptor(), POLLIN, 0};
    if (::poll(&readable, 1, timeout_ms) <= 0) return {};
    Datagram datagram{{}, Bytes(QrtrSocket::kRoom)};
    std::span<uint8_t> received(datagram.bytes);
    socket_.receive(received, datagram.from);
    datagram.bytes.resize(received.size());
    return datagram;
  }

  // Returns the next request of a client and drops the name service's packets.
  Datagram receive_request(int timeout_ms = 60'000) {
    Datagram datagram = receive(timeout_ms);
    while (datagram.is_control()) datagram = receive(timeout_ms);
    return datagram;
  }

  // Waits for the name service's report.
  bool receives_end_of(const QrtrAddress& socket) {
    Datagram datagram = receive();
    while (!datagram.bytes.empty() && !(datagram.is_control() && read_qrtr_control(datagram.bytes).ends(socket))) {
      datagram = receive();
    }
    return !datagram.bytes.empty();
  }

  void minimise_buffer() { socket_.refuse_datagrams(); }

  void close() { socket_.close(); }

 private:
  QrtrSocket socket_;
};

// Returns how often the thread has waited.
int waits_of(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/status");
  const std::string status(std::istreambuf_iterator<char>(file), {}), name = "\nvoluntary_ctxt_switches:";
  return std::stoi(status.substr(status.find(name) + name.size()));
}

class QrtrTest : public HandleTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(QrtrSocket().open()) << "this kernel has no QRTR";
    ::setenv("PELMAR_MODEM", "qrtr", 1);
    ::openlog("qrtr_tests", LOG_PERROR, LOG_USER);
    testing::internal::CaptureStderr();
  }

  ~QrtrTest() override { release_handles(); }

  int open(qmi_client_type* handle, uint32_t timeout = 4, unsigned instance = QMI_CLIENT_INSTANCE_ANY) {
    const int error = qmi_client_init_instance(kNas, instance, on_indication, this, nullptr, timeout, handle);
    if (error == QMI_NO_ERR) handles_.push_back(*handle);
    return error;
  }
  qmi_client_type connect(uint32_t timeout = 4, unsigned instance = QMI_CLIENT_INSTANCE_ANY) {
    qmi_client_type handle = nullptr;
    EXPECT_EQ(open(&handle, timeout, instance), QMI_NO_ERR);
    qmi_client_register_error_cb(handle, on_error, this);
    return handle;
  }

  static std::future<Outcome> send(qmi_client_type handle, unsigned timeout = 60'000) {
    return std::async(std::launch::async, get_drx, handle, timeout);
  }

  static void on_indication(qmi_client_type, unsigned, void*, unsigned, void* data) {
    auto* const test = static_cast<QrtrTest*>(data);
    const bool is_held = test->is_held_;
    ++test->indications_;
    while (is_held && test->is_held_) std::this_thread::sleep_for(milliseconds(1));
    std::this_thread::sleep_for(test->callback_time_);
  }

  SharedValue<pid_t> notifier_;  // the thread of the last event
  std::atomic<size_t> indications_ = 0;
  std::atomic<bool> is_held_ = false;  // the callback of an indication does not return while it is set
  milliseconds callback_time_{0};
};

TEST_F(QrtrTest, AcceptsMessagesOfItsServiceOnly) {
  const std::string path = testing::TempDir() + "trace." + std::to_string(::getpid());
  ::setenv("PELMAR_TRACE", path.c_str(), 1);
  Peer service, stranger;
  service.publish(0, 7);  // any version
  auto outcome = send(connect());
  const Datagram request = service.receive_request();
  EXPECT_EQ(stranger.send(request.from, drx_response(request, 6)), 0);
  EXPECT_EQ(stranger.send(request.from, Bytes{5, 0, 0, 0, 3, 0, 0, 0, 7, 0, 0, 0}), 0) << "a truncated departure";
  EXPECT_EQ(stranger.send(request.from, Bytes{3, 0, 0, 0, 1, 0, 0, 0}), 0) << "the end of the node";
  stranger.publish(1);
  stranger.close();  // another service of the same number
  EXPECT_TRUE(service.receive().is_control());
  const uint16_t id = QMI_NAS_GET_DRX_V01;
  for (const Bytes& bad : {Bytes(), Bytes{2}, Bytes(6, 0xFF), Bytes(QrtrSocket::kMaxDatagram, 0xFF),
                           message(0, 1, id, {}), message(2, 0x7777, id, {}), message(2, 1, id + 1, {})}) {
    EXPECT_EQ(service.send(request.from, bad), 0);
  }
  EXPECT_EQ(service.send(request.from, drx_response(request, 8)), 0);
  EXPECT_EQ(outcome.get(), Outcome(QMI_NO_ERR, 8));
  EXPECT_EQ(events(0), Events{});

  const UniqueFd file(::open(path.c_str(), O_RDONLY));
  qmi::CaptureReader reader(file.get());
  qmi::CapturedMessage message;
  std::string trace;
  while (reader.next(message) == qmi::CaptureReader::Status::kMessage) {
    trace += (message.direction == qmi::Direction::kToModem ? ">" : "<") + std::to_string(message.frame.message.size());
    EXPECT_EQ(message.frame.client, request.from.port & 0xFF);
    EXPECT_EQ(reader.link(message.link).transport, "qrtr:" + std::to_string(service.address().node));
  }
  EXPECT_EQ(trace, ">7<1<6<65530<7<7<7<21");
  ::unlink(path.c_str());
}

TEST_F(QrtrTest, FailsWhenItsServiceEndsAndFindsItAgain) {
  Peer first, second;
  first.publish();
  const qmi_client_type lost = connect();
  auto outcome = send(lost), other = send(lost);
  first.receive_request();
  first.close();
  EXPECT_EQ(outcome.get().first, QMI_SERVICE_ERR);
  EXPECT_EQ(other.get().first, QMI_SERVICE_ERR);
  EXPECT_EQ(events(1), Events{"error -2"});
  EXPECT_EQ(send(lost).get().first, QMI_SERVICE_ERR);
  qmi_client_type handle = nullptr;
  EXPECT_EQ(open(&handle, 50), QMI_TIMEOUT_ERR);

  auto late = std::async(std::launch::async, [&] {
    std::this_thread::sleep_for(milliseconds(50));
    second.publish();
  });
  handle = connect(60'000);
  outcome = send(handle);
  const Datagram request = second.receive_request();
  EXPECT_EQ(second.send(request.from, drx_response(request, 9)), 0);
  EXPECT_EQ(outcome.get(), Outcome(QMI_NO_ERR, 9));
  outcome = send(handle);
  second.receive_request();
  qmi_client_release(lost);
  qmi_client_release(handle);
  EXPECT_EQ(outcome.get().first, QMI_CLIENT_INVALID_CLNT);
  EXPECT_TRUE(second.receives_end_of(request.from)) << "the service is notified of the client's end";
  EXPECT_EQ(events(0), Events{"error -2"});
}

TEST_F(QrtrTest, OpensTheGivenInstanceAndNode) {
  Peer one, two;
  one.publish(1);
  two.publish(2);
  connect(4, 1);
  auto outcome = send(connect(4, 2), 1);
  EXPECT_FALSE(two.receive_request().bytes.empty());
  EXPECT_EQ(outcome.get().first, QMI_TIMEOUT_ERR);
  qmi_client_type handle = nullptr;
  EXPECT_EQ(open(&handle, 4, 3), QMI_TIMEOUT_ERR);
  ::setenv("PELMAR_MODEM", ("qrtr:" + std::to_string(one.address().node)).c_str(), 1);
  EXPECT_EQ(open(&handle), QMI_NO_ERR);
  ModemReport report;
  pelmar_platform_inspect_modem(&report);
  std::set<std::string> services;
  for (const auto& [number, instance, node, major, minor] : report.services) {
    if (number != NAS_SERVICE_ID_V01 || node != one.address().node) continue;
    services.insert(std::to_string(instance) + ": " + std::to_string(major) + "." + std::to_string(minor));
  }
  EXPECT_EQ(services, (std::set<std::string>{"1: 1.0", "2: 1.0"}));
  EXPECT_EQ(report.problem, "");
  ::setenv("PELMAR_MODEM", "qrtr:99", 1);
  EXPECT_EQ(open(&handle), QMI_TIMEOUT_ERR);
  pelmar_platform_inspect_modem(&report);
  EXPECT_EQ(report.transport + ": " + report.problem, "QRTR, node 99: QRTR lists no service");
  EXPECT_TRUE(report.may_come);
  inspect_qrtr({}, Deadline::now(), report);
  EXPECT_EQ(report.transport + ": " + report.problem, "QRTR: the name service of QRTR does not respond");
  std::unique_ptr<Connection> connection;
  EXPECT_EQ(open_qrtr_connection({}, {0, QMI_CLIENT_INSTANCE_ANY}, 100, Deadline::now(), connection),
            QMI_CLIENT_PARAM_ERR);
  create_notifier();
  EXPECT_EQ(events(0), Events{});
}

TEST_F(QrtrTest, ANotifierReportsEveryChangeAndDoesNotPoll) {
  on_callback_.set([this](qmi_client_type) { notifier_.set(::gettid()); });
  const qmi_client_type handle = create_notifier();
  Peer one, two, stranger;
  stranger.publish(0, 1, 0x4000);  // to the notifier, which has the first port
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(events(0), Events{});
  ServiceBackoff::of(NAS_SERVICE_ID_V01).lost(milliseconds(0));  // delays the report
  one.publish();
  EXPECT_EQ(events(1), Events{"event 0"});
  notifier_.wait_until([](pid_t thread) { return thread != 0; });
  auto outcome = send(HandleTest::connect());
  one.receive_request();
  const int waits = waits_of(notifier_.get());
  const std::clock_t start = std::clock();
  for (uint32_t other = 100; other < 110; ++other) stranger.publish(0, 1, QRTR_PORT_CTRL, other);
  std::this_thread::sleep_for(milliseconds(1000));
  EXPECT_LE(waits_of(notifier_.get()), waits + 2);
  EXPECT_LT(std::clock() - start, CLOCKS_PER_SEC / 10) << "the sender waits as well";
  one.close();
  EXPECT_EQ(events(2).back(), "event 1");
  two.publish(2);
  EXPECT_EQ(events(3).back(), "event 0");
  Peer third;
  third.publish(3);
  std::this_thread::sleep_for(milliseconds(200));
  EXPECT_EQ(events(0).size(), 3u);
  two.close();
  EXPECT_EQ(events(5), (Events{"event 0", "event 1", "event 0", "event 1", "event 0"}))
      << "another instance is present";
  ServiceBackoff::of(NAS_SERVICE_ID_V01).lost(milliseconds(0));
  EXPECT_EQ(qmi_client_register_notify_cb(handle, on_event, this), QMI_NO_ERR);
  EXPECT_EQ(events(6).back(), "event 0");
}

TEST_F(QrtrTest, WaitsWhileTheSocketOfTheServiceIsFull) {
  Peer service, stranger;
  service.minimise_buffer();
  service.publish();
  const qmi_client_type handle = connect(), released = connect();
  const Bytes filler(100, 0xEE);
  const auto fill = [&] {
    while (stranger.send(service.address(), filler) == 0) {
    }
  };
  const auto drain = [&](int timeout_ms) {
    Datagram datagram = service.receive_request(timeout_ms);
    while (datagram.bytes == filler) datagram = service.receive_request(timeout_ms);
    return datagram;
  };
  fill();
  const auto start = Deadline::Clock::now();
  EXPECT_EQ(send(handle, 50).get().first, QMI_TIMEOUT_ERR);
  EXPECT_GE(Deadline::Clock::now() - start, milliseconds(50));
  EXPECT_TRUE(drain(20).bytes.empty()) << "a request that timed out is not sent later";

  fill();
  auto outcome = send(handle);
  std::this_thread::sleep_for(milliseconds(30));
  const Datagram request = drain(60'000);
  ASSERT_FALSE(request.bytes.empty());
  EXPECT_EQ(service.send(request.from, drx_response(request, 7)), 0);
  EXPECT_EQ(outcome.get(), Outcome(QMI_NO_ERR, 7));
  outcome = send(handle, 1);
  EXPECT_FALSE(service.receive_request().bytes.empty());
  EXPECT_TRUE(service.receive_request(20).bytes.empty()) << "a request is sent once";

  fill();
  outcome = send(handle);
  auto other = send(released);
  std::this_thread::sleep_for(milliseconds(30));
  qmi_client_release(released);
  EXPECT_EQ(other.get().first, QMI_CLIENT_INVALID_CLNT) << "a release while a send waits";
  service.close();
  EXPECT_EQ(outcome.get().first, QMI_SERVICE_ERR) << "the service closes while a send waits";
}

TEST_F(QrtrTest, KeepsTheIndicationsForASlowCallback) {
  constexpr size_t kCount = 1000;
  callback_time_ = milliseconds(1);
  Peer service;
  service.publish();
  auto outcome = send(connect(), 1);
  const Datagram request = service.receive_request();
  const Bytes indication = message(0x04, 0, 0x0024, Bytes(10'672 - 7, 0));
  for (size_t i = 0; i < kCount; ++i) ASSERT_EQ(service.send(request.from, indication), 0);
  for (int i = 0; i < 60'000 && indications_ < kCount; ++i) std::this_thread::sleep_for(milliseconds(1));
  EXPECT_EQ(indications_, kCount);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(QrtrTest, ReportsDropsAndDetectsALossWhoseReportWasDropped) {
  Peer service, other;
  service.publish();
  other.publish(1);
  auto outcome = send(connect(4, 0), 1);
  const Datagram request = service.receive_request();
  outcome.wait();
  const Bytes indication = message(0x04, 0, 0x0024, Bytes(60'000, 0));
  size_t sent = 0;
  const auto fill = [&] {  // until the client's socket has refused five more
    is_held_ = true;
    EXPECT_EQ(service.send(request.from, indication), 0);
    ++sent;
    while (indications_ < sent) std::this_thread::sleep_for(milliseconds(1));  // from then on nothing is read
    for (size_t refused = 0; refused < 5;) {
      if (service.send(request.from, indication) == 0) {
        ++sent;
      } else {
        ++refused;
      }
    }
  };
  fill();
  std::this_thread::sleep_for(milliseconds(110));  // checks for a loss are less than that apart
  is_held_ = false;
  while (indications_ < sent) std::this_thread::sleep_for(milliseconds(1));
  fill();
  const QrtrAddress lost = service.address();
  service.close();
  EXPECT_TRUE(other.receives_end_of(lost)) << "the name service has sent its reports";
  EXPECT_EQ(events(0), Events{});
  is_held_ = false;
  EXPECT_EQ(events(1), Events{"error -2"});
  other.send(request.from, indication);
  EXPECT_EQ(other.send(request.from, indication), ENOSPC) << "hardly anything more is kept for a lost connection";
  qmi_client_release(handles_.back());
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("the kernel dropped 5 messages"), std::string::npos) << log;
  EXPECT_NE(log.find("the kernel dropped 6 messages"), std::string::npos) << "five indications and the report: " << log;
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 2) << log;
}

}  // namespace
}  // namespace pelmar::platform
