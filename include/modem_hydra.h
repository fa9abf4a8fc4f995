/* Hydra: modem statistics, decoded.
 *
 * Hydra is the library's own client of the modem's statistics. It opens one vendor-specific client in the calling
 * process, holds the statistics client id that the modem grants it, and reads values into records:
 *
 *     modem_hydra_lte_srv_meas_info cell;
 *     if (modem_hydra_lte_srv_meas_info_get_for_pcc(0, &cell)) ... cell.rsrp[0] ...
 *
 * Opening: the first reading opens hydra by itself. Opening releases and re-initialises the whole library of the
 * process (modem_api_release(), modem_api_init()): every other client of the process is dropped. A process that has
 * clients of its own opens hydra first.
 *
 * Hydra's client gets no notice when the modem goes away. Readings then fail (0, MODEM_SYS_MODE_UNKNOWN or
 * MODEM_TX_POWER_NONE), until modem_hydra_api_init() has opened hydra again; the process frees its own clients before
 * that and opens them afterwards.
 *
 * Threads: readings may be called from any thread. They run one at a time, each for up to the 30 s of one command; the
 * one that opens hydra also takes the time of connecting. Everything else is called by one thread at a time.
 *
 * Results: a uint8_t is 1 for yes or success and 0 for no or failure, unless stated at the function. While hydra is
 * closed, commands do nothing and return 0 (MODEM_API_SUCCESS); see modem_hydra_api_is_inited() where the difference
 * matters. The registrations also do so while no statistics client id was ever granted: see
 * modem_hydra_stats_client_is_inited().
 */
#ifndef MODEM_HYDRA_H
#define MODEM_HYDRA_H

#include <stddef.h>
#include <stdint.h>

#include "modem_api.h"
#include "pelmar_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* --- hydra's client --- */

/* Opens hydra, after closing it if it was open. Blocks for as long as modem_api_init_client().
 *
 * event_cb   as in modem_api_init_client(). Where it is null, modem_hydra_stats_id_alloc() cannot subscribe to events
 *            and gets no id
 * status_cb  as in modem_api_init_client()
 *
 * modem_hydra_api_init() has callbacks of its own, which only log.
 *
 * Returns 1 when hydra is open, else 0. */
PELMAR_EXPORT uint8_t modem_hydra_api_init(void);
PELMAR_EXPORT uint8_t modem_hydra_api_init_ex(modem_api_event_cb event_cb, modem_api_status_cb status_cb);

/* Whether hydra is open. */
PELMAR_EXPORT uint8_t modem_hydra_api_is_inited(void);

/* Closes hydra and releases the library. A statistics client id is neither released at the modem nor cleared: hydra
 * uses it again once it is open again. Returns the result of modem_api_release(). */
PELMAR_EXPORT modem_api_result modem_hydra_api_deinit(void);

/* --- the modem's statistics feature, and hydra's statistics client id --- */

/* Whether the feature is enabled at the modem; 0 also when that cannot be read. */
PELMAR_EXPORT uint8_t modem_hydra_stats_is_started(void);

/* Enable and disable the feature. Return 1 when the modem accepted. */
PELMAR_EXPORT uint8_t modem_hydra_stats_start(void);
PELMAR_EXPORT uint8_t modem_hydra_stats_stop(void);

/* Whether the modem has ever granted a statistics client id in this process; giving the id back does not change that.
 */
PELMAR_EXPORT uint8_t modem_hydra_stats_client_is_inited(void);

/* Gives a held id back, subscribes to events 3 and 4, switches reporting on and keeps the id that the modem grants.
 * Returns 1 always. modem_hydra_stats_client_is_inited() returns whether an id was ever granted: an earlier id stays
 * where a new one is refused. */
PELMAR_EXPORT uint8_t modem_hydra_stats_id_alloc(void);

/* Unsubscribes and gives the id back to the modem. */
PELMAR_EXPORT void modem_hydra_stats_id_free(void);

/* --- statistics commands with hydra's ids ---
 *
 * Parameters and results are those of the modem_api_* commands of these names. The first two do nothing and return 0,
 * open or not, as long as the modem has never granted a statistics client id. */

PELMAR_EXPORT modem_api_result modem_hydra_register_modem_stats_data(uint8_t option1_valid, uint16_t option1,
                                                                     uint8_t option2_valid, uint16_t option2,
                                                                     const modem_api_stats_registration* records,
                                                                     uint32_t record_count);
