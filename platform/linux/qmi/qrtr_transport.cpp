#include "qrtr_transport.h"

#include <endian.h>
#include <linux/qrtr.h>
#include <linux/sock_diag.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "qmi_client.h"

namespace pelmar::platform {
namespace {

using Found = QrtrSocket::Found;
using Kind = QrtrControl::Kind;

// The memory for datagrams that wait in a socket. The kernel doubles it for its own needs, which makes room for more
// than a thousand of the largest indications; a process without CAP_NET_ADMIN gets less.
constexpr int kReceiveBuffer = 16 << 20;

// Messages of all services but CTL have the same header.
constexpr uint8_t kAnyService = 1;

// A service that has no room is tried again after this time: the kernel does not report that there is room again.
constexpr Deadline::Milliseconds kSendPause{1};

// After drops, the lookup of a connection's service waits at most kCheckTimeout for the name service. While datagrams
// keep arriving, the drops are counted each kCheckInterval, two lookups are at least that time apart, and two lines of
// the log kReportInterval.
constexpr Deadline::Milliseconds kCheckTimeout{500};
constexpr Deadline::Milliseconds kCheckInterval{100};
constexpr Deadline::Milliseconds kReportInterval{1000};

// The most memory that the kernel uses for a datagram: it allocates powers of two, and adds its own structures. A
// datagram that is too long is received as an empty one.
constexpr size_t most_memory_of(size_t length) {
  return 2 * (length > 0 ? length : QrtrSocket::kMaxDatagram) + 2048;
}

// Waits for one of the descriptors. A signal may end the wait early.
void wait_for(std::span<pollfd> descriptors, const Deadline& deadline) {
  if (deadline.has_passed()) return;
  const timespec time = deadline.remaining_time();
  ::ppoll(descriptors.data(), descriptors.size(), deadline.is_none() ? nullptr : &time, nullptr);
}

}  // namespace

// --- control packets ---

QrtrControl read_qrtr_control(std::span<const uint8_t> bytes) {
  qrtr_ctrl_pkt packet{};
  const auto has = [&](size_t length) { return bytes.size() >= sizeof packet.cmd + length; };
  if (!has(0)) return {};
  std::memcpy(&packet, bytes.data(), std::min(bytes.size(), sizeof packet));
  switch (const uint32_t command = le32toh(packet.cmd)) {
    case QRTR_TYPE_NEW_SERVER:
    case QRTR_TYPE_DEL_SERVER: {
      if (!has(sizeof packet.server)) return {};
      const uint32_t instance = le32toh(packet.server.instance);
      QrtrControl control = {command == QRTR_TYPE_NEW_SERVER ? Kind::kArrival : Kind::kDeparture,
                             {le32toh(packet.server.node), le32toh(packet.server.port)},
                             le32toh(packet.server.service),
                             instance >> 8,
                             static_cast<uint8_t>(instance)};
      const QrtrControl nothing = {Kind::kArrival};
      if (control == nothing) control.kind = Kind::kEndOfList;
      return control;
    }
    case QRTR_TYPE_DEL_CLIENT:
      if (!has(sizeof packet.client)) return {};
      return {Kind::kSocketGone, {le32toh(packet.client.node), le32toh(packet.client.port)}};
    case QRTR_TYPE_BYE:
      if (!has(sizeof packet.client.node)) return {};
      return {Kind::kNodeGone, {le32toh(packet.client.node)}};
    default:
      return {};
  }
}

bool QrtrControl::ends(const QrtrAddress& peer) const {
  switch (kind) {
    case Kind::kDeparture:
    case Kind::kSocketGone:
      return address == peer;
    case Kind::kNodeGone:
      return address.node == peer.node;
    default:
      return false;
  }
}

bool QrtrQuery::matches(const QrtrControl& packet) const {
  return packet.service == service && packet.instance == instance.value_or(packet.instance) &&
         packet.address.node == node.value_or(packet.address.node) &&
         packet.address.port == port.value_or(packet.address.port);
}

// --- a socket ---

bool QrtrSocket::open() {
  descriptor_ = ProcessFd([] { return ::socket(AF_QIPCRTR, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
  if (!is_open()) {
    const int error = errno;
    if (error == EAFNOSUPPORT) report_problem("Cannot connect to the modem: this kernel has no QRTR: modprobe qrtr");
    errno = error;
    return false;
  }
  if (::setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer) != 0) {
    ::setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  }
  name_service_ = {own_address().node, QRTR_PORT_CTRL};
  return true;
}

QrtrAddress QrtrSocket::own_address() const {
  sockaddr_qrtr own{};
  socklen_t length = sizeof own;
  ::getsockname(descriptor(), reinterpret_cast<sockaddr*>(&own), &length);
  return {own.sq_node, own.sq_port};
}

SendStatus QrtrSocket::send(const QrtrAddress& to, const void* bytes, size_t length) {
  sockaddr_qrtr address{};
  address.sq_family = AF_QIPCRTR;
  address.sq_node = to.node;
  address.sq_port = to.port;
  const auto* const receiver = reinterpret_cast<const sockaddr*>(&address);
  for (;;) {
    if (::sendto(descriptor(), bytes, length, MSG_DONTWAIT, receiver, sizeof address) >= 0) return SendStatus::kSent;
    switch (errno) {
      case EINTR:
        break;
      case EAGAIN:
      case ENOBUFS:
      case ENOMEM:  // this socket's memory for sending is used up
      case ENOSPC:  // the receiver's socket on this node is full
        return SendStatus::kBlocked;
      default:
        return SendStatus::kGone;
    }
  }
}

ReadStatus QrtrSocket::receive(std::span<uint8_t>& bytes, QrtrAddress& from) {
  sockaddr_qrtr address{};
  socklen_t address_length = sizeof address;
  const ssize_t count = ::recvfrom(descriptor(), bytes.data(), bytes.size(), MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr*>(&address), &address_length);
  if (count < 0) return errno == EAGAIN || errno == EINTR ? ReadStatus::kTimedOut : ReadStatus::kGone;
  const auto length = static_cast<size_t>(count);
  bytes = bytes.first(length > kMaxDatagram ? 0 : length);
  from = {address.sq_node, address.sq_port};
  return ReadStatus::kRead;
}

ReadStatus QrtrSocket::receive(QrtrControl& packet) {
  uint8_t room[sizeof(qrtr_ctrl_pkt)];
  std::span<uint8_t> bytes(room);
  QrtrAddress from;
  const ReadStatus status = receive(bytes, from);
  packet = status == ReadStatus::kRead && is_name_service(from) ? read_qrtr_control(bytes) : QrtrControl();
  return status;
}

bool QrtrSocket::look_up(uint32_t service, const Deadline& deadline,
                         const std::function<void(const QrtrControl&)>& take) {
  qrtr_ctrl_pkt lookup{};
  lookup.cmd = htole32(QRTR_TYPE_NEW_LOOKUP);
  lookup.server.service = htole32(service);  // of any instance: the caller selects
  SendStatus sent;
  while ((sent = send(name_service_, &lookup, sizeof lookup)) == SendStatus::kBlocked && !deadline.has_passed()) {
    wait_for({}, earlier(deadline, Deadline::after(kSendPause)));
  }
  if (sent != SendStatus::kSent) return false;
  for (;;) {
    QrtrControl packet;
    const ReadStatus status = receive(packet);
    if (status == ReadStatus::kGone || deadline.has_passed()) return false;
    if (status == ReadStatus::kTimedOut) {
      pollfd readable[] = {{descriptor(), POLLIN, 0}};
      wait_for(readable, deadline);
    } else if (packet.kind == Kind::kEndOfList) {
      return true;
    } else if (packet.kind == Kind::kArrival || packet.kind == Kind::kDeparture) {
      take(packet);
    }
  }
}

Found QrtrSocket::find(const QrtrQuery& query, const Deadline& deadline, QrtrAddress& address) {
  std::optional<QrtrAddress> found;
  const bool is_complete = look_up(query.service, deadline, [&](const QrtrControl& packet) {
    if (packet.kind == Kind::kArrival && !found && query.matches(packet)) found = packet.address;
    if (packet.kind == Kind::kDeparture && found == packet.address) found.reset();
  });
  if (!is_complete) return Found::kNoResponse;
  address = found.value_or(QrtrAddress());
  return found ? Found::kFound : Found::kAbsent;
}

QrtrSocket::Memory QrtrSocket::memory() const {
  uint32_t values[SK_MEMINFO_VARS] = {};
  socklen_t length = sizeof values;
  ::getsockopt(descriptor(), SOL_SOCKET, SO_MEMINFO, values, &length);
  return {values[SK_MEMINFO_DROPS], values[SK_MEMINFO_RMEM_ALLOC], values[SK_MEMINFO_RCVBUF]};
}

void QrtrSocket::refuse_datagrams() {
  constexpr int kLeast = 0;  // the kernel uses its own minimum instead
  ::setsockopt(descriptor(), SOL_SOCKET, SO_RCVBUF, &kLeast, sizeof kLeast);
}

// --- a connection ---

QrtrConnection::QrtrConnection(QrtrSocket socket, const QrtrAddress& address, uint32_t service, size_t message_capacity)
    : socket_(std::move(socket)),
      address_(address),
      service_(service),
      trace_("qrtr:" + std::to_string(address.node), TraceLink::Sharing::kOwn),
      client_(static_cast<uint8_t>(socket_.own_address().port)),
      wake_([] { return ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK); }),
      capacity_(std::min(message_capacity, QrtrSocket::kMaxDatagram)),
      message_(new uint8_t[capacity_]),
      received_(new uint8_t[QrtrSocket::kRoom]),  // not initialised: bytes are written before they are read
      unchecked_limit_(socket_.memory().capacity / 2) {
  if (!wake_) throw std::system_error(errno, std::generic_category(), "eventfd");
}

QrtrConnection::~QrtrConnection() {
  unreported_drops_ += drops_at_end_.value_or(drops_) - drops_;
  report_drops();
}

SendStatus QrtrConnection::send(size_t length) {
  trace_.write(qmi::Direction::kToModem, frame_of({message_.get(), length}));
  return try_send(length);
}

SendStatus QrtrConnection::try_send(size_t length) {
  const SendStatus status = is_shut_down_ ? SendStatus::kGone : socket_.send(address_, message_.get(), length);
  unsent_ = status == SendStatus::kBlocked ? length : 0;
  return status;
}

SendStatus QrtrConnection::flush(const Deadline& deadline) {
  while (has_unsent()) {
    const SendStatus status = try_send(unsent_);
    if (status != SendStatus::kBlocked) return status;
    if (deadline.has_passed()) {
      unsent_ = 0;
      return SendStatus::kTimedOut;
    }
    wait_for({}, earlier(deadline, Deadline::after(kSendPause)));
  }
  return SendStatus::kSent;
}

ReadStatus QrtrConnection::read(const Deadline& deadline) {
  datagram_ = {};
  for (;;) {
    wait(deadline);
    if (has_stopped_) return ReadStatus::kGone;
    std::span<uint8_t> bytes(received_.get(), QrtrSocket::kRoom);
    const ReadStatus status = socket_.receive(bytes, from_);
    if (status == ReadStatus::kRead) {
      datagram_ = bytes;
      unchecked_bytes_ += most_memory_of(bytes.size());
      check_for_drops();
    }
    if (status != ReadStatus::kTimedOut || deadline.has_passed()) return status;
  }
}

Arrival QrtrConnection::next(Message& message) {
  const auto datagram = std::exchange(datagram_, {});
  if (from_ == address_) {
    if (!datagram.empty()) trace_.write(qmi::Direction::kFromModem, frame_of(datagram));
    const auto arrived = qmi::read_message({kAnyService, qmi::kNoClient, datagram});
    if (arrived && arrived->kind != qmi::MessageKind::kRequest) {
      message = {*arrived};
      return Arrival::kMessage;
    }
  } else if (socket_.is_name_service(from_) && read_qrtr_control(datagram).ends(address_)) {
    is_lost_ = true;
  }
  return is_lost_ ? Arrival::kServiceGone : Arrival::kNone;
}

void QrtrConnection::stop_reading() {
  has_stopped_ = true;
  ::eventfd_write(wake_.get(), 1);
}

// A QRTR socket itself cannot be shut down.
void QrtrConnection::shut_down() {
  is_shut_down_ = true;
  stop_reading();
}

// The object may exist longer, and the kernel would keep what arrives for it.
void QrtrConnection::abandon(const Deadline& /*deadline*/) {
  shut_down();
  drops_at_end_ = socket_.memory().drops;
  socket_.refuse_datagrams();
}

// Waits until there is something to read, or reading has stopped.
void QrtrConnection::wait(const Deadline& deadline) const {
  pollfd descriptors[] = {{wake_.get(), POLLIN, 0}, {socket_.descriptor(), POLLIN, 0}};
  wait_for(descriptors, deadline);
}

// After drops, looks the service up again, because the report that it went away may be among them. The kernel drops a
// datagram only while the socket's memory is full of others, all of which are read later. So checks that are half of
// that memory apart find every drop; those in time find it soon.
void QrtrConnection::check_for_drops() {
  const bool is_due = unchecked_bytes_ >= unchecked_limit_ || next_count_.has_passed();
  if (!is_due && !is_check_due_ && unreported_drops_ == 0) return;
  unchecked_bytes_ = 0;
  next_count_ = Deadline::after(kCheckInterval);
  const QrtrSocket::Memory memory = socket_.memory();
  const uint32_t drops = memory.drops - std::exchange(drops_, memory.drops);
  unreported_drops_ += drops;
  is_check_due_ |= drops > 0;
  if (next_report_.has_passed()) report_drops();
  if (!is_check_due_ || (memory.waiting_bytes > 0 && !next_check_.has_passed())) return;
  QrtrSocket socket;
  QrtrAddress found;
  const QrtrQuery query = {.service = service_, .node = address_.node, .port = address_.port};
  is_lost_ |= socket.open() && socket.find(query, Deadline::after(kCheckTimeout), found) == Found::kAbsent;
  is_check_due_ = false;
  next_check_ = Deadline::after(kCheckInterval);
}

void QrtrConnection::report_drops() {
  if (unreported_drops_ == 0) return;
  ::syslog(LOG_WARNING, "QMI service 0x%02x: a client reads too slowly, the kernel dropped %u messages",
           static_cast<unsigned>(service_), std::exchange(unreported_drops_, 0));
  next_report_ = Deadline::after(kReportInterval);
}

int32_t open_qrtr_connection(const ModemAddress& address, const ServiceName& service, size_t message_capacity,
                             const Deadline& deadline, std::unique_ptr<Connection>& connection) {
  if (service.number == 0) return QMI_CLIENT_PARAM_ERR;  // in a lookup it means any service
  QrtrQuery query = {.service = service.number, .node = address.node};
  if (service.instance != QMI_CLIENT_INSTANCE_ANY) query.instance = service.instance;
  QrtrSocket socket;
  QrtrAddress found;
  if (!socket.open() || socket.find(query, deadline, found) != Found::kFound) return QMI_TIMEOUT_ERR;
  connection = std::make_unique<QrtrConnection>(std::move(socket), found, service.number, message_capacity);
  return QMI_NO_ERR;
}

// --- a watch ---

Presence QrtrWatch::look() {
  const Deadline deadline = Deadline::after(kLookTimeout);
  const bool had_list = socket_.is_open();
  if (had_list && take_news(deadline)) return {is_there_, false};
  QrtrAddress address;
  const Found found = socket_.open() ? socket_.find(query_, deadline, address) : Found::kNoResponse;
  if (found == Found::kNoResponse) socket_.close();
  is_there_ = found == Found::kFound;
  return {is_there_, had_list};
}

// Reads the reports of the name service. Returns false if the list must be fetched again: a service went away, and
// another one may be there, or reports were lost.
bool QrtrWatch::take_news(const Deadline& deadline) {
  for (;;) {
    QrtrControl packet;
    const ReadStatus status = socket_.receive(packet);
    if (status == ReadStatus::kTimedOut) return socket_.memory().drops == 0;
    if (status == ReadStatus::kGone || deadline.has_passed()) return false;
    switch (packet.kind) {
      case Kind::kArrival:
        is_there_ |= query_.matches(packet);
        break;
      case Kind::kDeparture:
        if (query_.matches(packet)) return false;
        break;
      case Kind::kSocketGone:
      case Kind::kNodeGone:
        return false;
      default:
        break;
    }
  }
}

std::unique_ptr<ServiceWatch> watch_qrtr_service(const ModemAddress& address, uint32_t service) {
  return std::make_unique<QrtrWatch>(QrtrQuery{.service = service, .node = address.node});
}

// --- an inspection ---

void inspect_qrtr(const ModemAddress& address, const Deadline& deadline, ModemReport& report) {
  constexpr size_t kMostServices = 1024;  // far more than any modem has
  report.transport = "QRTR";
  if (address.node) report.transport += ", node " + std::to_string(*address.node);
  QrtrSocket socket;
  if (!socket.open()) {
    const bool lacks_module = errno == EAFNOSUPPORT;
    report.problem = lacks_module ? "this kernel has no QRTR" : std::strerror(errno);
    if (lacks_module) report.remedy = "'modprobe qrtr' loads it. ";
    return;
  }
  const bool is_complete = socket.look_up(0, deadline, [&](const QrtrControl& packet) {
    if (packet.kind != Kind::kArrival || report.services.size() == kMostServices) return;
    if (address.node && packet.address.node != *address.node) return;
    report.services.push_back({packet.service, packet.instance, packet.address.node, packet.version, 0});
  });
  if (!is_complete) report.problem = "the name service of QRTR does not respond";
  if (is_complete && report.services.empty()) report.problem = "QRTR lists no service";
  report.may_come = !report.problem.empty();
}

}  // namespace pelmar::platform
