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

// Indexed by WireType.
constexpr Json (*kReaders[])(const uint8_t* bytes) = {number_at<uint8_t>,  number_at<uint16_t>, number_at<int16_t>,
                                                      number_at<uint32_t>, number_at<int32_t>,  number_at<float>};

}  // namespace

std::string statistic_text(uint32_t id) {
  char digits[16];
  snprintf(digits, sizeof digits, "0x%02x", id);
  const statistics::Value* const row = statistics::find_value(id);
  return row == nullptr ? digits : digits + std::string(" (") + row->name + ")";
}

std::string put_statistic(Json& object, uint32_t id, std::span<const uint8_t> value) {
  const statistics::Value* const row = statistics::find_value(id);
  if (row == nullptr) return "";
  object["name"] = row->name;
  Json& fields = object["fields"] = Json::object();
  for (const statistics::Field& field : row->fields) {
    const size_t width = width_of(field.type);
    if (value.size() < width) break;
    Json number = kReaders[static_cast<size_t>(field.type)](value.data());
    value = value.subspan(width);
    Json& member = fields[field.name];
    if (member.is_null()) {
      member = std::move(number);
    } else {  // several fields have the name
      if (!member.is_array()) member = Json::array({member});
      member.push_back(std::move(number));
    }
  }
  std::vector<std::string> texts;
  for (const auto& [name, number] : fields.items()) texts.push_back(name + ' ' + number.dump());
  return join(texts, ", ");
}

}  // namespace pelmar::cli