PELMAR_EXPORT modem_api_result modem_hydra_deregister_modem_stats_data(uint8_t option1_valid, uint16_t option1,
                                                                       uint8_t option2_valid, uint16_t option2,
                                                                       const uint32_t* ids, uint32_t id_count);
PELMAR_EXPORT modem_api_result modem_hydra_get_stats_parameter(uint16_t sub, uint16_t slot, stats_para_data* data);
PELMAR_EXPORT modem_api_result modem_hydra_clear_stats_parameter(uint16_t sub, uint16_t slot, int32_t id_count,
                                                                 const uint32_t* ids);

/* --- readings ---
 *
 * Each reads one value from the modem and decodes it.
 *
 * sub     subscription, 0 or 1
 * record  the caller's. Zeroed once the value has come, then filled; untouched when no value came
 *
 * Returns 1 when every field was there. On 0 after a value that was too short, the fields that it had are filled.
 *
 * Levels (RSRP, RSRQ, RSSI, SNR, receive gain), path losses, powers and their limits are the modem's numbers,
 * copied unchanged: their unit is that of the modem's version of the value (`version`). Suffixes count receive chains
 * or antennas. */

enum { MODEM_HYDRA_RX_CHAINS = 4 };

/* Serving cell of an LTE carrier: the primary one (pcc) or a secondary one (scc1 to scc6). */
typedef struct modem_hydra_lte_srv_meas_info {
  uint8_t version;
  uint8_t version_ssmr;
  uint32_t earfcn; /* channel number of the downlink */
  uint16_t pci;    /* physical cell id, 0 to 503 */
  uint8_t is_srv_cell;
  uint16_t rx_valid;                   /* which chains measured */
  int32_t rsrp[MODEM_HYDRA_RX_CHAINS]; /* reference signal received power */
  int32_t rsrq[MODEM_HYDRA_RX_CHAINS]; /* reference signal received quality */
  int32_t rssi[MODEM_HYDRA_RX_CHAINS]; /* received signal strength */
  int32_t snr[MODEM_HYDRA_RX_CHAINS];  /* signal-to-noise ratio */
} modem_hydra_lte_srv_meas_info;

PELMAR_EXPORT uint8_t modem_hydra_lte_srv_meas_info_get_for_pcc(uint32_t sub, modem_hydra_lte_srv_meas_info* record);
PELMAR_EXPORT uint8_t modem_hydra_lte_srv_meas_info_get_for_scc1(uint32_t sub, modem_hydra_lte_srv_meas_info* record);
PELMAR_EXPORT uint8_t modem_hydra_lte_srv_meas_info_get_for_scc2(uint32_t sub, modem_hydra_lte_srv_meas_info* record);
PELMAR_EXPORT uint8_t modem_hydra_lte_srv_meas_info_get_for_scc3(uint32_t sub, modem_hydra_lte_srv_meas_info* record);
PELMAR_EXPORT uint8_t modem_hydra_lte_srv_meas_info_get_for_scc4(uint32_t sub, modem_hydra_lte_srv_meas_info* record);
PELMAR_EXPORT uint8_t modem_hydra_lte_srv_meas_info_get_for_scc5(uint32_t sub, modem_hydra_lte_srv_meas_info* record);
PELMAR_EXPORT uint8_t modem_hydra_lte_srv_meas_info_get_for_scc6(uint32_t sub, modem_hydra_lte_srv_meas_info* record);

/* Serving cell of an NR carrier: the primary one (pcc) or a secondary one (scc1, scc2). */
typedef struct modem_hydra_nr5g_srv_meas_info {
  uint32_t version;
  int32_t rsrp[MODEM_HYDRA_RX_CHAINS];
  int32_t rsrq;
} modem_hydra_nr5g_srv_meas_info;

PELMAR_EXPORT uint8_t modem_hydra_nr5g_srv_meas_info_get_for_pcc(uint32_t sub, modem_hydra_nr5g_srv_meas_info* record);
PELMAR_EXPORT uint8_t modem_hydra_nr5g_srv_meas_info_get_for_scc1(uint32_t sub, modem_hydra_nr5g_srv_meas_info* record);
PELMAR_EXPORT uint8_t modem_hydra_nr5g_srv_meas_info_get_for_scc2(uint32_t sub, modem_hydra_nr5g_srv_meas_info* record);

