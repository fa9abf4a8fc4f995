// The decoder: takes the TLVs of a message one by one, looks each up in the message's description and fills the
// structure. This is where bytes from outside the process are first read, so every length is checked before use.
//
// A structure is filled front to back as a rule, so it is not zeroed as a whole: Output zeroes what the elements leave
// out. An array of aggregates is decoded by a plan of its members, made once for all entries.
//
// Functions that take wire bytes return where they stopped; a null return stands for an error, which is in
// `input.error` then.
#include <bitset>
#include <cstring>

#include "idl_tables.h"
#include "qmi_codec.h"
#include "qmi_tlv.h"

namespace pelmar::qmi {
namespace {

constexpr uint8_t kFirstOptionalTlv = 0x10;  // an unknown TLV of a lower type is mandatory, so the message is refused

// The value of one TLV.
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

// The structure that is being filled: all bytes before `filled_` have been written.
class Output {
 public:
  explicit Output(uint8_t* structure) : filled_(structure) {}

  // Returns `to` for the caller to write `length` bytes there, after zeroing what lies between it and the bytes before.
  uint8_t* claim(uint8_t* to, size_t length) {
    if (to > filled_) std::memset(filled_, 0, static_cast<size_t>(to - filled_));
    if (to + length > filled_) filled_ = to + length;
    return to;
  }

 private:
  uint8_t* filled_;
};

// memcpy for lengths that are mostly a few bytes.
inline void copy(uint8_t* to, const uint8_t* from, size_t length) {
  if (length > 16) {
    std::memcpy(to, from, length);
  } else if (length >= 8) {
    uint64_t first, last;
    std::memcpy(&first, from, 8);
    std::memcpy(&last, from + length - 8, 8);
    std::memcpy(to, &first, 8);
    std::memcpy(to + length - 8, &last, 8);
  } else if (length >= 4) {
    uint32_t first, last;
    std::memcpy(&first, from, 4);
    std::memcpy(&last, from + length - 4, 4);
    std::memcpy(to, &first, 4);
    std::memcpy(to + length - 4, &last, 4);
  } else {
    for (size_t i = 0; i < length; ++i) to[i] = from[i];
  }
}

// Bytes that stand in the structure as they do on the wire.
inline const uint8_t* get_bytes(size_t length, const uint8_t* at, uint8_t* to, Input& input, Output& output) {
  if (!input.has(at, length)) return nullptr;
  copy(output.claim(to, length), at, length);
  return at + length;
}

inline const uint8_t* get_wire_count(const Element& element, const uint8_t* at, uint32_t& count, Input& input) {
  const size_t width = element.has_wide_count ? 2 : 1;
  if (!input.has(at, width)) return nullptr;
  count = element.has_wide_count ? load_u16(at) : *at;
  if (count > element.maximum) return input.fail(QMI_IDL_LIB_ARRAY_TOO_BIG);
  return at + width;
}

// The count of a variable array whose elements begin at `to`.
inline const uint8_t* get_count(const Element& element, const uint8_t* at, uint32_t& count, uint8_t* to, Input& input,
                                Output& output) {
  at = get_wire_count(element, at, count, input);
  if (at != nullptr) std::memcpy(output.claim(to - element.count_distance, sizeof count), &count, sizeof count);
  return at;
}

const uint8_t* get_string(const Element& element, bool is_whole_tlv, const uint8_t* at, uint8_t* to, Input& input,
                          Output& output) {
  if (!element.is_variable) return get_bytes(element.maximum, at, to, input, output);
  auto length = static_cast<uint32_t>(input.end - at);
  if (!is_whole_tlv) at = get_wire_count(element, at, length, input);
  if (at == nullptr) return nullptr;
  if (length > element.maximum) return input.fail(QMI_IDL_LIB_ARRAY_TOO_BIG);
  return get_bytes(length, at, to, input, output);  // Output zeroes the terminator's byte as one that is left out
}

const uint8_t* get_enumerations(const Element& element, uint32_t count, const uint8_t* at, uint8_t* to, Input& input,
                                Output& output) {
  const size_t width = kWireWidth[element.kind];
  if (!input.has(at, count * width)) return nullptr;
  output.claim(to, count * sizeof(uint32_t));
  for (uint32_t i = 0; i < count; ++i, at += width, to += sizeof(uint32_t)) {
    const uint32_t value = width == 1 ? *at : load_u16(at);
    std::memcpy(to, &value, sizeof value);
  }
  return at;
}

const uint8_t* get_aggregates(const Element& element, uint32_t count, const uint8_t* at, uint8_t* to, Input& input,
                              Output& output);

const uint8_t* get_element(const Element& element, bool is_whole_tlv, const uint8_t* at, uint8_t* structure,
                           Input& input, Output& output) {
  uint8_t* const to = structure + element.offset;
  if (element.kind == QMI_IDL_KIND_STRING) return get_string(element, is_whole_tlv, at, to, input, output);

  uint32_t count = element.maximum;
  if (element.is_variable) at = get_count(element, at, count, to, input, output);
  if (at == nullptr) return nullptr;
  if (element.kind == QMI_IDL_KIND_AGGREGATE) return get_aggregates(element, count, at, to, input, output);
  if (is_enumeration(element.kind)) return get_enumerations(element, count, at, to, input, output);
  return get_bytes(size_t{count} * kWireWidth[element.kind], at, to, input, output);
}

// The members of an aggregate, read once for all entries of an array. Neighbours that stand side by side in the
// structure as they do on the wire are one run of bytes.
class Plan {
 public:
  Plan(const uint8_t* aggregate, const TypeTable& table) : rest_(aggregate), table_(table) {
    while (*rest_ != QMI_IDL_TYPE_END && length_ < kCapacity) {
      Step& step = steps_[length_];
      rest_ = read_element(rest_, table, step.member);
      step.form = Form::kOther;
      if (step.member.kind <= QMI_IDL_KIND_8_BYTES) {
        step.width = kWireWidth[step.member.kind];
        step.form = step.member.is_variable ? Form::kCountedBytes : Form::kRun;
        step.run = step.width * step.member.maximum;
      }
      if (length_ > 0 && continues(steps_[length_ - 1], step)) {
        steps_[length_ - 1].run += step.run;
      } else {
        ++length_;
      }
    }
  }

