#include "message_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <ctime>
#include <iterator>
#include <string_view>

#include "catalogue.h"
#include "error_names.h"
#include "message_fields.h"
#include "printable_text.h"

namespace pelmar::qmi {

namespace {

using Form = Field::Form;

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kSecondsPerDay = 86400;

struct Time {
  int64_t seconds;
  int64_t nanoseconds;
};

Time split(int64_t time_ns) {
  return {time_ns / kSecond, time_ns % kSecond};
}

template <typename Number>
void append_number(std::string& text, Number number) {
  char digits[32];
  text.append(digits, std::to_chars(digits, std::end(digits), number).ptr);
}

void append_padded(std::string& text, int64_t number, int width) {
  char digits[20];
  for (int i = width; i-- > 0; number /= 10) digits[i] = static_cast<char>('0' + number % 10);
  text.append(digits, static_cast<size_t>(width));
}

std::string& append_hex(std::string& text, unsigned number, int digits) {
  for (int i = digits; i-- > 0;) text += "0123456789abcdef"[number >> (4 * i) & 0xF];
  return text;
}

void append_hex(std::string& text, std::span<const uint8_t> bytes) {
  for (const uint8_t byte : bytes) append_hex(text, byte, 2);
}

std::string hex_number(unsigned number, int digits) {
  std::string text = "0x";
  return append_hex(text, number, digits);
}

// The inside of a JSON string. Characters of UTF-8 that are no printable ASCII are escaped. A byte that belongs to no
// character becomes the character of its number.
void append_escaped(std::string& text, std::string_view value) {
  while (!value.empty()) {
    const size_t length = std::max<size_t>(utf8_character_bytes(value), 1);
    auto number = static_cast<uint32_t>(static_cast<uint8_t>(value[0]));
    if (length > 1) number &= 0x7Fu >> length;
    for (const char next : value.substr(1, length - 1)) number = number << 6 | (static_cast<uint8_t>(next) & 0x3F);
    value.remove_prefix(length);
    if (number > 0xFFFF) {  // two units of UTF-16
      append_hex(text.append("\\u"), 0xD800 + ((number - 0x10000) >> 10), 4);
      append_hex(text.append("\\u"), 0xDC00 + (number & 0x3FF), 4);
    } else if (number < ' ' || number > '~') {
      append_hex(text.append("\\u"), number, 4);
    } else {
      text.append(number == '"' || number == '\\' ? "\\" : "").append(1, static_cast<char>(number));
    }
  }
}

// ,"member":"value"
void append_member(std::string& text, const char* member, std::string_view value) {
  append_escaped(text.append(",\"").append(member).append("\":\""), value);
  text += '"';
}

// ,"member":{"number":1,"name":"READ_NV"}; null for a number without a name
void append_named(std::string& text, const char* member, unsigned number, const char* name) {
  append_number(text.append(",\"").append(member).append("\":{\"number\":"), number);
  if (name != nullptr) {
    append_member(text, "name", name);
  } else {
    text += ",\"name\":null";
  }
  text += '}';
}

// Writes the fields of a message: as JSON the list of its TLVs, as text a line for each.
class FieldText {
 public:
  FieldText(std::string& text, bool is_json) : text_(text), is_json_(is_json) {}

  void add(const Field& field) {
    switch (field.form) {
      case Form::kTlv:
        return begin_tlv(field);
      case Form::kTlvEnd:
        return end(is_json_ ? '}' : '\n');
      case Form::kStructureEnd:
        return end('}');
      case Form::kListEnd:
        return end(']');
      default:
        append_key(field);
        return append_value(field);
    }
  }

 private:
  void begin_tlv(const Field& field) {
    if (is_json_) {
      append_number(text_.append(needs_comma_ ? ",{\"type\":" : "{\"type\":"), field.tlv);
      if (field.name != nullptr) append_member(text_, "name", field.name);
    } else {
      append_hex(text_.append("    0x"), field.tlv, 2);
      if (field.name != nullptr) text_.append(" ").append(field.name);
    }
    needs_comma_ = is_json_;
    is_in_tlv_ = true;
  }

  void end(char mark) {
    text_ += mark;
    needs_comma_ = true;
  }

  void append_key(const Field& field) {
    const char* const name = field.is_described ? field.name : "undescribed";
    if (needs_comma_) text_ += ',';
    if (!is_json_ && text_.back() != '[' && text_.back() != '{') text_ += ' ';
    if (is_json_ && (name != nullptr || is_in_tlv_)) {
      text_.append("\"").append(name != nullptr ? name : "value").append("\":");
    } else if (!is_json_ && name != nullptr) {
      text_.append(name).append(" ");
    }
    needs_comma_ = true;
    is_in_tlv_ = false;
  }

  void append_value(const Field& field) {
    const char* const quote = is_json_ || field.form == Form::kText ? "\"" : "";
    switch (field.form) {
      case Form::kSigned:
        return append_number(text_, static_cast<int64_t>(field.number));
      case Form::kUnsigned:
        return append_number(text_, field.number);
      case Form::kReal:
        return std::isfinite(field.real) ? append_number(text_, field.real) : void(text_ += "null");
      case Form::kText:
      case Form::kBytes:
        text_ += quote;
        if (field.form == Form::kBytes) append_hex(text_, field.bytes);
        if (field.form == Form::kBytes && field.bytes.empty() && !is_json_) text_ += "none";
        if (field.form == Form::kText)
          append_escaped(text_, {reinterpret_cast<const char*>(field.bytes.data()), field.bytes.size()});
        text_ += quote;
        return;
      default:
        text_ += field.form == Form::kList ? '[' : '{';
        needs_comma_ = false;
    }
  }

