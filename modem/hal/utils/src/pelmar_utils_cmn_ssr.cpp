// The reaction to a crash of the modem: restart the modem alone, or dump its memory. All state is in properties.
#include <unistd.h>

#include <cstring>

#include "pelmar_log_site.h"
#include "pelmar_property_value.h"
#include "pelmar_ssr.h"
#include "pelmar_string.h"

namespace pelmar {
namespace {

constexpr char kLevel[] = "persist.vendor.ssr.restart_level";
constexpr char kSavedLevel[] = "persist.vendor.ssr.type_bak";
constexpr char kSavedFlag[] = "persist.vendor.ssr.type_bak_flag";
constexpr char kWaitSeconds[] = "persist.radio.ssr_wait_s";
constexpr char kRestart[] = "ALL_ENABLE";
constexpr char kDump[] = "ALL_DISABLE";
constexpr char kNoLevel[] = "CONFIG_EMPTY";
constexpr int32_t kDefaultWaitSeconds = 5;
constexpr int kStartFlag = 0;  // the one start mode: with properties

static_assert(sizeof(kNoLevel) - 1 == PELMAR_SSR_NAME_MIN_BYTES);

struct Property {
  explicit Property(const char* name) { pelmar_get_property_value(name, text, ""); }
  bool empty() const { return text[0] == '\0'; }
  bool equals(const char* other) const { return pelmar_str_cmp(text, other) == PELMAR_STR_SAME; }
  PropertyValue text = {};
};

void save_level(const char* level) {
  pelmar_set_property_value(kSavedLevel, level);
  pelmar_set_property_value(kSavedFlag, "yes");
}

// A level that can be set, and its texts in the log.
struct Target {
  const char* level;
  const char* name;
  const char* in_force_text;
};

}  // namespace
}  // namespace pelmar

using namespace pelmar;

extern "C" {

int32_t pelmar_get_modem_ssr_type(void) {
  Operation operation(PELMAR_HERE);
  const Property flag(kSavedFlag);
  const Property saved(kSavedLevel);
  const Property level(kLevel);
  PELMAR_LOG_DEBUG("g_ssr_start_flag: %d, ssr_type_bak: %s, ssr_type_bak_flag: %s", kStartFlag, saved.text, flag.text);
  if (flag.empty()) {
    save_level(level.text);
    PELMAR_LOG_DEBUG("PROP - MODEM_RESTART_LEVEL_ID_DEF: %s, type: %d, and save", level.text,
                     MODEM_RESTART_LEVEL_ID_DEF);
    return operation.exit(MODEM_RESTART_LEVEL_ID_DEF);
  }
  struct {
    const char* name;
    int32_t type;
  } found = {"INVALID", MODEM_RESTART_LEVEL_ID_INVALID};
  if (level.equals(saved.text)) {
    found = {"DEF", MODEM_RESTART_LEVEL_ID_DEF};
  } else if (level.equals(kRestart)) {
    found = {"SSR", MODEM_RESTART_LEVEL_ID_SSR};
  } else if (level.equals(kDump) || level.empty()) {  // Compatibility: an empty level counts as dump.
    found = {"DUMP", MODEM_RESTART_LEVEL_ID_DUMP};
  }
  PELMAR_LOG_DEBUG("PROP - MODEM_RESTART_LEVEL_ID_%s: %s, type: %d", found.name, level.text, found.type);
  return operation.exit(found.type);
}

int32_t pelmar_set_modem_ssr_type(int32_t type) {
  Operation operation(PELMAR_HERE);
  const Property flag(kSavedFlag);
  const Property level(kLevel);
  PELMAR_LOG_DEBUG("g_ssr_start_flag: %d, type: %d, ssr_type_bak_flag: %s", kStartFlag, type, flag.text);

  PropertyValue saved = {};
  Target target;
  switch (type) {
    case MODEM_RESTART_LEVEL_ID_DEF:
      if (flag.empty()) return operation.finish(0, "PROP - NO ssr type def, do nothing");
      pelmar_get_property_value(kSavedLevel, saved, "");
      target = {saved, "DEF", "PROP - ssr type is def, do nothing"};
      break;
    case MODEM_RESTART_LEVEL_ID_DUMP:
      target = {kDump, "DUMP", "ssr type is disable, do nothing"};
      break;
    case MODEM_RESTART_LEVEL_ID_SSR:
      target = {kRestart, "SSR", "ssr type is enable, do nothing"};
      break;
    default:
      return operation.finish(0, "PELMAR_SSR_START_WITH_PROP, invalid ssr type");
  }
  if (level.equals(target.level)) return operation.finish(0, target.in_force_text);
  PELMAR_LOG_DEBUG("PROP - MODEM_RESTART_LEVEL_ID_%s: %s", target.name, target.level);
  pelmar_set_property_value(kLevel, target.level);

  // Compatibility: the first set saves the level that it has just written, not the old one. Callers get before they
  // set.
  if (flag.empty()) {
    save_level(target.level);
  } else {
    PELMAR_LOG_DEBUG("PELMAR_SSR_START_WITH_PROP, already bak");
  }
  return operation.exit(1);
}

// Compatibility: "CONFIG_EMPTY" is copied whole even to a smaller buffer; callers pass at least 12 bytes.
void pelmar_get_modem_ssr_type_name(char* name, uint32_t* in_out_len) {
  Operation operation(PELMAR_HERE);
  if (name == nullptr) return operation.finish("name is NULL");
  if (in_out_len == nullptr) return operation.finish("in_out_len is NULL");
  const uint32_t room = *in_out_len;
  PELMAR_LOG_DEBUG("g_ssr_start_flag = %d, in_len: %d", kStartFlag, static_cast<int>(room));
  const Property level(kLevel);
  auto length = static_cast<uint32_t>(std::strlen(level.text));
  PELMAR_LOG_DEBUG("out_len: %d, ssr_level: %s", static_cast<int>(length), level.text);
  if (room < length) {
    PELMAR_LOG_DEBUG("out_len is out of range, set it to in_len, out_len: %d", static_cast<int>(length));
    length = room;
  }
  const char* text = level.text;
  if (length < 1) {
    text = kNoLevel;
    length = PELMAR_SSR_NAME_MIN_BYTES;
    PELMAR_LOG_DEBUG("out_len is invalid, set name to invalid, out_len: %d", static_cast<int>(length));
  }
  std::memcpy(name, text, length);
  PELMAR_LOG_DEBUG("out_len: %d, name: %.*s", static_cast<int>(length), static_cast<int>(length), name);
}

int32_t pelmar_modem_ssr_wait_s(int32_t wait_s) {
  Operation operation(PELMAR_HERE);
  const int32_t seconds = wait_s < 0 ? read_int_property(kWaitSeconds, kDefaultWaitSeconds) : wait_s;
  PELMAR_LOG_DEBUG("ssr wait_s = %d", seconds);
  if (seconds < 1) return operation.finish(seconds, "modem ssr will not wait");
  PELMAR_LOG_DEBUG("wait-start(%ds) ...", seconds);
  sleep(static_cast<unsigned>(seconds));
  PELMAR_LOG_DEBUG("wait-end(%ds)", seconds);
  return operation.exit(seconds);
}
}