  const uint8_t* run(const uint8_t* at, uint8_t* structure, Input& input, Output& output) const {
    for (const Step *step = steps_, *end = steps_ + length_; step != end; ++step) {
      uint8_t* const to = structure + step->member.offset;
      if (step->form == Form::kRun) {
        at = get_bytes(step->run, at, to, input, output);
      } else if (step->form == Form::kCountedBytes) {
        uint32_t count;
        at = get_count(step->member, at, count, to, input, output);
        if (at == nullptr) return nullptr;
        at = get_bytes(size_t{count} * step->width, at, to, input, output);
      } else {
        at = get_element(step->member, false, at, structure, input, output);
      }
      if (at == nullptr) return nullptr;
    }
    for (const uint8_t* description = rest_; *description != QMI_IDL_TYPE_END && at != nullptr;) {
      Element member;
      description = read_element(description, table_, member);
      at = get_element(member, false, at, structure, input, output);
    }
    return at;
  }

 private:
  static constexpr size_t kCapacity = 12;  // members that do not fit are read anew for each entry

  enum class Form : uint8_t { kRun, kCountedBytes, kOther };

  struct Step {
    Element member;
    Form form;
    uint8_t width;  // of one integer
    uint32_t run;   // bytes of a run
  };

  static bool continues(const Step& before, const Step& step) {
    return before.form == Form::kRun && step.form == Form::kRun &&
           before.member.offset + before.run == step.member.offset;
  }

