// A mutator for inputs of one leading byte and TLVs: half of the time it changes one TLV's value and keeps the lengths
// true, so that the fuzzer gets past them to what is inside.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <span>
#include <vector>

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t max_size);

namespace {

constexpr size_t kHeadLength = 1;
constexpr size_t kTlvHeaderLength = 3;

// Where the whole TLVs begin.
std::vector<size_t> find_tlvs(std::span<const uint8_t> input) {
  std::vector<size_t> starts;
  for (size_t at = kHeadLength; at + kTlvHeaderLength <= input.size();) {
    const size_t end = at + kTlvHeaderLength + static_cast<size_t>(input[at + 1] | input[at + 2] << 8);
    if (end > input.size()) break;
    starts.push_back(at);
    at = end;
  }
  return starts;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size, unsigned seed) {
  std::minstd_rand random(seed);
  const std::vector<size_t> tlvs = find_tlvs({data, size});
  if (tlvs.empty() || random() % 2 == 0) return LLVMFuzzerMutate(data, size, max_size);

  uint8_t* const tlv = data + tlvs[random() % tlvs.size()];
  const size_t length = static_cast<size_t>(tlv[1] | tlv[2] << 8);
  uint8_t* const value = tlv + kTlvHeaderLength;
  const std::vector<uint8_t> rest(value + length, data + size);
  const auto room = static_cast<size_t>(data + max_size - value) - rest.size();
  if (room == 0) return LLVMFuzzerMutate(data, size, max_size);
  const size_t new_length = LLVMFuzzerMutate(value, length, std::min<size_t>(room, UINT16_MAX));
  tlv[1] = static_cast<uint8_t>(new_length);
  tlv[2] = static_cast<uint8_t>(new_length >> 8);
  if (!rest.empty()) std::memcpy(value + new_length, rest.data(), rest.size());
  return static_cast<size_t>(value - data) + new_length + rest.size();
}