  std::string& text_;
  const bool is_json_;
  bool needs_comma_ = false;
  bool is_in_tlv_ = false;  // and not in a structure or list of it, or behind its value
};

void append_fields(std::string& text, const TracedMessage& traced, bool is_json) {
  FieldText fields(text, is_json);
  walk_fields(traced.captured.frame.service, *traced.message, [&fields](const Field& field) { fields.add(field); });
}

const char* error_name(const TracedMessage& traced) {
  const ErrorName* const row = find_error(*traced.error);
  return row != nullptr ? row->name : nullptr;
}

}  // namespace

std::string service_text(uint8_t service) {
  const char* const name = service_name(service);
  return name != nullptr ? name : hex_number(service, 2);
}

std::string message_text(uint8_t service, uint16_t message) {
  const char* const name = message_name(service, message);
  return name != nullptr ? name : hex_number(message, 4);
}

LocalTime local_time(int64_t time_ns) {
  constexpr int64_t kPeriod = 900;  // clocks are changed at quarters of an hour
  thread_local int64_t period = INT64_MIN;
  thread_local int64_t offset = 0;
  const Time time = split(time_ns);
  if (const int64_t now = time.seconds / kPeriod; now != period) {
    const time_t seconds = time.seconds;
    tm local{};
    localtime_r(&seconds, &local);
    offset = local.tm_gmtoff;
    period = now;
  }
  const int64_t seconds = time.seconds + offset + kSecondsPerDay;  // not negative
  return {seconds / kSecondsPerDay - 1, seconds % kSecondsPerDay * kSecond + time.nanoseconds};
}

void append_line(std::string& text, const TracedMessage& traced, bool has_fields) {
  const CapturedMessage& captured = traced.captured;
  const uint8_t service = captured.frame.service;
  const int64_t time = local_time(captured.time_ns).ns / 1000;
  const int64_t seconds = time / 1'000'000;
  append_padded(text, seconds / 3600, 2);
  append_padded(text += ':', seconds / 60 % 60, 2);
  append_padded(text += ':', seconds % 60, 2);
  append_padded(text += '.', time % 1'000'000, 6);
  append_escaped(text += ' ', traced.link.process.empty() ? "-" : traced.link.process);
  text.append(captured.direction == Direction::kToModem ? " -> " : " <- ").append(service_text(service));
  append_number(text += ' ', captured.frame.client);
  if (!traced.message) {
    append_hex(text += " no QMI message: ", captured.frame.message);
    text += '\n';
    return;
  }
  text.append(" ").append(message_text(service, traced.message->id));
  if (traced.message->kind == MessageKind::kIndication) {
    text += " indication";
  } else {
    append_number(text += " #", traced.message->transaction);
  }
  if (traced.error) {
    const char* const name = error_name(traced);
    text.append(" ").append(name != nullptr ? name : "error " + std::to_string(*traced.error));
  } else if (traced.message->kind == MessageKind::kResponse) {
    text += " without result";
  }
  if (traced.duration) {
    append_number(text += ' ', *traced.duration / 1'000'000);
    append_padded(text += '.', *traced.duration / 1000 % 1000, 3);
    text += " ms";
  }
  text += captured.is_cut ? " (cut)\n" : "\n";
  if (has_fields) append_fields(text, traced, false);
}

void append_json(std::string& text, const TracedMessage& traced, bool has_fields) {
  constexpr const char* kKinds[] = {"request", "response", "indication"};
  const Frame& frame = traced.captured.frame;
  const Time time = split(traced.captured.time_ns);
  const time_t seconds = time.seconds;
  tm utc{};
  gmtime_r(&seconds, &utc);
  char date[64];
  text += R"({"type":"message","time":")";
  text.append(date, strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S.", &utc));
  append_padded(text, time.nanoseconds / 1000, 6);
  text += "Z\"";
  append_member(text, "transport", traced.link.transport);
  append_member(text, "process", traced.link.process);
  append_member(text, "direction", traced.captured.direction == Direction::kToModem ? "to_modem" : "from_modem");
  append_named(text, "service", frame.service, service_name(frame.service));
  append_number(text += ",\"client\":", frame.client);
  if (traced.message) {
    append_member(text, "kind", kKinds[static_cast<size_t>(traced.message->kind)]);
    append_named(text, "message", traced.message->id, message_name(frame.service, traced.message->id));
    append_number(text += ",\"transaction\":", traced.message->transaction);
    append_number(text += ",\"length\":", traced.message->tlvs.size());
  } else {
    append_hex(text += ",\"data\":\"", frame.message);
    text += '"';
  }
  if (traced.error) text += *traced.error == 0 ? ",\"is_success\":true" : ",\"is_success\":false";
  if (traced.error.value_or(0) != 0) append_named(text, "qmi_error", *traced.error, error_name(traced));
  if (traced.duration) append_number(text += ",\"seconds\":", static_cast<double>(*traced.duration) / 1e9);
  if (traced.captured.is_cut) text += ",\"is_cut\":true";
  if (has_fields && traced.message) {
    text += ",\"tlvs\":[";
    append_fields(text, traced, true);
    text += ']';
  }
  text += "}\n";
}

}  // namespace pelmar::qmi
