// What the fuzz targets share: the messages of all services, and inputs that change them.
//
// A target makes a message or a stream from the first bytes of its input, and the rest of the input changes it. So
// short inputs reach every message, and no corpus is stored. One byte selects the message; any value is valid, so the
// catalogue may grow.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "idl_tables.h"
#include "network_access_service_v01.h"
#include "qmi_codec.h"
#include "qmux.h"
#include "specific_absorption_rate_v01.h"
#include "vs_tables.h"

namespace pelmar::fuzz {

using Bytes =
    std::vector<uint8_t>;  // the heap block has exactly its size, so that a sanitizer reports each access beyond it

inline Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// Ends the process with a finding unless `condition` holds.
inline void require(bool condition) {
  if (!condition) __builtin_trap();
}

// input: u8 choice, u8 number of the message, u8 most, the change
struct Input {
  Input(const uint8_t* data, size_t size) {
    if (size < 3) return;
    choice = data[0];
    number = data[1];
    most = data[2] == UINT8_MAX ? UINT32_MAX : data[2];
    rest = {data + 3, size - 3};
  }

  // Returns the made bytes, each combined by XOR with a byte of the change; further bytes of the change follow. If the
  // choice has its highest bit set, the result has the length of the change.
  Bytes change(Bytes made) const {
    if (choice & 0x80 || rest.size() > made.size()) made.resize(rest.size());
    for (size_t i = 0; i < rest.size(); ++i) made[i] ^= rest[i];
    return Bytes(made.begin(), made.end());
  }

