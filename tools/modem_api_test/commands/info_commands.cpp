// info: which modem, which of its services are there, and what this build and process are to the library. props: the
// system properties, which all processes of the system share.
#include <iterator>
#include <nlohmann/json.hpp>

#include "command_line.h"
#include "cutils/properties.h"
#include "inspection.h"
#include "pelmar_process.h"
#include "pelmar_property.h"
#include "printable_text.h"
#include "qmi_idl_lib_internal.h"

namespace pelmar::cli {

namespace {

using platform::ModemReport;

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

// "up", "absent", or why it cannot be opened.
std::string probe_service(const Context& context, const ServiceRow& service) {
  if (!is_present(service.type)) return "absent";
  try {
    context.session.open(service.type);
    return "up";
  } catch (const Failure& failure) {
    return failure.reason();
  }
}

// --- services ---

struct ServiceTitle {
  uint32_t number;
  const char* title;
};

constexpr ServiceTitle kServiceTitles[] = {
    {0x00, "control"},
    {0x01, "wireless data"},
    {0x02, "device management"},
    {0x03, "network access"},
    {0x05, "messages"},
    {0x09, "voice"},
    {0x0B, "SIM"},
    {0x10, "location"},
    {0x11, "SAR"},
    {0x1A, "data format"},
    {0xE4, "vendor-specific"},
};

const char* service_title(uint32_t number) {
  for (const ServiceTitle& row : kServiceTitles) {
    if (row.number == number) return row.title;
  }
  return "";
}

// --- build and process ---

struct BuildProperty {
  const char* name;
  bool (*holds)();
};

constexpr BuildProperty kBuildProperties[] = {
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
  for (const BuildProperty& property : kBuildProperties) {
    const bool holds = property.holds();
    build["is"][property.name] = holds;
    if (holds) properties.append(properties.empty() ? "" : ", ").append(property.name);
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

void put_modem(Report& report, const Modem& modem, const ModemReport& found) {
  const bool is_own = !modem.storage.empty();
  report.document["modem"] = {{"address", modem.address}, {"transport", found.transport}, {"own", is_own}};
  report.heading("modem");
  report.row("address", modem.address);
  report.row("transport", found.transport);
  if (!is_own) return;
  report.document["modem"]["storage"] = modem.storage;
  report.row("storage", modem.storage + " (a simulated modem of this program's own)");
}

// What the modem itself lists, whether the library uses it or not.
void put_listed_services(Report& report, const ModemReport& found) {
  report.heading("services of the modem");
  bool has_vs = false;
  for (const auto& service : found.services) {
    has_vs |= service.number == service_of(MODEM_API_CLIENT_VS).object()->service_id;
    char number[8];
    snprintf(number, sizeof number, "0x%02X", static_cast<unsigned>(service.number));
    std::string version = "version " + std::to_string(service.major) + "." + std::to_string(service.minor);
    Json row = {{"id", service.number}, {"major", service.major}, {"minor", service.minor}};
    if (service.node) {
      version = "version " + std::to_string(service.major) + ", instance " + std::to_string(service.instance) +
                ", node " + std::to_string(*service.node);
      row["instance"] = service.instance;
      row["node"] = *service.node;
    }
    report.document["modem"]["services"].push_back(std::move(row));
    report.row(std::string(number) + " " + service_title(service.number), version);
  }
  report.document["modem"]["has_vendor_service"] = has_vs;
  if (has_vs) return;
  report.row("0xE4 is absent", "without it, sar, drx, avoid-trm, cell-info, lock and nr-mode work, and nothing else");
}

// Whether any is up.
bool put_services(Report& report, const Context& context) {
  bool is_any_up = false;
  report.heading("services");
  for (const ServiceRow& service : services()) {
    const std::string state = probe_service(context, service);
    const bool is_up = state == "up";
    is_any_up |= is_up;
    const qmi_idl_service_object_type object = service.object();
    const std::string version = std::to_string(object->idl_version) + "." + std::to_string(object->idl_minor_version);
    report.document["services"].push_back(
        {{"service", service.name}, {"id", object->service_id}, {"version", version}, {"up", is_up}, {"state", state}});
    report.row(std::string(service.name) + " " + version, state);
  }
  return is_any_up;
}

void show_info(const Context& context, const NoValues&) {
  Report report;
  const Modem& modem = context.session.modem();
  const ModemReport found = context.session.inspect();
  put_modem(report, modem, found);
  put_listed_services(report, found);
  const bool is_any_up = put_services(report, context);
  put_build(report);
  put_process(report);
  context.output.print(report.document, report.text);
  if (is_any_up) return;
  throw Failure("connecting to the modem", "none of its services is up",
                "Check the modem at " + modem.address + "; --modem names another one.");
}

// --- props ---

struct Property {
  const char* name;
  const char* fallback;  // what the library goes by where the property is not set
  const char* meaning;
};

// The properties that the library reads.
constexpr Property kProperties[] = {
    {"persist.vendor.radio.adb_log_ka", "65535", "levels that pass to the system log: 1 errors, 4 debug"},
    {"persist.vendor.radio.adb_log_shell", "65535", "levels that pass to standard output"},
    {"persist.vendor.radio.print_prop", "1", "1: properties are logged when they are used"},
    {"persist.hydra.mem_trace", "", "true: live blocks of memory are traced"},
    {"ro.boot.factorybuild", "", "begins with 1: a factory build"},
    {"ro.cust.test", "NULL", "the certification test: ct, cm or cu"},
    {"ro.vendor.radio.build_region", "", "cn: a build for China"},
    {"ro.build.tags", "test-keys", "release-keys: no test build"},
    {"ro.vendor.radio.build_profile", "NULL", "the build profile: factory, native, orbo"},
    {"ro.build.version.incremental", "", "the build's version"},
    {"ro.debuggable", "NULL", "1: a build with root"},
    {"ro.boot.hwlevel", "NULL", "MP: mass production hardware"},
    {"ro.orbo.build.region", "NULL", "the build's region"},
    {"ro.build.type", "user", "the type of the build"},
    {"ro.vendor.radio.manufacturer_id", "0", "the manufacturer's number"},
    {"ro.radio.device_type", "0", "the device type's number"},
    {"ro.product.device", "", "the device's name"},
    {"persist.vendor.radio.build_region", "NULL", "the region that was configured"},
    {"persist.radio.multisim.config", "dsds", "ssss: a phone for one SIM"},
    {"persist.radio.default_data_sub", "0", "the subscription for data"},
    {"persist.radio.active_call_sub", "8", "the subscription of the call; 8: none"},
    {"persist.vendor.ssr.restart_level", "", "ALL_ENABLE: a crashed modem restarts; ALL_DISABLE: it is dumped"},
    {"persist.vendor.ssr.type_bak", "", "the restart level that is restored"},
    {"persist.vendor.ssr.type_bak_flag", "", "yes: a restart level is saved"},
    {"persist.radio.ssr_wait_s", "5", "seconds to wait after a modem's restart"},
};

// Nothing where the property is not set.
std::string read_property(const std::string& name) {
  char value[PROPERTY_VALUE_MAX];
  property_get(name.c_str(), value, "");
  return value;
}

struct PropertyValues {
  std::string name;
  std::string value;
};

void get_property(const Context& context, const PropertyValues& values) {
  const std::string value = read_property(values.name);
  if (value.empty()) {
    throw Failure("reading the property " + values.name, "it is not set",
                  "'modem_api_test props set " + values.name + " VALUE' sets it.");
  }
  context.output.print({{"name", values.name}, {"value", value}}, value);
}

void set_property(const Context& context, const PropertyValues& values) {
  if (property_set(values.name.c_str(), values.value.c_str()) != 0) {
    throw Failure("setting the property " + values.name, "the platform refused it",
                  "A value has at most " + std::to_string(PROPERTY_VALUE_MAX - 1) +
                      " characters; a name has no blanks, and one that begins with ro. is set once. The directory that "
                      "PELMAR_PROPERTY_DIR names, or the user's home, must be writable.");
  }
  context.output.print({{"name", values.name}, {"value", values.value}}, values.name + ": " + values.value);
}

void list_properties(const Context& context, const NoValues&) {
  Json list = Json::array();
  std::string text;
  for (const Property& property : kProperties) {
    const std::string value = read_property(property.name);
    const bool is_set = !value.empty();
    list.push_back({{"name", property.name},
                    {"value", is_set ? Json(value) : Json()},
                    {"default", property.fallback},
                    {"meaning", property.meaning}});
    const std::string fallback = property.fallback[0] == '\0' ? "" : std::string(", default ") + property.fallback;
    text.append(property.name).append(": ").append(is_set ? printable_text(value) : "not set" + fallback);
    text.append("\n    ").append(property.meaning).append("\n");
  }
  context.output.print({{"properties", std::move(list)}}, text);
}

}  // namespace

void add_info_command(CommandLine& line) {
  line.add("info", "show the modem, its services, and this build's identity", show_info)
      .first.add_examples({"", "--modem /dev/cdc-wdm0 --json"});
}

void add_property_commands(CommandLine& line) {
  std::vector<std::string> names;
  for (const Property& property : kProperties) names.emplace_back(property.name);
  line.set_completion("PROPERTY", std::move(names));
  CLI::App& group = line.add_group("props", "read and set system properties");
  {
    auto [command, values] = line.add<PropertyValues>(group, "get", "read a property", get_property);
    command.add_text("name", values.name, "the property's name", {.type = "PROPERTY", .is_required = true});
    command.add_examples({"persist.radio.multisim.config", "ro.build.type --json"});
  }
  {
    auto [command, values] = line.add<PropertyValues>(group, "set", "set a property", set_property);
    command.add_text("name", values.name, "the property's name", {.type = "PROPERTY", .is_required = true});
    command.add_text("value", values.value, "its value, of at most 91 characters",
                     {.type = "VALUE", .is_required = true});
    static_assert(PROPERTY_VALUE_MAX == 92);
    command.add_examples({"persist.radio.multisim.config ssss", "persist.radio.default_data_sub 1"});
  }
  line.add<NoValues>(group, "list", "list the properties that the library reads", list_properties)
      .first.add_examples({"", "--json"});
}

}  // namespace pelmar::cli
