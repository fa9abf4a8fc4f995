// Fetches one statistics value: the request, the checks of the response, and the value's bytes with the cursor.
#include <bit>
#include <cstdio>
#include <cstring>

#include "modem_api_command.h"
#include "modem_hydra.h"
#include "modem_hydra_mgr_metrics.h"
#include "pelmar_log_site.h"
#include "service_client.h"

namespace pelmar {
namespace {

static_assert(std::endian::native == std::endian::little, "fields are copied as they stand in a value");

constexpr int kMaxValueBytes = MODEM_API_STATS_VALUE_BYTES;
constexpr uint32_t kSubscriptions = 2;

// The last fetched value. A fetch that fails sets the bytes to zero and does not change the cursor.
struct FetchedValue {
  uint8_t bytes[kMaxValueBytes];
  int32_t data_left;    // bytes not read yet
  int32_t data_count;   // bytes read: the offset of the next field
  uint32_t id;          // of the last value that was fetched
  uint32_t length;      // as the modem stated it, even if it is invalid
  uint32_t request_no;  // the number of requests so far; its low 16 bits are sent as the slot
};

constinit FetchedValue g_value = {};

bool ensure_open(const log::Place& here) {
  if (modem_hydra_api_is_inited() != 0) return true;
  PELMAR_LOG_ERROR_AT(here, "The hydra is not inited, will init it");
  // We hold the decoder lock; do not wait for callbacks, one of them may need it.
  const InCallback no_wait;
  modem_hydra_api_init_ex(modem_hydra_callback_event_cb, modem_hydra_operational_status_cb);
  if (modem_hydra_api_is_inited() != 0) return true;
  PELMAR_LOG_ERROR_AT(here, "The hydra init failed, will do nothing");
  return false;
}

// Whether the response is the one value that was requested; stores the value's length.
bool is_expected(const log::Place& here, uint32_t sub, uint32_t id, const stats_para_data& response) {
  const stats_para_entry& entry = response.entries[0];
  const auto refuse = [&](const char* problem) {
    PELMAR_LOG_ERROR_AT(here, "Fail to get data, %s, number = %d, sub = %d, ret id_num = %d, id = %d", problem,
                        static_cast<int>(g_value.request_no), static_cast<int>(sub),
                        static_cast<int>(response.para_num), static_cast<int>(id));
    return false;
  };
  if (response.para_num == 0) return refuse("empty");
  if (response.para_num != 1) return refuse("id num error");
  char problem[64];
  if (entry.id != id) {
    std::snprintf(problem, sizeof(problem), "ret_id(%d) is invalid", static_cast<int>(entry.id));
    return refuse(problem);
  }
  if (static_cast<uint16_t>(entry.sub) != static_cast<uint16_t>(sub)) {
    std::snprintf(problem, sizeof(problem), "ret_sub(%d) is invalid", static_cast<uint16_t>(entry.sub));
    return refuse(problem);
  }
  g_value.length = entry.value_len;
  if (g_value.length == 0 || g_value.length > kMaxValueBytes) {
    std::snprintf(problem, sizeof(problem), "data_len(%d) is invalid, should be in (0, %d]",
                  static_cast<int>(g_value.length), kMaxValueBytes);
    return refuse(problem);
  }
  return true;
}

}  // namespace

constinit Lock g_decoder_lock;

bool modem_hydra_data_get(uint32_t sub, uint32_t id) {
  g_value.length = 0;
  std::memset(g_value.bytes, 0, sizeof(g_value.bytes));
  if (!ensure_open(PELMAR_HERE)) return false;
  if (sub >= kSubscriptions) {
    PELMAR_LOG_ERROR("modem_api_get_stats_parameter, sub(%d) is invalid", static_cast<int>(sub));
    return false;
  }
  Zeroed<stats_para_data> data;
  data.para_num = 1;
  data.entries[0].sub = sub;
  data.entries[0].id = id;
  ++g_value.request_no;
  const modem_api_result ret =
      modem_hydra_get_stats_parameter(static_cast<uint16_t>(sub), static_cast<uint16_t>(g_value.request_no), &data);
  if (ret != MODEM_API_SUCCESS) {
    PELMAR_LOG_ERROR("Fail to get data fail, number = %d, ret = %d, sub = %d, id = %d",
                     static_cast<int>(g_value.request_no), ret, static_cast<int>(sub), static_cast<int>(id));
    return false;
  }
  if (!is_expected(PELMAR_HERE, sub, id, data)) return false;
  PELMAR_LOG_DEBUG("Success to get data, number = %d, sub = %d, ret id_num = %d, id = %d, data_len = %d",
                   static_cast<int>(g_value.request_no), static_cast<int>(sub), static_cast<int>(data.para_num),
                   static_cast<int>(id), static_cast<int>(g_value.length));
  std::memcpy(g_value.bytes, data.entries[0].value, g_value.length);
  g_value.data_count = 0;
  g_value.data_left = static_cast<int32_t>(g_value.length);
  g_value.id = id;
  return true;
}

bool take_field(const log::Place& decoder, const MetricField& field, void* record) {
  if (g_value.data_left < field.width) {
    PELMAR_LOG_ERROR_AT(decoder, "g_hydra_data_left(%d) is not enough for %s, id(0x%x)", g_value.data_left, field.name,
                        g_value.id);
    return false;
  }
  // Compatibility: the check and its text stay, although the count only grows.
  if (g_value.data_count < 0) {
    PELMAR_LOG_ERROR_AT(decoder, "g_pK_DATA_CNT(%d) is can not < 0 for %s, id(0x%x)", g_value.data_count, field.name,
                        g_value.id);
    return false;
  }
  std::memcpy(static_cast<uint8_t*>(record) + field.offset, g_value.bytes + g_value.data_count, field.width);
  g_value.data_count += field.width;
  g_value.data_left -= field.width;
  return true;
}

}  // namespace pelmar
