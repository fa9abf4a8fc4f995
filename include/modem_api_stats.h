/* Statistics commands of the client interface (vendor-specific clients).
 *
 * The modem keeps statistics: values named by an identifier, of one subscription each. A client switches reporting on,
 * is granted a statistics client id, registers the statistics that it wants reported, and reads or clears values.
 * Threads, results and the client check are those of modem_api.h. On any failure the outputs are left as they were.
 *
 * A value is its fields one after the other, little-endian, without gaps; what follows the fields named here is the
 * modem's own. Widths are in bits. The modem defines units and signedness, except for what is marked here;
 * docs/simulator.md has those of the simulated modem. modem_hydra.h decodes each value into a record.
 *
 *     id            value                        fields: width
 *     0x52          LTE primary carrier          version 8, version_ssmr 8, earfcn 32, pci 16, is_srv_cell 8,
 *                                                rx_valid 16, then rsrp_rx0, rsrq_rx0, rssi_rx0, snr_rx0 32 each,
 *                                                the same with rx1, rx2 and rx3
 *     0x67 to 0x6c  LTE secondary carriers 1-6   as 0x52
 *     0x87          NR primary carrier           version 32, rsrp_rx0 to rsrp_rx3 32 each, rsrq 32
 *     0x06, 0x07    NR secondary carriers 1, 2   as 0x87
 *     0x5e          NR receive gain control      version 32, rssi0 to rssi3 32 each
 *     0x70          NR frequency tracking        version 32, snr0 to snr3 32 each
 *     0x71          NR antenna switching         version 32, then 8 each: ant_rx_0_old, ant_rx_0_new to ant_rx_3_new,
 *                                                ant_tx_0_old to ant_tx_1_new
 *     0x6e          WCDMA cell search            version 8, rx_agc_0 32, rx_agc_1 32
 *     0x6f          GSM receive levels           version 8, rx_prx 32, rx_drx 32
 *     0x64          transmit antenna switching   version 8, ant_number 8, ant_switch_path 16, sig_path 16,
 *                                                old_config 8, new_config 8
 *     0x2c          system mode                  stack_max 8, then, unless that is 0, rat 32 (9: LTE, 12: NR) of the
 *                                                first stack
 *     0x62          LTE uplink power             version 8, pusch_tx_power 16 (signed), dl_path_loss 8, max_power 16,
 *                                                pusch_ex_tx_power 16
 *     0x5a          NR uplink power              version_hook 32, tx_power_pusch 32 (a float), then 32 each:
 *                                                tx_power_pucch, tx_power_srs, tx_power_prach, mtpl_pusch,
 *                                                mtpl_pucch, mtpl_srs, mtpl_prach, four times pathloss
 */
#ifndef MODEM_API_STATS_H
#define MODEM_API_STATS_H

#include <stdint.h>

#include "pelmar_export.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
  MODEM_API_STATS_ENTRIES = 10,      /* of one get or clear */
  MODEM_API_STATS_VALUE_BYTES = 700, /* of one value */
  MODEM_API_STATS_REGISTRATIONS = 100,
  MODEM_API_STATS_PARAMETERS = 5
};

/* One statistics value. */
typedef struct stats_para_entry {
  uint32_t sub;       /* low 16 bits: the subscription, high ones: the modem's own. Returned only */
  uint32_t id;        /* statistics identifier */
  uint32_t value_len; /* bytes, at most 700 */
  uint8_t value[MODEM_API_STATS_VALUE_BYTES];
} stats_para_entry;

typedef struct stats_para_data {
  uint32_t para_num; /* entries requested (1 to 10), then entries returned */
  stats_para_entry entries[MODEM_API_STATS_ENTRIES];
} stats_para_data;

/* One statistics registration. What follows the identifier goes to the modem as it is; its meaning is the modem's. */
typedef struct modem_api_stats_registration {
  uint32_t id;
  uint32_t para_num; /* at most 5; more are cut */
  uint32_t parameters[MODEM_API_STATS_PARAMETERS];
  uint8_t flag;
  uint64_t block[2];
  uint8_t trailer;
} modem_api_stats_registration;

