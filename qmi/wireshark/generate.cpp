// Writes the Wireshark dissector to standard output: the catalogue as tables in Lua, then the file that its argument
// names, which walks them.
//
//   services[number]  name, messages[id] = name, rows[kind][id][TLV type] = element
//   element           name; field: the key of its field in `fields`; width in bytes, signed; text, type (a structure's
//                     elements); list: the number of its items, count: the bytes of the count before them; statistic
//   fields[key]       the kind of its ProtoField, and the name
#include <cinttypes>
#include <cstdio>
#include <map>
#include <string>

#include "catalogue.h"
#include "error_names.h"
#include "idl_tables.h"
#include "statistic_tables.h"

namespace {

using namespace pelmar;
using qmi_idl::Element;

// The kind of each field by its name; a further kind of the same name is at "name_kind".
std::map<std::string, std::string> fields;

std::string field_of(const std::string& name, const std::string& kind) {
  const auto [first, is_new] = fields.try_emplace(name, kind);
  if (first->second == kind) return name;
  fields.try_emplace(name + "_" + kind, kind);
  return name + "_" + kind;
}

bool is_bytes(const Element& element) {
  return element.is_array() && element.kind == QMI_IDL_KIND_1_BYTE && !element.is_signed;
}

void print_element(const qmi::ServiceRows& service, const Element& element, const std::string& name, int depth) {
  printf("{name=\"%s\"", name.c_str());
  const bool has_count = element.variable || element.is_string();
  if (has_count) printf(",count=%d", element.has_16_bit_size() ? 2 : 1);
  if (element.is_array() && !element.is_string()) printf(",list=%u", element.capacity);
  if (element.is_statistic) printf(",statistic=true");
  if (element.kind == QMI_IDL_KIND_AGGREGATE) {
    printf(",type={");
    for (const Element& member : type_of(service, element).elements) {
      if (member.item_wire_size == 0) break;
      printf("\n%*s", 2 * depth, "");
      print_element(service, member, member.name, depth + 1);
      printf(",");
    }
    printf("}}");
    return;
  }
  const unsigned width = qmi::kWireWidth[element.kind];
  const std::string kind = element.is_string() ? "string"
                           : is_bytes(element) ? "bytes"
                           : element.is_signed ? "int32"
                           : width == 8        ? "uint64"
                                               : "uint32";
  printf(",field=\"%s\",kind=\"%s\",width=%u}", field_of(name, kind).c_str(), kind.c_str(), width);
}

void print_service(const qmi::ServiceRows& service) {
  printf("services[0x%02x] = {name=\"%s\", messages={", service.id, service.name);
  for (const qmi::MessageName& message : service.names) printf("[0x%04x]=\"%s\",", message.id, message.name);
  printf("}, rows={[0]={},[1]={},[2]={}}}\n");
  for (const qmi_idl::Message& message : service.messages) {
    printf("services[0x%02x].rows[%d][0x%04x] = {", service.id, message.direction, message.id);
    for (const qmi_idl::Tlv& tlv : message.tlvs) {
      if (tlv.type == 0) break;
      const char* const name = tlv_name(static_cast<qmi::MessageKind>(message.direction), tlv);
      char number[8];
      snprintf(number, sizeof number, "tlv_%02x", tlv.type);
      printf("\n  [0x%02x]=", tlv.type);
      print_element(service, tlv.element, name != nullptr ? name : number, 2);
      printf(",");
    }
    printf("}\n");
  }
}

void print_statistics() {
  for (const statistics::Value& value : statistics::kValues) {
    printf("statistics[0x%02" PRIx32 "] = {name=\"%s\",length=%zu", value.id, value.name, bytes_of(value.fields));
    for (const statistics::Field& field : value.fields) {
      const bool is_signed = field.type == statistics::kI16 || field.type == statistics::kI32;
      const char* const kind = field.type == statistics::kFloat ? "float" : is_signed ? "int32" : "uint32";
      printf(",\n  {field=\"%s\",width=%zu}", field_of(field.name, kind).c_str(), width_of(field.type));
    }
    printf("}\n");
  }
}

// False where the file cannot be copied.
bool copy(const char* path) {
  FILE* const file = fopen(path, "r");
  if (file == nullptr) return false;
  for (int character; (character = getc(file)) != EOF;) putchar(character);
  return fclose(file) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  printf(
      "-- Made from the tables of the protocol; changes are lost.\n"
      "local services, statistics, errors, fields = {}, {}, {}, {}\n");
  for (const qmi::ServiceRows& service : qmi::catalogue()) print_service(service);
  print_statistics();
  for (const qmi::ErrorName& error : qmi::kErrorNames) printf("errors[%u] = \"%s\"\n", error.number, error.name);
  for (const auto& [name, kind] : fields) printf("fields[\"%s\"] = \"%s\"\n", name.c_str(), kind.c_str());
  return copy(argv[1]) && fflush(stdout) == 0 ? 0 : 1;
}
