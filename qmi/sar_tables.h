// The SAR service's description: its message rows and the object that is computed from them.
#pragma once

#include "qmi_idl_table_builder.h"
#include "sar_messages.h"

namespace pelmar::sar {

using qmi_idl::mandatory;
using qmi_idl::optional;
using qmi_idl::sized;

inline constexpr std::array<qmi_idl::Type, 0> kTypes = {};
inline constexpr qmi_idl::Tlv kResult = mandatory(0x02, QMI_IDL_FIELD(RfSetStateResponse, header));

// clang-format off
inline constexpr qmi_idl::Message kMessages[] = {
    sized({QMI_IDL_REQUEST, QMI_SAR_RF_SET_STATE_V01, sizeof(RfSetStateRequest), 0, {
        mandatory(0x01, QMI_IDL_FIELD(RfSetStateRequest, state))}}),
    sized({QMI_IDL_REQUEST, QMI_SAR_RF_GET_STATE_V01, sizeof(RfGetStateRequest), 0}),

    sized({QMI_IDL_RESPONSE, QMI_SAR_RF_SET_STATE_V01, sizeof(RfSetStateResponse), 0, {kResult}}),
    sized({QMI_IDL_RESPONSE, QMI_SAR_RF_GET_STATE_V01, sizeof(RfGetStateResponse), 0, {
        kResult,
        optional(0x10, offsetof(RfGetStateResponse, state_valid), QMI_IDL_FIELD(RfGetStateResponse, state))}}),
};
// clang-format on

inline constinit const qmi_idl_service_object kService = qmi_idl::ServiceTables<kTypes, kMessages>::service(
    SAR_SERVICE_ID_V01, SAR_V01_IDL_MAJOR_VERS, SAR_V01_IDL_MINOR_VERS, SAR_V01_IDL_TOOL_VERS);

}  // namespace pelmar::sar
