# The library's sources, relative to modem/; Android.bp at the root lists the same.
# The service clients and the client API.
set(PELMAR_CLIENT_SOURCES
  hal/hydra/modem_api/modem_api_client.cpp
  hal/hydra/modem_api/modem_api_command.cpp
  hal/hydra/modem_api/modem_api_events.cpp
  hal/hydra/modem_api/modem_api_nv.cpp
  hal/hydra/modem_api/modem_api_radio.cpp
  hal/hydra/modem_api/modem_api_stats.cpp
  hal/hydra/modem_api/modem_api_white_list.cpp
  hal/hydra/modem_api/nas/nas_0_client.cpp
  hal/hydra/modem_api/nas/nas_1_client.cpp
  hal/hydra/modem_api/sar/sar_client.cpp
  hal/hydra/modem_api/service_client.cpp
  hal/hydra/modem_api/service_client_reconnect.cpp
  hal/hydra/modem_api/vs/vs_client.cpp
)

# The common utilities and the traced allocation.
set(PELMAR_UTILS_SOURCES
  hal/hydra/hydra_common/hydra_mem.cpp
  hal/utils/src/pelmar_utils_cmn_build_type.cpp
  hal/utils/src/pelmar_utils_cmn_file.cpp
  hal/utils/src/pelmar_utils_cmn_identity.cpp
  hal/utils/src/pelmar_utils_cmn_list.cpp
  hal/utils/src/pelmar_utils_cmn_log.cpp
  hal/utils/src/pelmar_utils_cmn_process.cpp
  hal/utils/src/pelmar_utils_cmn_property.cpp
  hal/utils/src/pelmar_utils_cmn_ssr.cpp
  hal/utils/src/pelmar_utils_cmn_string.cpp
  hal/utils/src/pelmar_utils_cmn_sub.cpp
  hal/utils/src/pelmar_utils_cmn_thread.cpp
)

# Hydra, and the vote for the modem's power.
set(PELMAR_HYDRA_SOURCES
  hal/hydra/modem_api/modem_api_peripheral_mng.cpp
  hal/hydra/modem_api/modem_hydra_mgr_client.cpp
  hal/hydra/modem_api/modem_hydra_mgr_fetch.cpp
  hal/hydra/modem_api/modem_hydra_mgr_metrics.cpp
  hal/hydra/modem_api/modem_hydra_mgr_tx_power.cpp
)
