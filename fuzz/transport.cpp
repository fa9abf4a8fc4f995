// The framework's transport over a real socket, against a modem that answers with any bytes.
//
//   input: u8 flags, the modem's bytes. Flag 1: the bytes come after the answers that open a connection.
//
// The modem sends all it has at once and closes. Whatever it sent, opening ends, every message lies inside what was
// read, and after the end of the stream nothing more comes.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "frames.h"
#include "qmi_client.h"
#include "qmux_transport.h"

using namespace pelmar::fuzz;
using namespace pelmar::platform;

namespace {

// A peer on an abstract socket, serving one connection after the other from a thread of its own.
class Peer {
 public:
  Peer() {
    const std::string name = "pelmar-fuzz-" + std::to_string(getpid());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(bind(listener_, reinterpret_cast<const sockaddr*>(&address), length) == 0 && listen(listener_, 4) == 0);
    setenv("PELMAR_QMI_SOCKET", ("@" + name).c_str(), 1);
    setenv("XDG_STATE_HOME", "/dev/null", 1);  // no record of client ids
    std::thread([this] { serve(); }).detach();
  }

  // What the next connection is sent.
  void set_answer(Bytes answer) {
    const std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
  }

 private:
  void serve() {
    for (;;) {
      const int connection = accept(listener_, nullptr, nullptr);
      if (connection < 0) continue;
      Bytes answer;
      {
        const std::lock_guard lock(mutex_);
        answer = answer_;
      }
      send(connection, answer.data(), answer.size(), MSG_NOSIGNAL);
      shutdown(connection, SHUT_WR);
      char drain[256];
      while (recv(connection, drain, sizeof drain, 0) > 0) continue;
      close(connection);
    }
  }

  int listener_;
  std::mutex mutex_;
  Bytes answer_;
};

Peer& peer() {
  static auto* const instance = new Peer;
  return *instance;
}

constexpr uint8_t kService = 0xE4;

// The modem's answers while a connection is opened: the proxy is open, there is the service, this is the client id. The
// result is looked for first, so it may be left to a TLV of its own behind the value.
Bytes opening() {
  Bytes answers;
  const auto answer = [&](uint8_t transaction, uint16_t id, Bytes value) {
    constexpr uint8_t kSuccess[] = {0x02, 4, 0, 0, 0, 0, 0};
    Bytes frame = control_frame(ControlKind::kResponse, transaction, id, 0x01, std::move(value));
    frame.insert(frame.end(), std::begin(kSuccess), std::end(kSuccess));
    frame[1] = static_cast<uint8_t>(frame[1] + sizeof kSuccess);
    frame[10] = static_cast<uint8_t>(frame[10] + sizeof kSuccess);
    answers.insert(answers.end(), frame.begin(), frame.end());
  };
  answer(1, 0xFF00, {});
  answer(2, 0x0021, {1, kService, 1, 0, 2, 0});
  answer(3, 0x0022, {kService, kClient});
  return answers;
}

void read_messages(Connection& connection) {
  for (ReadStatus status = ReadStatus::kRead;;
       status = connection.read(Deadline::after(Deadline::Milliseconds(5000)))) {
    Message message;
    for (Arrival arrival; (arrival = connection.next(message)) != Arrival::kNone;) {
      if (arrival == Arrival::kServiceGone) continue;
      if (arrival == Arrival::kBrokenStream) return;
      const Bytes copy(message.tlvs.begin(), message.tlvs.end());
    }
    if (status == ReadStatus::kRead) continue;
    require(status == ReadStatus::kGone && connection.next(message) == Arrival::kNone);
    return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static const Bytes kOpening = opening();
  const bool opens = data[0] & 1;
  Bytes answer = opens ? kOpening : Bytes();
  answer.insert(answer.end(), data + 1, data + size);
  peer().set_answer(std::move(answer));

  QmuxTransport transport;
  std::unique_ptr<Connection> connection;
  const int32_t error = transport.open(kService, 1024, Deadline::none(), connection);
  require((error == QMI_NO_ERR) == (connection != nullptr));
  require(!opens || connection != nullptr);
  if (connection == nullptr) return 0;
  read_messages(*connection);
  connection->close(Deadline::now());
  return 0;
}
