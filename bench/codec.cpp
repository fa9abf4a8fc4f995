// The codec: decodes the largest indication, compared with clearing and copying its structure, and encodes an NV write.
// A capture: takes that NV write.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "capture.h"
#include "nv_write.h"
#include "qmi_codec.h"
#include "qmux.h"
#include "vs_tables.h"

namespace pelmar::bench {
namespace {

using namespace qmi;

vs::ReportAIndication largest_indication() {
  vs::ReportAIndication indication;
  std::memset(&indication, 1, sizeof indication);  // every valid flag set
  const auto fill = [](vs::DataRecord& record) { record.data_len = vs::kMaxDataBytes; };
  indication.record_count = vs::kMaxDataRecords;
  indication.secondary_count = vs::kMaxSecondaryDataRecords;
  for (vs::DataRecord& record : indication.records) fill(record);
  for (vs::DataRecord& record : indication.secondary) fill(record);
  return indication;
}

std::vector<uint8_t> encoded_largest_indication() {
  const vs::ReportAIndication indication = largest_indication();
  std::vector<uint8_t> wire(UINT16_MAX);
  size_t length = 0;
  if (encode(&vs::kService, QMI_IDL_INDICATION, vs::kReportAIndication, &indication, sizeof indication, wire.data(),
             wire.size(), &length) != QMI_IDL_LIB_NO_ERR) {
    std::abort();
  }
  wire.resize(length);
  return wire;
}

void decode_largest_indication(benchmark::State& state) {
  const std::vector<uint8_t> wire = encoded_largest_indication();
  vs::ReportAIndication structure;
  for (auto _ : state) {
    const int32_t error = decode(&vs::kService, QMI_IDL_INDICATION, vs::kReportAIndication, wire.data(), wire.size(),
                                 &structure, sizeof structure);
    if (error != QMI_IDL_LIB_NO_ERR) state.SkipWithError("the indication does not decode");
    benchmark::DoNotOptimize(&structure);
    benchmark::ClobberMemory();
  }
  state.counters["wire_bytes"] = static_cast<double>(wire.size());
}
BENCHMARK(decode_largest_indication);

void clear_and_copy_largest_structure(benchmark::State& state) {
  const vs::ReportAIndication source = largest_indication();
  vs::ReportAIndication structure;
  for (auto _ : state) {
    std::memset(&structure, 0, sizeof structure);
    benchmark::DoNotOptimize(&structure);
    benchmark::ClobberMemory();
    std::memcpy(&structure, &source, sizeof structure);
    benchmark::DoNotOptimize(&structure);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(clear_and_copy_largest_structure);

// Returns the frame's length.
size_t encode_frame(const vs::WriteNvRequest& request, uint8_t* frame, size_t capacity) {
  constexpr size_t kHeaders = kFrameHeaderLength + kMessageHeaderLength;
  size_t length = 0;
  if (encode(&vs::kService, QMI_IDL_REQUEST, vs::kWriteNv, &request, sizeof request, frame + kHeaders,
             capacity - kHeaders, &length) != QMI_IDL_LIB_NO_ERR) {
    return 0;
  }
  store_message_header(frame + kFrameHeaderLength, MessageKind::kRequest, kTransaction, vs::kWriteNv, length);
  store_frame_header(frame, Direction::kToModem, vs::kServiceId, kClient, kMessageHeaderLength + length);
  return kHeaders + length;
}

void encode_nv_write(benchmark::State& state) {
  const vs::WriteNvRequest request = nv_write();
  uint8_t frame[512];
  for (auto _ : state) {
    const size_t length = encode_frame(request, frame, sizeof frame);
    if (length == 0) state.SkipWithError("the request does not encode");
    benchmark::DoNotOptimize(&frame);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(encode_nv_write);

void capture_nv_write(benchmark::State& state) {
  const std::string path = "/tmp/pelmar-bench." + std::to_string(::getpid());
  const std::vector<uint8_t> frame = encoded_nv_write();
  const auto message = std::span(frame).subspan(kFrameHeaderLength);
  std::string problem;
  const int file = open_capture(path, problem);
  CaptureWriter writer(file, "bench", [&](int error) { state.SkipWithError(std::strerror(error)); });
  const uint32_t link = writer.add_link({"@modem", "bench[1]"}, CaptureWriter::Sharing::kShared);
  for (auto _ : state) writer.write(link, Direction::kToModem, vs::kServiceId, kClient, message);
  ::close(file);
  ::unlink(path.c_str());
}
BENCHMARK(capture_nv_write)->Iterations(20'000);  // so that the file stays small

}  // namespace

std::vector<uint8_t> encoded_nv_write() {
  std::vector<uint8_t> frame(512);
  frame.resize(encode_frame(nv_write(), frame.data(), frame.size()));
  return frame;
}

}  // namespace pelmar::bench
