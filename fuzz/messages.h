// What the fuzz targets share: the messages of all services that the project describes, and inputs that change them.
//
// A target makes a message or a stream from the first bytes of its input, and the rest of the input changes it. So
// short inputs reach every message, and no input has to be kept. An input picks its message by one byte, so that any
// byte is a choice and the catalogue may grow.
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

// input: u8 choice, u8 number of the message, u8 most, the change
struct Input {
  Input(const uint8_t* data, size_t size);

  // The made bytes, each changed by XOR with one of the change; further bytes of the change follow. Cut to the length
  // of the change where the choice has its highest bit.
  Bytes change(Bytes made) const;

  uint8_t choice = 0;
  uint8_t number = 0;
  uint32_t most = 0;  // elements in each array and characters in each text
  std::span<const uint8_t> rest;
};

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
Bytes make_wire(const Message& message, uint32_t most);

// --- frames ---

inline constexpr uint8_t kClient = 1;  // the client id in frames of services

Bytes join(std::initializer_list<Bytes> parts);

// A message of the CTL service with one TLV.
Bytes control_frame(qmi_idl_type_of_message_type kind, uint8_t transaction, uint16_t id, uint8_t tlv,
                    const Bytes& value);

// The stream of the input: one message of a service or, for number 0, one of each kind of the CTL service. Requests go
// to the modem, all others come from it.
Bytes make_stream(const Input& input, bool to_modem);

}  // namespace pelmar::fuzz
