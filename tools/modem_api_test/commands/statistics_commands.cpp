// tx-power and sys-mode: what the modem's statistics show of a subscription. feature: whether they are on. stats: the
// statistics themselves: values, read and cleared, and their reporting.
//
// The modem frees a statistics client id when the program ends. So `register` continues and prints the reports.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "command_line.h"
#include "events.h"
#include "modem_api_stats.h"
#include "modem_hydra.h"
#include "pelmar_property.h"
#include "signal/reading.h"
#include "statistic_tables.h"
#include "statistic_values.h"

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

void show_tx_power(const Context& context, const TxPowerValues& values) {
  context.session.open_hydra();
  Json document;
  std::string of;
  uint32_t value = MODEM_TX_POWER_NONE;
  if (values.max) {
    // The higher one hides that the other was refused.
    for (uint32_t sub = 0; sub < kSubscriptions; ++sub) {
      if (modem_tx_power_get_by_sub(sub) != MODEM_TX_POWER_NONE) continue;
      check_response(MODEM_API_SUCCESS, "reading the transmit power of " + subscription(sub));
    }
    document["of"] = "max";
    of = "both subscriptions, the higher one";
    value = modem_tx_power_get_for_max_sub();
  } else if (values.sub) {
    document["sub"] = *values.sub;
    of = subscription(*values.sub);
    value = modem_tx_power_get_by_sub(*values.sub);
  } else {
    const int32_t sub = pelmar_get_default_data_sub();
    document = {{"sub", sub >= 0 ? Json(sub) : Json()}, {"of", "default_data_sub"}};
    of = sub >= 0 ? subscription(static_cast<uint32_t>(sub)) + ", the default data subscription"
                  : "the default data subscription (none is set)";
    value = modem_tx_power_get_for_dds_sub();
  }
  if (value == MODEM_TX_POWER_NONE) {
    const std::string step = "reading the transmit power of " + of;
    check_response(MODEM_API_SUCCESS, step);
    throw Failure(step, "there is none",
                  "A subscription has one on LTE and NR; 'modem_api_test sys-mode' shows where it is.");
  }
  const auto dbm = static_cast<int32_t>(value);
  document["tx_power_dbm"] = dbm;
  context.output.print(document, "transmit power of " + of + ": " + std::to_string(dbm) + " dBm");
}

// --- sys-mode ---

