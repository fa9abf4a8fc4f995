// props: the system properties, which all processes of the system share.
#include <string>

#include "command_line.h"
#include "commands/commands.h"
#include "cutils/properties.h"
#include "failure.h"
#include "json.h"
#include "printable_text.h"

namespace pelmar::cli {

namespace {

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

struct GetValues {
  std::string name;
};

void get_property(const Context& context, const GetValues& values) {
  const std::string value = read_property(values.name);
  if (value.empty()) {
    throw Failure("reading the property " + values.name, "it is not set",
                  "'modem_api_test props set " + values.name + " VALUE' sets it.");
  }
  context.output.print({{"name", values.name}, {"value", value}}, value);
}

struct SetValues {
  std::string name;
  std::string value;
};

void set_property(const Context& context, const SetValues& values) {
  if (property_set(values.name.c_str(), values.value.c_str()) != 0) {
    throw Failure("setting the property " + values.name, "the platform refused it",
                  "A value has at most " + std::to_string(PROPERTY_VALUE_MAX - 1) +
                      " characters; a name has no blanks, and one that begins with ro. is set once. The directory that "
                      "PELMAR_PROPERTY_DIR names, or the user's home, must be writable.");
  }
  context.output.print({{"name", values.name}, {"value", values.value}}, values.name + ": " + values.value);
}

struct ListValues {};

void list_properties(const Context& context, const ListValues&) {
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

void add_property_commands(CommandLine& line) {
  CLI::App& group = line.add_group("props", "read and set system properties");
  {
    auto [command, values] = line.add<GetValues>(group, "get", "read a property", get_property);
    command.add_option("name", values.name, "the property's name")->required()->type_name("NAME");
  }
  {
    auto [command, values] = line.add<SetValues>(group, "set", "set a property", set_property);
    command.add_option("name", values.name, "the property's name")->required()->type_name("NAME");
    command.add_option("value", values.value, "its value")->required()->type_name("VALUE");
  }
  line.add<ListValues>(group, "list", "list the properties that the library reads", list_properties);
}

}  // namespace pelmar::cli
