// The simulated modem's reader: frames out of a client's byte stream, requests out of frames, TLVs out of requests.
//
// What holds whatever the bytes: every view lies inside the input, a frame is never larger than its bytes, and the
// front of a stream is judged the same however much of it has arrived.
#include "messages.h"
#include "qmux.h"

using namespace pelmar::fuzz;
namespace qmi = pelmar::qmi;

namespace {

bool is_inside(std::span<const uint8_t> part, std::span<const uint8_t> whole) {
  return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

void read_request(const qmi::Frame& frame) {
  const auto request = qmi::read_message(frame);
  if (!request) return;
  require(is_inside(request->tlvs, frame.message));
  for (unsigned type = 0; type <= UINT8_MAX; ++type) {
    const auto value = qmi::find_tlv(request->tlvs, static_cast<uint8_t>(type));
    if (value) require(is_inside(*value, request->tlvs));
  }
}

// With less of the stream there is less to say, but nothing else.
void judge_early(std::span<const uint8_t> bytes, const qmi::Front& front) {
  for (size_t length = 0; length < bytes.size() && length < 16; ++length) {
    const Bytes part(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
    const qmi::Front early = qmi::read_front(part, qmi::Direction::kToModem);
    if (early.state == qmi::Front::State::kIncomplete) continue;
    require(early.state == front.state && early.length == front.length);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Bytes stream(data, data + size);
  std::span<const uint8_t> rest(stream);
  for (;;) {
    const qmi::Front front = qmi::read_front(rest, qmi::Direction::kToModem);
    judge_early(rest, front);
    if (front.state != qmi::Front::State::kComplete) return 0;
    require(front.length > 0 && front.length <= rest.size());
    require(is_inside(front.frame.message, rest.first(front.length)));
    read_request(front.frame);
    rest = rest.subspan(front.length);
  }
}
