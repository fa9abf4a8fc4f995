// Builds the encoded tables of a QMI service description at compile time.
//
// A service is written as rows: a message with its TLVs, each naming the member of the decoded structure that holds it.
// Kinds, capacities and distances come from the structure itself, the encoded bytes (qmi_idl_lib_internal.h) and the
// largest size on the wire from the rows. No flag byte is written by hand.
//
// The rows also have what the encoded tables lack: names, signs, and which bytes are a statistics value. Tools read
// them (message_fields.h); a program that uses the encoded tables alone does not contain them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "common_v01.h"
#include "qmi_idl_lib_internal.h"

namespace pelmar::qmi_idl {

// One element: where it lives in the structure and how it is described to the codec.
struct Element {
  uint8_t kind = 0;
  uint16_t offset = 0;
  uint16_t capacity = 0;      // of an array or string; 0: a single value
  bool variable = false;      // an array with a count
  uint16_t count_offset = 0;  // of the 32-bit count
  uint16_t item_wire_size = 0;
  uint16_t type_index = 0;  // of an aggregate
  uint8_t type_table = 0;

  const char* name = nullptr;  // the member's; null: it has none
  bool is_signed = false;
  bool is_statistic = false;  // bytes: the value of the statistic whose identifier is the field before it

  constexpr bool is_string() const { return kind == QMI_IDL_KIND_STRING; }
  constexpr bool is_array() const { return capacity != 0; }
  constexpr bool has_16_bit_size() const { return capacity > 0xFF; }
  constexpr bool has_16_bit_offset() const { return offset > 0xFF; }
};

struct Tlv {
  uint8_t type = 0;  // 0: no TLV
  Element element;
  bool optional = false;
  uint16_t valid_offset = 0;
};

inline constexpr size_t kMaxTlvs = 16;
inline constexpr size_t kMaxElements = 12;

struct Message {
  qmi_idl_type_of_message_type direction;
  uint16_t id;
  uint32_t struct_size;
  uint16_t wire_maximum;  // as stated by the service; the rows are asserted to give it
  Tlv tlvs[kMaxTlvs] = {};
};

struct Type {
  uint32_t struct_size;
  Element elements[kMaxElements] = {};  // ended by one without wire size
};

// --- rows from members ---

// The codec's description of a member whose type is a structure. A service overloads this for each of its structures.
constexpr Element aggregate_of(const qmi_response_type_v01*) {
  // Services state their maximum lengths with 8 bytes for the standard response, its decoded size; it has 4 on the
  // wire.
  return {.kind = QMI_IDL_KIND_AGGREGATE, .item_wire_size = 8, .type_index = 0, .type_table = 1};
}

template <typename T>
constexpr Element element_of(size_t offset, const char* name) {
  using Item = std::remove_all_extents_t<T>;
  Element element;
  if constexpr (std::is_same_v<Item, char>) {
    element.kind = QMI_IDL_KIND_STRING;
    element.item_wire_size = 1;
    element.capacity = std::extent_v<T> - 1;
  } else {
    if constexpr (std::is_class_v<Item>) {
      element = aggregate_of(static_cast<const Item*>(nullptr));
    } else {
      element.kind = sizeof(Item) == 1   ? QMI_IDL_KIND_1_BYTE
                     : sizeof(Item) == 2 ? QMI_IDL_KIND_2_BYTES
                     : sizeof(Item) == 4 ? QMI_IDL_KIND_4_BYTES
                                         : QMI_IDL_KIND_8_BYTES;
      element.item_wire_size = sizeof(Item);
      element.is_signed = std::is_signed_v<Item>;
    }
    element.capacity = std::extent_v<T>;
  }
  element.offset = static_cast<uint16_t>(offset);
  element.name = name;
  return element;
}

template <typename T>
constexpr Element counted_element_of(size_t offset, size_t count_offset, const char* name) {
  Element element = element_of<T>(offset, name);
  element.variable = true;
  element.count_offset = static_cast<uint16_t>(count_offset);
  return element;
}

constexpr Tlv mandatory(uint8_t type, Element element) {
  return {.type = type, .element = element};
}

constexpr Tlv optional(uint8_t type, size_t valid_offset, Element element) {
  return {.type = type, .element = element, .optional = true, .valid_offset = static_cast<uint16_t>(valid_offset)};
}

// A member of a structure, and an array member with the member that counts it.
#define QMI_IDL_FIELD(structure, member) \
  ::pelmar::qmi_idl::element_of<decltype(structure::member)>(offsetof(structure, member), #member)
#define QMI_IDL_COUNTED(structure, count, member)                                                 \
  ::pelmar::qmi_idl::counted_element_of<decltype(structure::member)>(offsetof(structure, member), \
                                                                     offsetof(structure, count), #member)

// --- sizes on the wire ---

constexpr size_t wire_maximum(const Element& element) {
  const size_t count_size = element.variable ? (element.has_16_bit_size() ? 2 : 1) : 0;
  return count_size + size_t{element.item_wire_size} * (element.is_array() ? element.capacity : 1u);
}

constexpr size_t wire_maximum(const Message& message) {
  constexpr size_t kTlvHeader = 3;
  size_t total = 0;
  for (const Tlv& tlv : message.tlvs) {
    if (tlv.type != 0) total += kTlvHeader + wire_maximum(tlv.element);
  }
  return total;
}

constexpr size_t wire_maximum(const Type& type) {
  size_t total = 0;
  for (const Element& element : type.elements) total += element.item_wire_size == 0 ? 0 : wire_maximum(element);
  return total;
}

// A member whose type is a row of the service's own types.
constexpr Element aggregate(const Type& type, uint16_t index) {
  return {.kind = QMI_IDL_KIND_AGGREGATE,
          .item_wire_size = static_cast<uint16_t>(wire_maximum(type)),
          .type_index = index,
          .type_table = 0};
}

// --- encoded bytes ---

// Writes bytes; without a buffer it only counts them.
struct Sink {
  uint8_t* out = nullptr;
  size_t size = 0;

  constexpr void byte(size_t value) {
    if (out != nullptr) out[size] = static_cast<uint8_t>(value);
    ++size;
  }
  constexpr void word(size_t value, bool has_16_bits) {
    byte(value & 0xFF);
    if (has_16_bits) byte(value >> 8);
  }
};

constexpr void encode(const Element& element, Sink& sink) {
  const bool has_length = element.variable || element.is_string();
  sink.byte((element.has_16_bit_offset() ? QMI_IDL_OFFSET_16 : 0) | (element.is_array() ? QMI_IDL_ARRAY : 0) |
            (element.has_16_bit_size() ? QMI_IDL_SIZE_16 : 0) | (has_length ? QMI_IDL_VARIABLE_LENGTH : 0) |
            element.kind);
  sink.word(element.offset, element.has_16_bit_offset());
  if (element.is_array()) sink.word(element.capacity, element.has_16_bit_size());
  if (element.variable) sink.byte(element.offset - element.count_offset);
  if (element.kind == QMI_IDL_KIND_AGGREGATE) {
    sink.byte(element.type_index & 0xFF);
    sink.byte(((element.type_index & 0xFF00) >> 4) | element.type_table);
  }
}

constexpr void encode(const Type& type, Sink& sink) {
  for (const Element& element : type.elements) {
    if (element.item_wire_size != 0) encode(element, sink);
  }
  sink.byte(QMI_IDL_TYPE_END);
}

constexpr void encode(const Message& message, Sink& sink) {
  for (size_t i = 0; i < kMaxTlvs && message.tlvs[i].type != 0; ++i) {
    const Tlv& tlv = message.tlvs[i];
    const bool last = i + 1 == kMaxTlvs || message.tlvs[i + 1].type == 0;
    const size_t last_flag = last ? QMI_IDL_TLV_LAST : 0;
    if (tlv.optional) {
      sink.byte(last_flag | QMI_IDL_TLV_OPTIONAL | (tlv.element.offset - tlv.valid_offset));
      sink.byte(tlv.type);
    } else {
      sink.byte(last_flag | tlv.type);
    }
    encode(tlv.element, sink);
  }
}

// Whether the flags have room for the type and the distance of each TLV.
constexpr bool fits(const Message& message) {
  for (const Tlv& tlv : message.tlvs) {
    if (tlv.optional && tlv.element.offset - tlv.valid_offset > QMI_IDL_TLV_LOW_BITS) return false;
    if (!tlv.optional && tlv.type > QMI_IDL_TLV_LOW_BITS) return false;
  }
  return true;
}

// The encoded bytes of all rows in one array, with the place where each row begins.
template <size_t kRows, size_t kBytes>
struct Encoded {
  std::array<size_t, kRows + 1> begin{};
  std::array<uint8_t, kBytes> bytes{};

  constexpr const uint8_t* row(size_t i) const { return begin[i] == begin[i + 1] ? nullptr : bytes.data() + begin[i]; }
};

template <const auto& kRowTable>
constexpr size_t encoded_size() {
  Sink counter;
  for (const auto& row : kRowTable) encode(row, counter);
  return counter.size;
}

template <const auto& kRowTable>
constexpr auto encode_rows() {
  Encoded<std::size(kRowTable), encoded_size<kRowTable>()> encoded;
  Sink sink{encoded.bytes.data()};
  for (size_t i = 0; i < std::size(kRowTable); ++i) {
    encode(kRowTable[i], sink);
    encoded.begin[i + 1] = sink.size;
  }
  return encoded;
}

// --- the framework's tables ---

template <const auto& kMessages, const auto& kEncoded>
constexpr auto message_table() {
  std::array<qmi_idl_message_table_entry, std::size(kMessages)> table{};
  for (size_t i = 0; i < table.size(); ++i) table[i] = {kMessages[i].struct_size, kEncoded.row(i)};
  return table;
}

template <const auto& kTypes, const auto& kEncoded>
constexpr auto type_table() {
  std::array<qmi_idl_type_table_entry, std::size(kTypes)> table{};
  for (size_t i = 0; i < table.size(); ++i) table[i] = {kTypes[i].struct_size, kEncoded.row(i)};
  return table;
}

template <const auto& kMessages>
constexpr size_t count_of(qmi_idl_type_of_message_type direction) {
  size_t count = 0;
  for (const Message& message : kMessages) count += message.direction == direction ? 1 : 0;
  return count;
}

// The messages of one direction, in the order of the rows.
template <const auto& kMessages, qmi_idl_type_of_message_type kDirection>
constexpr auto service_messages() {
  std::array<qmi_idl_service_message_table_entry, count_of<kMessages>(kDirection)> table{};
  size_t next = 0;
  for (size_t i = 0; i < std::size(kMessages); ++i) {
    const Message& message = kMessages[i];
    if (message.direction == kDirection) table[next++] = {message.id, static_cast<uint16_t>(i), message.wire_maximum};
  }
  return table;
}

template <typename Table>
constexpr bool sorted_by_id(const Table& table) {
  for (size_t i = 1; i < table.size(); ++i) {
    if (table[i - 1].qmi_message_id >= table[i].qmi_message_id) return false;
  }
  return true;
}

// Every row gives the size on the wire that the service states for it.
template <typename Messages>
constexpr bool rows_hold(const Messages& messages) {
  for (const Message& message : messages) {
    if (!fits(message) || wire_maximum(message) != message.wire_maximum) return false;
  }
  return true;
}

template <typename Messages>
constexpr size_t largest(const Messages& messages) {
  size_t maximum = 0;
  for (const Message& message : messages) maximum = message.wire_maximum > maximum ? message.wire_maximum : maximum;
  return maximum;
}

// --- a whole service ---

// A row without a stated size on the wire: the size follows from its TLVs.
constexpr Message sized(Message message) {
  message.wire_maximum = static_cast<uint16_t>(wire_maximum(message));
  return message;
}

// The framework's tables of one service: its types in the order of their indices, its messages in the order of their
// numbers within a direction.
template <const auto& kTypes, const auto& kMessages>
struct ServiceTables {
  static constexpr auto kEncodedTypes = encode_rows<kTypes>();
  static constexpr auto kEncodedMessages = encode_rows<kMessages>();
  static constexpr auto kTypeEntries = type_table<kTypes, kEncodedTypes>();
  static constexpr auto kMessageEntries = message_table<kMessages, kEncodedMessages>();
  static constexpr auto kRequests = service_messages<kMessages, QMI_IDL_REQUEST>();
  static constexpr auto kResponses = service_messages<kMessages, QMI_IDL_RESPONSE>();
  static constexpr auto kIndications = service_messages<kMessages, QMI_IDL_INDICATION>();

  static const qmi_idl_type_table_object kTypeTable;
  static constexpr const qmi_idl_type_table_object* kReferencedTables[] = {&kTypeTable,
                                                                           &common_qmi_idl_type_table_object_v01};

  static constexpr qmi_idl_service_object service(uint32_t id, uint32_t major, uint32_t minor, uint32_t library) {
    static_assert(rows_hold(kMessages));
    static_assert(sorted_by_id(kRequests) && sorted_by_id(kResponses) && sorted_by_id(kIndications));
    return {
        .library_version = library,
        .idl_version = major,
        .service_id = id,
        .max_msg_len = largest(kMessages),
        .n_msgs = {kRequests.size(), kResponses.size(), kIndications.size()},
        .msgid_to_msg = {kRequests.data(), kResponses.data(), kIndications.data()},
        .p_type_table = &kTypeTable,
        .idl_minor_version = minor,
        .parent_service_obj = nullptr,
    };
  }
};

template <const auto& kTypes, const auto& kMessages>
constinit const qmi_idl_type_table_object ServiceTables<kTypes, kMessages>::kTypeTable = {
    .n_types = kTypeEntries.size(),
    .n_messages = kMessageEntries.size(),
    .n_referenced_tables = std::size(kReferencedTables) - 1,
    .p_types = kTypeEntries.data(),
    .p_messages = kMessageEntries.data(),
    .p_referenced_tables = kReferencedTables,
    .p_ranges = nullptr,
};

}  // namespace pelmar::qmi_idl
