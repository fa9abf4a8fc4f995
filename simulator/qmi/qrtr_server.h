// The modem's services as QRTR services of this machine's own node, for clients of the kernel's QRTR.
//
// Each running service publishes a socket. A client is identified by the address of its socket; it gets a client id
// with its first request and keeps it until its socket closes. A service that goes down closes its socket, which the
// kernel reports to all clients. A QRTR service cannot disconnect one client. So if a connection is closed, the service
// goes away for all its clients and comes back at once.
#pragma once

#include <memory>
#include <vector>

#include "io/event_loop.h"
#include "qmi/connection.h"
#include "qmi/modem.h"

namespace pelmar::sim {

class QrtrService;

class QrtrServer final {
 public:
  // Throws std::runtime_error if this kernel has no QRTR.
  QrtrServer(EventLoop& loop, Modem& modem, Connections& connections);
  ~QrtrServer();

 private:
  bool is_running(QrtrService& service) const;
  void update();

  Modem& modem_;
  std::vector<std::unique_ptr<QrtrService>> services_;
};

}  // namespace pelmar::sim
