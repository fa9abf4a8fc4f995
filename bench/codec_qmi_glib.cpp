// Builds the same NV write with libqmi-glib: with its typed writers, which that library uses for its own messages, and
// with raw TLVs, whose values the caller encodes.
#include <benchmark/benchmark.h>
#include <libqmi-glib.h>

#include <cstring>

#include "nv_write.h"

namespace pelmar::bench {
namespace {

QmiMessage* new_message() {
  return qmi_message_new(static_cast<QmiService>(vs::kServiceId), kClient, kTransaction, vs::kWriteNv);
}

template <typename Write>
void add_tlv(QmiMessage* message, uint8_t type, Write write) {
  const gsize start = qmi_message_tlv_write_init(message, type, nullptr);
  write();
  qmi_message_tlv_write_complete(message, start, nullptr);
}

QmiMessage* build_typed(const vs::WriteNvRequest& request) {
  constexpr QmiEndian kLittle = QMI_ENDIAN_LITTLE;
  QmiMessage* const message = new_message();
  add_tlv(message, 0x01, [&] { qmi_message_tlv_write_guint32(message, kLittle, request.item, nullptr); });
  add_tlv(message, 0x02, [&] { qmi_message_tlv_write_guint8(message, request.qualifier, nullptr); });
  add_tlv(message, 0x03, [&] { qmi_message_tlv_write_guint16(message, kLittle, request.index, nullptr); });
  add_tlv(message, 0x04, [&] {
    qmi_message_tlv_write_guint16(message, kLittle, static_cast<guint16>(request.data_len), nullptr);
    for (uint32_t i = 0; i < request.data_len; ++i) qmi_message_tlv_write_guint8(message, request.data[i], nullptr);
  });
  return message;
}

QmiMessage* build_raw(const vs::WriteNvRequest& request) {
  QmiMessage* const message = new_message();
  uint8_t value[2 + vs::kMaxItemBytes];
  const auto add = [&](uint8_t type, size_t length) { qmi_message_add_raw_tlv(message, type, value, length, nullptr); };
  std::memcpy(value, &request.item, 4);
  add(0x01, 4);
  value[0] = request.qualifier;
  add(0x02, 1);
  std::memcpy(value, &request.index, 2);
  add(0x03, 2);
  std::memcpy(value, &request.data_len, 2);
  std::memcpy(value + 2, request.data, request.data_len);
  add(0x04, 2 + request.data_len);
  return message;
}

template <QmiMessage* (*kBuild)(const vs::WriteNvRequest&)>
void build_nv_write(benchmark::State& state) {
  const vs::WriteNvRequest request = nv_write();
  const std::vector<uint8_t> expected = encoded_nv_write();
  QmiMessage* const sample = kBuild(request);
  if (sample->len != expected.size() || std::memcmp(sample->data, expected.data(), expected.size()) != 0) {
    state.SkipWithError("the two libraries' messages differ");
  }
  qmi_message_unref(sample);
  for (auto _ : state) {
    QmiMessage* const message = kBuild(request);
    benchmark::DoNotOptimize(message);
    qmi_message_unref(message);
  }
}
BENCHMARK(build_nv_write<build_typed>)->Name("qmi_glib_nv_write");
BENCHMARK(build_nv_write<build_raw>)->Name("qmi_glib_nv_write_raw");

}  // namespace
}  // namespace pelmar::bench
