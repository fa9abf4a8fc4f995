// A statistics value's way through the library: from the modem's answer, through the fetch's checks, to every decoder.
// Over a platform with the real codec, and with every log line written.
//
//   input: wire bytes of the answer to a statistics request
//
// What holds whatever the bytes: a decoder answers 1 or 0, writes nothing beside its record, and no answer that is
// refused or does not decode reaches one.
#include <unistd.h>

#include <cstring>
#include <memory>

#include "instant_platform.h"
#include "messages.h"
#include "modem_hydra.h"
#include "pelmar_log.h"
#include "qmi_codec.h"
#include "vs_client.h"
#include "vs_messages.h"

using namespace pelmar::fuzz;

namespace {

// The record has a heap block of its own, so that a sanitizer sees each byte beyond.
template <typename Record, uint8_t (*kDecoder)(uint32_t, Record*)>
uint8_t read(uint32_t sub) {
  const auto record = std::make_unique<Record>();
  return kDecoder(sub, record.get());
}

constexpr uint8_t (*kReadings[])(uint32_t) = {
    read<modem_hydra_lte_srv_meas_info, modem_hydra_lte_srv_meas_info_get_for_pcc>,
    read<modem_hydra_lte_srv_meas_info, modem_hydra_lte_srv_meas_info_get_for_scc6>,
    read<modem_hydra_nr5g_srv_meas_info, modem_hydra_nr5g_srv_meas_info_get_for_pcc>,
    read<modem_hydra_mcs_trm_asdiv, modem_hydra_mcs_trm_asdiv_get>,
    read<modem_hydra_lte_pusch_power_info, modem_hydra_lte_pusch_power_info_get>,
};

}  // namespace

// Runs under a name that the library serves: the process starts itself again as "mtb".
extern "C" int LLVMFuzzerInitialize(int*, char*** argv) {
  static char name[] = "/fuzz/mtb";
  if (std::strcmp((*argv)[0], name) != 0) {
    (*argv)[0] = name;
    execv("/proc/self/exe", *argv);
  }
  pelmar::instant_platform::set_log([](const char*) {});
  pelmar_hal_get_shell_print_flag(PELMAR_LOG_LEVEL_ERROR);
  pelmar_hal_close_shell_print();
  require(modem_hydra_api_init() == 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Bytes response(sizeof(pelmar::vs::GetStatsParameterResponse));
  const bool decodes =
      pelmar::qmi::decode(vs_client_info.service_object, QMI_IDL_RESPONSE, pelmar::vs::kGetStatsParameter, data, size,
                          response.data(), response.size()) == QMI_IDL_LIB_NO_ERR;
  if (!decodes) response.assign(response.size(), 0xFF);  // a failure in its header
  pelmar::instant_platform::set_response(response.data(), response.size());
  for (const auto reading : kReadings) {
    for (uint32_t sub = 0; sub < 2; ++sub) {
      const uint8_t answer = reading(sub);
      require(answer == 0 || (answer == 1 && decodes));
    }
  }
  for (uint32_t sub = 0; sub < 2; ++sub) modem_tx_power_get_by_sub(sub);
  return 0;
}
