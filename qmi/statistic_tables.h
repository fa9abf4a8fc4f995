// The statistics values of the modem: each identifier with its fields in the order of its value.
//
// A value is its fields one after the other, little-endian and without gaps. A field's name is the one that logs and
// messages have; several fields of a value may share it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace pelmar::statistics {

enum class WireType : uint8_t { kU8, kU16, kI16, kU32, kI32, kFloat };
using enum WireType;

constexpr size_t width_of(WireType type) {
  return type == kU8 ? 1 : type == kU16 || type == kI16 ? 2 : 4;
}

struct Field {
  const char* name;
  WireType type;
};

// A statistics value: its identifier, its name in tools, its fields.
struct Value {
  uint32_t id;
  const char* name;
  std::span<const Field> fields;
};

constexpr size_t bytes_of(std::span<const Field> fields) {
  size_t total = 0;
  for (const Field& field : fields) total += width_of(field.type);
  return total;
}

inline constexpr Field kLteCell[] = {
    {"version", kU8},   {"version_ssmr", kU8}, {"earfcn", kU32},   {"pci", kU16},      {"is_srv_cell", kU8},
    {"rx_valid", kU16}, {"rsrp_rx0", kI32},    {"rsrq_rx0", kI32}, {"rssi_rx0", kI32}, {"snr_rx0", kI32},
    {"rsrp_rx1", kI32}, {"rsrq_rx1", kI32},    {"rssi_rx1", kI32}, {"snr_rx1", kI32},  {"rsrp_rx2", kI32},
    {"rsrq_rx2", kI32}, {"rssi_rx2", kI32},    {"snr_rx2", kI32},  {"rsrp_rx3", kI32}, {"rsrq_rx3", kI32},
    {"rssi_rx3", kI32}, {"snr_rx3", kI32},
};
static_assert(bytes_of(kLteCell) == 75);

inline constexpr Field kLteUplink[] = {
    {"version", kU8}, {"pusch_tx_power", kI16}, {"dl_path_loss", kU8}, {"max_power", kU16}, {"pusch_ex_tx_power", kU16},
};
static_assert(bytes_of(kLteUplink) == 8);

inline constexpr Field kNrCell[] = {
    {"version", kU32}, {"rsrp_rx0", kI32}, {"rsrp_rx1", kI32}, {"rsrp_rx2", kI32}, {"rsrp_rx3", kI32}, {"rsrq", kI32},
};
static_assert(bytes_of(kNrCell) == 24);

inline constexpr Field kNrReceiveGain[] = {
    {"version", kU32}, {"rssi0", kI32}, {"rssi1", kI32}, {"rssi2", kI32}, {"rssi3", kI32},
};
static_assert(bytes_of(kNrReceiveGain) == 20);

inline constexpr Field kNrTracking[] = {
    {"version", kU32}, {"snr0", kI32}, {"snr1", kI32}, {"snr2", kI32}, {"snr3", kI32},
};
static_assert(bytes_of(kNrTracking) == 20);

inline constexpr Field kNrAntennas[] = {
    {"version", kU32},     {"ant_rx_0_old", kU8}, {"ant_rx_0_new", kU8}, {"ant_rx_1_old", kU8}, {"ant_rx_1_new", kU8},
    {"ant_rx_2_old", kU8}, {"ant_rx_2_new", kU8}, {"ant_rx_3_old", kU8}, {"ant_rx_3_new", kU8}, {"ant_tx_0_old", kU8},
    {"ant_tx_0_new", kU8}, {"ant_tx_1_old", kU8}, {"ant_tx_1_new", kU8},
};
static_assert(bytes_of(kNrAntennas) == 16);

inline constexpr Field kNrUplink[] = {
    {"version_hook", kU32},     {"tx_power_pusch", kFloat}, {"tx_power_pucch", kFloat}, {"tx_power_srs", kFloat},
    {"tx_power_prach", kFloat}, {"mtpl_pusch", kFloat},     {"mtpl_pucch", kFloat},     {"mtpl_srs", kFloat},
    {"mtpl_prach", kFloat},     {"pathloss", kFloat},       {"pathloss", kFloat},       {"pathloss", kFloat},
    {"pathloss", kFloat},
};
static_assert(bytes_of(kNrUplink) == 52);

inline constexpr Field kWcdmaSearch[] = {{"version", kU8}, {"rx_agc_0", kI32}, {"rx_agc_1", kI32}};
static_assert(bytes_of(kWcdmaSearch) == 9);

inline constexpr Field kGsmLevels[] = {{"version", kU8}, {"rx_prx", kI32}, {"rx_drx", kI32}};
static_assert(bytes_of(kGsmLevels) == 9);

inline constexpr Field kAntennaSwitch[] = {
    {"version", kU8},   {"ant_number", kU8}, {"ant_switch_path", kU16},
    {"sig_path", kU16}, {"old_config", kU8}, {"new_config", kU8},
};
static_assert(bytes_of(kAntennaSwitch) == 8);

inline constexpr Field kSystemMode[] = {{"stack_max", kU8}, {"rat", kU32}};
static_assert(bytes_of(kSystemMode) == 5);

inline constexpr Value kValues[] = {
    {0x52, "lte-pcc", kLteCell},          {0x67, "lte-scc1", kLteCell},       {0x68, "lte-scc2", kLteCell},
    {0x69, "lte-scc3", kLteCell},         {0x6a, "lte-scc4", kLteCell},       {0x6b, "lte-scc5", kLteCell},
    {0x6c, "lte-scc6", kLteCell},         {0x62, "lte-uplink", kLteUplink},   {0x87, "nr-pcc", kNrCell},
    {0x06, "nr-scc1", kNrCell},           {0x07, "nr-scc2", kNrCell},         {0x5e, "nr-rx-gain", kNrReceiveGain},
    {0x70, "nr-tracking", kNrTracking},   {0x71, "nr-antennas", kNrAntennas}, {0x5a, "nr-uplink", kNrUplink},
    {0x6e, "wcdma-search", kWcdmaSearch}, {0x6f, "gsm-levels", kGsmLevels},   {0x64, "antenna-switch", kAntennaSwitch},
    {0x2c, "system-mode", kSystemMode},
};

struct Unit {
  std::string_view begin;  // of the names of the fields that have the unit
  const char* name;
};

// As the simulated modem counts. A modem may count otherwise.
inline constexpr Unit kUnits[] = {
    {"rsrp", "0.1 dBm"},    {"rssi", "0.1 dBm"},  {"rx_agc", "0.1 dBm"},     {"rx_prx", "0.1 dBm"},
    {"rx_drx", "0.1 dBm"},  {"rsrq", "0.1 dB"},   {"snr", "0.1 dB"},         {"tx_power", "dBm"},
    {"mtpl", "dBm"},        {"max_power", "dBm"}, {"pusch_tx_power", "dBm"}, {"pusch_ex_tx_power", "dBm"},
    {"dl_path_loss", "dB"}, {"pathloss", "dB"},
};

// Empty for a number without a unit.
constexpr std::string_view unit_of(const Field& field) {
  for (const Unit& unit : kUnits) {
    if (std::string_view(field.name).starts_with(unit.begin)) return unit.name;
  }
  return "";
}

// Null for an identifier without a value.
constexpr const Value* find_value(uint32_t id) {
  for (const Value& value : kValues) {
    if (value.id == id) return &value;
  }
  return nullptr;
}

}  // namespace pelmar::statistics
