// The vendor-specific service as a modem sees it: every message byte for byte, and what the service says of itself.
#include <algorithm>
#include <array>
#include <set>

#include "library_test.h"
#include "qmi_codec.h"
#include "qmi_idl_lib_internal.h"
#include "vs_client.h"

namespace {

using namespace scripted;

// An array: where its count stands and how far it may go; of structures that hold an array themselves also how far they
// lie apart, where the count is in them and how far it may go. The count of a string is its length.
struct Array {
  size_t count_offset;
  uint32_t maximum;
  size_t element_size = 0;
  size_t nested_count_offset = 0;
  uint32_t nested_maximum = 0;

  void set_count(std::vector<uint8_t>& content, uint32_t count) const {
    const bool is_string = maximum == 100 && count_offset == 0;
    is_string ? std::memset(content.data(), 'x', count) : std::memcpy(&content[count_offset], &count, sizeof(count));
  }
  void set_nested_count(std::vector<uint8_t>& content, size_t index, uint32_t count) const {
    if (nested_maximum == 0) return;
    std::memcpy(&content[count_offset + 4 + index * element_size + nested_count_offset], &count, sizeof(count));
  }
};

struct Message {
  qmi_idl_type_of_message_type type;
  uint16_t id;
  uint32_t size;      // of the structure
  uint16_t max_wire;  // as the service states it
  std::string wire;
  std::string content;
  std::vector<Array> arrays = {};
};

constexpr auto kRequest = QMI_IDL_REQUEST;
constexpr auto kResponse = QMI_IDL_RESPONSE;
constexpr auto kIndication = QMI_IDL_INDICATION;

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
const std::string kResultHeader = "0:010000001A000000 ";

std::vector<Message> all_messages() {
  // clang-format off
  std::vector<Message> rows = {
      {kRequest, 0x0000, 516, 517, "01 0500 0300 A1A2A3", "0:03000000A1A2A3", {{0, 512}}},
      {kRequest, 0x0001, 4, 8, "10 0100 A1 11 0100 A2", "0:01A101A2"},
      {kRequest, 0x0002, 4, 7, kWord, "0:A1A2A3A4"},
      {kRequest, 0x0003, 8, 15, kWord + "02 0100 B1 10 0100 C1", "0:A1A2A3A4 4:B101C1"},
      {kRequest, 0x0100, 8, 16, kItem, "0:A1A2A3A4 4:B1 6:C1C2"},
      {kRequest, 0x0101, 268, 277, kItem + "04 0400 0200 D1D2", "0:A1A2A3A4 4:B1 6:C1C2 8:02 12:D1D2", {{8, 256}}},
      {kRequest, 0x0102, 8, 16, kItem, "0:A1A2A3A4 4:B1 6:C1C2"},
      {kRequest, 0x0103, 8, 12, kWord + "02 0200 C1C2", "0:A1A2A3A4 4:C1C2"},
      {kRequest, 0x0104, 268, 273, kWord + "02 0200 C1C2 03 0400 0200 D1D2", "0:A1A2A3A4 4:C1C2 8:02 12:D1D2",
       {{8, 256}}},
      {kRequest, 0x0105, 8, 12, kWord + "02 0200 C1C2", "0:A1A2A3A4 4:C1C2"},
      {kRequest, 0x0106, 106, 112, kPath, "0:2F6E7631 102:C1C2 104:B1", {{0, 100}}},
      {kRequest, 0x0107, 368, 373, kPath + "04 0400 0200 D1D2", "0:2F6E7631 102:C1C2 104:B1 108:02 112:D1D2",
       {{0, 100}, {108, 256}}},
      {kRequest, 0x0108, 106, 112, kPath, "0:2F6E7631 102:C1C2 104:B1", {{0, 100}}},
      {kRequest, 0x0109, 4, 7, kWord, "0:A1A2A3A4"},
      {kRequest, 0x010A, 264, 268, kWord + "02 0400 0200 D1D2", "0:A1A2A3A4 4:02 8:D1D2", {{4, 256}}},
      {kRequest, 0x010B, 4, 7, kWord, "0:A1A2A3A4"},
      {kRequest, 0x010C, 12, 16, "01 0100 B1 02 0400 A1A2A3A4 03 0200 C1C2", "0:B1 4:A1A2A3A4 8:C1C2"},
      {kRequest, 0x0200, 8, 11, "01 0100 B1 10 0400 A1A2A3A4", "0:B101 4:A1A2A3A4"},
      {kRequest, 0x0201, 5616, 4321, kWord + "02 " + kEntries + kSubsAfter,
       "0:A1A2A3A4 4:02 8:E1E2E3E4 12:02 16:F1F2F3F4F5F6F7F8 36:11 40:21222324252627283132333435363738 56:41 "
       "64:E5E6E7E8 92:12 96:51525354555657586162636465666768 112:42 5608:01 5610:C1C201 5614:C3C4",
       {{4, 100, 56, 4, 5}}},
      {kRequest, 0x0202, 416, 421, kWord + "02 " + kIds + kSubsAfter,
       "0:A1A2A3A4 4:02 8:E1E2E3E4E5E6E7E8 408:01 410:C1C201 414:C3C4", {{4, 100}}},
      {kRequest, 0x0207, 7128, 7114, kSubs + "03 " + kRecords,
       "0:C1C2C3C4 4:02 8:0102030405060708 16:03 20:D1D2D3 720:1112131415161718", {{4, 10, 712, 8, 700}}},
      {kRequest, 0x0208, 48, 54, kSubs + "03 " + kIds, "0:C1C2C3C4 4:02 8:E1E2E3E4E5E6E7E8", {{4, 10}}},
      {kRequest, 0x0400, 1, 0, "", ""},
      {kRequest, 0x0401, 1, 0, "", ""},

      {kResponse, 0x0000, 524, 528, kResult + "03 0500 0300 A1A2A3", kResultHeader + "8:03 12:A1A2A3", {{8, 512}}},
      {kResponse, 0x0002, 12, 19, kResult + "03 0100 B1 04 0100 B2", kResultHeader + "8:B1B2"},
      {kResponse, 0x0200, 16, 18, kResult + "10 0400 A1A2A3A4", kResultHeader + "8:01 12:A1A2A3A4"},
      {kResponse, 0x0207, 7136, 7115, kResult + "10 " + kRecords,
       kResultHeader + "8:01 12:02 16:0102030405060708 24:03 28:D1D2D3 728:1112131415161718",
       {{12, 10, 712, 8, 700}}},

      {kIndication, 0x0004, 8, 15, kWord + "02 0100 B1 03 0100 B2", "0:A1A2A3A4 4:B1B2"},
      {kIndication, 0x0203, 10704, 10672, kWord + "02 " + kRecords + "10 0E00 01 " + kRecord + "11 0400 A5A6A7A8",
       "0:A1A2A3A4 4:02 8:0102030405060708 16:03 20:D1D2D3 720:1112131415161718 "
       "7128:01 7132:01 7136:0102030405060708 7144:03 7148:D1D2D3 10696:01 10700:A5A6A7A8",
       {{4, 10, 712, 8, 700}, {7132, 5, 712, 8, 700}}},
      {kIndication, 0x0204, 112, 121, kWord + "02 0400 03 D1D2D3 03 0200 C1C2 04 0200 C3C4",
       "0:A1A2A3A4 4:03 8:D1D2D3 108:C1C2C3C4", {{4, 100}}},
      {kIndication, 0x0601, 1, 4, "01 0100 B1", "0:B1"},
  };
  // clang-format on
  for (const uint16_t id : {0x0100, 0x0103, 0x0106, 0x0109}) {
    rows.push_back(
        {kResponse, id, 268, 272, kResult + "03 0400 0200 D1D2", kResultHeader + "8:02 12:D1D2", {{8, 256}}});
  }
  for (const uint16_t id : {0x0001, 0x0003, 0x0101, 0x0102, 0x0104, 0x0105, 0x0107, 0x0108, 0x010A, 0x010B, 0x010C,
                            0x0201, 0x0202, 0x0208, 0x0400, 0x0401}) {
    rows.push_back({kResponse, id, 8, 11, kResult, kResultHeader});
  }
  return rows;
}

class VsCatalogue : public testing::Test {
 protected:
  struct Encoded {
    int32_t code;
    std::vector<uint8_t> wire;
  };