  Step steps_[kCapacity];
  size_t length_ = 0;
  const uint8_t* rest_;
  const TypeTable& table_;
};

const uint8_t* get_aggregates(const Element& element, uint32_t count, const uint8_t* at, uint8_t* to, Input& input,
                              Output& output) {
  const Plan plan(element.aggregate, *element.aggregate_table);
  for (uint32_t i = 0; i < count && at != nullptr; ++i, to += element.aggregate_stride) {
    at = plan.run(at, to, input, output);
  }
  return at;
}

using TypeSet = std::bitset<256>;  // the TLV types of a message

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
      if (!head.is_optional && !seen[head.type]) return false;
    } while (!head.is_last);
    return true;
  }

 private:
  const uint8_t* first_;
  const uint8_t* next_;
  const TypeTable& table_;
};

int32_t get_value(const TlvHead& head, const Element& element, const uint8_t* value, size_t length, uint8_t* structure,
                  Output& output) {
  Input input{value + length, QMI_IDL_LIB_NO_ERR};
  const uint8_t* const stop = get_element(element, true, value, structure, input, output);
  if (stop == nullptr) return input.error;
  if (stop != input.end) return QMI_IDL_LIB_LENGTH_INCONSISTENCY;
  if (head.is_optional) *output.claim(structure + element.offset - head.flag_distance, 1) = 1;
  return QMI_IDL_LIB_NO_ERR;
}

int32_t get_message(const MessageDescription& message, bool is_response, const uint8_t* at, size_t length,
                    uint8_t* structure, Output& output) {
  const uint8_t* const end = at + length;
  DescribedTlvs described(message);
  TypeSet seen;
  bool reports_failure = false;
  while (at != end) {
    if (static_cast<size_t>(end - at) < kTlvHeaderLength) return QMI_IDL_LIB_LENGTH_INCONSISTENCY;
    const uint8_t type = at[0];
    const size_t value_length = load_u16(at + 1);
    const uint8_t* const value = at + kTlvHeaderLength;
    if (static_cast<size_t>(end - value) < value_length) return QMI_IDL_LIB_LENGTH_INCONSISTENCY;
    at = value + value_length;
    if (seen[type]) return QMI_IDL_LIB_TLV_DUPLICATED;
    seen.set(type);

    TlvHead head;
    Element element;
    if (!described.find(type, head, element)) {
      if (type < kFirstOptionalTlv) return QMI_IDL_LIB_UNKNOWN_MANDATORY_TLV;
      continue;
    }
    const int32_t error = get_value(head, element, value, value_length, structure, output);
    if (error != QMI_IDL_LIB_NO_ERR) return error;
    if (is_response && type == kResultTlv && value_length == kResultLength) reports_failure = load_u16(value) != 0;
  }
  if (reports_failure || described.all_mandatory_are_in(seen)) return QMI_IDL_LIB_NO_ERR;
  return QMI_IDL_LIB_MISSING_TLV;
}

}  // namespace

int32_t decode(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type, uint16_t msg_id,
               const uint8_t* bytes, size_t length, void* structure, size_t structure_length) {
  MessageDescription message;
  int32_t error = find_message(service, type, msg_id, message);
  if (error != QMI_IDL_LIB_NO_ERR) return error;
  if (structure == nullptr || (bytes == nullptr && length != 0)) return QMI_IDL_LIB_PARAMETER_ERR;
  if (structure_length < message.structure_length) return QMI_IDL_LIB_BUFFER_TOO_SMALL;

  auto* const to = static_cast<uint8_t*>(structure);
  Output output(to);
  error = get_message(message, type == QMI_IDL_RESPONSE, bytes, length, to, output);
  if (error == QMI_IDL_LIB_NO_ERR) {
    output.claim(to + message.structure_length, 0);
  } else {
    std::memset(to, 0, message.structure_length);
  }
  return error;
}

}  // namespace pelmar::qmi
