// The simulated modem's reader: frames out of a client's byte stream, requests out of frames, TLVs out of requests.
//
// What holds whatever the bytes: every view lies inside the input, a frame is never larger than its bytes, and the
// front of a stream is judged the same however much of it has arrived.
#include "messages.h"
#include "qmi/qmux.h"

using namespace pelmar::fuzz;
namespace qmux = pelmar::sim::qmux;

namespace {

bool is_inside(std::span<const uint8_t> part, std::span<const uint8_t> whole) {
  return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

void read_request(const qmux::Frame& frame) {
  const auto request = qmux::parse_request(frame);
  if (!request) return;
  require(is_inside(request->tlvs, frame.message));
  for (unsigned type = 0; type <= UINT8_MAX; ++type) {
    const auto value = qmux::find_tlv(request->tlvs, static_cast<uint8_t>(type));
    if (value) require(is_inside(*value, request->tlvs));
  }
}

// With less of the stream there is less to say, but nothing else.
void judge_early(std::span<const uint8_t> bytes, const qmux::Front& front) {
  for (size_t length = 0; length < bytes.size() && length < 16; ++length) {
    const Bytes part(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
    const qmux::Front early = qmux::parse_front(part);
    if (early.state == qmux::Front::State::kIncomplete) continue;
    require(early.state == front.state && early.size == front.size);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Bytes stream(data, data + size);
  std::span<const uint8_t> rest(stream);
  for (;;) {
    const qmux::Front front = qmux::parse_front(rest);
    judge_early(rest, front);
    if (front.state != qmux::Front::State::kComplete) return 0;
    require(front.size > 0 && front.size <= rest.size());
    require(is_inside(front.frame.message, rest.first(front.size)));
    read_request(front.frame);
    rest = rest.subspan(front.size);
  }
}