void show_sys_mode(const Context& context, const std::optional<uint32_t>& wanted) {
  context.session.open_hydra();
  constexpr const char* kStep = "reading the system mode";
  bool is_any_known = false;
  std::optional<Failure> refusal;
  for (uint32_t sub = 0; sub < kSubscriptions; ++sub) {
    if (wanted.value_or(sub) != sub) continue;
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

// --- stats ---

// Statistics by name or number; at most so many.
void add_statistics(const Command& command, std::vector<uint32_t>& ids, int most) {
  const auto take = [&ids](const std::string& word) -> std::string {
    const auto number = parse_number(word, 0, UINT32_MAX);
    const auto* const named = std::find_if(std::begin(statistics::kValues), std::end(statistics::kValues),
                                           [&](const statistics::Value& value) { return word == value.name; });
    if (named != std::end(statistics::kValues)) {
      ids.push_back(named->id);
    } else if (number) {
      ids.push_back(static_cast<uint32_t>(*number));
    } else {
      return "'" + word + "' is no statistic: give a number, or a name that 'stats list' shows";
    }
    return "";
  };
  command.add_parsed("statistics", "numbers, or names as in lte-pcc", take,
                     {.type = "STATISTIC", .is_required = true, .most_words = most});
}

std::string list_text(const std::vector<uint32_t>& ids) {
  std::string text;
  for (const uint32_t id : ids) text += (text.empty() ? "" : ", ") + statistic_text(id);
  return text;
}

// --- stats list ---

void list_statistics(const Context& context, const NoValues&) {
  constexpr const char* kTypeNames[] = {"u8", "u16", "i16", "u32", "i32", "float"};  // by WireType
  Json list = Json::array();
  std::string text;
  for (const statistics::Value& row : statistics::kValues) {
    Json fields = Json::array();
    text += statistic_text(row.id) + ", " + count_of(bytes_of(row.fields), "byte") + "\n ";
    for (const statistics::Field& field : row.fields) {
      const auto has_name = [&field](const auto& each) { return std::string_view(each.name) == field.name; };
      const auto earlier = std::count_if(row.fields.data(), &field, has_name);
      const bool is_alone = std::count_if(row.fields.begin(), row.fields.end(), has_name) == 1;
      const std::string name = field.name + (is_alone ? "" : std::to_string(earlier));
      const std::string unit(unit_of(field));
      const char* const type = kTypeNames[static_cast<size_t>(field.type)];
      text += (fields.empty() ? " " : ", ") + name + " " + type + (unit.empty() ? "" : " " + unit);
      fields.push_back({{"name", name}, {"type", type}, {"bytes", width_of(field.type)}, {"unit", unit}});
    }
    text += "\n";
    list.push_back({{"id", row.id}, {"name", row.name}, {"bytes", bytes_of(row.fields)}, {"fields", fields}});
  }
  context.output.print({{"statistics", std::move(list)}}, text);
}

// --- stats get, clear ---

struct ValueValues {
  std::vector<uint32_t> ids;
  uint32_t sub = 0;
  uint16_t slot = 0;
  std::string parameters;
};

void get_values(const Context& context, const ValueValues& values) {
  const Bytes parameters = parse_hex(values.parameters);
  if (parameters.size() > MODEM_API_STATS_VALUE_BYTES) {
    throw Failure::of_usage("the parameters are longer than " + count_of(MODEM_API_STATS_VALUE_BYTES, "byte"));
  }
  stats_para_data data{};
  data.para_num = static_cast<uint32_t>(values.ids.size());
  for (size_t i = 0; i < values.ids.size(); ++i) {
    data.entries[i].id = values.ids[i];
    data.entries[i].value_len = static_cast<uint32_t>(parameters.size());
    std::copy(parameters.begin(), parameters.end(), data.entries[i].value);
  }
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  check(modem_api_get_stats_parameter(client, static_cast<uint16_t>(values.sub), values.slot, &data),
        "reading statistics " + list_text(values.ids));
  // The modem states the counts: there may be less than they say.
  for (const stats_para_entry& entry : counted(data.entries, data.para_num)) {
    const auto value = counted(entry.value, entry.value_len);
    Json document = {{"sub", entry.sub}, {"id", entry.id}};
    put_bytes(document, value);
    const std::string fields = put_statistic(document, entry.id, value);
    context.output.print(document, subscription(entry.sub) + ", statistic " + statistic_text(entry.id) + ": " +
                                       (value.empty() ? "no value" : count_of(value.size(), "byte")) + "\n" +
                                       (fields.empty() ? "" : "  " + fields + "\n") + hex_dump(value, 2));
  }
}

void clear_values(const Context& context, const ValueValues& values) {
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  const std::string what = "statistics " + list_text(values.ids) + " of " + subscription(values.sub);
  check(modem_api_clear_stats_parameter(client, static_cast<uint16_t>(values.sub), values.slot,
                                        static_cast<int32_t>(values.ids.size()), values.ids.data()),
        "clearing " + what);
  context.output.print({{"sub", values.sub}, {"cleared", values.ids}}, what + ": cleared");
}

// --- stats report, register, deregister ---

struct ReportValues {
  bool is_on = false;
  std::optional<uint32_t> client;
};

constexpr const char* kWhoseId =
    "A statistics client id is granted to one process and is void when that process ends: the id of any other process, "
    "also of an earlier run of this program, is refused. 'stats register' keeps one while it follows the reports.";

constexpr Advice kNoIdLeft = {MODEM_API_ERR_GENERIC, "The modem granted no statistics client id: all may be in use."};
constexpr Advice kNotGranted = {MODEM_API_ERR_GENERIC,
                                "A statistics client id is valid in the program that it was granted to."};

void switch_reporting(const Context& context, const ReportValues& values) {
  if (!values.is_on && !values.client) throw Failure::of_usage("no statistics client id is given", "Add --client ID.");
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  uint32_t id = values.client.value_or(0);
  check(modem_api_set_modem_stats_report_status(client, values.is_on ? 1 : 0, &id),
        values.is_on ? "switching statistics reporting on"
                     : "giving statistics client id " + std::to_string(id) + " back",
        {values.is_on ? kNoIdLeft : kNotGranted});
  context.output.print({{"report", values.is_on}, {"stats_client_id", id}},
                       values.is_on ? "statistics client id " + std::to_string(id) + ", granted until this program ends"
                                    : "statistics client id " + std::to_string(id) + " given back");
}

struct RegisterValues {
  std::vector<uint32_t> ids;
  std::vector<uint32_t> parameters;
  std::optional<uint16_t> option1;
  std::optional<uint16_t> option2;
  FollowLimits limits;
  uint32_t client = 0;
};

// A call of the library with the options, and with the list of what it registers or deregisters.
template <typename Call, typename List>
modem_api_result call_with(const RegisterValues& values, Call call, int32_t client, uint32_t stats_client,
                           const List& list) {
  return call(client, stats_client, values.option1.has_value(), values.option1.value_or(0), values.option2.has_value(),
              values.option2.value_or(0), list.data(), static_cast<uint32_t>(list.size()));
}

void register_ids(int32_t client, uint32_t stats_client, const RegisterValues& values) {
  std::vector<modem_api_stats_registration> records(values.ids.size());
  for (size_t i = 0; i < records.size(); ++i) {
    records[i].id = values.ids[i];
    records[i].para_num = static_cast<uint32_t>(values.parameters.size());
    std::copy(values.parameters.begin(), values.parameters.end(), records[i].parameters);
  }
  check(call_with(values, modem_api_register_modem_stats_data, client, stats_client, records),
        "registering statistics " + list_text(values.ids));
}

// A modem that was away has freed the statistics client id, and may have granted it to another program since. So it is
// given back only at the end.
void register_and_follow(const Context& context, const RegisterValues& values) {
  int32_t client = -1;
  uint32_t id = 0;
  const auto give_back = [&] { modem_api_set_modem_stats_report_status(client, 0, &id); };
  const auto on_open = [&](int32_t opened) {
    client = opened;
    id = 0;
    check(modem_api_set_modem_stats_report_status(client, 1, &id), "switching statistics reporting on", {kNoIdLeft});
    try {
      register_ids(client, id, values);
    } catch (const Failure&) {
      give_back();
      throw;
    }
  };
  const auto on_end = [&] {
    call_with(values, modem_api_deregister_modem_stats_data, client, id, values.ids);
    give_back();
  };
  const auto start = [&] {
    return "statistics client id " + std::to_string(id) + ", registered " + list_text(values.ids) + "; Ctrl-C ends";
  };
  follow_events(context, values.limits, {start, on_open, nullptr, on_end});
}

void deregister(const Context& context, const RegisterValues& values) {
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  check(call_with(values, modem_api_deregister_modem_stats_data, client, values.client, values.ids),
        "deregistering statistics " + list_text(values.ids), {kNotGranted});
  context.output.print({{"stats_client_id", values.client}, {"deregistered", values.ids}},
                       "statistics " + list_text(values.ids) + ": deregistered");
}

void add_options(const Command& command, RegisterValues& values) {
  command.add_number("--option1", values.option1, "the request's first option");
  command.add_number("--option2", values.option2, "the request's second option");
}

}  // namespace

void add_statistics_commands(CommandLine& line) {
  auto [tx_power, power] = line.add("tx-power", "show the transmit power", show_tx_power);
  tx_power.add_subscription(power.sub, "that of the default data");
  tx_power.add_flag("--max", power.max, "the higher one of both subscriptions", {.excludes = {"--sub"}});
  auto [sys_mode, sub] = line.add("sys-mode", "show the radio technology of the subscriptions", show_sys_mode);
  sys_mode.add_subscription(sub);
  auto [feature, used] = line.add("feature", "show or switch a feature of the modem", use_feature);
  feature.add_text("state", used.state, "on or off", {.words = {"on", "off"}});
  feature.add_number("--number", used.number, "the feature's number; 2: the statistics");
  feature.add_examples({"", "on"});

  CLI::App& stats = line.add_group("stats", "the modem's statistics");
  std::vector<std::string> names;
  for (const statistics::Value& row : statistics::kValues) names.emplace_back(row.name);
  line.set_completion("STATISTIC", std::move(names));
  line.add<NoValues>(stats, "list", "list the statistics with their fields", list_statistics)
      .first.add_notes(
          "The units are those of the simulated modem; a modem may count otherwise. Fields that share a name have a "
          "number behind it; 'stats get' shows them as a list.");
  const auto add_value_command = [&](const char* name, const char* summary, auto action) {
    auto added = line.add<ValueValues>(stats, name, summary, action);
    add_statistics(added.first, added.second.ids, MODEM_API_STATS_ENTRIES);
    added.first.add_subscription(added.second.sub);
    added.first.add_number("--slot", added.second.slot, "the request's slot");
    return added;
  };
  auto [get, wanted] = add_value_command("get", "read up to ten values", get_values);
  get.add_text("--parameters", wanted.parameters, "bytes that go with each statistic of the request", {.type = "HEX"});
  get.add_examples({"lte-pcc nr-uplink", "0x52 --sub 1 --json"});
  add_value_command("clear", "clear up to ten values", clear_values)
      .first.add_examples({"antenna-switch", "lte-pcc lte-scc1 --sub 1"});

  auto [reporting, report] =
      line.add<ReportValues>(stats, "report", "request a statistics client id, or give it back", switch_reporting);
  reporting.add_notes(kWhoseId);
  reporting.add_switch("state", report.is_on, "on or off");
  reporting.add_number("--client", report.client, "off: the statistics client id, of this process");
  reporting.add_examples({"on", "off --client 0"});
  auto [registers, registered] = line.add<RegisterValues>(
      stats, "register", "register statistics for reporting, and follow the reports", register_and_follow);
  add_statistics(registers, registered.ids, MODEM_API_STATS_REGISTRATIONS);
  registers.add_text("--parameter", registered.parameters, "a number that goes with each statistic; up to 5",
                     {.type = "N", .most_words = MODEM_API_STATS_PARAMETERS});
  add_options(registers, registered);
  registered.limits.add_to(registers);
  registers.add_examples({"lte-pcc", "nr-pcc nr-uplink --count 10 --json"});
  auto [ends, ended] = line.add<RegisterValues>(stats, "deregister", "end the reporting of statistics", deregister);
  ends.add_notes(kWhoseId);
  add_statistics(ends, ended.ids, MODEM_API_STATS_REGISTRATIONS);
  ends.add_number("--client", ended.client, "the statistics client id, of this process", {.is_required = true});
  add_options(ends, ended);
  ends.add_examples({"lte-pcc --client 0", "0x52 0x87 --client 0 --json"});
}

}  // namespace pelmar::cli
