// The framework's tables of one service, computed from its rows of types and messages.
#pragma once

#include <array>

#include "qmi_idl_table_builder.h"

namespace pelmar::platform {

// The row with the largest size on the wire that its TLVs give.
constexpr qmi_idl::Message sized(qmi_idl::Message message) {
  message.wire_maximum = static_cast<uint16_t>(qmi_idl::wire_maximum(message));
  return message;
}

// kTypes is a std::array of qmi_idl::Type, in the order of their indices; kMessages an array of qmi_idl::Message, in
// the order of their numbers within a direction.
template <const auto& kTypes, const auto& kMessages>
struct ServiceTables {
  static constexpr auto kEncodedTypes = qmi_idl::encode_rows<kTypes>();
  static constexpr auto kEncodedMessages = qmi_idl::encode_rows<kMessages>();
  static constexpr auto kTypeEntries = qmi_idl::type_table<kTypes, kEncodedTypes>();
  static constexpr auto kMessageEntries = qmi_idl::message_table<kMessages, kEncodedMessages>();
  static constexpr auto kRequests = qmi_idl::service_messages<kMessages, QMI_IDL_REQUEST>();
  static constexpr auto kResponses = qmi_idl::service_messages<kMessages, QMI_IDL_RESPONSE>();
  static constexpr auto kIndications = qmi_idl::service_messages<kMessages, QMI_IDL_INDICATION>();

  static const qmi_idl_type_table_object kTypeTable;
  static constexpr const qmi_idl_type_table_object* kReferencedTables[] = {&kTypeTable,
                                                                           &common_qmi_idl_type_table_object_v01};

  static constexpr qmi_idl_service_object service(uint32_t id, uint32_t major, uint32_t minor, uint32_t library) {
    static_assert(qmi_idl::rows_hold(kMessages));
    static_assert(qmi_idl::sorted_by_id(kRequests) && qmi_idl::sorted_by_id(kResponses) &&
                  qmi_idl::sorted_by_id(kIndications));
    return {
        .library_version = library,
        .idl_version = major,
        .service_id = id,
        .max_msg_len = qmi_idl::largest(kMessages),
        .n_msgs = {kRequests.size(), kResponses.size(), kIndications.size()},
        .msgid_to_msg = {kRequests.data(), kResponses.data(), kIndications.data()},
        .p_type_table = &kTypeTable,
        .idl_minor_version = minor,
        .parent_service_obj = nullptr,
    };
  }
};

template <const auto& kTypes, const auto& kMessages>
constinit const qmi_idl_type_table_object ServiceTables<kTypes, kMessages>::kTypeTable = {
    .n_types = kTypeEntries.size(),
    .n_messages = kMessageEntries.size(),
    .n_referenced_tables = std::size(kReferencedTables) - 1,
    .p_types = kTypeEntries.data(),
    .p_messages = kMessageEntries.data(),
    .p_referenced_tables = kReferencedTables,
    .p_ranges = nullptr,
};

}  // namespace pelmar::platform
