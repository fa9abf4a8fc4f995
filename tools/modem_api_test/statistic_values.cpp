#include "statistic_values.h"

#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "statistic_tables.h"

namespace pelmar::cli {

namespace {

template <typename Number>
Json number_at(const uint8_t* bytes) {
  Number number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

Json number_of(statistics::WireType type, const uint8_t* bytes) {
  switch (type) {
    case statistics::kU8:
      return *bytes;
    case statistics::kU16:
      return number_at<uint16_t>(bytes);
    case statistics::kI16:
      return number_at<int16_t>(bytes);
    case statistics::kU32:
      return number_at<uint32_t>(bytes);
    case statistics::kI32:
      return number_at<int32_t>(bytes);
    case statistics::kFloat:
      break;
  }
  return number_at<float>(bytes);
}

Json fields_json(const statistics::Value& row, std::span<const uint8_t> value) {
  Json fields = Json::object();
  for (const statistics::Field& field : row.fields) {
    const size_t width = width_of(field.type);
    if (value.size() < width) break;
    Json number = number_of(field.type, value.data());
    value = value.subspan(width);
    Json& member = fields[field.name];
    if (member.is_null()) {
      member = std::move(number);
    } else {  // several fields have the name
      if (!member.is_array()) member = Json::array({member});
      member.push_back(std::move(number));
    }
  }
  return fields;
}

}  // namespace

std::optional<uint32_t> parse_statistic(const std::string& word) {
  for (const statistics::Value& row : statistics::kValues) {
    if (row.name == word) return row.id;
  }
  const auto number = parse_number(word, 0, UINT32_MAX);
  if (!number) return std::nullopt;
  return static_cast<uint32_t>(*number);
}

std::vector<std::string> statistic_names() {
  std::vector<std::string> names;
  for (const statistics::Value& row : statistics::kValues) names.emplace_back(row.name);
  return names;
}

std::string statistic_text(uint32_t id) {
  char digits[16];
  snprintf(digits, sizeof digits, "0x%02x", id);
  const statistics::Value* const row = statistics::find_value(id);
  return row == nullptr ? digits : digits + std::string(" (") + row->name + ")";
}

void put_statistic(Json& object, uint32_t id, std::span<const uint8_t> value) {
  const statistics::Value* const row = statistics::find_value(id);
  if (row == nullptr) return;
  object["name"] = row->name;
  object["fields"] = fields_json(*row, value);
}

std::string statistic_fields_text(uint32_t id, std::span<const uint8_t> value) {
  const statistics::Value* const row = statistics::find_value(id);
  if (row == nullptr) return "";
  const Json fields = fields_json(*row, value);
  std::string text;
  for (const auto& [name, number] : fields.items()) {
    text += (text.empty() ? "" : ", ") + name + ' ' + number.dump();
  }
  return text;
}

}  // namespace pelmar::cli
