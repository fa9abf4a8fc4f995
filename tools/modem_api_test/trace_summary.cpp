#include "trace_summary.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "catalogue.h"

namespace pelmar::cli {

namespace {

constexpr size_t kMostOpen = 65536;
constexpr size_t kMostRows = 1000;

// Durations are counted by their highest six bits.
constexpr unsigned kPrecisionBits = 5;

size_t bucket_of(uint64_t duration) {
  const auto width = static_cast<unsigned>(std::bit_width(duration));
  const unsigned shift = width > kPrecisionBits + 1 ? width - kPrecisionBits - 1 : 0;
  return (size_t{shift} << kPrecisionBits) + static_cast<size_t>(duration >> shift);
}

int64_t highest_in(size_t bucket) {
  const size_t shift = std::max<size_t>(bucket >> kPrecisionBits, 1) - 1;
  const uint64_t first = bucket - (shift << kPrecisionBits);
  return static_cast<int64_t>(((first + 1) << shift) - 1);
}

uint32_t row_key(uint8_t service, const qmi::Message& message) {
  return uint32_t{service} << 17 | uint32_t{message.id} << 1 | (message.kind == qmi::MessageKind::kIndication ? 1 : 0);
}

Json numbered(unsigned number, const char* name) {
  return {{"number", number}, {"name", name != nullptr ? Json(name) : Json()}};
}

double seconds(int64_t nanoseconds) {
  return static_cast<double>(nanoseconds) / 1e9;
}

}  // namespace

void Durations::add(int64_t nanoseconds) {
  const int64_t duration = std::max<int64_t>(nanoseconds, 0);  // the clock may have been set
  const size_t bucket = bucket_of(static_cast<uint64_t>(duration));
  if (bucket >= counts_.size()) counts_.resize(bucket + 1);
  ++counts_[bucket];
  ++total_;
  slowest_ = std::max(slowest_, duration);
}

int64_t Durations::percentile(unsigned percent) const {
  const uint64_t wanted = (total_ * percent + 99) / 100;
  uint64_t seen = 0;
  for (size_t bucket = 0; bucket < counts_.size(); ++bucket) {
    seen += counts_[bucket];
    if (seen >= wanted) return std::min(highest_in(bucket), slowest_);
  }
  return slowest_;
}

std::optional<int64_t> Exchanges::pair(const qmi::TracedMessage& traced, bool counts) {
  const qmi::CapturedMessage& captured = traced.captured;
  const qmi::Message& message = *traced.message;
  if (message.kind == qmi::MessageKind::kIndication) return std::nullopt;
  const uint64_t key = uint64_t{captured.link} << 32 | uint32_t{captured.frame.service} << 24 |
                       uint32_t{captured.frame.client} << 16 | message.transaction;
  if (message.kind == qmi::MessageKind::kRequest) {
    const Request request = {captured.time_ns, row_key(captured.frame.service, message), counts};
    if (open_.size() == kMostOpen) end();
    const auto [open, is_new] = open_.try_emplace(key, request);
    if (!is_new) give_up(std::exchange(open->second, request));
    return std::nullopt;
  }
  const auto open = open_.find(key);
  if (open == open_.end() || open->second.row != row_key(captured.frame.service, message)) return std::nullopt;
  const int64_t begin = open->second.time;
  open_.erase(open);
  return begin <= captured.time_ns ? captured.time_ns - begin : 0;
}

void Exchanges::count(const qmi::TracedMessage& traced) {
  if (traced.message->kind == qmi::MessageKind::kRequest) return;  // counted with its response
  Row& counted = row(row_key(traced.captured.frame.service, *traced.message));
  ++counted.count;
  if (traced.error.value_or(0) != 0) ++counted.errors;
  if (traced.duration) counted.durations.add(*traced.duration);
}

Exchanges::Row& Exchanges::row(uint32_t key) {
  return rows_.size() < kMostRows || rows_.contains(key) ? rows_[key] : others_;
}

void Exchanges::give_up(const Request& request) {
  if (!request.counts) return;
  Row& counted = row(request.row);
  ++counted.count;
  ++counted.without_response;
}

void Exchanges::end() {
  for (const auto& [key, request] : open_) give_up(request);
  open_.clear();
}

Json Exchanges::json() const {
  Json list = Json::array();
  for (const auto& [key, row] : rows_) {
    const bool is_indication = (key & 1) != 0;
    Json object = Json::object();
    const auto service = static_cast<uint8_t>(key >> 17);
    const auto message = static_cast<uint16_t>(key >> 1);
    object["service"] = numbered(service, qmi::service_name(service));
    object["message"] = numbered(message, qmi::message_name(service, message));
    object["is_indication"] = is_indication;
    object["count"] = row.count;
    if (!is_indication) {
      object["errors"] = row.errors;
      object["without_response"] = row.without_response;
    }
    if (!row.durations.empty()) {
      object["median_seconds"] = seconds(row.durations.percentile(50));
      object["percentile_99_seconds"] = seconds(row.durations.percentile(99));
      object["slowest_seconds"] = seconds(row.durations.slowest());
    }
    list.push_back(std::move(object));
  }
  return list;
}

std::string summary_text(const Json& messages) {
  const auto title_of = [](const Json& row) {
    const uint8_t service = row["service"]["number"];
    return qmi::service_text(service) + ' ' + qmi::message_text(service, row["message"]["number"]) +
           (row["is_indication"].get<bool>() ? " indication" : "");
  };
  constexpr size_t kTitleWidth = 36;
  constexpr size_t kWidth = 13;
  constexpr struct {
    const char* member;
    const char* title;
  } kColumns[] = {{"count", "count"},
                  {"errors", "errors"},
                  {"without_response", "no response"},
                  {"median_seconds", "median ms"},
                  {"percentile_99_seconds", "99 % ms"},
                  {"slowest_seconds", "slowest ms"}};
  std::string text = left_aligned("message", kTitleWidth);
  for (const auto& column : kColumns) text += right_aligned(column.title, kWidth);
  for (const Json& row : messages) {
    text += '\n' + left_aligned(title_of(row), kTitleWidth);
    for (const auto& column : kColumns) {
      const Json value = row.value(column.member, Json());
      char number[32] = "";
      if (value.is_number_float()) snprintf(number, sizeof number, "%.3f", value.get<double>() * 1e3);
      text += right_aligned(value.is_number_integer() ? value.dump() : number, kWidth);
    }
    text.erase(text.find_last_not_of(' ') + 1);
  }
  return text;
}

}  // namespace pelmar::cli
