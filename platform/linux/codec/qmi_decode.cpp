// The decoder: takes the TLVs of a message one by one, looks each up in the message's description and fills the
// structure. This is where bytes from outside the process are first read, so every length is checked before use.
//
// Functions that take wire bytes return where they stopped; a null return stands for an error, which is in
// `input.error` then.
#include <cstring>

#include "idl_tables.h"
#include "qmi_codec.h"

namespace pelmar::platform {
namespace {

constexpr size_t kTlvHeaderLength = 3;
constexpr uint8_t kResultTlv = 0x02;         // of every response
constexpr uint8_t kFirstOptionalTlv = 0x10;  // an unknown TLV below is one that the sender wants understood
constexpr size_t kStandardResultLength = 4;

struct Input {
  const uint8_t* end;
  int32_t error;

  bool has(const uint8_t* at, size_t length) {
    if (static_cast<size_t>(end - at) >= length) [[likely]]
      return true;
    error = QMI_IDL_LIB_LENGTH_INCONSISTENCY;
    return false;
  }

  const uint8_t* fail(int32_t number) {
    error = number;
    return nullptr;
  }
};

uint16_t read_u16(const uint8_t* at) {
  return static_cast<uint16_t>(at[0] | at[1] << 8);
}

const uint8_t* get_string(const Element& element, bool is_whole_tlv, const uint8_t* at, uint8_t* to, Input& input) {
  size_t length = element.maximum;
  if (element.is_variable && is_whole_tlv) {
    length = static_cast<size_t>(input.end - at);
  } else if (element.is_variable) {
    const size_t width = element.has_wide_count ? 2 : 1;
    if (!input.has(at, width)) return nullptr;
    length = element.has_wide_count ? read_u16(at) : *at;
    at += width;
  }
  if (length > element.maximum) return input.fail(QMI_IDL_LIB_ARRAY_TOO_BIG);
  if (!input.has(at, length)) return nullptr;
  std::memcpy(to, at, length);
  if (element.is_variable) to[length] = 0;
  return at + length;
}

const uint8_t* get_enumerations(const Element& element, uint32_t count, const uint8_t* at, uint8_t* to, Input& input) {
  const size_t width = kWireWidth[element.kind];
  if (!input.has(at, count * width)) return nullptr;
  for (uint32_t i = 0; i < count; ++i, at += width, to += sizeof(uint32_t)) {
    const uint32_t value = width == 1 ? *at : read_u16(at);
    std::memcpy(to, &value, sizeof value);
  }
  return at;
}

const uint8_t* get_element(const Element& element, bool is_whole_tlv, const uint8_t* at, uint8_t* structure,
                           Input& input);

const uint8_t* get_aggregates(const Element& element, uint32_t count, const uint8_t* at, uint8_t* to, Input& input) {
  for (uint32_t i = 0; i < count; ++i, to += element.aggregate_stride) {
    for (const uint8_t* description = element.aggregate; *description != QMI_IDL_TYPE_END;) {
      Element member;
      description = read_element(description, *element.aggregate_table, member);
      at = get_element(member, false, at, to, input);
      if (at == nullptr) return nullptr;
    }
  }
  return at;
}

const uint8_t* get_element(const Element& element, bool is_whole_tlv, const uint8_t* at, uint8_t* structure,
                           Input& input) {
  uint8_t* const to = structure + element.offset;
  if (element.kind == QMI_IDL_KIND_STRING) return get_string(element, is_whole_tlv, at, to, input);

  uint32_t count = element.maximum;
  if (element.is_variable) {
    const size_t width = element.has_wide_count ? 2 : 1;
    if (!input.has(at, width)) return nullptr;
    count = element.has_wide_count ? read_u16(at) : *at;
    at += width;
    if (count > element.maximum) return input.fail(QMI_IDL_LIB_ARRAY_TOO_BIG);
    std::memcpy(to - element.count_distance, &count, sizeof count);
  }
  if (element.kind == QMI_IDL_KIND_AGGREGATE) return get_aggregates(element, count, at, to, input);
  if (is_enumeration(element.kind)) return get_enumerations(element, count, at, to, input);

  const size_t length = size_t{count} * kWireWidth[element.kind];
  if (!input.has(at, length)) return nullptr;
  std::memcpy(to, at, length);
  return at + length;
}

// A set of TLV types.
class TypeSet {
 public:
  // False where the type was in the set already.
  bool add(uint8_t type) {
    uint64_t& word = words_[type / 64];
    const uint64_t bit = uint64_t{1} << type % 64;
    if (word & bit) return false;
    word |= bit;
    return true;
  }
  bool has(uint8_t type) const { return words_[type / 64] >> type % 64 & 1; }

