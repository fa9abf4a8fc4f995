// The vendor-specific service: its responses byte for byte, and how it describes itself. The tests of the commands and
// of the connection have the requests and the indications. The compiler asserts the sizes, the order and the number of
// messages.
#include <array>

#include "library_test.h"
#include "qmi_codec.h"
#include "qmi_idl_lib_internal.h"
#include "vs_client.h"

namespace {

using namespace scripted;

const qmi_idl_service_object_type kService = &vs_qmi_idl_service_object_v01;

// Identifiers of responses, and what they have behind the result: bytes, and fields of the structure.
using Responses = std::tuple<std::vector<uint16_t>, std::string, std::string>;

const std::string kRecords = "1800 02 0102 0304 05060708 0300 D1D2D3 1112131415161718 0000";

const Responses kResponses[] = {
    {{0x0000, 0x0100, 0x0103, 0x0106, 0x0109}, "03 0400 0200 D1D2", "8:02 12:D1D2"},
    {{0x0002}, "03 0100 B1 04 0100 B2", "8:B1B2"},
    {{0x0200}, "10 0400 A1A2A3A4", "8:01 12:A1A2A3A4"},
    {{0x0207}, "10 " + kRecords, "8:01 12:02 16:0102030405060708 24:03 28:D1D2D3 728:1112131415161718"},
    {{0x0001, 0x0003, 0x0101, 0x0102, 0x0104, 0x0105, 0x0107, 0x0108, 0x010A, 0x010B, 0x010C, 0x0200, 0x0201, 0x0202,
      0x0207, 0x0208, 0x0400, 0x0401},
     "",
     ""},
};

TEST(VsCatalogue, TurnsEveryResponseIntoItsStructure) {
  for (const auto& [ids, wire, content] : kResponses) {
    for (const uint16_t id : ids) {
      SCOPED_TRACE(testing::Message() << "message " << std::hex << id);
      const Bytes received = bytes("02 0400 0100 1A00 " + wire);
      pelmar::qmi::MessageSize size = {};
      EXPECT_EQ(pelmar::qmi::message_size(kService, QMI_IDL_RESPONSE, id, &size), 0);
      Bytes decoded(size.structure_length);
      EXPECT_EQ(pelmar::qmi::decode(kService, QMI_IDL_RESPONSE, id, received.data(), received.size(), decoded.data(),
                                    decoded.size()),
                0);
      EXPECT_EQ(decoded, structure(size.structure_length, "0:01 4:1A " + content));
    }
  }
}

TEST(VsCatalogue, DescribesItself) {
  EXPECT_EQ(kService->library_version, 6U);
  EXPECT_EQ(kService->idl_version, 1U);
  EXPECT_EQ(kService->idl_minor_version, 2U);
  EXPECT_EQ(kService->service_id, 0xE4U);
  EXPECT_EQ(kService->max_msg_len, 10672U);
  EXPECT_EQ(kService->parent_service_obj, nullptr);
  const qmi_idl_type_table_object& table = *kService->p_type_table;
  EXPECT_EQ(table.n_messages, 52);
  EXPECT_EQ(table.n_referenced_tables, 1);
  EXPECT_EQ(table.p_referenced_tables[0], &table);
  EXPECT_EQ(table.p_referenced_tables[1], &common_qmi_idl_type_table_object_v01);
  ASSERT_EQ(table.n_types, 4);
  // No message uses these two: an empty type, and a pair of words.
  EXPECT_EQ(table.p_types[2].p_encoded_type_data[0], QMI_IDL_TYPE_END);
  EXPECT_EQ(table.p_types[3].c_struct_sz, 8U);
  EXPECT_EQ(0, std::memcmp(table.p_types[3].p_encoded_type_data, "\x02\x00\x02\x04\x20", 5));
}

TEST(VsCatalogue, IsForOneVersion) {
  EXPECT_EQ(vs_get_service_object_internal_v01(1, 2, 6), kService);
  using Version = std::array<int32_t, 3>;
  for (const auto& [major, minor, library] :
       {Version{1, 2, 5}, {1, 2, 7}, {1, 1, 6}, {1, 3, 6}, {0, 2, 6}, {2, 2, 6}, {6, 2, 1}}) {
    EXPECT_EQ(vs_get_service_object_internal_v01(static_cast<uint32_t>(major), minor, library), nullptr);
  }
}

}  // namespace
