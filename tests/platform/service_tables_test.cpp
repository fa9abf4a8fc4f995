// The services' tables through the codec: bytes on the wire of the messages whose form is easily got wrong.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "nas_messages.h"
#include "qmi_codec.h"
#include "sar_messages.h"

namespace pelmar::qmi {
namespace {

using Bytes = std::vector<uint8_t>;

const qmi_idl_service_object_type kNas = nas_get_service_object_internal_v01(1, 388, 6);
const qmi_idl_service_object_type kSar = sar_get_service_object_internal_v01(1, 15, 6);

template <typename T>
Bytes encoded(qmi_idl_service_object_type service, qmi_idl_type_of_message_type type, uint16_t id, const T& structure) {
  Bytes out(16384);
  size_t length = 0;
  EXPECT_EQ(encode(service, type, id, &structure, sizeof structure, out.data(), out.size(), &length), 0);
  out.resize(length);
  return out;
}

TEST(ServiceTables, AreGivenForTheirOwnVersionsOnly) {
  EXPECT_EQ(nas_get_service_object_internal_v01(1, 387, 6), nullptr);
  EXPECT_EQ(nas_get_service_object_internal_v01(2, 388, 6), nullptr);
  EXPECT_EQ(sar_get_service_object_internal_v01(1, 15, 5), nullptr);
}

TEST(ServiceTables, NasRequestsOnTheWire) {
  nas::RegisterIndicationsRequest registration{};
  registration.serving_system.valid = 1;
  registration.after[11] = {1, 7};
  registration.pair_valid = 1;
  registration.pair[1] = 9;
  EXPECT_EQ(encoded(kNas, QMI_IDL_REQUEST, QMI_NAS_REGISTER_INDICATIONS_V01, registration),
            (Bytes{0x13, 1, 0, 0, 0x20, 1, 0, 7, 0x21, 2, 0, 0, 9}));
  EXPECT_EQ(encoded(kNas, QMI_IDL_REQUEST, QMI_NAS_BIND_SUBSCRIPTION_V01, nas::BindSubscriptionRequest{1}),
            (Bytes{0x01, 1, 0, 1}));
  nas::SetLteCellLockRequest lock{};
  lock.lock_count = 1;
  lock.locks[0] = {0x0102, 0x03040506};
  lock.option_valid = lock.option = 1;
  EXPECT_EQ(encoded(kNas, QMI_IDL_REQUEST, QMI_NAS_SET_LTE_CELL_LOCK_V01, lock),
            (Bytes{0x01, 7, 0, 1, 2, 1, 6, 5, 4, 3, 0x10, 1, 0, 1}));
  nas::SetSystemSelectionPreferenceRequest preference{};
  preference.nr_disable_mode_valid = 1;
  preference.nr_disable_mode = 2;
  EXPECT_EQ(encoded(kNas, QMI_IDL_REQUEST, QMI_NAS_SET_SYSTEM_SELECTION_PREFERENCE_V01, preference),
            (Bytes{0x33, 4, 0, 2, 0, 0, 0}));
}

TEST(ServiceTables, NasCellLocationNestsItsArrays) {
  nas::CellLocationResponse sent;
  std::memset(&sent, 0, sizeof sent);
  sent.intra_frequency_valid = sent.inter_frequency_valid = sent.nr_arfcn_valid = 1;
  sent.intra_frequency.global_cell_id = 0x01020304;
  sent.intra_frequency.cell_count = 1;
  sent.intra_frequency.cells[0] = {321, -105, -950, -650, 120};
  sent.inter_frequency.frequency_count = 2;
  sent.inter_frequency.frequencies[1].earfcn = 1300;
  sent.inter_frequency.frequencies[1].cell_count = 8;
  sent.inter_frequency.frequencies[1].cells[7].physical_cell_id = 503;
  sent.nr_arfcn = 0x9ABCD;
  const Bytes wire = encoded(kNas, QMI_IDL_RESPONSE, QMI_NAS_GET_CELL_LOCATION_INFO_V01, sent);
  const size_t intra = 3 + 1 + 3 + 2 + 4 + 2 + 2 + 4 + 1 + 10, inter = 3 + 1 + 1 + (6 + 0) + (6 + 80);
  ASSERT_EQ(wire.size(), 7 + intra + inter + 7);
  EXPECT_EQ(Bytes(wire.begin() + 7 + 21, wire.begin() + 7 + 21 + 5), (Bytes{1, 0x41, 0x01, 0x97, 0xFF}));

  nas::CellLocationResponse received;
  std::memset(&received, 0xEE, sizeof received);
  ASSERT_EQ(decode(kNas, QMI_IDL_RESPONSE, QMI_NAS_GET_CELL_LOCATION_INFO_V01, wire.data(), wire.size(), &received,
                   sizeof received),
            0);
  EXPECT_EQ(std::memcmp(&sent, &received, sizeof sent), 0);
}

TEST(ServiceTables, SarStateOnTheWire) {
  sar::RfSetStateRequest request{};
  request.state = 3;
  EXPECT_EQ(encoded(kSar, QMI_IDL_REQUEST, QMI_SAR_RF_SET_STATE_V01, request), (Bytes{0x01, 4, 0, 3, 0, 0, 0}));
  sar::RfGetStateResponse response{};
  response.state_valid = 1;
  response.state = 5;
  EXPECT_EQ(encoded(kSar, QMI_IDL_RESPONSE, QMI_SAR_RF_GET_STATE_V01, response),
            (Bytes{0x02, 4, 0, 0, 0, 0, 0, 0x10, 4, 0, 5, 0, 0, 0}));
}

}  // namespace
}  // namespace pelmar::qmi