  uint8_t choice = 0;
  uint8_t number = 0;
  uint32_t most = 0;  // elements in each array and characters in each text
  std::span<const uint8_t> rest;
};

struct Message {
  qmi_idl_service_object_type service;
  qmi_idl_type_of_message_type type;
  uint16_t id;
  uint32_t structure_length;
  uint16_t max_wire_length;
};

// Requests to the vendor-specific, SAR and NAS services, or responses and indications of them.
inline std::vector<Message> make_catalogue(bool to_modem) {
  const qmi_idl_service_object_type services[] = {
      &vs::kService,
      sar_get_service_object_internal_v01(SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS),
      nas_get_service_object_internal_v01(NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS),
  };
  std::vector<Message> messages;
  for (const auto service : services) {
    for (const auto type : {QMI_IDL_REQUEST, QMI_IDL_RESPONSE, QMI_IDL_INDICATION}) {
      if ((type == QMI_IDL_REQUEST) != to_modem) continue;
      for (const auto& entry : std::span(service->msgid_to_msg[type], service->n_msgs[type])) {
        qmi::MessageSize size;
        require(qmi::message_size(service, type, entry.qmi_message_id, &size) == QMI_IDL_LIB_NO_ERR);
        messages.push_back({service, type, entry.qmi_message_id, size.structure_length, size.max_wire_length});
      }
    }
  }
  return messages;
}

inline const Message& message_of(const Input& input, bool to_modem) {
  static const std::vector<Message> catalogues[] = {make_catalogue(false), make_catalogue(true)};
  return catalogues[to_modem][input.number % catalogues[to_modem].size()];
}

inline int32_t decode(const Message& message, const Bytes& wire, Bytes& structure) {
  structure.assign(message.structure_length, 0xEE);  // bytes that the decoder does not write keep this value
  return qmi::decode(message.service, message.type, message.id, wire.data(), wire.size(), structure.data(),
                     structure.size());
}

// Encodes into at most `capacity` bytes; `wire` gets the size of the encoded message.
inline int32_t encode(const Message& message, const Bytes& structure, size_t capacity, Bytes& wire) {
  wire.assign(capacity, 0);
  size_t length = 0;
  const int32_t error = qmi::encode(message.service, message.type, message.id, structure.data(), structure.size(),
                                    wire.data(), capacity, &length);
  require(length <= capacity && (error == QMI_IDL_LIB_NO_ERR || length == 0));
  wire.resize(length);
  return error;
}

inline void fill(const qmi::Element& element, uint32_t most, uint8_t* structure) {
  uint8_t* const at = structure + element.offset;
  const uint32_t count = element.is_variable ? std::min<uint32_t>(most, element.maximum) : element.maximum;
  if (element.kind == QMI_IDL_KIND_STRING) {
    std::memset(at, '.', count);  // texts are paths
    at[count] = 0;
    return;
  }
  if (element.is_variable) std::memcpy(at - element.count_distance, &count, sizeof count);
  if (element.kind != QMI_IDL_KIND_AGGREGATE) return;
  for (uint32_t i = 0; i < count; ++i) {
    for (const uint8_t* description = element.aggregate; *description != QMI_IDL_TYPE_END;) {
      qmi::Element member;
      description = qmi::read_element(description, *element.aggregate_table, member);
      fill(member, most, at + size_t{i} * element.aggregate_stride);
    }
  }
}

// A structure with every TLV, at most `most` elements in each array and characters in each text; with 0 an empty one.
inline Bytes make_structure(const Message& message, uint32_t most) {
  Bytes structure(message.structure_length, most > 0 ? 0x11 : 0);
  qmi::MessageDescription description;
  require(qmi::find_message(message.service, message.type, message.id, description) == QMI_IDL_LIB_NO_ERR);
  qmi::TlvHead head = {};
  for (const uint8_t* at = description.tlvs; at != nullptr && !head.is_last;) {
    qmi::Element element;
    at = qmi::read_element(qmi::read_tlv_head(at, head), *description.table, element);
    fill(element, most, structure.data());
  }
  return structure;
}

inline Bytes make_wire(const Message& message, uint32_t most) {
  Bytes wire;
  require(encode(message, make_structure(message, most), message.max_wire_length, wire) == QMI_IDL_LIB_NO_ERR);
  return wire;
}

inline constexpr uint8_t kClient = 1;  // the client id in frames of services

// Requests go to the modem, all others come from it.
inline Bytes make_frame(qmi::MessageKind kind, uint8_t service, uint8_t transaction, uint16_t id, const Bytes& tlvs) {
  Bytes bytes(qmi::kMaxFrameLength);
  using enum qmi::Direction;
  qmi::FrameWriter writer(kind == qmi::MessageKind::kRequest ? kToModem : kFromModem, bytes);
  writer.start(service, service == qmi::kControlService ? qmi::kNoClient : kClient, kind, transaction, id);
  writer.add_tlvs(tlvs);
  bytes.resize(writer.finish().size());
  return bytes;
}

// The stream of the input: one message of a service or, for number 0, the CTL service's own.
inline Bytes make_stream(const Input& input, bool to_modem) {
  using enum qmi::MessageKind;
  constexpr uint8_t kVs = 0xE4, kNas = 0x03;
  if (input.number != 0) {
    const Message& message = message_of(input, to_modem);
    return make_frame(static_cast<qmi::MessageKind>(message.type), static_cast<uint8_t>(message.service->service_id),
                      message.type == QMI_IDL_INDICATION ? 0 : 1, message.id, make_wire(message, input.most));
  }
  if (!to_modem) {
    return join({make_frame(kResponse, 0, 1, 0xFF00, {0x02, 4, 0, 0, 0, 0, 0}),
                 make_frame(kIndication, 0, 0, 0x0024, {0x01, 2, 0, kNas, kClient})});
  }
  return join({make_frame(kRequest, 0, 1, 0xFF00, {0x01, 4, 0, '/', 'd', 'e', 'v'}),
               make_frame(kRequest, 0, 2, 0x0021, {}), make_frame(kRequest, 0, 3, 0x0022, {0x01, 1, 0, kVs}),
               make_frame(kRequest, 0, 4, 0x0023, {0x01, 2, 0, kVs, kClient}), make_frame(kRequest, 0, 5, 0x0027, {})});
}

}  // namespace pelmar::fuzz
