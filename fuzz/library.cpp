// The library as it is built, over a platform with the real codec, and with every log line written: indications from
// the framework's callback to the client's event callback.
//
//   input: see messages.h. The change applies to a message, which is passed as an indication.
//
// With any bytes: no access is outside a block. There is one event if an indication decodes, and none otherwise.
#include <errno.h>

#include "instant_platform.h"
#include "messages.h"
#include "modem_api.h"
#include "pelmar_log.h"
#include "vs_client.h"
#include "vs_tables.h"

using namespace pelmar::fuzz;

namespace {

int g_events;

void on_event(uint32_t, const uint8_t* payload, uint32_t length) {
  ++g_events;
  const Bytes copy(payload, payload + length);  // reads every byte
}

bool open_client() {
  std::strcpy(program_invocation_name, "/mtb");  // a name that the library serves
  pelmar::instant_platform::set_log([](const char*) {});
  pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_close_shell_print();
  return modem_api_init() == MODEM_API_SUCCESS && vs_client_init(on_event);
}

}  // namespace

// A message that is no indication causes no event.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool is_open = open_client();
  const Input input(data, size);
  const Message& message = message_of(input, false);
  if (message.service != &pelmar::vs::kService) return 0;
  Bytes wire = input.change(make_wire(message, input.most)), structure;
  g_events = 0;
  vs_client_unsol_ind_cb(vs_client_info.client_handle, message.id, wire.data(), static_cast<unsigned>(wire.size()),
                         nullptr);
  const bool is_good = message.type == QMI_IDL_INDICATION && decode(message, wire, structure) == QMI_IDL_LIB_NO_ERR;
  require(is_open && g_events == (is_good ? 1 : 0));
  return 0;
}
