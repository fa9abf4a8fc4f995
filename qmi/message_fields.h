// What a message's bytes mean, by the catalogue's rows: TLVs and fields with names and values.
//
// The bytes come from a file or from another process and may be anything. Whatever no row describes is handed out as
// bytes without a name, so that nothing of a message is lost; the walk allocates nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "qmux.h"

namespace pelmar::qmi {

struct Field {
  enum class Form : uint8_t {
    kTlv,  // a TLV begins: its value follows, as a field without a name, and bytes that no row describes
    kTlvEnd,
    kStructure,  // fields with names follow
    kStructureEnd,
    kList,  // fields without names follow
    kListEnd,
    kSigned,
    kUnsigned,
    kReal,
    kText,  // of any bytes
    kBytes,
  };

  Form form;
  const char* name = nullptr;  // null: a TLV that is unknown or has no name, its value, an element of a list
  uint8_t tlv = 0;             // of kTlv: its type
  bool is_described = true;    // of kBytes: false where no row describes them
  uint64_t number = 0;         // of kSigned (sign extended) and kUnsigned
  float real = 0;
  std::span<const uint8_t> bytes = {};  // of kText and kBytes; valid as long as the message
};

void walk_fields(uint8_t service, const Message& message, const std::function<void(const Field&)>& visit);

}  // namespace pelmar::qmi
