// The NAS messages that the library sends and reads, by the offsets of the platform's NAS structures.
//
// The platform describes many more TLVs than the library uses; what it does not use are undescribed bytes, zero in a
// request and not read in a response.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common_v01.h"
#include "modem_api.h"

namespace pelmar::nas {

// Which indications a connection wants: a presence flag and a value byte for each kind.
struct RegisterIndicationsRequest {
  uint8_t bytes[175];
};

constexpr RegisterIndicationsRequest serving_system_registration() {
  constexpr size_t kServingSystemValid = 4;  // offset of the presence flag; its value byte stays 0
  RegisterIndicationsRequest request{};
  request.bytes[kServingSystemValid] = 1;
  return request;
}

struct GetDrxResponse {
  qmi_response_type_v01 header;
  uint8_t valid;
  uint32_t drx;
};
static_assert(sizeof(GetDrxResponse) == 16 && offsetof(GetDrxResponse, drx) == 12);

struct LockedCell {
  uint16_t value;
  uint32_t param;
};

struct SetLteCellLockRequest {
  uint32_t count;
  LockedCell cells[MODEM_API_MAX_LOCKED_CELLS];
  uint8_t trailer_valid;
  uint8_t trailer;
};
static_assert(sizeof(SetLteCellLockRequest) == 488 && offsetof(SetLteCellLockRequest, trailer_valid) == 484);
static_assert(sizeof(LockedCell) == 8 && offsetof(LockedCell, param) == 4);

struct SetSystemSelectionRequest {
  uint8_t undescribed1[488];
  uint8_t nr_disable_mode_valid;
  uint32_t nr_disable_mode;
  uint8_t undescribed2[296];
};
static_assert(sizeof(SetSystemSelectionRequest) == 792 && offsetof(SetSystemSelectionRequest, nr_disable_mode) == 492);

// Of a cell, only its number is read: the physical cell id.
struct LteCell {
  uint16_t pci;
  uint16_t levels[4];
};
static_assert(sizeof(LteCell) == 10);

inline constexpr size_t kCellsOfFrequency = 8;
inline constexpr size_t kInterFrequencies = 3;

struct InterFrequency {
  uint16_t earfcn;
  uint8_t undescribed[10];
  LteCell cells[kCellsOfFrequency];
};
static_assert(sizeof(InterFrequency) == 92 && offsetof(InterFrequency, cells) == 12);

struct CellLocationResponse {
  qmi_response_type_v01 header;
  uint8_t undescribed1[444];
  LteCell intra_cells[kCellsOfFrequency];
  uint8_t undescribed2[12];
  InterFrequency inter_frequencies[kInterFrequencies];
  uint8_t undescribed3[2312];
  uint8_t timing_advance_valid;
  uint32_t timing_advance;
  uint8_t undescribed4[8];
  uint8_t nr_arfcn_valid;
  uint32_t nr_arfcn;
  uint8_t undescribed5[628];
};
static_assert(sizeof(CellLocationResponse) == 3784);
static_assert(offsetof(CellLocationResponse, intra_cells) == 452);
static_assert(offsetof(CellLocationResponse, inter_frequencies) == 544);
static_assert(offsetof(CellLocationResponse, timing_advance_valid) == 3132);
static_assert(offsetof(CellLocationResponse, timing_advance) == 3136);
static_assert(offsetof(CellLocationResponse, nr_arfcn_valid) == 3148);
static_assert(offsetof(CellLocationResponse, nr_arfcn) == 3152);

}  // namespace pelmar::nas
