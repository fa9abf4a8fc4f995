// A model of the kernel's QRTR: one node with its name service, for the sockets of this process. Few kernels have QRTR,
// and the sanitizers do not run in the virtual machine that has it. The same tests run over the kernel's QRTR in that
// machine (scripts/qrtr_vm.sh), so they fail if the model differs from the kernel in what they rely on.
//
// The linker directs the program's calls of each NAME to __wrap_NAME, and __real_close to close. A socket is an
// eventfd, whose count is the number of the datagrams that wait.
#include <linux/qrtr.h>
#include <linux/sock_diag.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace {

constexpr uint32_t kNode = 1;

struct Datagram {
  uint32_t from;
  uint32_t memory;
  std::vector<uint8_t> bytes;
};

struct Socket {
  uint32_t port;  // 0 until it first sends
  uint32_t capacity = 212'992;
  uint32_t waiting_bytes = 0;
  uint32_t drops = 0;
  std::deque<Datagram> waiting = {};
};

constinit std::mutex mutex;
// By descriptor. Never destroyed, because the name service uses them until the process ends.
std::map<int, Socket>& sockets = *new std::map<int, Socket>;

int fail(int error) {
  errno = error;
  return -1;
}

int open_socket(uint32_t port, int flags) {
  const std::lock_guard lock(mutex);
  const int fd = ::eventfd(0, EFD_SEMAPHORE | EFD_CLOEXEC | flags);
  if (fd >= 0) sockets.emplace(fd, Socket{port});
  return fd;
}

// REQUIRES: the mutex is held, here and below.
auto find(uint32_t port) {
  return std::find_if(sockets.begin(), sockets.end(), [=](const auto& entry) { return entry.second.port == port; });
}

ssize_t deliver(uint32_t port, uint32_t from, const void* bytes, size_t length) {
  const auto found = find(port);
  if (found == sockets.end() || port == from) return fail(ENODEV);
  auto& [descriptor, socket] = *found;
  if (socket.waiting_bytes >= socket.capacity) {
    ++socket.drops;
    return fail(ENOSPC);
  }
  const auto* const first = static_cast<const uint8_t*>(bytes);
  // The kernel allocates a power of two for the bytes and its own 352, and another structure of 256.
  const uint32_t memory = std::bit_ceil(static_cast<uint32_t>(length) + 352) + 256;
  socket.waiting.push_back({from, memory, {first, first + length}});
  socket.waiting_bytes += memory;
  ::eventfd_write(descriptor, 1);
  return static_cast<ssize_t>(length);
}

// The name service, which has a thread and a socket in the kernel as well.
void serve_names(int fd) {
  std::map<uint32_t, qrtr_ctrl_pkt> servers;  // by port
  std::map<uint32_t, uint32_t> lookups;       // the service, 0 for all, by port
  const auto send = [=](uint32_t port, const qrtr_ctrl_pkt& packet) {
    const sockaddr_qrtr to = {AF_QIPCRTR, kNode, port};
    ::sendto(fd, &packet, sizeof packet, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  };
  const auto report = [=](uint32_t port, uint32_t service, const qrtr_ctrl_pkt& server) {
    if (service == 0 || service == server.server.service) send(port, server);
  };
  for (;;) {
    qrtr_ctrl_pkt packet{};
    sockaddr_qrtr from{};
    socklen_t length = sizeof from;
    ::recvfrom(fd, &packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&from), &length);
    switch (packet.cmd) {
      case QRTR_TYPE_NEW_SERVER:
        packet.server.node = from.sq_node;
        packet.server.port = from.sq_port;
        servers[from.sq_port] = packet;
        for (const auto& [port, service] : lookups) report(port, service, packet);
        break;
      case QRTR_TYPE_NEW_LOOKUP:
        lookups[from.sq_port] = packet.server.service;
        for (const auto& [port, server] : servers) report(from.sq_port, packet.server.service, server);
        send(from.sq_port, {QRTR_TYPE_NEW_SERVER, {}});
        break;
      case QRTR_TYPE_DEL_CLIENT:
        lookups.erase(from.sq_port);
        if (auto server = servers.extract(from.sq_port)) {
          server.mapped().cmd = QRTR_TYPE_DEL_SERVER;
          for (const auto& [port, service] : lookups) report(port, service, server.mapped());
        }
        for (const auto& [port, server] : servers) send(port, packet);
    }
  }
}

}  // namespace

