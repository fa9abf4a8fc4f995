#include "manager_link.h"

#include <cstring>
#include <utility>

#include "environment.h"
#include "qmux_link.h"

namespace pelmar::platform::power {

// Frames are small: a manager whose socket stays full for this long has stopped working.
constexpr Deadline::Milliseconds kSendTimeout{1000};

std::string manager_socket() {
  if (std::string own = environment("PELMAR_PM_SOCKET"); !own.empty()) return own;
  const auto modem = parse_modem_address(environment(kModemVariable, kDefaultModem));
  if (!modem) return "";
  switch (modem->kind) {
    case ModemAddress::Kind::kQmuxSocket:
      return default_manager_socket(modem->path);
    case ModemAddress::Kind::kProxy:
      return default_manager_socket(kProxySocket);
    case ModemAddress::Kind::kDevice:
    case ModemAddress::Kind::kQrtr:
      break;
  }
  return "";
}

bool ManagerLink::send(const Request& request) {
  const std::vector<uint8_t> frame = to_frame(request);
  SendStatus status = stream_.send(frame.data(), frame.size());
  if (status == SendStatus::kBlocked) status = stream_.flush(Deadline::after(kSendTimeout));
  return status == SendStatus::kSent;
}

bool ManagerLink::receive(Reply& reply, const Deadline& deadline) {
  for (;;) {
    size_t size = 0;
    switch (parse_frame({bytes_, received_}, reply, size)) {
      case FrameState::kComplete:
        received_ -= size;
        std::memmove(bytes_, bytes_ + size, received_);
        return true;
      case FrameState::kBroken:
        return false;
      case FrameState::kIncomplete:
        break;
    }
    size_t count = 0;
    const ReadStatus status = stream_.receive(bytes_ + received_, sizeof bytes_ - received_, deadline, count);
    if (status != ReadStatus::kRead) return false;
    received_ += count;
  }
}

std::optional<ManagerStatus> query_status(const std::string& socket) {
  const Deadline deadline = Deadline::after(kResponseTimeout);
  ManagerLink link;
  Reply reply;
  if (!link.open(socket, deadline) || !link.send(QueryStatus{}) || !link.receive(reply, deadline)) return std::nullopt;
  const auto* const head = std::get_if<Status>(&reply);
  if (head == nullptr) return std::nullopt;
  ManagerStatus status = {head->state, {}};
  for (size_t left = head->voters; left > 0; --left) {
    if (!link.receive(reply, deadline)) return std::nullopt;
    auto* const entry = std::get_if<VoterEntry>(&reply);
    if (entry == nullptr) return std::nullopt;
    status.voters.push_back(std::move(*entry));
  }
  return status;
}

}  // namespace pelmar::platform::power
