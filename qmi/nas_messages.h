// The structures of the NAS service's messages (0x03), as their users fill and read them.
//
// The sizes and offsets are those of the phone's NAS service. It has many more TLVs than these: their fields are the
// undescribed bytes, which stay zero in a request and are not read in a response. Signal levels are in tenths of dB or
// dBm.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common_v01.h"
#include "network_access_service_v01.h"

namespace pelmar::nas {

inline constexpr size_t kMaxCellLocks = 60;
inline constexpr size_t kMaxLteCells = 8;
inline constexpr size_t kMaxLteFrequencies = 3;

struct PlainResponse {
  qmi_response_type_v01 header;
};
static_assert(sizeof(PlainResponse) == 8);

// A request without TLVs.
struct EmptyRequest {
  uint8_t unused;
};
static_assert(sizeof(EmptyRequest) == 1);

// Whether one kind of indication is wanted.
struct Registration {
  uint8_t valid;
  uint8_t wanted;
};

struct RegisterIndicationsRequest {
  Registration before[2];       // TLVs 0x10 and 0x12
  Registration serving_system;  // 0x13
  Registration after[12];       // 0x14, 0x15, 0x17 to 0x20
  uint8_t pair_valid;           // 0x21
  uint8_t pair[2];
  uint8_t undescribed[142];
};
static_assert(sizeof(RegisterIndicationsRequest) == 175);
static_assert(offsetof(RegisterIndicationsRequest, serving_system) == 4);
static_assert(offsetof(RegisterIndicationsRequest, after) == 6);
static_assert(offsetof(RegisterIndicationsRequest, pair_valid) == 30);
static_assert(offsetof(RegisterIndicationsRequest, pair) == 31);

struct SetSystemSelectionPreferenceRequest {
  uint8_t undescribed_begin[488];
  uint8_t nr_disable_mode_valid;
  uint32_t nr_disable_mode;
  uint8_t undescribed_end[296];
};
static_assert(sizeof(SetSystemSelectionPreferenceRequest) == 792);
static_assert(offsetof(SetSystemSelectionPreferenceRequest, nr_disable_mode_valid) == 488);
static_assert(offsetof(SetSystemSelectionPreferenceRequest, nr_disable_mode) == 492);

struct LteCell {
  uint16_t physical_cell_id;
  int16_t rsrq;
  int16_t rsrp;
  int16_t rssi;
  int16_t level;
};
static_assert(sizeof(LteCell) == 10);

struct LteIntraFrequency {
  uint8_t is_idle;
  uint8_t plmn[3];
  uint16_t tracking_area_code;
  uint32_t global_cell_id;
  uint16_t earfcn;
  uint16_t serving_cell_id;
  uint8_t priority;
  uint8_t s_non_intra_search;
  uint8_t threshold_low;
  uint8_t s_intra_search;
  uint32_t cell_count;
  LteCell cells[kMaxLteCells];
};
static_assert(sizeof(LteIntraFrequency) == 104);
static_assert(offsetof(LteIntraFrequency, tracking_area_code) == 4 && offsetof(LteIntraFrequency, global_cell_id) == 8);
static_assert(offsetof(LteIntraFrequency, earfcn) == 12 && offsetof(LteIntraFrequency, priority) == 16);
static_assert(offsetof(LteIntraFrequency, cell_count) == 20 && offsetof(LteIntraFrequency, cells) == 24);

struct LteFrequency {
  uint16_t earfcn;
  uint8_t threshold_low;
  uint8_t threshold_high;
  uint8_t priority;
  uint32_t cell_count;
  LteCell cells[kMaxLteCells];
};
static_assert(sizeof(LteFrequency) == 92);
static_assert(offsetof(LteFrequency, cell_count) == 8 && offsetof(LteFrequency, cells) == 12);

struct LteInterFrequency {
  uint8_t is_idle;
  uint32_t frequency_count;
  LteFrequency frequencies[kMaxLteFrequencies];
};
static_assert(sizeof(LteInterFrequency) == 284);
static_assert(offsetof(LteInterFrequency, frequency_count) == 4 && offsetof(LteInterFrequency, frequencies) == 8);

struct CellLocationResponse {
  qmi_response_type_v01 header;
  uint8_t undescribed_begin[416];
  uint8_t intra_frequency_valid;
  LteIntraFrequency intra_frequency;
  uint8_t inter_frequency_valid;
  LteInterFrequency inter_frequency;
  uint8_t undescribed_middle[2312];
  uint8_t timing_advance_valid;
  uint32_t timing_advance;
  uint8_t undescribed_further[8];
  uint8_t nr_arfcn_valid;
  uint32_t nr_arfcn;
  uint8_t undescribed_end[628];
};
static_assert(sizeof(CellLocationResponse) == 3784);
static_assert(offsetof(CellLocationResponse, intra_frequency_valid) == 424);
static_assert(offsetof(CellLocationResponse, intra_frequency) == 428);
static_assert(offsetof(CellLocationResponse, inter_frequency_valid) == 532);
static_assert(offsetof(CellLocationResponse, inter_frequency) == 536);
static_assert(offsetof(CellLocationResponse, timing_advance_valid) == 3132);
static_assert(offsetof(CellLocationResponse, timing_advance) == 3136);
static_assert(offsetof(CellLocationResponse, nr_arfcn_valid) == 3148);
static_assert(offsetof(CellLocationResponse, nr_arfcn) == 3152);

struct BindSubscriptionRequest {
  uint32_t subscription;  // an enumeration of one byte on the wire
};
static_assert(sizeof(BindSubscriptionRequest) == 4);

struct GetDrxResponse {
  qmi_response_type_v01 header;
  uint8_t drx_valid;
  uint32_t drx;
};
static_assert(sizeof(GetDrxResponse) == 16);
static_assert(offsetof(GetDrxResponse, drx_valid) == 8 && offsetof(GetDrxResponse, drx) == 12);

struct SetAvoidTrmRequest {
  uint8_t value;
};
static_assert(sizeof(SetAvoidTrmRequest) == 1);

struct LteCellLock {
  uint16_t value;
  uint32_t parameter;
};
static_assert(sizeof(LteCellLock) == 8 && offsetof(LteCellLock, parameter) == 4);

struct SetLteCellLockRequest {
  uint32_t lock_count;
  LteCellLock locks[kMaxCellLocks];
  uint8_t option_valid;
  uint8_t option;
};
static_assert(sizeof(SetLteCellLockRequest) == 488);
static_assert(offsetof(SetLteCellLockRequest, locks) == 4);
static_assert(offsetof(SetLteCellLockRequest, option_valid) == 484 && offsetof(SetLteCellLockRequest, option) == 485);

}  // namespace pelmar::nas
