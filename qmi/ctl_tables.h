// The rows of the CTL service's messages. No codec walks them: they have no valid flags, and no encoded tables.
#pragma once

#include "ctl_messages.h"
#include "qmi_idl_table_builder.h"

namespace pelmar::ctl {

using qmi_idl::mandatory;

inline constexpr qmi_idl::Type kTypes[] = {
    {sizeof(ServiceVersion),
     {QMI_IDL_FIELD(ServiceVersion, service), QMI_IDL_FIELD(ServiceVersion, major),
      QMI_IDL_FIELD(ServiceVersion, minor)}},
    {sizeof(ClientId), {QMI_IDL_FIELD(ClientId, service), QMI_IDL_FIELD(ClientId, client)}},
};

constexpr qmi_idl::Element aggregate_of(const ServiceVersion*) {
  return aggregate(kTypes[0], 0);
}
constexpr qmi_idl::Element aggregate_of(const ClientId*) {
  return aggregate(kTypes[1], 1);
}

inline constexpr qmi_idl::Tlv kResult = mandatory(0x02, QMI_IDL_FIELD(Response, header));

// clang-format off
inline constexpr qmi_idl::Message kMessages[] = {
    {QMI_IDL_REQUEST, kGetVersionInfo, 0, 0},
    {QMI_IDL_REQUEST, kAllocateClientId, 0, 0, {mandatory(0x01, QMI_IDL_FIELD(Allocation, service))}},
    {QMI_IDL_REQUEST, kReleaseClientId, 0, 0, {mandatory(0x01, QMI_IDL_FIELD(Release, released))}},
    {QMI_IDL_REQUEST, kSetDataFormat, 0, 0, {
        mandatory(0x01, QMI_IDL_FIELD(DataFormat, format)),
        mandatory(0x10, QMI_IDL_FIELD(DataFormat, link_protocol))}},
    {QMI_IDL_REQUEST, kSync, 0, 0},
    {QMI_IDL_REQUEST, kOpenProxy, 0, 0, {mandatory(0x01, QMI_IDL_FIELD(Device, path))}},

    {QMI_IDL_RESPONSE, kGetVersionInfo, 0, 0, {
        kResult, mandatory(0x01, QMI_IDL_COUNTED(VersionInfo, service_count, services))}},
    {QMI_IDL_RESPONSE, kAllocateClientId, 0, 0, {kResult, mandatory(0x01, QMI_IDL_FIELD(Allocation, allocated))}},
    {QMI_IDL_RESPONSE, kReleaseClientId, 0, 0, {kResult, mandatory(0x01, QMI_IDL_FIELD(Release, released))}},
    {QMI_IDL_RESPONSE, kSetDataFormat, 0, 0, {kResult, mandatory(0x10, QMI_IDL_FIELD(DataFormat, link_protocol))}},
    {QMI_IDL_RESPONSE, kSync, 0, 0, {kResult}},
    {QMI_IDL_RESPONSE, kOpenProxy, 0, 0, {kResult}},

    {QMI_IDL_INDICATION, kRevokeClientId, 0, 0, {mandatory(0x01, QMI_IDL_FIELD(Revocation, revoked))}},
    {QMI_IDL_INDICATION, kSync, 0, 0},
};
// clang-format on

}  // namespace pelmar::ctl
