// What the fuzz targets share: the messages of all services that the project describes, and QMUX frames.
//
// An input picks its message by one byte, so that any byte is a choice and the catalogue may grow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "qmi_idl_lib_internal.h"

namespace pelmar::fuzz {

using Bytes = std::vector<uint8_t>;  // the heap block has exactly its size, so that a sanitizer sees each byte beyond

// Ends the process with a finding unless `condition` holds.
inline void require(bool condition) {
  if (!condition) __builtin_trap();
}

struct Message {
  qmi_idl_service_object_type service;
  qmi_idl_type_of_message_type type;
  uint16_t id;
  uint32_t structure_length;
  uint16_t max_wire_length;
};

// Requests, responses and indications of the vendor-specific, SAR and NAS services.
const std::vector<Message>& catalogue();

int32_t decode(const Message& message, std::span<const uint8_t> wire, Bytes& structure);

// `capacity` bytes of room; `wire` gets the size of the encoded message.
int32_t encode(const Message& message, const Bytes& structure, size_t capacity, Bytes& wire);

// A structure with every TLV, at most `most` elements in each array and characters in each text; with 0 an empty one.
Bytes make_structure(const Message& message, uint32_t most);

// --- frames ---

inline constexpr uint8_t kClient = 1;  // the client id in frames of services

// A message of the CTL service with one TLV; 0 request, 1 response, 2 indication.
Bytes control_frame(uint8_t kind, uint8_t transaction, uint16_t id, uint8_t tlv, const Bytes& value);

// A service's message, as its transaction 1: requests go to the modem, all others come from it.
Bytes service_frame(const Message& message, const Bytes& tlvs);

Bytes join(std::initializer_list<Bytes> parts);

}  // namespace pelmar::fuzz