/* Receive gain control of NR. */
typedef struct modem_hydra_nr5g_ll1_fw_rx_control_agc {
  uint32_t version;
  int32_t rssi[MODEM_HYDRA_RX_CHAINS];
} modem_hydra_nr5g_ll1_fw_rx_control_agc;

PELMAR_EXPORT uint8_t modem_hydra_nr5g_ll1_fw_rx_control_agc_get(uint32_t sub,
                                                                 modem_hydra_nr5g_ll1_fw_rx_control_agc* record);

/* Frequency tracking of the NR serving cell. */
typedef struct modem_hydra_nr5g_ll1_fw_serving_ftl {
  uint32_t version;
  int32_t snr[MODEM_HYDRA_RX_CHAINS];
} modem_hydra_nr5g_ll1_fw_serving_ftl;

PELMAR_EXPORT uint8_t modem_hydra_nr5g_ll1_fw_serving_ftl_get(uint32_t sub,
                                                              modem_hydra_nr5g_ll1_fw_serving_ftl* record);

/* Antennas of the NR receive chains 0 to 3 and transmit chains 0 and 1, before and after the last switch. */
typedef struct modem_hydra_nr5g_ml1_antenna_switch_diversity {
  uint32_t version;
  uint8_t ant_rx_0_old;
  uint8_t ant_rx_0_new;
  uint8_t ant_rx_1_old;
  uint8_t ant_rx_1_new;
  uint8_t ant_rx_2_old;
  uint8_t ant_rx_2_new;
  uint8_t ant_rx_3_old;
  uint8_t ant_rx_3_new;
  uint8_t ant_tx_0_old;
  uint8_t ant_tx_0_new;
  uint8_t ant_tx_1_old;
  uint8_t ant_tx_1_new;
} modem_hydra_nr5g_ml1_antenna_switch_diversity;

PELMAR_EXPORT uint8_t
modem_hydra_nr5g_ml1_antenna_switch_diversity_get(uint32_t sub, modem_hydra_nr5g_ml1_antenna_switch_diversity* record);

/* Receive gain of WCDMA's cell search, on both chains. */
typedef struct modem_hydra_wcdma_pn_search_edition2 {
  uint8_t version;
  int32_t rx_agc_0;
  int32_t rx_agc_1;
} modem_hydra_wcdma_pn_search_edition2;

PELMAR_EXPORT uint8_t modem_hydra_wcdma_pn_search_edition2_get(uint32_t sub,
                                                               modem_hydra_wcdma_pn_search_edition2* record);

/* Receive levels of GSM: primary and diversity chain. */
typedef struct modem_hydra_gsm_l1_rx_diversity_metrics {
  uint8_t version;
  int32_t rx_prx;
  int32_t rx_drx;
} modem_hydra_gsm_l1_rx_diversity_metrics;

PELMAR_EXPORT uint8_t modem_hydra_gsm_l1_rx_diversity_metrics_get(uint32_t sub,
                                                                  modem_hydra_gsm_l1_rx_diversity_metrics* record);

/* Antenna switching of the transmit resource manager. */
typedef struct modem_hydra_mcs_trm_asdiv {
  uint8_t version;
  uint8_t ant_number;
  uint16_t ant_switch_path;
  uint16_t sig_path;
  uint8_t old_config;
  uint8_t new_config;
} modem_hydra_mcs_trm_asdiv;

PELMAR_EXPORT uint8_t modem_hydra_mcs_trm_asdiv_get(uint32_t sub, modem_hydra_mcs_trm_asdiv* record);

/* Uplink power of LTE's shared channel. */
typedef struct modem_hydra_lte_pusch_power_info {
  uint8_t version;
  int16_t pusch_tx_power;
  uint8_t dl_path_loss;
  uint16_t max_power;
  uint16_t pusch_ex_tx_power;
} modem_hydra_lte_pusch_power_info;

PELMAR_EXPORT uint8_t modem_hydra_lte_pusch_power_info_get(uint32_t sub, modem_hydra_lte_pusch_power_info* record);

