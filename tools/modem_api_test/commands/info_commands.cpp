// info: the modem, its services, and the build type and process name as the library sees them. props: the system
// properties, which all processes of the system share.
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>

#include "catalogue.h"
#include "command_line.h"
#include "cutils/properties.h"
#include "environment.h"
#include "failure.h"
#include "inspection.h"
#include "pelmar_process.h"
#include "pelmar_property.h"
#include "printable_text.h"
#include "qmi_client.h"
#include "qmi_idl_lib_internal.h"
#include "unix_socket.h"

namespace pelmar::cli {

namespace {

using platform::ModemReport;

// --- the system properties ---

// The properties that the library reads.
constexpr struct {
  const char* name;
  const char* fallback;  // what the library goes by where the property is not set
  const char* meaning;
} kProperties[] = {
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

Json set_properties() {
  Json values = Json::object();
  for (const auto& property : kProperties) {
    if (const std::string value = read_property(property.name); !value.empty()) values[property.name] = value;
  }
  return values;
}

// --- build and process ---

constexpr struct {
  const char* name;
  bool (*holds)();
} kBuildProperties[] = {
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

Json describe_build() {
  const int32_t type = pelmar_build_type_get();
  Json build;
  build["type"] = type >= 0 && type < static_cast<int32_t>(std::size(kBuildTypes)) ? kBuildTypes[type] : "unknown";
  build["device"] = or_none(pelmar_device_name_get());
  build["device_type"] = pelmar_get_pelmar_device_type();
  build["manufacturer_id"] = pelmar_get_pelmar_manufacturer_id();
  build["region"] = or_none(pelmar_build_region_get());
  build["configured_region"] = or_none(pelmar_vendor_build_region_get());
  build["default_data_sub"] = pelmar_get_default_data_sub();
  for (const auto& property : kBuildProperties) build["is"][property.name] = property.holds();
  return build;
}

// --- the modem ---

Json describe_process(int32_t process) {
  return {{"process", process}, {"name", process_name(process)}};
}

Json describe_modem(const Modem& modem, const ModemReport& found) {
  Json document = {{"address", modem.address}, {"transport", found.transport}, {"own", !modem.storage.empty()}};
  const std::string path = modem.address.substr(modem.address.starts_with("proxy:") ? 6 : 0);
  struct stat file {};
  if (stat(path.c_str(), &file) == 0) {
    const bool may_use = access(path.c_str(), R_OK | W_OK) == 0;
    const passwd* const owner = getpwuid(file.st_uid);
    char mode[8];
    snprintf(mode, sizeof mode, "%04o", file.st_mode & 07777U);
    document["permission"] = {{"may_use", may_use},
                              {"mode", mode},
                              {"owner", owner == nullptr ? std::to_string(file.st_uid) : owner->pw_name}};
  }
  const UnixConnection proxy = connect_unix(kDefaultModem);
  document["qmi_proxy"] = proxy.fd ? describe_process(peer_of(proxy.fd.get()).pid) : Json();
  if (modem.storage.empty()) return document;
  document["storage"] = modem.storage;
  document["log"] = modem.log;
  document["start"] = utc_text(WallClock::from_time_t(file.st_mtim.tv_sec));
  document["stop"] = "modem_api_test modem stop";
  return document;
}

// The services that the modem itself lists, whether the library uses them or not.
Json describe_listed(const ModemReport& found) {
  Json list = Json::array();
  for (const auto& service : found.services) {
    const char* const name =
        service.number <= UINT8_MAX ? qmi::service_name(static_cast<uint8_t>(service.number)) : nullptr;
    list.push_back({{"id", service.number},
                    {"title", name != nullptr ? name : ""},
                    {"major", service.major},
                    {"minor", service.minor}});
    if (service.node) list.back().update({{"instance", service.instance}, {"node", *service.node}});
  }
  return list;
}

// The client ids of this user's programs, before this one opens any.
Json describe_client_ids() {
  std::vector<platform::HeldClientId> ids;
  pelmar_platform_list_client_ids(&ids);
  Json list = Json::array();
  for (const auto& id : ids) {
    list.push_back({{"service", id.service}, {"client", id.client}});
    list.back().update(id.process == 0 ? Json{{"process", nullptr}} : describe_process(id.process));
  }
  return list;
}

// Opens the service. Nothing if it is up.
std::optional<Failure> probe_service(const ServiceRow& service) {
  // One attempt: the library makes ten of them, a second apart.
  constexpr uint32_t kTimeoutMs = 5000;
  qmi_client_type client = nullptr;
  qmi_client_os_params parameters{};
  const int32_t code = qmi_client_init_instance(service.object(), QMI_CLIENT_INSTANCE_ANY, nullptr, nullptr,
                                                &parameters, kTimeoutMs, &client);
  const Exchange end = take_last_exchange().value_or(Exchange{code, 0});
  const std::string step = std::string("connecting to ") + service.title;
  if (code != QMI_NO_ERR) return Failure::of_result(step, MODEM_API_ERR_GENERIC, {kNoIdLeft}, end);
  qmi_client_release(client);
  return std::nullopt;
}

// What does not work without the service, by client type.
constexpr const char* kLacks[] = {"only sar, drx, avoid-trm, cell-info, lock and nr-mode work", "sar does not work",
                                  "drx, and cell-info, avoid-trm, lock and nr-mode of subscription 0, do not work",
                                  "cell-info, avoid-trm, lock and nr-mode of subscription 1 do not work"};
static_assert(std::size(kLacks) == MODEM_API_CLIENT_TYPES);

// Adds the services. A modem need not have every one: a USB modem usually has no vendor-specific one. `lack` gets a
// sentence for each that the modem does not have. Returns why the first of the others cannot be opened, or that there
// is none.
std::optional<Failure> put_services(Json& document, std::string& lack) {
  std::optional<Failure> fault;
  bool is_any_up = false;
  bool are_ids_exhausted = false;
  for (const ServiceRow& service : kServices) {
    std::string state = "absent";
    if (!is_present(service.type)) {
      lack += std::string("Without ") + service.title + ", " + kLacks[service.type] + ". ";
    } else if (const auto failure = probe_service(service)) {
      state = failure->reason();
      are_ids_exhausted |= failure->qmi_error() == QMI_ERR_CLIENT_IDS_EXHAUSTED_V01;
      if (!fault) fault = failure;
    } else {
      state = "up";
      is_any_up = true;
    }
    document["services"].push_back(
        {{"service", service.name}, {"id", service.object()->service_id}, {"up", state == "up"}, {"state", state}});
  }
  if (is_any_up || are_ids_exhausted) document["client_ids_exhausted"] = are_ids_exhausted;
  if (is_any_up || fault) return fault;
  return Failure("connecting to the modem's services", "none of them is up",
                 "Wait for one with --wait, or reset the modem.");
}

// "a 1, b 2" for an object.
std::string inline_text(const Json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (!value.is_object()) return value.is_null() ? "none" : value.dump();
  std::vector<std::string> parts;
  for (const auto& [name, member] : value.items()) parts.push_back(name + " " + inline_text(member));
  return join(parts, ", ");
}

void show_info(const Context& context, const NoValues&) {
  const Modem& modem = context.session.modem();
  ModemReport found;
  std::optional<Failure> fault;
  try {
    context.session.inspect(found);
  } catch (const Failure& failure) {
    fault = failure;
  }
  Json document = {{"modem", describe_modem(modem, found)}, {"listed_services", describe_listed(found)}};
  document["client_ids"] = describe_client_ids();
  std::string lack;
  document["client_ids_exhausted"] = Json();  // not checked
  if (!fault) fault = put_services(document, lack);
  document["properties"] = set_properties();
  document["build"] = describe_build();
  document["process"] = {{"name", pelmar_utils_get_pid_name()}, {"id", pelmar_utils_get_pid_number()}};
  document["fault"] = fault ? Json(fault->headline()) : Json();
  const Json permission = document["modem"].value("permission", Json{{"may_use", true}});
  const bool is_forbidden = fault && !permission["may_use"].get<bool>();
  document["next_step"] = is_forbidden ? "Run as the owner (" + permission["owner"].get<std::string>() +
                                             ") or as root, or name another modem with --modem."
                          : fault        ? fault->advice()
                          : lack.empty() ? "'modem_api_test signal' shows what the radio receives."
                                         : lack + "To wait for a service, add --wait to the command.";
  std::string text;
  for (const auto& [title, part] : document.items()) {
    if (title == "client_ids_exhausted" && part.is_null()) continue;
    text += title + (part.is_structured() ? part.empty() ? ": none" : "" : ": " + inline_text(part)) + "\n";
    if (!part.is_structured()) continue;
    for (const auto& [name, value] : part.items()) {
      text += "  " + (part.is_array() ? "" : left_aligned(name, 20) + "  ") + inline_text(value) + "\n";
    }
  }
  context.output.print(document, text);
  if (!fault) return;
  if (context.output.is_json()) throw *fault;
  throw Failure::of_silence();  // the text has the fault and the next step
}

// --- props ---

void get_property(const Context& context, const std::string& name) {
  const std::string value = read_property(name);
  if (value.empty()) {
    throw Failure("reading the property " + name, "it is not set",
                  "'modem_api_test props set " + name + " VALUE' sets it.");
  }
  context.output.print({{"name", name}, {"value", value}}, value);
}

struct PropertyValues {
  std::string name;
  std::string value;
};

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
  for (const auto& property : kProperties) {
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
  line.add("info", "show the modem, its services and client ids, properties and this build, and find what is wrong",
           show_info);
}

void add_property_commands(CommandLine& line) {
  std::vector<std::string> names;
  for (const auto& property : kProperties) names.emplace_back(property.name);
  line.set_completion("PROPERTY", std::move(names));
  CLI::App& group = line.add_group("props", "read and set system properties");
  const Details name = {.type = "PROPERTY", .is_required = true};
  auto [get, wanted] = line.add<std::string>(group, "get", "read a property", get_property);
  get.add_text("name", wanted, "the property's name", name);
  get.add_examples({"persist.radio.multisim.config", "ro.build.type --json"});
  auto [set, property] = line.add<PropertyValues>(group, "set", "set a property", set_property);
  set.add_text("name", property.name, "the property's name", name);
  set.add_text("value", property.value, "its value, of at most 91 characters", {.type = "VALUE", .is_required = true});
  static_assert(PROPERTY_VALUE_MAX == 92);
  set.add_examples({"persist.radio.multisim.config ssss", "persist.radio.default_data_sub 1"});
  line.add<NoValues>(group, "list", "list the properties that the library reads", list_properties);
}

}  // namespace pelmar::cli