extern "C" {

int __real_close(int fd);

int __wrap_socket(int family, int /*type*/, int /*protocol*/) {
  static std::once_flag is_started;
  std::call_once(is_started, [] { std::thread(serve_names, open_socket(QRTR_PORT_CTRL, 0)).detach(); });
  return family == AF_QIPCRTR ? open_socket(0, EFD_NONBLOCK) : fail(EAFNOSUPPORT);
}

int __wrap_close(int fd) {
  std::unique_lock lock(mutex);
  const auto socket = sockets.extract(fd);
  if (socket && socket.mapped().port != 0) {
    qrtr_ctrl_pkt packet{QRTR_TYPE_DEL_CLIENT, {}};
    packet.client = {kNode, socket.mapped().port};
    deliver(QRTR_PORT_CTRL, socket.mapped().port, &packet, sizeof packet);
  }
  lock.unlock();
  return __real_close(fd);
}

int __wrap_getsockname(int fd, sockaddr* address, socklen_t* /*length*/) {
  const std::lock_guard lock(mutex);
  *reinterpret_cast<sockaddr_qrtr*>(address) = {AF_QIPCRTR, kNode, sockets.at(fd).port};
  return 0;
}

int __wrap_setsockopt(int fd, int /*level*/, int option, const void* value, socklen_t /*length*/) {
  const std::lock_guard lock(mutex);
  const auto wanted = *static_cast<const uint32_t*>(value);
  sockets.at(fd).capacity = std::max(2 * (option == SO_RCVBUFFORCE ? wanted : std::min(wanted, 212'992u)), 2304u);
  return 0;
}

int __wrap_getsockopt(int fd, int /*level*/, int /*SO_MEMINFO*/, void* value, socklen_t* /*length*/) {
  const std::lock_guard lock(mutex);
  const Socket& socket = sockets.at(fd);
  auto* const values = static_cast<uint32_t*>(value);
  values[SK_MEMINFO_RMEM_ALLOC] = socket.waiting_bytes;
  values[SK_MEMINFO_RCVBUF] = socket.capacity;
  values[SK_MEMINFO_DROPS] = socket.drops;
  return 0;
}

ssize_t __wrap_sendto(int fd, const void* bytes, size_t length, int /*flags*/, const sockaddr* to, socklen_t) {
  const std::lock_guard lock(mutex);
  Socket& socket = sockets.at(fd);
  for (uint32_t port = 0x4000; socket.port == 0; ++port) {  // the first free one
    if (find(port) == sockets.end()) socket.port = port;
  }
  const auto& address = *reinterpret_cast<const sockaddr_qrtr*>(to);
  if (address.sq_family != AF_QIPCRTR) return fail(EINVAL);
  return address.sq_node == kNode ? deliver(address.sq_port, socket.port, bytes, length) : fail(ECONNRESET);
}

ssize_t __wrap_recvfrom(int fd, void* room, size_t length, int /*flags*/, sockaddr* from, socklen_t* /*from_length*/) {
  eventfd_t one;
  if (::eventfd_read(fd, &one) != 0) return -1;
  const std::lock_guard lock(mutex);
  Socket& socket = sockets.at(fd);
  const Datagram datagram = std::move(socket.waiting.front());
  socket.waiting.pop_front();
  socket.waiting_bytes -= datagram.memory;
  *reinterpret_cast<sockaddr_qrtr*>(from) = {AF_QIPCRTR, kNode, datagram.from};
  const size_t count = std::min(length, datagram.bytes.size());
  std::copy_n(datagram.bytes.begin(), count, static_cast<uint8_t*>(room));
  return static_cast<ssize_t>(count);
}

}  // extern "C"