  Encoded encode(const Message& message, const std::vector<uint8_t>& content) const {
    std::vector<uint8_t> wire(16384);
    size_t length = 0;
    const int32_t code = pelmar::qmi::encode(service_, message.type, message.id, content.data(), content.size(),
                                             wire.data(), wire.size(), &length);
    wire.resize(length);
    return {code, wire};
  }

  // Encoding the content gives the wire bytes, and decoding those the content.
  void expect_bytes(const Message& message) const {
    const std::vector<uint8_t> content = structure(message.size, message.content);
    const std::vector<uint8_t> wire = bytes(message.wire);
    EXPECT_EQ(encode(message, content).wire, wire);
    if (message.wire.empty() && message.size == 1) return;  // the byte of an empty structure has no meaning
    std::vector<uint8_t> decoded(message.size, 0xEE);
    EXPECT_EQ(pelmar::qmi::decode(service_, message.type, message.id, wire.data(), wire.size(), decoded.data(),
                                  decoded.size()),
              0);
    EXPECT_EQ(decoded, content);
  }

  const std::vector<Message> messages_ = all_messages();
  const qmi_idl_service_object_type service_ = vs_get_service_object_internal_v01(1, 2, 6);
};

TEST_F(VsCatalogue, EveryMessageHasItsBytesAndSize) {
  std::set<uint16_t> ids[3];
  for (const Message& message : messages_) {
    SCOPED_TRACE(testing::Message() << "message " << std::hex << message.id << " of type " << message.type);
    ids[message.type].insert(message.id);
    expect_bytes(message);
    pelmar::qmi::MessageSize size = {};
    EXPECT_EQ(pelmar::qmi::message_size(service_, message.type, message.id, &size), 0);
    EXPECT_EQ(size.structure_length, message.size);
    EXPECT_EQ(size.max_wire_length, message.max_wire);
  }
  for (const auto type : {kRequest, kResponse, kIndication}) {
    std::vector<uint16_t> stated;  // in the order of the table, which the framework searches by halves
    const auto* const first = service_->msgid_to_msg[type];
    std::for_each(first, first + service_->n_msgs[type], [&](auto& row) { stated.push_back(row.qmi_message_id); });
    EXPECT_EQ(stated, std::vector<uint16_t>(ids[type].begin(), ids[type].end()));
  }
}

TEST_F(VsCatalogue, OptionalValuesGoOutOnlyWhenFlagged) {
  const Message bare[] = {
      {kRequest, 0x0001, 4, 0, "", ""},
      {kRequest, 0x0003, 8, 0, "01 0400 00000000 02 0100 00", ""},
      {kRequest, 0x0200, 8, 0, "01 0100 00", ""},
      {kRequest, 0x0201, 5616, 0, "01 0400 00000000 02 0100 00", ""},
      {kRequest, 0x0202, 416, 0, "01 0400 00000000 02 0100 00", ""},
      {kResponse, 0x0200, 16, 0, "02 0400 0000 0000", ""},
      {kResponse, 0x0207, 7136, 0, "02 0400 0000 0000", ""},
      {kIndication, 0x0203, 10704, 0, "01 0400 00000000 02 0100 00", ""},
  };
  for (const Message& message : bare) expect_bytes(message);
}

// With every array as long as it may be a message has the stated length; more is refused. A stated length counts the
// result TLV as 11 bytes, where it has 7.
TEST_F(VsCatalogue, EveryArrayIsBounded) {
  for (const Message& message : messages_) {
    SCOPED_TRACE(testing::Message() << "message " << std::hex << message.id << " of type " << message.type);
    std::vector<uint8_t> full = structure(message.size, message.content);
    for (const Array& array : message.arrays) {
      array.set_count(full, array.maximum);
      for (size_t i = 0; i < array.maximum; ++i) array.set_nested_count(full, i, array.nested_maximum);
    }
    EXPECT_EQ(encode(message, full).wire.size(), message.max_wire - (message.type == kResponse ? 4U : 0U));
    for (const Array& array : message.arrays) {
      std::vector<uint8_t> too_many = full;
      array.set_count(too_many, array.maximum + 1);
      EXPECT_EQ(encode(message, too_many).code, QMI_IDL_LIB_ARRAY_TOO_BIG);
      too_many = full;
      array.set_nested_count(too_many, array.maximum - 1, array.nested_maximum + 1);
      EXPECT_EQ(encode(message, too_many).code, array.nested_maximum == 0 ? 0 : QMI_IDL_LIB_ARRAY_TOO_BIG);
    }
  }
}

TEST_F(VsCatalogue, DescribesItself) {
  EXPECT_EQ(service_->library_version, 6U);
  EXPECT_EQ(service_->idl_version, 1U);
  EXPECT_EQ(service_->idl_minor_version, 2U);
  EXPECT_EQ(service_->service_id, 0xE4U);
  EXPECT_EQ(service_->max_msg_len, 10672U);
  EXPECT_EQ(service_->parent_service_obj, nullptr);
  const qmi_idl_type_table_object& table = *service_->p_type_table;
  EXPECT_EQ(table.n_messages, 52);
  EXPECT_EQ(table.n_referenced_tables, 1);
  EXPECT_EQ(table.p_referenced_tables[0], &table);
  EXPECT_EQ(table.p_referenced_tables[1], &common_qmi_idl_type_table_object_v01);
  ASSERT_EQ(table.n_types, 4);
  EXPECT_EQ(table.p_types[0].c_struct_sz, 56U);
  EXPECT_EQ(table.p_types[1].c_struct_sz, 712U);
  EXPECT_EQ(table.p_types[3].c_struct_sz, 8U);
  // No message uses these two: an empty type, and a pair of words.
  EXPECT_EQ(table.p_types[2].p_encoded_type_data[0], QMI_IDL_TYPE_END);
  EXPECT_EQ(0, std::memcmp(table.p_types[3].p_encoded_type_data, "\x02\x00\x02\x04\x20", 5));
}

TEST_F(VsCatalogue, IsForOneVersion) {
  EXPECT_EQ(service_, &vs_qmi_idl_service_object_v01);
  using Version = std::array<int32_t, 3>;
  for (const auto& [major, minor, library] :
       {Version{1, 2, 5}, {1, 2, 7}, {1, 1, 6}, {1, 3, 6}, {0, 2, 6}, {2, 2, 6}, {6, 2, 1}}) {
    EXPECT_EQ(vs_get_service_object_internal_v01(static_cast<uint32_t>(major), minor, library), nullptr);
  }
}

}  // namespace
