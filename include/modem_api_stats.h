/* Statistics commands of the client interface (vendor-specific clients).
 *
 * The modem keeps statistics: values named by an identifier, of one subscription each. A client switches reporting on,
 * is granted a statistics client id, registers the statistics that it wants reported, and reads or clears values.
 * Threads, results and the client check are those of modem_api.h. On any failure the outputs are left as they were.
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
  uint32_t para_num; /* entries asked for (1 to 10), then entries returned */
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
 * enabled    out: 0 or 1; null answers MODEM_API_ERR_INVALID_PARAM (5)
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
 * stats_client_id  off: in, the id to give back; on: out, the id that the modem grants. Null answers
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