 private:
  uint64_t words_[4] = {};
};

// The TLVs that a message describes. Senders keep to the described order as a rule, so a search starts where the one
// before it ended.
class DescribedTlvs {
 public:
  explicit DescribedTlvs(const MessageDescription& message)
      : first_(message.tlvs), next_(message.tlvs), table_(*message.table) {}

  bool find(uint8_t type, TlvHead& head, Element& element) {
    if (first_ == nullptr) return false;
    const uint8_t* const start = next_;
    do {
      next_ = read_element(read_tlv_head(next_, head), table_, element);
      if (head.is_last) next_ = first_;
      if (head.type == type) return true;
    } while (next_ != start);
    return false;
  }

  bool all_mandatory_are_in(const TypeSet& seen) const {
    if (first_ == nullptr) return true;
    TlvHead head;
    const uint8_t* at = first_;
    do {
      Element element;
      at = read_element(read_tlv_head(at, head), table_, element);
      if (!head.is_optional && !seen.has(head.type)) return false;
    } while (!head.is_last);
    return true;
  }

 private:
  const uint8_t* first_;
  const uint8_t* next_;
  const TypeTable& table_;
};

int32_t get_value(const TlvHead& head, const Element& element, const uint8_t* value, size_t length,
                  uint8_t* structure) {
  Input input{value + length, QMI_IDL_LIB_NO_ERR};
  const uint8_t* const stop = get_element(element, true, value, structure, input);
  if (stop == nullptr) return input.error;
  if (stop != input.end) return QMI_IDL_LIB_LENGTH_INCONSISTENCY;
  if (head.is_optional) structure[element.offset - head.flag_distance] = 1;
  return QMI_IDL_LIB_NO_ERR;
}

int32_t get_message(const MessageDescription& message, bool is_response, const uint8_t* at, size_t length,
                    uint8_t* structure) {
  const uint8_t* const end = at + length;
  DescribedTlvs described(message);
  TypeSet seen;
  bool reports_failure = false;
  while (at != end) {
    if (static_cast<size_t>(end - at) < kTlvHeaderLength) return QMI_IDL_LIB_LENGTH_INCONSISTENCY;
    const uint8_t type = at[0];
    const size_t value_length = read_u16(at + 1);
    const uint8_t* const value = at + kTlvHeaderLength;
    if (static_cast<size_t>(end - value) < value_length) return QMI_IDL_LIB_LENGTH_INCONSISTENCY;
    at = value + value_length;
    if (!seen.add(type)) return QMI_IDL_LIB_TLV_DUPLICATED;

    TlvHead head;
    Element element;
    if (!described.find(type, head, element)) {
      if (type < kFirstOptionalTlv) return QMI_IDL_LIB_UNKNOWN_MANDATORY_TLV;
      continue;
    }
    const int32_t error = get_value(head, element, value, value_length, structure);
    if (error != QMI_IDL_LIB_NO_ERR) return error;
    if (is_response && type == kResultTlv && value_length == kStandardResultLength)
      reports_failure = read_u16(value) != 0;
  }
  if (reports_failure || described.all_mandatory_are_in(seen)) return QMI_IDL_LIB_NO_ERR;
  return QMI_IDL_LIB_MISSING_TLV;
}

}  // namespace

int32_t decode(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type, uint16_t msg_id,
               const uint8_t* bytes, size_t length, void* structure, size_t structure_length) {
  MessageDescription message;
  const int32_t error = find_message(service, type, msg_id, message);
  if (error != QMI_IDL_LIB_NO_ERR) return error;
  if (structure == nullptr || (bytes == nullptr && length != 0)) return QMI_IDL_LIB_PARAMETER_ERR;
  if (structure_length < message.structure_length) return QMI_IDL_LIB_BUFFER_TOO_SMALL;
  std::memset(structure, 0, message.structure_length);
  return get_message(message, type == QMI_IDL_RESPONSE, bytes, length, static_cast<uint8_t*>(structure));
}

}  // namespace pelmar::platform
