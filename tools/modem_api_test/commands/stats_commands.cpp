// stats: the statistics commands: values, read and cleared, and their reporting.
//
// A statistics client id that the modem grants belongs to the program and ends with it. So `register` goes on: it
// follows what is reported.
#include <cstring>
#include <string>
#include <vector>

#include "bytes.h"
#include "command_line.h"
#include "commands/commands.h"
#include "event_follower.h"
#include "failure.h"
#include "json.h"
#include "modem_api_stats.h"
#include "options.h"
#include "statistic_values.h"

namespace pelmar::cli {

namespace {

// Statistics by name or number; at most so many.
void add_statistics(CLI::App& command, std::vector<uint32_t>& ids, int most) {
  const auto take = [&ids](const std::vector<std::string>& words) {
    for (const std::string& word : words) {
      const auto id = parse_statistic(word);
      if (!id) throw CLI::ValidationError("'" + word + "' is no statistic: give a number, or a name as in lte-pcc");
      ids.push_back(*id);
    }
  };
  command.add_option_function<std::vector<std::string>>("statistics", take, "numbers, or names as in lte-pcc")
      ->required()
      ->expected(1, most)
      ->type_name("STATISTIC");
}

std::string list_text(const std::vector<uint32_t>& ids) {
  std::string text;
  for (const uint32_t id : ids) text += (text.empty() ? "" : ", ") + statistic_text(id);
  return text;
}

// --- get, clear ---

struct ValueValues {
  std::vector<uint32_t> ids;
  uint32_t sub = 0;
  uint16_t slot = 0;
  std::vector<std::string> parameters;
};

void get_values(const Context& context, const ValueValues& values) {
  const Bytes parameters = values.parameters.empty() ? Bytes() : parse_hex(values.parameters.front());
  if (parameters.size() > MODEM_API_STATS_VALUE_BYTES) {
    throw Failure::of_usage("the parameters are longer than " + byte_count(MODEM_API_STATS_VALUE_BYTES));
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
    put_statistic(document, entry.id, value);
    const std::string fields = statistic_fields_text(entry.id, value);
    context.output.print(document, "subscription " + std::to_string(entry.sub) + ", statistic " +
                                       statistic_text(entry.id) + ": " +
                                       (value.empty() ? "no value" : byte_count(value.size())) + "\n" +
                                       (fields.empty() ? "" : "  " + fields + "\n") + hex_dump(value, 2));
  }
}

void clear_values(const Context& context, const ValueValues& values) {
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  const std::string what = "statistics " + list_text(values.ids) + " of subscription " + std::to_string(values.sub);
  check(modem_api_clear_stats_parameter(client, static_cast<uint16_t>(values.sub), values.slot,
                                        static_cast<int32_t>(values.ids.size()), values.ids.data()),
        "clearing " + what);
  context.output.print({{"sub", values.sub}, {"cleared", values.ids}}, what + ": cleared");
}

// --- report, register, deregister ---

struct ReportValues {
  bool is_on = false;
  std::optional<uint32_t> client;
};

constexpr const char* kWhoseId =
    "A statistics client id belongs to the program that asked for it, and ends with it: the id of any other process,\n"
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

struct Option {
  bool is_given = false;
  uint16_t value = 0;

  void add_to(CLI::App& command, const char* name, const char* help) {
    add_number(command, name, help, 0, UINT16_MAX, [this](int64_t number) {
      is_given = true;
      value = static_cast<uint16_t>(number);
    });
  }
  uint8_t valid() const { return is_given ? 1 : 0; }
};

struct RegisterValues {
  std::vector<uint32_t> ids;
  std::vector<uint32_t> parameters;
  Option option1;
  Option option2;
  FollowLimits limits;
  uint32_t client = 0;
};

// Statistics client id and registrations of this program. A modem that was away has forgotten them, and may have
// granted the id to another program since: so they are given back on request alone.
class Registration {
 public:
  Registration(int32_t client, const RegisterValues& values) : client_(client), values_(values) {
    check(modem_api_set_modem_stats_report_status(client_, 1, &id_), "switching statistics reporting on", {kNoIdLeft});
    try {
      enter();
    } catch (const Failure&) {
      give_back();
      throw;
    }
  }

  void end() {
    const auto count = static_cast<uint32_t>(values_.ids.size());
    modem_api_deregister_modem_stats_data(client_, id_, values_.option1.valid(), values_.option1.value,
                                          values_.option2.valid(), values_.option2.value, values_.ids.data(), count);
    give_back();
  }

