// The names of services and messages, beside the rows that have the names of TLVs and fields.
//
// For tools alone: the encoded tables, which the library and the codec use, have no names.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "qmi_idl_table_builder.h"
#include "qmux.h"

namespace pelmar::qmi {

struct MessageName {
  uint16_t id;  // a request and its response share it
  const char* name;
};

// A described service has names and rows of all its messages; any other service has only a name.
struct ServiceRows {
  uint8_t id;
  const char* name;
  std::span<const MessageName> names = {};
  std::span<const qmi_idl::Message> messages = {};
  std::span<const qmi_idl::Type> types = {};
};

std::span<const ServiceRows> catalogue();

// Returns the row of an aggregate's type: one of the service, or that of the result in every response.
const qmi_idl::Type& type_of(const ServiceRows& service, const qmi_idl::Element& aggregate);

// Null for an unknown service, message or TLV. The result of a response has a row for any message.
const ServiceRows* find_service(uint8_t service);
const char* service_name(uint8_t service);
const char* message_name(uint8_t service, uint16_t message);
const qmi_idl::Tlv* find_row(const ServiceRows& service, MessageKind kind, uint16_t message, uint8_t tlv);

// The TLV's name: its member's; "result" of a response's result; null where it has none.
const char* tlv_name(MessageKind kind, const qmi_idl::Tlv& row);

}  // namespace pelmar::qmi
