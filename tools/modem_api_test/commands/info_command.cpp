// info: which modem, which of its services are there, and what this build and process are to the library.
#include <algorithm>
#include <iterator>
#include <string>

#include "columns.h"
#include "command_line.h"
#include "commands/commands.h"
#include "failure.h"
#include "json.h"
#include "pelmar_process.h"
#include "pelmar_property.h"
#include "qmi_idl_lib_internal.h"
#include "services.h"

namespace pelmar::cli {

namespace {

// What is printed, for scripts and for people.
struct Report {
  Json document;
  std::string text;

  void heading(const char* title) { text.append(title).append("\n"); }
  void row(const std::string& label, const std::string& value) {
    constexpr size_t kLabelWidth = 20;
    text.append("  ").append(left_aligned(label, kLabelWidth)).append("  ").append(value).append("\n");
  }
};

struct ServiceState {
  bool is_up = false;
  std::string text;  // up, absent, or why it cannot be opened
};

ServiceState probe(const Context& context, const ServiceRow& service) {
  if (!is_present(service)) return {false, "absent"};
  try {
    context.session.open(service.type);
    return {true, "up"};
  } catch (const Failure& failure) {
    return {false, failure.reason()};
  }
}

// --- build and process ---

struct Question {
  const char* name;
  bool (*answer)();
};

constexpr Question kBuildQuestions[] = {
    {"certification", pelmar_is_cert_version}, {"factory", pelmar_is_factory_version_ex},
    {"native", pelmar_is_native_version},      {"stable", pelmar_is_stable_version},
    {"development", pelmar_is_dev_version},    {"pre_release", pelmar_is_pre_version},
    {"test_keys", pelmar_is_test_build},       {"root", pelmar_is_root_version},
    {"user", pelmar_is_user_version},          {"mass_production", pelmar_is_mp_version},
    {"china", pelmar_is_china_version},        {"single_sim", pelmar_get_single_sim_flag},
};

constexpr const char* kBuildTypes[] = {"all",    "pre-release", "factory",    "certification",
                                       "stable", "native",      "development"};

// The library returns "NULL" for a region that is not set.
std::string or_none(const std::string& text) {
  return text.empty() || text == "NULL" ? "none" : text;
}

void put_build(Report& report) {
  Json& build = report.document["build"];
  const int32_t type = pelmar_build_type_get();
  build["type"] = type >= 0 && type < static_cast<int32_t>(std::size(kBuildTypes)) ? kBuildTypes[type] : "unknown";
  build["device"] = or_none(pelmar_device_name_get());
  build["device_type"] = pelmar_get_pelmar_device_type();
  build["manufacturer_id"] = pelmar_get_pelmar_manufacturer_id();
  build["region"] = or_none(pelmar_build_region_get());
  build["configured_region"] = or_none(pelmar_vendor_build_region_get());
  build["default_data_sub"] = pelmar_get_default_data_sub();
  report.heading("build");
  for (const auto& [name, value] : build.items()) {
    report.row(name, value.is_string() ? value.get<std::string>() : value.dump());
  }
  std::string properties;
  for (const Question& question : kBuildQuestions) {
    const bool answer = question.answer();
    build["is"][question.name] = answer;
    if (answer) properties.append(properties.empty() ? "" : ", ").append(question.name);
  }
  report.row("is", properties);
}

void put_process(Report& report) {
  const std::string name = pelmar_utils_get_pid_name();
  const int32_t id = pelmar_utils_get_pid_number();
  report.document["process"] = {{"name", name}, {"id", id}};
  report.heading("process");
  report.row("name", name);
  report.row("id", std::to_string(id));
}

void put_modem(Report& report, const ModemChoice& modem) {
  report.document["modem"] = {{"socket", modem.socket()}, {"own", modem.is_own()}};
  report.heading("modem");
  report.row("socket", modem.socket());
  if (!modem.is_own()) return;
  report.document["modem"]["storage"] = modem.storage();
  report.row("storage", modem.storage() + " (a simulated modem of this program's own)");
}

// Whether any is up.
bool put_services(Report& report, const Context& context) {
  bool is_any_up = false;
  report.heading("services");
  for (const ServiceRow& service : services()) {
    const ServiceState state = probe(context, service);
    is_any_up |= state.is_up;
    const qmi_idl_service_object_type object = service.object();
    const std::string version = std::to_string(object->idl_version) + "." + std::to_string(object->idl_minor_version);
    report.document["services"].push_back({{"service", service.name},
                                           {"id", object->service_id},
                                           {"version", version},
                                           {"up", state.is_up},
                                           {"state", state.text}});
    report.row(std::string(service.name) + " " + version, state.text);
  }
  return is_any_up;
}

void show_info(const Context& context, const NoValues&) {
  Report report;
  const ModemChoice& modem = context.session.modem();
  context.session.wait_for_listener(modem.socket(), "the modem");
  put_modem(report, modem);
  const bool is_any_up = put_services(report, context);
  put_build(report);
  put_process(report);
  context.output.print(report.document, report.text);
  if (is_any_up) return;
  throw Failure("connecting to the modem", "none of its services is up",
                "Check that a modem serves " + modem.socket() + "; --modem SOCKET names another one.");
}

}  // namespace

void add_info_command(CommandLine& line) {
  line.add("info", "show the modem, its services, and this build's identity", show_info);
}

}  // namespace pelmar::cli