/* Reads the status of a modem feature.
 *
 * feature    its number at the modem; 2: the statistics
 * enabled    out: 0 or 1; null returns MODEM_API_ERR_INVALID_PARAM (5)
 * effective  out: 0 or 1; may be null */
PELMAR_EXPORT int32_t modem_api_get_hydra_feature_status(int32_t client_id, uint32_t feature, uint8_t* enabled,
                                                         uint8_t* effective);

/* Sets the status of a modem feature.
 *
 * feature       its number at the modem; 2: the statistics
 * enable        0 or 1
 * option_valid  whether `option` is sent
 * option        0 or 1 */
PELMAR_EXPORT int32_t modem_api_set_hydra_feature_status(int32_t client_id, uint32_t feature, uint8_t enable,
                                                         uint8_t option_valid, uint8_t option);

/* Switches statistics reporting.
 *
 * report           0: off, else on
 * stats_client_id  off: in, the id to give back; on: out, the id that the modem grants. Null returns
 *                  MODEM_API_ERR_NO_MEMORY (3)
 *
 * Returns MODEM_API_ERR_GENERIC (1) when the modem granted no id. */
PELMAR_EXPORT int32_t modem_api_set_modem_stats_report_status(int32_t client_id, uint8_t report,
                                                              uint32_t* stats_client_id);

/* Registers statistics for reporting. The options go out when their valid byte is not 0.
 *
 * stats_client_id  the granted id
 * records          `record_count` of them
 * record_count     1 and more; what is above 100 is cut
 *
 * Returns MODEM_API_ERR_INVALID_PARAM (5) for null records or none. */
PELMAR_EXPORT int32_t modem_api_register_modem_stats_data(int32_t client_id, uint32_t stats_client_id,
                                                          uint8_t option1_valid, uint16_t option1,
                                                          uint8_t option2_valid, uint16_t option2,
                                                          const modem_api_stats_registration* records,
                                                          uint32_t record_count);

/* The reverse, by statistics identifier.
 *
 * ids       `id_count` of them
 * id_count  1 and more; what is above 100 is cut
 *
 * Returns MODEM_API_ERR_INVALID_PARAM (5) for null ids or none. */
PELMAR_EXPORT int32_t modem_api_deregister_modem_stats_data(int32_t client_id, uint32_t stats_client_id,
                                                            uint8_t option1_valid, uint16_t option1,
                                                            uint8_t option2_valid, uint16_t option2,
                                                            const uint32_t* ids, uint32_t id_count);

/* Reads up to ten statistics values.
 *
 * sub   subscription, 0 or 1
 * slot  a number of the caller's choice that goes out with the request
 * data  in: para_num entries with id, value_len and value (the request's parameters); out: the values
 *
 * Returns MODEM_API_ERR_INVALID_PARAM (5) for a null record or a para_num outside 1 to 10, MODEM_API_ERR_GENERIC (1)
 * for a response without values. */
PELMAR_EXPORT int32_t modem_api_get_stats_parameter(int32_t client_id, uint16_t sub, uint16_t slot,
                                                    stats_para_data* data);

/* Clears up to ten statistics values.
 *
 * sub, slot  as in modem_api_get_stats_parameter()
 * id_count   1 to 10
 * ids        `id_count` statistics identifiers
 *
 * Returns MODEM_API_ERR_INVALID_PARAM (5) for another count or null ids. */
PELMAR_EXPORT int32_t modem_api_clear_stats_parameter(int32_t client_id, uint16_t sub, uint16_t slot, int32_t id_count,
                                                      const uint32_t* ids);

#ifdef __cplusplus
}

static_assert(sizeof(stats_para_entry) == 712, "layout of a statistics value");
static_assert(sizeof(stats_para_data) == 7124, "layout of a statistics parameter record");
static_assert(sizeof(modem_api_stats_registration) == 56, "layout of a statistics registration");
#endif

#endif
