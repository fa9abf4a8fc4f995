// The messages of all services that the project describes, and a walk over a decoded structure.
//
// An input picks its message by one byte, so that any byte is a choice and the catalogue may grow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "qmi_idl_lib_internal.h"

namespace pelmar::fuzz {

struct CatalogueMessage {
  qmi_idl_service_object_type service;
  qmi_idl_type_of_message_type type;
  uint16_t id;
  uint32_t structure_length;
  uint16_t max_wire_length;
};

// Requests, responses and indications of the vendor-specific, SAR and NAS services.
const std::vector<CatalogueMessage>& catalogue();

inline const CatalogueMessage& pick_message(uint8_t choice) {
  return catalogue()[choice % catalogue().size()];
}

using Bytes = std::vector<uint8_t>;  // the heap block has exactly its size, so that a sanitizer sees each byte beyond

int32_t decode(const CatalogueMessage& message, std::span<const uint8_t> wire, Bytes& structure);

// `capacity` bytes of room; `wire` gets the size of the encoded message.
int32_t encode(const CatalogueMessage& message, const Bytes& structure, size_t capacity, Bytes& wire);

// Called for the parts of a structure that have a rule, in the order of the description. None need be aligned.
class StructureVisitor {
 public:
  virtual void on_valid_flag(uint8_t& flag) = 0;
  virtual void on_count(uint8_t* count, uint32_t maximum) = 0;  // 32 bits; the elements are walked after it
  virtual void on_text(std::span<uint8_t> text) = 0;            // with the place of its terminator

 protected:
  ~StructureVisitor() = default;
};

void walk(const CatalogueMessage& message, Bytes& structure, StructureVisitor& visitor);

// Ends the process with a finding unless `condition` holds.
inline void require(bool condition) {
  if (!condition) __builtin_trap();
}

}  // namespace pelmar::fuzz
