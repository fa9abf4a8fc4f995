// tx-power, sys-mode and feature: what the modem's statistics say of a subscription, and whether they are on.
#include <optional>
#include <string>

#include "command_line.h"
#include "commands/commands.h"
#include "failure.h"
#include "json.h"
#include "modem_api_stats.h"
#include "modem_hydra.h"
#include "options.h"
#include "pelmar_property.h"
#include "signal/reading.h"

namespace pelmar::cli {

namespace {

std::string subscription(uint32_t sub) {
  return "subscription " + std::to_string(sub);
}

// --- tx-power ---

struct TxPowerValues {
  std::optional<uint32_t> sub;
  bool max = false;
};

struct TxPower {
  Json document;
  std::string of;
  uint32_t value;
};

TxPower read_tx_power(const TxPowerValues& values) {
  if (values.max) {
    // The higher one hides that the other was refused.
    for (uint32_t sub = 0; sub < kSubscriptions; ++sub) {
      if (modem_tx_power_get_by_sub(sub) != MODEM_TX_POWER_NONE) continue;
      check_response(MODEM_API_SUCCESS, "reading the transmit power of " + subscription(sub));
    }
    return {{{"of", "max"}}, "both subscriptions, the higher one", modem_tx_power_get_for_max_sub()};
  }
  if (values.sub) return {{{"sub", *values.sub}}, subscription(*values.sub), modem_tx_power_get_by_sub(*values.sub)};
  const int32_t sub = pelmar_get_default_data_sub();
  const bool is_set = sub >= 0;
  return {{{"sub", is_set ? Json(sub) : Json()}, {"of", "default_data_sub"}},
          is_set ? subscription(static_cast<uint32_t>(sub)) + ", of the default data"
                 : "the default data (no subscription is set for it)",
          modem_tx_power_get_for_dds_sub()};
}

void show_tx_power(const Context& context, const TxPowerValues& values) {
  context.session.open_hydra();
  TxPower power = read_tx_power(values);
  if (power.value == MODEM_TX_POWER_NONE) {
    const std::string step = "reading the transmit power of " + power.of;
    check_response(MODEM_API_SUCCESS, step);
    throw Failure(step, "there is none",
                  "A subscription has one on LTE and NR; 'modem_api_test sys-mode' shows where it is.");
  }
  const auto dbm = static_cast<int32_t>(power.value);
  power.document["tx_power"] = dbm;
  context.output.print(power.document, "transmit power of " + power.of + ": " + std::to_string(dbm) + " dBm");
}

// --- sys-mode ---

struct SysModeValues {
  std::optional<uint32_t> sub;
};

void show_sys_mode(const Context& context, const SysModeValues& values) {
  context.session.open_hydra();
  constexpr const char* kStep = "reading the system mode";
  bool is_any_known = false;
  std::optional<Failure> refusal;
  for (uint32_t sub = 0; sub < kSubscriptions; ++sub) {
    if (values.sub.value_or(sub) != sub) continue;
    std::optional<uint32_t> mode = modem_sys_mode_get(sub);
    const auto exchange = take_last_exchange();
    if (mode == MODEM_SYS_MODE_UNKNOWN) mode.reset();
    if (!mode && !refusal && exchange && !describe(*exchange).empty()) {
      refusal = Failure::of_exchange(kStep + (" of " + subscription(sub)), *exchange);
    }
    is_any_known |= mode.has_value();
    context.output.print({{"sub", sub}, {"mode", mode ? Json(*mode) : Json()}, {"name", mode_text(mode)}},
                         subscription(sub) + ": " + mode_text(mode) + (mode ? " (" + std::to_string(*mode) + ")" : ""));
  }
  if (refusal) throw *refusal;
  if (is_any_known) return;
  throw Failure(kStep, "the modem gave none", "'modem_api_test stats get system-mode' shows its response.");
}

// --- feature ---

struct FeatureValues {
  std::string state;
  uint32_t number = 2;  // the statistics
};

void use_feature(const Context& context, const FeatureValues& values) {
  const std::string feature = "modem feature " + std::to_string(values.number);
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  if (!values.state.empty()) {
    const uint8_t on = values.state == "on" ? 1 : 0;
    check(modem_api_set_hydra_feature_status(client, values.number, on, on, on),
          "switching " + feature + " " + values.state);
  }
  uint8_t enabled = 0;
  uint8_t effective = 0;
  check(modem_api_get_hydra_feature_status(client, values.number, &enabled, &effective), "reading " + feature);
  context.output.print({{"feature", values.number}, {"enabled", enabled != 0}, {"effective", effective != 0}},
                       feature + ": " + (enabled != 0 ? "on" : "off") +
                           (enabled == effective ? ""
                            : effective != 0     ? ", still effective"
                                                 : ", not effective yet"));
}

}  // namespace

void add_hydra_commands(CommandLine& line) {
  {
    auto [command, values] = line.add("tx-power", "show the transmit power", show_tx_power);
    add_subscription(command, values.sub, "that of the default data");
    command.add_flag("--max", values.max, "the higher one of both subscriptions")->excludes("--sub");
  }
  {
    auto [command, values] = line.add("sys-mode", "show the radio technology of the subscriptions", show_sys_mode);
    add_subscription(command, values.sub);
  }
  {
    auto [command, values] = line.add("feature", "show or switch a feature of the modem", use_feature);
    command.add_option("state", values.state, "on or off")->check(CLI::IsMember({"on", "off"}));
    add_number(command, "--number", values.number, "the feature's number (2: the statistics)");
  }
}

}  // namespace pelmar::cli
