// The platform's client and its link to the peripheral manager, over a real socket, with a peer that sends any bytes.
//
//   input: see messages.h. The change applies to the modem's bytes. Choice 1: they follow the responses that open a
//   connection. Choice 2: the change applies to the peripheral manager's bytes.
//
// The peer sends its bytes in two parts and closes the connection. With any bytes, opening ends, a send ends with a
// response or the loss of the service, and a release returns.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "manager_link.h"
#include "messages.h"
#include "nas_messages.h"
#include "qmi_client.h"
#include "unix_socket.h"

using namespace pelmar::fuzz;
using namespace pelmar;

namespace {

// The modem's responses while a connection is opened. The result TLV is behind the value, which is allowed.
Bytes opening() {
  const auto respond = [](uint8_t transaction, uint16_t id, const Bytes& value) {
    const Bytes tlvs = join({{0x01, static_cast<uint8_t>(value.size()), 0}, value, {0x02, 4, 0, 0, 0, 0, 0}});
    return make_frame(qmi::MessageKind::kResponse, 0, transaction, id, tlvs);
  };
  return join({respond(1, 0xFF00, {}), respond(2, 0x0021, {1, NAS_SERVICE_ID_V01, 1, 0, 2, 0}),
               respond(3, 0x0022, {NAS_SERVICE_ID_V01, kClient})});
}

int listen_for_client() {
  const std::string name = "@pelmar-fuzz-" + std::to_string(getpid());
  const auto address = unix_address(name);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(bind(listener, address->get(), address->length) == 0 && listen(listener, 4) == 0);
  setenv("PELMAR_MODEM", name.c_str(), 1);
  setenv("XDG_STATE_HOME", "/dev/null", 1);  // no record of client ids
  return listener;
}

void serve(int listener, const Bytes& bytes) {
  const int connection = accept(listener, nullptr, nullptr);
  const size_t half = bytes.size() / 2;  // the frames are cut anywhere
  send(connection, bytes.data(), half, MSG_NOSIGNAL);
  send(connection, bytes.data() + half, bytes.size() - half, MSG_NOSIGNAL);
  shutdown(connection, SHUT_WR);
  char drain[256];
  while (recv(connection, drain, sizeof drain, 0) > 0) continue;
  close(connection);
}

void on_indication(qmi_client_type, unsigned, void* bytes, unsigned length, void*) {
  const auto* const begin = static_cast<const uint8_t*>(bytes);
  const Bytes copy(begin, begin + length);  // reads every byte
}

void use_client(bool opens) {
  qmi_client_type handle = nullptr;
  const int error = qmi_client_init_instance(nas_get_service_object_internal_v01(1, 388, 6), QMI_CLIENT_INSTANCE_ANY,
                                             on_indication, nullptr, nullptr, 0, &handle);
  require((error == QMI_NO_ERR) == (handle != nullptr));
  require(!opens || handle != nullptr);
  if (handle == nullptr) return;
  nas::EmptyRequest request{};
  nas::CellLocationResponse response;
  const int sent = qmi_client_send_msg_sync(handle, QMI_NAS_GET_CELL_LOCATION_INFO_V01, &request, sizeof request,
                                            &response, sizeof response, 0);
  require(sent == QMI_NO_ERR || sent == QMI_SERVICE_ERR || sent <= QMI_IDL_LIB_EXTENDED_ERR);
  require(qmi_client_release(handle) == QMI_NO_ERR);
}

void use_manager_link() {
  const auto deadline = platform::Deadline::after(platform::Deadline::Milliseconds(5000));
  platform::power::ManagerLink link;
  require(link.open(std::getenv("PELMAR_MODEM"), deadline));
  for (platform::power::Reply reply; link.receive(reply, deadline);) require(!platform::power::to_frame(reply).empty());
}

Bytes manager_messages() {
  using namespace platform::power;
  return join({to_frame(VoterResponse{PM_RET_UNSUPPORTED, EVENT_PERIPH_IS_OFFLINE}),
               to_frame(Event{EVENT_PERIPH_GOING_OFFLINE}), to_frame(Status{EVENT_PERIPH_IS_ONLINE, 1}),
               to_frame(VoterEntry{0x01020304, true, std::string(kMaxNameBytes, 'n')})});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int listener = listen_for_client();
  const Input input(data, size);
  const bool is_manager = input.choice & 2, opens = !is_manager && input.choice & 1;
  const Bytes stream = input.change(is_manager ? manager_messages() : make_stream(input, false));
  std::thread peer([&] { serve(listener, opens ? join({opening(), stream}) : stream); });
  is_manager ? use_manager_link() : use_client(opens);
  peer.join();
  return 0;
}
