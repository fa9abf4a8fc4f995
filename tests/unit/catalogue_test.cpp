// The vendor-specific service as a modem sees it: every message byte for byte, and how the service describes itself.
// The compiler asserts the sizes, the order and the number of messages.
#include <array>

#include "library_test.h"
#include "qmi_codec.h"
#include "qmi_idl_lib_internal.h"
#include "vs_client.h"

namespace {

using namespace scripted;

constexpr auto kRequest = QMI_IDL_REQUEST;
constexpr auto kResponse = QMI_IDL_RESPONSE;
constexpr auto kIndication = QMI_IDL_INDICATION;

// Messages of one form.
struct Message {
  qmi_idl_type_of_message_type type;
  std::vector<uint16_t> ids;
  std::string wire;
  std::string content;
};

// What several messages have in common.
const std::string kWord = "01 0400 A1A2A3A4 ";
const std::string kItem = kWord + "02 0100 B1 03 0200 C1C2 ";
const std::string kPath = "01 0400 2F6E7631 02 0200 C1C2 03 0100 B1 ";  // "/nv1"
const std::string kSubs = "01 0200 C1C2 02 0200 C3C4 ";
const std::string kSubsAfter = "10 0200 C1C2 11 0200 C3C4";
const std::string kIds = "0900 02 E1E2E3E4 E5E6E7E8 ";
const std::string kRecord = "0102 0304 05060708 0300 D1D2D3 ";                 // three bytes of data
const std::string kRecords = "1800 02 " + kRecord + "1112131415161718 0000 ";  // and one without data
const std::string kEntries =
    "3700 02 E1E2E3E4 02 F1F2F3F4 F5F6F7F8 11 2122232425262728 3132333435363738 41"
    "        E5E6E7E8 00 12 5152535455565758 6162636465666768 42 ";
const std::string kResult = "02 0400 0100 1A00 ";
const std::string kHeader = "0:010000001A000000 ";
const std::string kNone = "01 0400 00000000 02 0100 00";  // a word and an empty list

const Message kMessages[] = {
    {kRequest, {0x0000}, "01 0500 0300 A1A2A3", "0:03000000A1A2A3"},
    {kRequest, {0x0001}, "10 0100 A1 11 0100 A2", "0:01A101A2"},
    {kRequest, {0x0002, 0x0109, 0x010B}, kWord, "0:A1A2A3A4"},
    {kRequest, {0x0003}, kWord + "02 0100 B1 10 0100 C1", "0:A1A2A3A4 4:B101C1"},
    {kRequest, {0x0100, 0x0102}, kItem, "0:A1A2A3A4 4:B1 6:C1C2"},
    {kRequest, {0x0101}, kItem + "04 0400 0200 D1D2", "0:A1A2A3A4 4:B1 6:C1C2 8:02 12:D1D2"},
    {kRequest, {0x0103, 0x0105}, kWord + "02 0200 C1C2", "0:A1A2A3A4 4:C1C2"},
    {kRequest, {0x0104}, kWord + "02 0200 C1C2 03 0400 0200 D1D2", "0:A1A2A3A4 4:C1C2 8:02 12:D1D2"},
    {kRequest, {0x0106, 0x0108}, kPath, "0:2F6E7631 102:C1C2 104:B1"},
    {kRequest, {0x0107}, kPath + "04 0400 0200 D1D2", "0:2F6E7631 102:C1C2 104:B1 108:02 112:D1D2"},
    {kRequest, {0x010A}, kWord + "02 0400 0200 D1D2", "0:A1A2A3A4 4:02 8:D1D2"},
    {kRequest, {0x010C}, "01 0100 B1 02 0400 A1A2A3A4 03 0200 C1C2", "0:B1 4:A1A2A3A4 8:C1C2"},
    {kRequest, {0x0200}, "01 0100 B1 10 0400 A1A2A3A4", "0:B101 4:A1A2A3A4"},
    {kRequest,
     {0x0201},
     kWord + "02 " + kEntries + kSubsAfter,
     "0:A1A2A3A4 4:02 8:E1E2E3E4 12:02 16:F1F2F3F4F5F6F7F8 36:11 40:21222324252627283132333435363738 56:41 "
     "64:E5E6E7E8 92:12 96:51525354555657586162636465666768 112:42 5608:01 5610:C1C201 5614:C3C4"},
    {kRequest,
     {0x0202},
     kWord + "02 " + kIds + kSubsAfter,
     "0:A1A2A3A4 4:02 8:E1E2E3E4E5E6E7E8 408:01 410:C1C201 414:C3C4"},
    {kRequest,
     {0x0207},
     kSubs + "03 " + kRecords,
     "0:C1C2C3C4 4:02 8:0102030405060708 16:03 20:D1D2D3 720:1112131415161718"},
    {kRequest, {0x0208}, kSubs + "03 " + kIds, "0:C1C2C3C4 4:02 8:E1E2E3E4E5E6E7E8"},
    {kRequest, {0x0400, 0x0401}, "", ""},

    {kResponse, {0x0000}, kResult + "03 0500 0300 A1A2A3", kHeader + "8:03 12:A1A2A3"},
    {kResponse, {0x0002}, kResult + "03 0100 B1 04 0100 B2", kHeader + "8:B1B2"},
    {kResponse, {0x0200}, kResult + "10 0400 A1A2A3A4", kHeader + "8:01 12:A1A2A3A4"},
    {kResponse,
     {0x0207},
     kResult + "10 " + kRecords,
     kHeader + "8:01 12:02 16:0102030405060708 24:03 28:D1D2D3 728:1112131415161718"},
    {kResponse, {0x0100, 0x0103, 0x0106, 0x0109}, kResult + "03 0400 0200 D1D2", kHeader + "8:02 12:D1D2"},
    {kResponse,
     {0x0001, 0x0003, 0x0101, 0x0102, 0x0104, 0x0105, 0x0107, 0x0108, 0x010A, 0x010B, 0x010C, 0x0201, 0x0202, 0x0208,
      0x0400, 0x0401},
     kResult,
     kHeader},

    {kIndication, {0x0004}, kWord + "02 0100 B1 03 0100 B2", "0:A1A2A3A4 4:B1B2"},
    {kIndication,
     {0x0203},
     kWord + "02 " + kRecords + "10 0E00 01 " + kRecord + "11 0400 A5A6A7A8",
     "0:A1A2A3A4 4:02 8:0102030405060708 16:03 20:D1D2D3 720:1112131415161718 "
     "7128:01 7132:01 7136:0102030405060708 7144:03 7148:D1D2D3 10696:01 10700:A5A6A7A8"},
    {kIndication,
     {0x0204},
     kWord + "02 0400 03 D1D2D3 03 0200 C1C2 04 0200 C3C4",
     "0:A1A2A3A4 4:03 8:D1D2D3 108:C1C2C3C4"},
    {kIndication, {0x0601}, "01 0100 B1", "0:B1"},

    // Optional values go out only where they are flagged.
    {kRequest, {0x0001}, "", ""},
    {kRequest, {0x0003, 0x0201, 0x0202}, kNone, ""},
    {kRequest, {0x0200}, "01 0100 00", ""},
    {kResponse, {0x0200, 0x0207}, "02 0400 0000 0000", ""},
    {kIndication, {0x0203}, kNone, ""},
};

const qmi_idl_service_object_type kService = &vs_qmi_idl_service_object_v01;

// Encoding the content gives the wire bytes, and decoding those the content.
void expect_bytes(const Message& message, uint16_t id) {
  pelmar::qmi::MessageSize size = {};
  EXPECT_EQ(pelmar::qmi::message_size(kService, message.type, id, &size), 0);
  const Bytes content = structure(size.structure_length, message.content);
  Bytes encoded(16384);
  size_t length = 0;
  EXPECT_EQ(pelmar::qmi::encode(kService, message.type, id, content.data(), content.size(), encoded.data(),
                                encoded.size(), &length),
            0);
  encoded.resize(length);
  const Bytes wire = bytes(message.wire);
  EXPECT_EQ(encoded, wire);
  if (content.size() == 1 && wire.empty()) return;  // the byte of an empty structure has no meaning
  Bytes decoded(content.size(), 0xEE);
  EXPECT_EQ(pelmar::qmi::decode(kService, message.type, id, wire.data(), wire.size(), decoded.data(), decoded.size()),
            0);
  EXPECT_EQ(decoded, content);
}

TEST(VsCatalogue, EveryMessageHasItsBytes) {
  for (const Message& message : kMessages) {
    for (const uint16_t id : message.ids) {
      SCOPED_TRACE(testing::Message() << "message " << std::hex << id << " of type " << message.type);
      expect_bytes(message, id);
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
