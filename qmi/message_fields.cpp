#include "message_fields.h"

#include <algorithm>
#include <cstring>

#include "catalogue.h"
#include "idl_tables.h"
#include "statistic_tables.h"

namespace pelmar::qmi {

namespace {

using Form = Field::Form;
using Visit = std::function<void(const Field&)>;

uint64_t load(std::span<const uint8_t> bytes, bool is_signed) {
  uint64_t number = is_signed && (bytes.back() & 0x80) != 0 ? ~uint64_t{0} : 0;
  for (size_t i = bytes.size(); i-- > 0;) number = number << 8 | bytes[i];
  return number;
}

// The value of one TLV. What cannot be read ends the walk of it; the bytes that are left stay in rest().
class ValueWalk {
 public:
  ValueWalk(const ServiceRows& service, MessageKind kind, std::span<const uint8_t> value, const Visit& visit)
      : service_(service), kind_(kind), rest_(value), visit_(visit) {}

  // False where the bytes end too early.
  bool walk(const qmi_idl::Element& element, const char* name, bool is_whole_tlv) {
    size_t count = element.capacity;  // of an array
    if (element.is_string() && is_whole_tlv)
      count = rest_.size();
    else if (element.variable || element.is_string()) {
      std::span<const uint8_t> bytes;
      if (!take(element.has_16_bit_size() ? 2 : 1, bytes)) return false;
      count = static_cast<size_t>(load(bytes, false));
    }
    if (element.is_string()) return walk_bytes(Form::kText, name, count);
    if (!element.is_array()) return walk_item(element, name);
    if (element.kind == QMI_IDL_KIND_1_BYTE && !element.is_signed) {
      if (element.is_statistic && walk_statistic(name, count)) return true;
      return walk_bytes(Form::kBytes, name, count);
    }
    visit_({.form = Form::kList, .name = name});
    bool is_whole = true;
    for (size_t i = 0; i < count && is_whole; ++i) is_whole = walk_item(element, nullptr);
    visit_({.form = Form::kListEnd});
    return is_whole;
  }

  std::span<const uint8_t> rest() const { return rest_; }

 private:
  bool take(size_t length, std::span<const uint8_t>& bytes) {
    if (rest_.size() < length) return false;
    bytes = rest_.first(length);
    rest_ = rest_.subspan(length);
    return true;
  }

  bool walk_bytes(Form form, const char* name, size_t length) {
    std::span<const uint8_t> bytes;
    if (!take(length, bytes)) return false;
    visit_({.form = form, .name = name, .bytes = bytes});
    return true;
  }

  bool walk_number(const char* name, size_t width, bool is_signed) {
    std::span<const uint8_t> bytes;
    if (!take(width, bytes)) return false;
    last_ = load(bytes, is_signed);
    visit_({.form = is_signed ? Form::kSigned : Form::kUnsigned, .name = name, .number = last_});
    return true;
  }

  bool walk_item(const qmi_idl::Element& element, const char* name) {
    if (element.kind != QMI_IDL_KIND_AGGREGATE) return walk_number(name, kWireWidth[element.kind], element.is_signed);
    if (rest_.empty()) return false;
    visit_({.form = Form::kStructure, .name = name});
    bool is_whole = true;
    for (const qmi_idl::Element& member : type_of(service_, element).elements) {
      if (member.item_wire_size == 0 || !is_whole) break;
      is_whole = walk(member, member.name, false);
    }
    visit_({.form = Form::kStructureEnd});
    return is_whole;
  }

  // False, with nothing taken, where the bytes are no value of the statistic: a request has parameters there.
  bool walk_statistic(const char* name, size_t length) {
    const auto* const row = statistics::find_value(static_cast<uint32_t>(last_));
    if (kind_ == MessageKind::kRequest || row == nullptr) return false;
    if (length > rest_.size() || length != bytes_of(row->fields)) return false;
    const std::string_view statistic = row->name;
    visit_({.form = Form::kText,
            .name = "statistic",
            .bytes = {reinterpret_cast<const uint8_t*>(statistic.data()), statistic.size()}});
    visit_({.form = Form::kStructure, .name = name});
    for (auto field = row->fields.begin(); field != row->fields.end();) {
      const auto end = std::find_if(field, row->fields.end(),
                                    [&](const auto& each) { return std::strcmp(each.name, field->name) != 0; });
      const bool is_list = end - field > 1;  // several fields have the name
      if (is_list) visit_({.form = Form::kList, .name = field->name});
      for (; field != end; ++field) walk_statistic_field(*field, is_list ? nullptr : field->name);
      if (is_list) visit_({.form = Form::kListEnd});
    }
    visit_({.form = Form::kStructureEnd});
    return true;
  }

  void walk_statistic_field(const statistics::Field& field, const char* name) {
    if (field.type != statistics::kFloat) {
      walk_number(name, width_of(field.type), field.type == statistics::kI16 || field.type == statistics::kI32);
      return;
    }
    std::span<const uint8_t> bytes;
    if (!take(sizeof(float), bytes)) return;
    Field real = {.form = Form::kReal, .name = name};
    std::memcpy(&real.real, bytes.data(), sizeof real.real);
    visit_(real);
  }

  const ServiceRows& service_;
  const MessageKind kind_;
  std::span<const uint8_t> rest_;
  const Visit& visit_;
  uint64_t last_ = 0;  // the number before a statistic's value is its identifier
};

void visit_undescribed(std::span<const uint8_t> bytes, const Visit& visit) {
  visit({.form = Form::kBytes, .is_described = false, .bytes = bytes});
}

}  // namespace

void walk_fields(uint8_t service, const Message& message, const Visit& visit) {
  static constexpr ServiceRows kNoRows{};
  const ServiceRows* const found = find_service(service);
  const ServiceRows& rows = found == nullptr ? kNoRows : *found;
  auto rest = message.tlvs;
  while (rest.size() >= kTlvHeaderLength) {
    const uint8_t type = rest[0];
    const size_t stated = load_u16(&rest[1]);
    const size_t length = std::min(stated, rest.size() - kTlvHeaderLength);
    const auto value = rest.subspan(kTlvHeaderLength, length);
    rest = rest.subspan(kTlvHeaderLength + length);
    const qmi_idl::Tlv* const row = find_row(rows, message.kind, message.id, type);
    visit({.form = Form::kTlv, .name = row == nullptr ? nullptr : tlv_name(message.kind, *row), .tlv = type});
    if (row == nullptr || length < stated) {
      visit_undescribed(value, visit);
    } else {
      ValueWalk walk(rows, message.kind, value, visit);
      const bool is_whole = walk.walk(row->element, nullptr, true);
      if (!is_whole || !walk.rest().empty()) visit_undescribed(walk.rest(), visit);
    }
    visit({.form = Form::kTlvEnd});
  }
  if (rest.empty()) return;
  visit({.form = Form::kTlv});
  visit_undescribed(rest, visit);
  visit({.form = Form::kTlvEnd});
}

}  // namespace pelmar::qmi
