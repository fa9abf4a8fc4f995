// The NAS service's description: its type and message rows and the object that is computed from them.
#pragma once

#include "nas_messages.h"
#include "qmi_idl_table_builder.h"

namespace pelmar::nas {

using qmi_idl::mandatory;
using qmi_idl::optional;
using qmi_idl::sized;

// After each type: the codec's description of a member of that type.
inline constexpr qmi_idl::Type kLteCell = {
    sizeof(LteCell),
    {QMI_IDL_FIELD(LteCell, physical_cell_id), QMI_IDL_FIELD(LteCell, rsrq), QMI_IDL_FIELD(LteCell, rsrp),
     QMI_IDL_FIELD(LteCell, rssi), QMI_IDL_FIELD(LteCell, level)}};
constexpr qmi_idl::Element aggregate_of(const LteCell*) {
  return aggregate(kLteCell, 0);
}

inline constexpr qmi_idl::Type kLteIntraFrequency = {
    sizeof(LteIntraFrequency),
    {QMI_IDL_FIELD(LteIntraFrequency, is_idle), QMI_IDL_FIELD(LteIntraFrequency, plmn),
     QMI_IDL_FIELD(LteIntraFrequency, tracking_area_code), QMI_IDL_FIELD(LteIntraFrequency, global_cell_id),
     QMI_IDL_FIELD(LteIntraFrequency, earfcn), QMI_IDL_FIELD(LteIntraFrequency, serving_cell_id),
     QMI_IDL_FIELD(LteIntraFrequency, priority), QMI_IDL_FIELD(LteIntraFrequency, s_non_intra_search),
     QMI_IDL_FIELD(LteIntraFrequency, threshold_low), QMI_IDL_FIELD(LteIntraFrequency, s_intra_search),
     QMI_IDL_COUNTED(LteIntraFrequency, cell_count, cells)}};
constexpr qmi_idl::Element aggregate_of(const LteIntraFrequency*) {
  return aggregate(kLteIntraFrequency, 1);
}

inline constexpr qmi_idl::Type kLteFrequency = {
    sizeof(LteFrequency),
    {QMI_IDL_FIELD(LteFrequency, earfcn), QMI_IDL_FIELD(LteFrequency, threshold_low),
     QMI_IDL_FIELD(LteFrequency, threshold_high), QMI_IDL_FIELD(LteFrequency, priority),
     QMI_IDL_COUNTED(LteFrequency, cell_count, cells)}};
constexpr qmi_idl::Element aggregate_of(const LteFrequency*) {
  return aggregate(kLteFrequency, 2);
}

inline constexpr qmi_idl::Type kLteInterFrequency = {
    sizeof(LteInterFrequency),
    {QMI_IDL_FIELD(LteInterFrequency, is_idle), QMI_IDL_COUNTED(LteInterFrequency, frequency_count, frequencies)}};
constexpr qmi_idl::Element aggregate_of(const LteInterFrequency*) {
  return aggregate(kLteInterFrequency, 3);
}

inline constexpr qmi_idl::Type kLteCellLock = {
    sizeof(LteCellLock), {QMI_IDL_FIELD(LteCellLock, value), QMI_IDL_FIELD(LteCellLock, parameter)}};
constexpr qmi_idl::Element aggregate_of(const LteCellLock*) {
  return aggregate(kLteCellLock, 4);
}

inline constexpr qmi_idl::Type kTypes[] = {kLteCell, kLteIntraFrequency, kLteFrequency, kLteInterFrequency,
                                           kLteCellLock};

inline constexpr qmi_idl::Tlv kResult = mandatory(0x02, QMI_IDL_FIELD(PlainResponse, header));

// One kind of indication: its valid flag and value stand at `offset`.
constexpr qmi_idl::Tlv registration(uint8_t type, size_t offset, const char* name = nullptr) {
  return optional(type, offset, qmi_idl::element_of<uint8_t>(offset + offsetof(Registration, wanted), name));
}

// A 32-bit member that is an enumeration of one byte on the wire.
constexpr qmi_idl::Element small_enumeration(qmi_idl::Element element) {
  element.kind = QMI_IDL_KIND_ENUM_1_BYTE;
  element.item_wire_size = 1;
  return element;
}

// clang-format off
inline constexpr qmi_idl::Message kMessages[] = {
    sized({QMI_IDL_REQUEST, QMI_NAS_REGISTER_INDICATIONS_V01, sizeof(RegisterIndicationsRequest), 0, {
        registration(0x10, 0), registration(0x12, 2),
        registration(0x13, offsetof(RegisterIndicationsRequest, serving_system), "serving_system"),
        registration(0x14, 6), registration(0x15, 8), registration(0x17, 10), registration(0x18, 12),
        registration(0x19, 14), registration(0x1A, 16), registration(0x1B, 18), registration(0x1C, 20),
        registration(0x1D, 22), registration(0x1E, 24), registration(0x1F, 26), registration(0x20, 28),
        optional(0x21, offsetof(RegisterIndicationsRequest, pair_valid),
                 QMI_IDL_FIELD(RegisterIndicationsRequest, pair))}}),
    sized({QMI_IDL_REQUEST, QMI_NAS_SET_SYSTEM_SELECTION_PREFERENCE_V01,
           sizeof(SetSystemSelectionPreferenceRequest), 0, {
        optional(0x33, offsetof(SetSystemSelectionPreferenceRequest, nr_disable_mode_valid),
                 QMI_IDL_FIELD(SetSystemSelectionPreferenceRequest, nr_disable_mode))}}),
    sized({QMI_IDL_REQUEST, QMI_NAS_GET_CELL_LOCATION_INFO_V01, sizeof(EmptyRequest), 0}),
    sized({QMI_IDL_REQUEST, QMI_NAS_BIND_SUBSCRIPTION_V01, sizeof(BindSubscriptionRequest), 0, {
        mandatory(0x01, small_enumeration(QMI_IDL_FIELD(BindSubscriptionRequest, subscription)))}}),
    sized({QMI_IDL_REQUEST, QMI_NAS_GET_DRX_V01, sizeof(EmptyRequest), 0}),
    sized({QMI_IDL_REQUEST, QMI_NAS_SET_AVOID_TRM_V01, sizeof(SetAvoidTrmRequest), 0, {
        mandatory(0x01, QMI_IDL_FIELD(SetAvoidTrmRequest, value))}}),
    sized({QMI_IDL_REQUEST, QMI_NAS_SET_LTE_CELL_LOCK_V01, sizeof(SetLteCellLockRequest), 0, {
        mandatory(0x01, QMI_IDL_COUNTED(SetLteCellLockRequest, lock_count, locks)),
        optional(0x10, offsetof(SetLteCellLockRequest, option_valid), QMI_IDL_FIELD(SetLteCellLockRequest, option))}}),

    sized({QMI_IDL_RESPONSE, QMI_NAS_REGISTER_INDICATIONS_V01, sizeof(PlainResponse), 0, {kResult}}),
    sized({QMI_IDL_RESPONSE, QMI_NAS_SET_SYSTEM_SELECTION_PREFERENCE_V01, sizeof(PlainResponse), 0, {kResult}}),
    sized({QMI_IDL_RESPONSE, QMI_NAS_GET_CELL_LOCATION_INFO_V01, sizeof(CellLocationResponse), 0, {
        kResult,
        optional(0x13, offsetof(CellLocationResponse, intra_frequency_valid),
                 QMI_IDL_FIELD(CellLocationResponse, intra_frequency)),
        optional(0x14, offsetof(CellLocationResponse, inter_frequency_valid),
                 QMI_IDL_FIELD(CellLocationResponse, inter_frequency)),
        optional(0x1E, offsetof(CellLocationResponse, timing_advance_valid),
                 QMI_IDL_FIELD(CellLocationResponse, timing_advance)),
        optional(0x2E, offsetof(CellLocationResponse, nr_arfcn_valid),
                 QMI_IDL_FIELD(CellLocationResponse, nr_arfcn))}}),
    sized({QMI_IDL_RESPONSE, QMI_NAS_BIND_SUBSCRIPTION_V01, sizeof(PlainResponse), 0, {kResult}}),
    sized({QMI_IDL_RESPONSE, QMI_NAS_GET_DRX_V01, sizeof(GetDrxResponse), 0, {
        kResult,
        optional(0x10, offsetof(GetDrxResponse, drx_valid), QMI_IDL_FIELD(GetDrxResponse, drx))}}),
    sized({QMI_IDL_RESPONSE, QMI_NAS_SET_AVOID_TRM_V01, sizeof(PlainResponse), 0, {kResult}}),
    sized({QMI_IDL_RESPONSE, QMI_NAS_SET_LTE_CELL_LOCK_V01, sizeof(PlainResponse), 0, {kResult}}),
};
// clang-format on

inline constinit const qmi_idl_service_object kService = qmi_idl::ServiceTables<kTypes, kMessages>::service(
    NAS_SERVICE_ID_V01, NAS_V01_IDL_MAJOR_VERS, NAS_V01_IDL_MINOR_VERS, NAS_V01_IDL_TOOL_VERS);

}  // namespace pelmar::nas
