#include "messages.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "idl_tables.h"
#include "network_access_service_v01.h"
#include "qmi_codec.h"
#include "specific_absorption_rate_v01.h"
#include "vs_tables.h"

namespace pelmar::fuzz {
namespace {

using qmi::Element;

std::vector<Message> make_catalogue() {
  const qmi_idl_service_object_type services[] = {
      &vs::kService,
      sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS),
      nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS),
  };
  std::vector<Message> messages;
  for (const auto service : services) {
    for (const auto type : {QMI_IDL_REQUEST, QMI_IDL_RESPONSE, QMI_IDL_INDICATION}) {
      for (const auto& entry : std::span(service->msgid_to_msg[type], service->n_msgs[type])) {
        qmi::MessageSize size;
        require(qmi::message_size(service, type, entry.qmi_message_id, &size) == QMI_IDL_LIB_NO_ERR);
        messages.push_back({service, type, entry.qmi_message_id, size.structure_length, size.max_wire_length});
      }
    }
  }
  return messages;
}

void fill(const Element& element, uint32_t most, uint8_t* structure) {
  constexpr std::string_view kPath = "../../x/";  // texts are paths, so this one tries to leave
  uint8_t* const at = structure + element.offset;
  const uint32_t count = element.is_variable ? std::min<uint32_t>(most, element.maximum) : element.maximum;
  if (element.kind == QMI_IDL_KIND_STRING) {
    for (uint32_t i = 0; i < count; ++i) at[i] = static_cast<uint8_t>(kPath[i % kPath.size()]);
    at[count] = 0;
    return;
  }
  if (element.is_variable) std::memcpy(at - element.count_distance, &count, sizeof count);
  if (element.kind != QMI_IDL_KIND_AGGREGATE) return;
  for (uint32_t i = 0; i < count; ++i) {
    for (const uint8_t* description = element.aggregate; *description != QMI_IDL_TYPE_END;) {
      Element member;
      description = qmi::read_element(description, *element.aggregate_table, member);
      fill(member, most, at + size_t{i} * element.aggregate_stride);
    }
  }
}

Bytes u16(size_t value) {
  return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
}

Bytes frame(bool to_modem, uint8_t service, uint8_t client, const Bytes& message) {
  const uint8_t flags = to_modem ? 0x00 : 0x80;
  return join({{0x01}, u16(5 + message.size()), {flags, service, client}, message});
}

Bytes control_messages(bool to_modem) {
  constexpr uint8_t kVs = 0xE4, kNas = 0x03;
  if (!to_modem) {
    return join({control_frame(QMI_IDL_RESPONSE, 1, 0xFF00, 0x02, {0, 0, 0, 0}),
                 control_frame(QMI_IDL_INDICATION, 0, 0x0024, 0x01, {kNas, kClient})});
  }
  return join({control_frame(QMI_IDL_REQUEST, 1, 0xFF00, 0x01, {'/', 'd', 'e', 'v'}),
               control_frame(QMI_IDL_REQUEST, 2, 0x0021, 0x01, {}),
               control_frame(QMI_IDL_REQUEST, 3, 0x0022, 0x01, {kVs}),
               control_frame(QMI_IDL_REQUEST, 4, 0x0023, 0x01, {kVs, kClient}),
               control_frame(QMI_IDL_REQUEST, 5, 0x0027, 0x01, {})});
}

}  // namespace

Input::Input(const uint8_t* data, size_t size) {
  if (size < 3) return;
  choice = data[0];
  number = data[1];
  most = data[2] == UINT8_MAX ? UINT32_MAX : data[2];
  rest = {data + 3, size - 3};
}

Bytes Input::change(Bytes made) const {
  if (choice & 0x80 || rest.size() > made.size()) made.resize(rest.size());
  for (size_t i = 0; i < rest.size(); ++i) made[i] ^= rest[i];
  return made;
}

const std::vector<Message>& catalogue() {
  static const std::vector<Message> messages = make_catalogue();
  return messages;
}

int32_t decode(const Message& message, std::span<const uint8_t> wire, Bytes& structure) {
  const Bytes exact(wire.begin(), wire.end());
  structure.assign(message.structure_length, 0xEE);  // what the decoder forgets to write shows
  return qmi::decode(message.service, message.type, message.id, exact.data(), exact.size(), structure.data(),
                     structure.size());
}

int32_t encode(const Message& message, const Bytes& structure, size_t capacity, Bytes& wire) {
  wire.assign(capacity, 0);
  uint8_t nowhere;
  size_t length = 0;
  const int32_t error = qmi::encode(message.service, message.type, message.id, structure.data(), structure.size(),
                                    capacity > 0 ? wire.data() : &nowhere, capacity, &length);
  require(length <= capacity && (error == QMI_IDL_LIB_NO_ERR || length == 0));
  wire.resize(length);
  return error;
}

Bytes make_structure(const Message& message, uint32_t most) {
  Bytes structure(message.structure_length, most > 0 ? 0x11 : 0);
  qmi::MessageDescription description;
  require(qmi::find_message(message.service, message.type, message.id, description) == QMI_IDL_LIB_NO_ERR);
  qmi::TlvHead head = {};
  for (const uint8_t* at = description.tlvs; at != nullptr && !head.is_last;) {
    Element element;
    at = qmi::read_element(qmi::read_tlv_head(at, head), *description.table, element);
    fill(element, most, structure.data());
  }
  return structure;
}

Bytes make_wire(const Message& message, uint32_t most) {
  Bytes wire;
  require(encode(message, make_structure(message, most), message.max_wire_length, wire) == QMI_IDL_LIB_NO_ERR);
  return wire;
}

Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

Bytes control_frame(qmi_idl_type_of_message_type kind, uint8_t transaction, uint16_t id, uint8_t tlv,
                    const Bytes& value) {
  const Bytes tlvs = join({{tlv}, u16(value.size()), value});
  return frame(kind == QMI_IDL_REQUEST, 0, 0,
               join({{static_cast<uint8_t>(kind), transaction}, u16(id), u16(tlvs.size()), tlvs}));
}

Bytes make_stream(const Input& input, bool to_modem) {
  const Message& message = catalogue()[input.number % catalogue().size()];
  if (input.number == 0 || (message.type == QMI_IDL_REQUEST) != to_modem) return control_messages(to_modem);
  constexpr uint8_t kFlags[] = {0, 2, 4};
  const Bytes wire = make_wire(message, input.most), transaction = u16(message.type == QMI_IDL_INDICATION ? 0 : 1);
  return frame(to_modem, static_cast<uint8_t>(message.service->service_id), kClient,
               join({{kFlags[message.type]}, transaction, u16(message.id), u16(wire.size()), wire}));
}

}  // namespace pelmar::fuzz