  Registration(const Registration&) = delete;
  Registration& operator=(const Registration&) = delete;

  uint32_t id() const { return id_; }

 private:
  void enter() const {
    std::vector<modem_api_stats_registration> records(values_.ids.size());
    for (size_t i = 0; i < records.size(); ++i) {
      records[i].id = values_.ids[i];
      records[i].para_num = static_cast<uint32_t>(values_.parameters.size());
      std::copy(values_.parameters.begin(), values_.parameters.end(), records[i].parameters);
    }
    check(modem_api_register_modem_stats_data(client_, id_, values_.option1.valid(), values_.option1.value,
                                              values_.option2.valid(), values_.option2.value, records.data(),
                                              static_cast<uint32_t>(records.size())),
          "registering statistics " + list_text(values_.ids));
  }

  void give_back() { modem_api_set_modem_stats_report_status(client_, 0, &id_); }

  const int32_t client_;
  const RegisterValues& values_;
  uint32_t id_ = 0;
};

void register_and_follow(const Context& context, const RegisterValues& values) {
  std::optional<Registration> registration;
  const auto enter = [&](int32_t client) { registration.emplace(client, values); };
  const auto leave = [&] { registration->end(); };
  EventFollower(context, values.limits, {enter, {}, leave}).follow([&] {
    return "statistics client id " + std::to_string(registration->id()) + ", registered " + list_text(values.ids) +
           "; Ctrl-C ends";
  });
}

void deregister(const Context& context, const RegisterValues& values) {
  const int32_t client = context.session.open(MODEM_API_CLIENT_VS);
  check(modem_api_deregister_modem_stats_data(client, values.client, values.option1.valid(), values.option1.value,
                                              values.option2.valid(), values.option2.value, values.ids.data(),
                                              static_cast<uint32_t>(values.ids.size())),
        "deregistering statistics " + list_text(values.ids), {kNotGranted});
  context.output.print({{"stats_client_id", values.client}, {"deregistered", values.ids}},
                       "statistics " + list_text(values.ids) + ": deregistered");
}

void add_options(CLI::App& command, RegisterValues& values) {
  values.option1.add_to(command, "--option1", "the request's first option");
  values.option2.add_to(command, "--option2", "the request's second option");
}

void add_value_commands(CommandLine& line, CLI::App& group) {
  {
    auto [command, values] = line.add<ValueValues>(group, "get", "read up to ten values", get_values);
    add_statistics(command, values.ids, MODEM_API_STATS_ENTRIES);
    add_subscription(command, values.sub);
    add_number(command, "--slot", values.slot, "the request's slot");
    command.add_option("--parameters", values.parameters, "bytes that go with each statistic of the request")
        ->expected(1)
        ->type_name("HEX");
  }
  auto [command, values] =
      line.add<ValueValues>(group, "clear", "have up to ten values count from now on", clear_values);
  add_statistics(command, values.ids, MODEM_API_STATS_ENTRIES);
  add_subscription(command, values.sub);
  add_number(command, "--slot", values.slot, "the request's slot");
}

void add_reporting_commands(CommandLine& line, CLI::App& group) {
  {
    auto [command, values] =
        line.add<ReportValues>(group, "report", "ask for a statistics client id, or give it back", switch_reporting);
    command.footer(kWhoseId);
    command.add_option("state", values.is_on, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    add_number(command, "--client", "off: the statistics client id, of this process", 0, UINT32_MAX,
               [&client = values.client](int64_t value) { client = static_cast<uint32_t>(value); });
  }
  {
    auto [command, values] = line.add<RegisterValues>(
        group, "register", "register statistics for reporting, and follow the reports", register_and_follow);
    add_statistics(command, values.ids, MODEM_API_STATS_REGISTRATIONS);
    command.add_option("--parameter", values.parameters, "a number that goes with each statistic; up to 5")
        ->expected(1, MODEM_API_STATS_PARAMETERS)
        ->type_name("N");
    add_options(command, values);
    values.limits.add_to(command);
  }
  auto [command, values] = line.add<RegisterValues>(group, "deregister", "end the reporting of statistics", deregister);
  command.footer(kWhoseId);
  add_statistics(command, values.ids, MODEM_API_STATS_REGISTRATIONS);
  add_number(command, "--client", values.client, "the statistics client id, of this process")->required();
  add_options(command, values);
}

}  // namespace

void add_stats_commands(CommandLine& line) {
  CLI::App& group = line.add_group("stats", "the modem's statistics");
  add_value_commands(line, group);
  add_reporting_commands(line, group);
}

}  // namespace pelmar::cli