/* Uplink power of NR's channels; `mtpl` is the limit of a channel's transmit power. */
typedef struct modem_hydra_nr5g_mac_ul_phy_ch_power_info {
  uint32_t version_hook;
  float tx_power_pusch;
  uint32_t tx_power_pucch;
  uint32_t tx_power_srs;
  uint32_t tx_power_prach;
  uint32_t mtpl_pusch;
  uint32_t mtpl_pucch;
  uint32_t mtpl_srs;
  uint32_t mtpl_prach;
  uint32_t pathloss[4]; /* in the modem's order */
} modem_hydra_nr5g_mac_ul_phy_ch_power_info;

PELMAR_EXPORT uint8_t modem_hydra_nr5g_mac_ul_phy_ch_power_info_get(uint32_t sub,
                                                                    modem_hydra_nr5g_mac_ul_phy_ch_power_info* record);

/* Radio access technology of a subscription's first protocol stack. */
enum { MODEM_SYS_MODE_LTE = 9, MODEM_SYS_MODE_NR = 12 };
#define MODEM_SYS_MODE_UNKNOWN UINT32_C(0xFFFFFFFF)

/* Returns a MODEM_SYS_MODE_* value or another number of the modem's; MODEM_SYS_MODE_UNKNOWN when it cannot be read. */
PELMAR_EXPORT uint32_t modem_sys_mode_get(uint32_t sub);

/* --- transmit power ---
 *
 * In the unit of the modem's uplink power values. Compare with MODEM_TX_POWER_NONE first, then cast to int32_t: the
 * number is signed. MODEM_TX_POWER_NONE: there is none, that is the subscription is on neither LTE nor NR, the value
 * cannot be read, or it is no number that fits. The mode and the power are two readings: the mode may change in
 * between. */

#define MODEM_TX_POWER_NONE UINT32_C(65535)

/* Of a subscription, 0 or 1. */
PELMAR_EXPORT uint32_t modem_tx_power_get_by_sub(uint32_t sub);

/* Of the default data subscription (property "persist.radio.default_data_sub"). */
PELMAR_EXPORT uint32_t modem_tx_power_get_for_dds_sub(void);

/* The higher one of both subscriptions; of one alone when the other has none. */
PELMAR_EXPORT uint32_t modem_tx_power_get_for_max_sub(void);

#ifdef __cplusplus
}

static_assert(sizeof(modem_hydra_lte_srv_meas_info) == 80 && offsetof(modem_hydra_lte_srv_meas_info, pci) == 8 &&
                  offsetof(modem_hydra_lte_srv_meas_info, rx_valid) == 12 &&
                  offsetof(modem_hydra_lte_srv_meas_info, rsrp) == 16,
              "layout of LTE serving cell measurements");
static_assert(sizeof(modem_hydra_nr5g_srv_meas_info) == 24 && offsetof(modem_hydra_nr5g_srv_meas_info, rsrq) == 20,
              "layout of NR serving cell measurements");
static_assert(sizeof(modem_hydra_nr5g_ll1_fw_rx_control_agc) == 20, "layout of NR receive gain");
static_assert(sizeof(modem_hydra_nr5g_ll1_fw_serving_ftl) == 20, "layout of NR frequency tracking");
static_assert(sizeof(modem_hydra_nr5g_ml1_antenna_switch_diversity) == 16 &&
                  offsetof(modem_hydra_nr5g_ml1_antenna_switch_diversity, ant_tx_1_new) == 15,
              "layout of NR antenna switching");
static_assert(sizeof(modem_hydra_wcdma_pn_search_edition2) == 12, "layout of WCDMA receive gain");
static_assert(sizeof(modem_hydra_gsm_l1_rx_diversity_metrics) == 12, "layout of GSM receive levels");
static_assert(sizeof(modem_hydra_mcs_trm_asdiv) == 8 && offsetof(modem_hydra_mcs_trm_asdiv, sig_path) == 4,
              "layout of transmit antenna switching");
static_assert(sizeof(modem_hydra_lte_pusch_power_info) == 10 &&
                  offsetof(modem_hydra_lte_pusch_power_info, max_power) == 6,
              "layout of LTE uplink power");
static_assert(sizeof(modem_hydra_nr5g_mac_ul_phy_ch_power_info) == 52 &&
                  offsetof(modem_hydra_nr5g_mac_ul_phy_ch_power_info, pathloss) == 36,
              "layout of NR uplink power");
#endif

#endif
