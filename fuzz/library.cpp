// The library as it is built, over a platform with the real codec, and with every log line written: indications from
// the framework's callback to the client's event callback, and statistics values from the modem's response to every
// decoder.
//
//   input: see messages.h. The change applies to a message: the response with statistics, or any other, which is
//   passed as an indication.
//
// With any bytes: no access is outside a block. There is one event if an indication decodes, and none otherwise. A
// decoder returns 1 or 0, and 0 if the response is a failure or does not decode.
#include <errno.h>

#include <cstring>
#include <memory>
#include <utility>

#include "instant_platform.h"
#include "messages.h"
#include "modem_hydra.h"
#include "pelmar_log.h"
#include "vs_client.h"
#include "vs_messages.h"
#include "vs_tables.h"

using namespace pelmar::fuzz;
namespace vs = pelmar::vs;

namespace {

int g_events;

void on_event(uint32_t, const uint8_t* payload, uint32_t length) {
  ++g_events;
  const Bytes copy(payload, payload + length);  // reads every byte
}

// A message that is no indication causes no event.
void indicate(const Message& message, Bytes wire) {
  Bytes structure;
  g_events = 0;
  vs_client_unsol_ind_cb(vs_client_info.client_handle, message.id, wire.data(), static_cast<unsigned>(wire.size()),
                         nullptr);
  const bool is_good = message.type == QMI_IDL_INDICATION && decode(message, wire, structure) == QMI_IDL_LIB_NO_ERR;
  require(g_events == (is_good ? 1 : 0));
}

// The record has its own heap block, so that a sanitizer reports each access beyond it.
template <typename Record, uint8_t (*kDecoder)(uint32_t, Record*)>
uint8_t read(uint32_t sub) {
  return kDecoder(sub, std::make_unique<Record>().get());
}

constexpr std::pair<uint32_t, uint8_t (*)(uint32_t sub)> kDecoders[] = {
    {0x52, read<modem_hydra_lte_srv_meas_info, modem_hydra_lte_srv_meas_info_get_for_pcc>},
    {0x87, read<modem_hydra_nr5g_srv_meas_info, modem_hydra_nr5g_srv_meas_info_get_for_pcc>},
    {0x64, read<modem_hydra_mcs_trm_asdiv, modem_hydra_mcs_trm_asdiv_get>},
    {0x62, read<modem_hydra_lte_pusch_power_info, modem_hydra_lte_pusch_power_info_get>},
};

void read_statistics(const Message& message, const Bytes& wire, bool has_known_id) {
  Bytes structure;
  const bool is_good = decode(message, wire, structure) == QMI_IDL_LIB_NO_ERR;
  if (!is_good) structure.assign(structure.size(), 0xFF);  // its header is a failure
  pelmar::instant_platform::set_response(structure.data(), structure.size());
  auto& record = reinterpret_cast<vs::GetStatsParameterResponse*>(structure.data())->records[0];
  for (const auto& [id, decoder] : kDecoders) {
    if (has_known_id) record.id = id;  // otherwise the id is that of the fuzzed bytes
    for (const uint16_t sub : {0, 1}) {
      const uint8_t result = decoder(sub);
      require(result == 0 || (result == 1 && is_good));
      modem_tx_power_get_by_sub(sub);
    }
  }
}

bool open_client() {
  std::strcpy(program_invocation_name, "/mtb");  // a name that the library serves
  pelmar::instant_platform::set_log([](const char*) {});
  pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_close_shell_print();
  require(modem_hydra_api_init() == 1);
  vs_init();
  return vs_client_init(on_event);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool is_open = open_client();
  require(is_open);
  const Input input(data, size);
  const Message& message = message_of(input, false);
  if (message.service != &vs::kService) return 0;
  const Bytes wire = input.change(make_wire(message, input.most));
  if (message.type == QMI_IDL_RESPONSE && message.id == vs::kGetStatsParameter) {
    read_statistics(message, wire, input.choice & 1);
  } else {
    indicate(message, wire);
  }
  return 0;
}
